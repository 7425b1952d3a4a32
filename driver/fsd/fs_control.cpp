#include "core/driver_entry.h"
#include "fsd/common.h"
#include "fsd/irp_context.h"
#include "fsd/vcb.h"

NTSTATUS NTAPI VrkFsFileSystemCtrl(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return VrkFsEnterRequest(DeviceObject, Irp, VrkFsCommonFileSystemCtrl);
}

NTSTATUS VrkFsCommonFileSystemCtrl(IRPContext* Context) {
    if (VrkFsIRPContextMustPost(Context)) {
        return VrkFsIRPContextPost(Context);
    }
    switch (Context->MinorFunction) {
        case IRP_MN_USER_FS_REQUEST:
            return VrkFsCompleteRequest(Context, VrkFsUserFsRequest(Context), 0);
        case IRP_MN_MOUNT_VOLUME:  // the driver has mounted the only device that it serves
            return VrkFsCompleteRequest(Context, STATUS_UNRECOGNIZED_VOLUME, 0);
        default:
            return VrkFsCompleteRequest(Context, STATUS_INVALID_DEVICE_REQUEST, 0);
    }
}

// Accepted without effect: no oplock is ever granted, so none has to be broken. Locking and dismounting are refused
// here; they are requests of the control device.
NTSTATUS VrkFsUserFsRequest(IRPContext* Context) {
    switch (IoGetCurrentIrpStackLocation(Context->Irp)->Parameters.FileSystemControl.FsControlCode) {
        case FSCTL_REQUEST_OPLOCK_LEVEL_1:
        case FSCTL_REQUEST_OPLOCK_LEVEL_2:
        case FSCTL_REQUEST_BATCH_OPLOCK:
        case FSCTL_OPLOCK_BREAK_ACKNOWLEDGE:
        case FSCTL_OPBATCH_ACK_CLOSE_PENDING:
        case FSCTL_OPLOCK_BREAK_NOTIFY:
        case FSCTL_IS_VOLUME_MOUNTED:
        case FSCTL_OPLOCK_BREAK_ACK_NO_2:
            return STATUS_SUCCESS;
        default:
            return STATUS_INVALID_DEVICE_REQUEST;
    }
}
