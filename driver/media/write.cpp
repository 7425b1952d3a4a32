// IRP_MJ_WRITE of the file-system device.
#include <nt.h>

#include "control/com_port.h"
#include "core/card_instance.h"
#include "core/driver_entry.h"
#include "fsd/ccb.h"
#include "fsd/common.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/irp_context.h"
#include "media/data_request.h"
#include "media/media_file.h"
#include "media/ram_files.h"

namespace {

// Whatever the file held before: what is written under the built-in type becomes a media file.
NTSTATUS PrepareMediaObject(DataRequest* Request) {
    FCB* fcb = Request->Fcb;
    if (!VrkFsIsMediaPath(Request) || (fcb->Flags & kFcbMediaObject) != 0) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = VrkFsRZVInitializeFileObjectForWrite(&fcb->MediaFileObject, fcb);
    if (NT_SUCCESS(status)) {
        fcb->Flags |= kFcbMediaObject;
    }
    return status;
}

NTSTATUS WriteCommandPort(DataRequest* Request) {
    ResourceGuard portLock;
    VrkFsLockCommandPort(Request, &portLock);
    return VrkFsComPortWrite(Request->Ccb->ComPort, Request->Buffer, static_cast<ULONG>(Request->Offset),
                             static_cast<ULONG>(Request->Offset >> 32), &Request->Count);
}

NTSTATUS TransferWrite(DataRequest* Request) {
    FCB* fcb = Request->Fcb;
    if (VrkFsIsCommandPort(Request)) {
        return WriteCommandPort(Request);
    }
    if (Request->Type.TypeCode == VRKFS_FILE_TYPE_BUILT_IN && (fcb->Flags & kFcbMediaObject) != 0) {
        return VrkFsRZVFileWrite(&fcb->MediaFileObject, Request->Buffer, Request->Offset, &Request->Count,
                                 &Request->Ccb->MediaCursor);
    }
    if ((fcb->Flags & kFcbRamFile) != 0) {
        return fcb->RamFile != nullptr
                   ? VrkFsVFWriteFile(fcb->RamFile, Request->Buffer, Request->Offset, &Request->Count,
                                      VrkFsGlobPreferencesOf(Request->Card).RAMFileMaxSize)
                   : STATUS_FILE_DELETED;
    }
    // The file itself under another type has no data path; only its frame files have.
    if (fcb->Level != kLevelFrame) {
        return STATUS_ACCESS_DENIED;
    }
    return VrkFsMoveThroughService(Request, ServiceDirection::Write);
}

NTSTATUS PerformWrite(IRPContext* Context, DataRequest* Request) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Context->Irp);
    NTSTATUS status =
        VrkFsBeginDataRequest(Context, stack->Parameters.Write.Length, stack->Parameters.Write.ByteOffset, Request);
    if (!NT_SUCCESS(status) || Request->Length == 0) {
        return status;
    }
    // A posted request may come after the handle's cleanup, which has settled the file: what is written now would never
    // get into its record.
    if ((Request->Ccb->Flags & kCcbCleanedUp) != 0) {
        return STATUS_FILE_CLOSED;
    }
    status = PrepareMediaObject(Request);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    Request->Count = Request->Length;
    status = VrkFsMapDataRequest(Request);
    if (NT_SUCCESS(status)) {
        status = TransferWrite(Request);
    }
    if (NT_SUCCESS(status)) {
        VrkFsFinishDataRequest(Request);
    }
    return status;
}

}  // namespace

NTSTATUS VrkFsCommonWrite(IRPContext* Context) {
    if (VrkFsIRPContextMustPost(Context)) {
        return VrkFsPostDataRequest(Context);
    }
    DataRequest request = {};
    const NTSTATUS status = PerformWrite(Context, &request);
    return VrkFsCompleteRequest(Context, status, NT_SUCCESS(status) ? request.Count : 0);
}

NTSTATUS NTAPI VrkFsWrite(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return VrkFsEnterRequest(DeviceObject, Irp, VrkFsCommonWrite);
}
