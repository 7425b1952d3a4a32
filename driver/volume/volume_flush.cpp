#include "fsd/vcb.h"
#include "storage/hw_context.h"
#include "volume/hw_volume.h"

namespace {

// Takes every device out of the volume, and so frees it.
VOID ForgetVolume(HwContext* Hw, HwVolume* Volume, VCB* Vcb) {
    ULONG devices[kMaxVolumeDevices];
    RtlCopyMemory(devices, Volume->Devices, sizeof(devices));
    for (const ULONG id : devices) {
        if (id != kNoDevice) {
            VrkFsHwRemoveDeviceFromVolume(Hw, Volume, Vcb, id);
        }
    }
}

}  // namespace

NTSTATUS VrkFsHwFlushVolumeCache(HwContext* Hw, VCB* Vcb) {
    for (PLIST_ENTRY link = Hw->Volumes.Flink; link != &Hw->Volumes;) {
        HwVolume* const volume = CONTAINING_RECORD(link, HwVolume, Link);
        link = link->Flink;
        ForgetVolume(Hw, volume, Vcb);
    }
    Vcb->Flags |= kVcbVolumesFlushed;
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsHwRebuildVolumeCache(HwContext* Hw, VCB* Vcb) {
    // An earlier rebuild may have failed half-way, or a format have made a volume in between: they are found again.
    VrkFsHwFreeVolumes(Hw);
    const NTSTATUS status = VrkFsHwSCSIScan(Hw);
    if (!NT_SUCCESS(status)) {
        // What the scan found before it failed may have disks or claims missing, and the lock ends all the same.
        VrkFsHwFreeVolumes(Hw);
        return status;
    }
    for (PLIST_ENTRY link = Hw->Volumes.Flink; link != &Hw->Volumes; link = link->Flink) {
        const UNICODE_STRING name = VrkFsHwVolumeName(CONTAINING_RECORD(link, HwVolume, Link));
        VrkFsHwVolumeChangeNotify(Hw, &name, Vcb, FILE_NOTIFY_CHANGE_DIR_NAME, FILE_ACTION_ADDED);
    }
    Vcb->Flags &= ~kVcbVolumesFlushed;
    return STATUS_SUCCESS;
}
