// Close: the file object itself goes away, and with it whatever only it kept in memory. Close cannot fail.
#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/driver_entry.h"
#include "core/global_data.h"
#include "core/guards.h"
#include "fsd/ccb.h"
#include "fsd/common.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/irp_context.h"
#include "fsd/vcb.h"
#include "media/handle_context.h"
#include "volume/hw_volume.h"

namespace {

// A control handle that still holds the file-system lock gives it back. Whether or not the volumes could be found
// again, nobody is left who could unlock: they can be found by locking and unlocking once more.
VOID GiveBackFileSystemLock(CardInstance* Card, PFILE_OBJECT FileObject) {
    VCB* vcb = &VrkFsDiskExtOfDevice(Card->DiskDevice)->Vcb;
    ResourceGuard volume;
    volume.Exclusive(&vcb->Resource);
    if (!VrkFsVCBIsVolumeLocked(vcb, FileObject)) {
        return;
    }
    if (VrkFsVCBIsVolumeCacheFlushed(vcb)) {
        static_cast<void>(VrkFsHwRebuildVolumeCache(&Card->Hw, vcb));
    }
    static_cast<void>(VrkFsVCBUnlockVolume(vcb));
}

NTSTATUS CloseControlHandle(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    CriticalRegionGuard region;
    CardInstance* card = VrkFsCardOfDevice(DeviceObject);
    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    GiveBackFileSystemLock(card, fileObject);
    VrkFsHCBodyTableFlushSync(VrkFsHCGetContext(fileObject), &card->BodyTableCache);
    VrkFsHCFreeContext(fileObject);
    return VrkFsAnswerRequest(Irp, STATUS_SUCCESS);
}

// What the user-mode service is told once every lock is released; Close is null for nothing.
struct ServiceNotice {
    ServiceHandle Handle;
    ServiceClose* Close;
};

// The last close of the path takes the service's handle out of the FCB.
ServiceNotice TakeServiceHandle(FCB* Fcb) {
    ResourceGuard fcb;
    fcb.Exclusive(Fcb->Resource);
    const ServiceNotice notice = {Fcb->ServiceHandle, Fcb->ServiceClose};
    Fcb->ServiceHandle = {};
    Fcb->ServiceClose = nullptr;
    return notice;
}

ServiceNotice CloseFcbOpen(VCB* Vcb, FCB* Fcb, PFILE_OBJECT FileObject, HwContext* Hw) {
    Fcb->ReferenceCount--;
    Vcb->FileOpenCount--;
    if (VrkFsIsReadOnlyOpen(FileObject)) {
        Vcb->ReadOnlyOpenCount--;
    }
    if (Fcb->ReferenceCount != 0 || (Fcb->Flags & kFcbRoot) != 0) {
        return {};
    }
    const ServiceNotice notice = TakeServiceHandle(Fcb);
    VrkFsFCBRemove(Fcb, Hw);
    return notice;
}

}  // namespace

NTSTATUS NTAPI VrkFsClose(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    if (VrkFsExtTypeOfDevice(DeviceObject) == kExtTypeControl) {
        return CloseControlHandle(DeviceObject, Irp);
    }
    return VrkFsEnterEndingRequest(DeviceObject, Irp, VrkFsCommonClose);
}

NTSTATUS VrkFsCommonClose(IRPContext* Context) {
    if (VrkFsIRPContextMustPost(Context)) {
        return VrkFsIRPContextPost(Context);
    }
    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(Context->Irp)->FileObject;
    DiskDeviceExt* ext = VrkFsDiskExtOfDevice(Context->DeviceObject);
    VCB* vcb = nullptr;
    PVOID fcbOrVcb = nullptr;
    CCB* ccb = nullptr;
    const VrkFsRequestType type = VrkFsGetRequestType(fileObject, &vcb, &fcbOrVcb, &ccb);
    if (type == kVrkFsForeignOpen) {
        return VrkFsCompleteRequest(Context, STATUS_SUCCESS, 0);
    }

    ServiceNotice notice = {};
    {
        ResourceGuard volume;
        volume.Exclusive(&vcb->Resource);
        // A cleanup that failed has left the handle open to change notifications.
        FsRtlNotifyCleanup(vcb->NotifySync, &vcb->NotifyList, ccb);
        fileObject->FsContext = nullptr;
        fileObject->FsContext2 = nullptr;
        VrkFsCCBFree(&pVrkFsGlobalData->CcbLookaside, ccb);
        if (type == kVrkFsVolumeOpen) {
            vcb->VolumeOpenCount--;
        } else {
            notice = CloseFcbOpen(vcb, static_cast<FCB*>(fcbOrVcb), fileObject, &ext->Instance->Hw);
        }
        static_cast<void>(VrkFsCompleteRequest(Context, STATUS_SUCCESS, 0));
    }
    if (notice.Close != nullptr) {
        VrkFsSReqSendClose(notice.Close, notice.Handle);
    }
    return STATUS_SUCCESS;
}
