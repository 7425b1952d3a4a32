#include "fsd/vcb.h"

#include "core/device_ext.h"
#include "core/guards.h"
#include "core/strings.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"

namespace {

constexpr WCHAR kInitialLabel[] = VRKFS_W("RZV_VFS");
static_assert(sizeof(kInitialLabel) - sizeof(WCHAR) == kVcbInitialLabelBytes);

// Nothing below the root is open, and neither is the root itself.
bool IsIdle(const VCB* Vcb) {
    const FCB* root = Vcb->RootFcb;
    return root == nullptr || (root->ReferenceCount == 0 && IsListEmpty(&root->Common->Children));
}

VOID FreeRoot(VCB* Vcb) {
    FCB* root = Vcb->RootFcb;
    if (root == nullptr) {
        return;
    }
    Vcb->RootFcb = nullptr;
    VrkFsFCBCommonFree(root->Common);
    VrkFsFCBFree(root);
}

NTSTATUS NameRoot(FCB* Fcb, FCBCommon* Common) {
    WCHAR backslash[] = VRKFS_W("\\");
    UNICODE_STRING name = {sizeof(WCHAR), sizeof(backslash), backslash};
    const NTSTATUS status = VrkFsRtlCopyUnicodeString(&Fcb->Name, &name);
    return NT_SUCCESS(status) ? VrkFsRtlCopyUnicodeString(&Common->Name, &name) : status;
}

NTSTATUS MakeRoot(VCB* Vcb) {
    FCB* fcb = nullptr;
    NTSTATUS status = VrkFsFCBAllocate(&fcb, Vcb, TRUE);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    FCBCommon* common = nullptr;
    status = VrkFsFCBCommonAllocate(&common, Vcb, TRUE);
    if (!NT_SUCCESS(status)) {
        VrkFsFCBFree(fcb);
        return status;
    }
    fcb->Common = common;
    fcb->Flags |= kFcbRoot;
    common->DeviceObject = Vcb->DeviceObject;
    common->ReferenceCount = 1;
    common->Flags |= kFcbCommonRoot;
    Vcb->RootFcb = fcb;
    status = NameRoot(fcb, common);
    if (!NT_SUCCESS(status)) {
        FreeRoot(Vcb);
    }
    return status;
}

NTSTATUS InitializeInOrder(VCB* Vcb) {
    VrkFsVCBInitializeVPB(Vcb, Vcb->DeviceObject);
    Vcb->Flags |= kVcbMounted;

    NTSTATUS status = ExInitializeResourceLite(&Vcb->Resource);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    Vcb->Flags |= kVcbResourceInitialised;

    status = MakeRoot(Vcb);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    Vcb->Flags |= kVcbRootMade;

    InitializeListHead(&Vcb->NotifyList);
    FsRtlNotifyInitializeSync(&Vcb->NotifySync);
    Vcb->Flags |= kVcbNotifyInitialised;

    IoRegisterFileSystem(Vcb->DeviceObject);
    Vcb->Flags |= kVcbRegistered;
    return STATUS_SUCCESS;
}

VOID Unregister(VCB* Vcb) {
    if ((Vcb->Flags & kVcbRegistered) != 0) {
        IoUnregisterFileSystem(Vcb->DeviceObject);
        Vcb->Flags &= ~kVcbRegistered;
    }
}

VOID Dismount(VCB* Vcb) {
    Unregister(Vcb);
    Vcb->Vpb.Flags &= static_cast<USHORT>(~VPB_MOUNTED);
    Vcb->Vpb.RealDevice = nullptr;
    Vcb->DeviceObject->Characteristics &= ~static_cast<ULONG>(FILE_DEVICE_IS_MOUNTED);
    Vcb->DeviceObject->Vpb = nullptr;
    Vcb->Vpb.DeviceObject = nullptr;
    Vcb->Flags &= ~kVcbMounted;
}

}  // namespace

NTSTATUS VrkFsVCBInitialize(VCB* Vcb, PDEVICE_OBJECT DeviceObject) {
    RtlZeroMemory(Vcb, sizeof(*Vcb));
    Vcb->NodeType = kVcbNodeType;
    Vcb->DeviceObject = DeviceObject;
    ExInitializeFastMutex(&Vcb->NameLock);
    const NTSTATUS status = InitializeInOrder(Vcb);
    if (!NT_SUCCESS(status)) {
        VrkFsVCBFree(Vcb);
    }
    return status;
}

VOID VrkFsVCBFree(VCB* Vcb) {
    Unregister(Vcb);
    if ((Vcb->Flags & kVcbNotifyInitialised) != 0) {
        FsRtlNotifyUninitializeSync(&Vcb->NotifySync);
        Vcb->Flags &= ~kVcbNotifyInitialised;
    }
    if ((Vcb->Flags & kVcbMounted) != 0) {
        static_cast<void>(VrkFsVCBDismountVolume(Vcb, TRUE));
    }
    if ((Vcb->Flags & kVcbRootMade) != 0) {
        FreeRoot(Vcb);
        Vcb->Flags &= ~kVcbRootMade;
    }
    if ((Vcb->Flags & kVcbResourceInitialised) != 0) {
        ExDeleteResourceLite(&Vcb->Resource);
        Vcb->Flags &= ~kVcbResourceInitialised;
    }
}

VOID VrkFsVCBInitializeVPB(VCB* Vcb, PDEVICE_OBJECT DeviceObject) {
    PVPB vpb = &Vcb->Vpb;
    vpb->Type = IO_TYPE_VPB;
    vpb->Size = sizeof(VPB);
    vpb->Flags = VPB_MOUNTED;
    vpb->VolumeLabelLength = kVcbInitialLabelBytes;
    vpb->DeviceObject = DeviceObject;
    vpb->RealDevice = DeviceObject;
    RtlCopyMemory(vpb->VolumeLabel, kInitialLabel, kVcbInitialLabelBytes);
    DeviceObject->Vpb = vpb;
    DeviceObject->Characteristics |= FILE_DEVICE_IS_MOUNTED;
}

NTSTATUS VrkFsVCBDismountVolume(VCB* Vcb, BOOLEAN Force) {
    CriticalRegionGuard region;
    ResourceGuard volume;
    if ((Vcb->Flags & kVcbResourceInitialised) != 0) {  // not yet there while a failed start is undone
        volume.Exclusive(&Vcb->Resource);
    }
    if (!Force && !IsIdle(Vcb)) {
        return STATUS_UNSUCCESSFUL;
    }
    Dismount(Vcb);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsVCBLockVolume(VCB* Vcb, PFILE_OBJECT FileObject) {
    if ((Vcb->Flags & kVcbLocked) != 0 || !IsIdle(Vcb)) {
        return STATUS_ACCESS_DENIED;
    }
    Vcb->Flags |= kVcbLocked;
    Vcb->LockingFileObject = FileObject;
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsVCBUnlockVolume(VCB* Vcb) {
    Vcb->Flags &= ~kVcbLocked;
    Vcb->LockingFileObject = nullptr;
    return STATUS_SUCCESS;
}

BOOLEAN VrkFsVCBIsVolumeLocked(const VCB* Vcb, PFILE_OBJECT FileObject) {
    return (Vcb->Flags & kVcbLocked) != 0 && Vcb->LockingFileObject == FileObject;
}

BOOLEAN VrkFsVCBIsVolumeCacheFlushed(const VCB* Vcb) {
    return (Vcb->Flags & kVcbVolumesFlushed) != 0;
}
