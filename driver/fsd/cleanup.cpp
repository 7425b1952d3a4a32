// Cleanup: the last handle of a file object is gone. Nobody can be told of a failure, and no step needs memory.
#include "core/device_ext.h"
#include "core/driver_entry.h"
#include "core/guards.h"
#include "fsd/ccb.h"
#include "fsd/common.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/irp_context.h"
#include "fsd/name_tree.h"
#include "fsd/settle.h"
#include "fsd/vcb.h"

namespace {

// What the user-mode service is told about once every lock is released, when the FCB may be gone.
struct ServiceNotice {
    ServiceHandle Handle;
    ULONG TypeCode;
    ULONG FrameIndex;
};

ServiceNotice NoticeOf(FCB* Fcb) {
    if (!VrkFsFCBIsFrame(Fcb)) {
        return {};
    }
    ResourceGuard fcb;
    fcb.Shared(Fcb->Resource);
    return {Fcb->ServiceHandle, VrkFsFCBTypeCode(Fcb), Fcb->EntryIndex};
}

// The last handle of the path: a delete that was asked for happens now.
NTSTATUS ActOnDelete(FCB* Fcb) {
    if ((Fcb->Flags & kFcbDeletePending) == 0) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = VrkFsFCBDeleteEntry(Fcb);
    if (NT_SUCCESS(status)) {
        VrkFsFCBSplayRemove(Fcb);
    }
    return status;
}

NTSTATUS CleanupVolumeOpen(VCB* Vcb, PFILE_OBJECT FileObject) {
    IoRemoveShareAccess(FileObject, &Vcb->ShareAccess);
    FileObject->Flags |= FO_CLEANUP_COMPLETE;
    return STATUS_SUCCESS;
}

NTSTATUS CleanupFcbOpen(FCB* Fcb, VrkFsRequestType Type, PFILE_OBJECT FileObject, ServiceNotice* Notice) {
    IoRemoveShareAccess(FileObject, &Fcb->ShareAccess);
    Fcb->HandleCount--;
    if (Fcb->Level == Fcb->Common->Level) {
        Fcb->Common->HandleCount--;
    }
    NTSTATUS status = STATUS_SUCCESS;
    if (Fcb->HandleCount == 0) {
        *Notice = NoticeOf(Fcb);
        status = ActOnDelete(Fcb);
        // The FCB lives until the file objects are closed and may be opened again before: who does that finds what the
        // disk holds, and records anew, instead of going on in the image that this handle has written.
        VrkFsFCBDropMediaObject(Fcb);
    }
    // A reader settles nothing: what a recorder that gave up beside it has reserved waits for the next writer.
    if (NT_SUCCESS(status) && !VrkFsIsReadOnlyOpen(FileObject)) {
        status = VrkFsSettleFile(Fcb, Type == kVrkFsFileOpen);
    }
    if (NT_SUCCESS(status)) {
        FileObject->Flags |= FO_CLEANUP_COMPLETE;
    }
    return status;
}

}  // namespace

NTSTATUS NTAPI VrkFsCleanup(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    if (VrkFsExtTypeOfDevice(DeviceObject) == kExtTypeControl) {
        CriticalRegionGuard region;
        return VrkFsAnswerRequest(Irp, STATUS_SUCCESS);
    }
    return VrkFsEnterEndingRequest(DeviceObject, Irp, VrkFsCommonCleanup);
}

NTSTATUS VrkFsCommonCleanup(IRPContext* Context) {
    if (VrkFsIRPContextMustPost(Context)) {
        return VrkFsIRPContextPost(Context);
    }
    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(Context->Irp)->FileObject;
    ServiceChannel* channel = &VrkFsDiskExtOfDevice(Context->DeviceObject)->ServiceChannel;
    VCB* vcb = nullptr;
    PVOID fcbOrVcb = nullptr;
    CCB* ccb = nullptr;
    const VrkFsRequestType type = VrkFsGetRequestType(fileObject, &vcb, &fcbOrVcb, &ccb);
    if (type == kVrkFsForeignOpen) {
        return VrkFsCompleteRequest(Context, STATUS_SUCCESS, 0);
    }

    NTSTATUS status;
    ServiceNotice notice = {};
    {
        ResourceGuard volume;
        volume.Exclusive(&vcb->Resource);
        ResourceGuard common;
        if (type == kVrkFsVolumeOpen) {
            status = CleanupVolumeOpen(vcb, fileObject);
        } else {
            FCB* fcb = static_cast<FCB*>(fcbOrVcb);
            common.Exclusive(fcb->Common->Resource);
            FsRtlNotifyCleanup(vcb->NotifySync, &vcb->NotifyList, ccb);
            ccb->Flags |= kCcbCleanedUp;
            status = CleanupFcbOpen(fcb, type, fileObject, &notice);
        }
        static_cast<void>(VrkFsCompleteRequest(Context, status, 0));
    }
    if (notice.Handle.Value != 0) {
        static_cast<void>(VrkFsSReqClean(channel, notice.Handle, notice.TypeCode, notice.FrameIndex));
    }
    return status;
}
