#include <algorithm>

#include "control/ioctl.h"
#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/guards.h"
#include "fsd/irp_context.h"
#include "volume/format.h"
#include "volume/hw_volume.h"

namespace {

VCB* VcbOfDevice(PDEVICE_OBJECT DeviceObject) {
    return &VrkFsDiskExtOfDevice(VrkFsCardOfDevice(DeviceObject)->DiskDevice)->Vcb;
}

}  // namespace

NTSTATUS VrkFsIoctlDismountVolume(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    VCB* vcb = VcbOfDevice(DeviceObject);
    const NTSTATUS status =
        VrkFsVCBDismountVolume(vcb, VrkFsIoctlSystemBuffer<const VrkFsDismountRequest>(Irp)->Force != 0);
    if (NT_SUCCESS(status)) {
        ResourceGuard lock;
        lock.Exclusive(&vcb->Resource);
        vcb->Flags &= ~kVcbMounted;
    }
    return status;
}

NTSTATUS VrkFsIoctlFormatVolume(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    CardInstance* card = VrkFsCardOfDevice(DeviceObject);
    VCB* vcb = &VrkFsDiskExtOfDevice(card->DiskDevice)->Vcb;
    ResourceGuard lock;
    lock.Exclusive(&vcb->Resource);
    // A table that is still to be written back would be written over the new volume.
    VrkFsBTFlushUnrefObjects(&card->BodyTableCache);

    LONG result = VRKFS_RESULT_DONE;
    NTSTATUS status =
        VrkFsHwFormatVolume(&card->Hw, vcb, VrkFsIoctlSystemBuffer<const VrkFsVolumeInfoRecord>(Irp), &result);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    *VrkFsIoctlSystemBuffer<LONG>(Irp) = result;
    Irp->IoStatus.Information = sizeof(result);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsIoctlQueryVolumeInfo(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    const ULONG outLength = IoGetCurrentIrpStackLocation(Irp)->Parameters.DeviceIoControl.OutputBufferLength;
    const ULONG capacity = (outLength - offsetof(VrkFsVolumeList, Volumes)) / sizeof(VrkFsVolumeInfoRecord);
    auto* list = VrkFsIoctlSystemBuffer<VrkFsVolumeList>(Irp);
    VrkFsVolumeInfoRecord* records = list->Volumes;

    CardInstance* card = VrkFsCardOfDevice(DeviceObject);
    ResourceGuard lock;
    lock.Shared(&VrkFsDiskExtOfDevice(card->DiskDevice)->Vcb.Resource);
    ULONG count = 0;
    ListIterator iterator;
    PLIST_ENTRY entry;
    VrkFsInitializeListIterator(&iterator, &card->Hw.Volumes);
    while (VrkFsIterateList(&iterator, &entry)) {
        const HwVolume* volume = CONTAINING_RECORD(entry, HwVolume, Link);
        if (count < capacity) {
            RtlCopyMemory(&records[count], volume, sizeof(VrkFsVolumeInfoRecord));
        }
        ++count;
    }
    lock.Release();

    // The whole capacity goes back to the caller, who must not see what else the buffer held.
    const ULONG filled = std::min<ULONG>(count, capacity);
    RtlZeroMemory(records + filled, (capacity - filled) * sizeof(VrkFsVolumeInfoRecord));
    list->Count = count;
    Irp->IoStatus.Information = offsetof(VrkFsVolumeList, Volumes) + capacity * sizeof(VrkFsVolumeInfoRecord);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsIoctlLockFileSystem(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    const bool drop = VrkFsIoctlSystemBuffer<const VrkFsLockRequest>(Irp)->Drop != 0;
    CardInstance* card = VrkFsCardOfDevice(DeviceObject);
    VCB* vcb = VcbOfDevice(DeviceObject);
    ResourceGuard lock;
    lock.Exclusive(&vcb->Resource);
    VrkFsBTFlushUnrefObjects(&card->BodyTableCache);
    NTSTATUS status = VrkFsVCBLockVolume(vcb, IoGetCurrentIrpStackLocation(Irp)->FileObject);
    if (NT_SUCCESS(status) && drop) {
        status = VrkFsHwFlushVolumeCache(&card->Hw, vcb);
        if (!NT_SUCCESS(status)) {
            VrkFsVCBUnlockVolume(vcb);
        }
    }
    return status;
}

NTSTATUS VrkFsIoctlUnlockFileSystem(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    CardInstance* card = VrkFsCardOfDevice(DeviceObject);
    VCB* vcb = VcbOfDevice(DeviceObject);
    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    ResourceGuard lock;
    lock.Exclusive(&vcb->Resource);
    if (fileObject == nullptr || !VrkFsVCBIsVolumeLocked(vcb, fileObject)) {
        return STATUS_UNSUCCESSFUL;
    }
    // Volumes that cannot be found again stay marked for it: the next lock's unlock tries once more.
    VrkFsVCBUnlockVolume(vcb);
    return VrkFsVCBIsVolumeCacheFlushed(vcb) ? VrkFsHwRebuildVolumeCache(&card->Hw, vcb) : STATUS_SUCCESS;
}
