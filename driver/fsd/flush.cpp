#include "core/driver_entry.h"
#include "core/guards.h"
#include "fsd/irp_context.h"

// Every change reaches the disks when it is made: there is nothing to flush, on either device.
NTSTATUS NTAPI VrkFsFlushBuffers(PDEVICE_OBJECT, PIRP Irp) {
    CriticalRegionGuard region;
    return VrkFsAnswerRequest(Irp, STATUS_SUCCESS);
}
