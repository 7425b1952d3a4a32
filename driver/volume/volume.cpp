#include <algorithm>

#include "core/strings.h"
#include "storage/hw_context.h"
#include "volume/hw_volume.h"

namespace {

HwVolume* VolumeOf(PLIST_ENTRY Link) {
    return CONTAINING_RECORD(Link, HwVolume, Link);
}

bool IsNamed(const HwVolume* Volume, PCUNICODE_STRING Name) {
    const UNICODE_STRING own = VrkFsHwVolumeName(Volume);
    return RtlEqualUnicodeString(&own, Name, TRUE);
}

bool IsVisible(const HwVolume* Volume) {
    return (Volume->Flags & kVolumeHidden) == 0;
}

// Listed devices beyond the bus belong to nothing.
bool UsesDeviceOf(const HwContext* Hw, const VolumeInfoRecord* Request, const HwVolume* Volume) {
    const ULONG count = std::min<ULONG>(Request->DeviceCount, kMaxVolumeDevices);
    for (ULONG i = 0; i < count; ++i) {
        if (Request->Devices[i] < kScsiIdCount && Hw->Devices[Request->Devices[i]].Volume == Volume) {
            return true;
        }
    }
    return false;
}

bool HasDevices(const HwVolume* Volume) {
    for (const ULONG id : Volume->Devices) {
        if (id != kNoDevice) {
            return true;
        }
    }
    return false;
}

}  // namespace

UNICODE_STRING VrkFsHwVolumeName(const HwVolume* Volume) {
    return VrkFsRtlBoundedString(Volume->Name, kRecordNameChars);
}

BOOLEAN VrkFsHwIsDataAreaRange(const HwVolume* Volume, ULONG Start, ULONG Count) {
    return Count != 0 && Start >= kFirstDataLba && Start <= Volume->LastDataLba &&
           Count - 1 <= Volume->LastDataLba - Start;
}

VOID VrkFsHwRemoveDeviceFromVolume(HwContext* Hw, HwVolume* Volume, VCB* Vcb, ULONG ScsiId) {
    for (ULONG& id : Volume->Devices) {
        if (id == ScsiId) {
            id = kNoDevice;
            Hw->Devices[ScsiId].Volume = nullptr;
        }
    }
    Volume->Flags |= kVolumeIncomplete;
    if ((Volume->InitFlags & kVolumeInitRemovalReported) == 0) {
        Volume->InitFlags |= kVolumeInitRemovalReported;
        const UNICODE_STRING name = VrkFsHwVolumeName(Volume);
        VrkFsHwVolumeChangeNotify(Hw, &name, Vcb, FILE_NOTIFY_CHANGE_DIR_NAME, FILE_ACTION_REMOVED);
    }
    if (!HasDevices(Volume)) {
        RemoveEntryList(&Volume->Link);
        VrkFsHwFreeVolume(Volume);
    }
}

BOOLEAN VrkFsHwCheckVolumeNameConflict(HwContext* Hw, const VolumeInfoRecord* Request) {
    const UNICODE_STRING name = VrkFsRtlBoundedString(Request->Name, kRecordNameChars);
    for (PLIST_ENTRY link = Hw->Volumes.Flink; link != &Hw->Volumes; link = link->Flink) {
        const HwVolume* const volume = VolumeOf(link);
        if ((volume->Flags & kVolumeIncomplete) == 0 && IsNamed(volume, &name) && !UsesDeviceOf(Hw, Request, volume)) {
            return TRUE;
        }
    }
    return FALSE;
}

VOID VrkFsHwMarkVolumeNameConflict(HwContext* Hw, HwVolume* Volume) {
    if ((Volume->Flags & kVolumeIncomplete) != 0) {
        return;
    }
    const UNICODE_STRING name = VrkFsHwVolumeName(Volume);
    for (PLIST_ENTRY link = Hw->Volumes.Flink; link != &Hw->Volumes; link = link->Flink) {
        if (VolumeOf(link) != Volume && IsNamed(VolumeOf(link), &name)) {
            Volume->Flags |= kVolumeNameConflict;
            return;
        }
    }
}

VOID VrkFsHwResolveVolumeNameConflicts(HwContext* Hw, VCB* Vcb, PCUNICODE_STRING FreedName) {
    for (PLIST_ENTRY link = Hw->Volumes.Flink; link != &Hw->Volumes; link = link->Flink) {
        HwVolume* const volume = VolumeOf(link);
        if ((volume->Flags & kVolumeHidden) == kVolumeNameConflict && IsNamed(volume, FreedName)) {
            volume->Flags &= ~kVolumeNameConflict;
            const UNICODE_STRING name = VrkFsHwVolumeName(volume);
            VrkFsHwVolumeChangeNotify(Hw, &name, Vcb, FILE_NOTIFY_CHANGE_DIR_NAME, FILE_ACTION_ADDED);
            return;
        }
    }
}

BOOLEAN VrkFsHwOpenVolume(HwContext* Hw, PCUNICODE_STRING Name, HwVolume** Volume) {
    *Volume = nullptr;
    for (PLIST_ENTRY link = Hw->Volumes.Flink; link != &Hw->Volumes; link = link->Flink) {
        HwVolume* const volume = VolumeOf(link);
        if (IsVisible(volume) && IsNamed(volume, Name)) {
            ++volume->OpenCount;
            *Volume = volume;
            return TRUE;
        }
    }
    return FALSE;
}

VOID VrkFsHwCloseVolume(HwContext* /*Hw*/, HwVolume* Volume) {
    --Volume->OpenCount;
}

VOID VrkFsHwGetLatestVolumeTime(HwContext* Hw, PLONGLONG Time) {
    bool found = false;
    LONGLONG latest = 0;
    for (PLIST_ENTRY link = Hw->Volumes.Flink; link != &Hw->Volumes; link = link->Flink) {
        const HwVolume* const volume = VolumeOf(link);
        if (!IsVisible(volume)) {
            continue;
        }
        const LONGLONG time = static_cast<LONGLONG>(Hw->Devices[volume->Devices[0]].VolumeEntry.CreationTime);
        latest = found ? std::max(latest, time) : time;
        found = true;
    }
    if (found) {
        *Time = latest;
    }
}

VOID VrkFsHwGetVolumeSpaceInfo(HwVolume* Volume, PULONGLONG Total, PULONGLONG Free) {
    *Total = 0;
    *Free = 0;
    if (IsVisible(Volume)) {
        *Total = VrkFsVolAllocGetTotalBlocks(&Volume->Allocator) * Volume->DeviceCount;
        *Free = VrkFsVolAllocGetFreeBlocks(&Volume->Allocator) * Volume->DeviceCount;
    }
}

VOID VrkFsHwGetTotalVolumeSpaceInfo(HwContext* Hw, PULONGLONG Total, PULONGLONG Free) {
    *Total = 0;
    *Free = 0;
    for (PLIST_ENTRY link = Hw->Volumes.Flink; link != &Hw->Volumes; link = link->Flink) {
        ULONGLONG total;
        ULONGLONG free;
        VrkFsHwGetVolumeSpaceInfo(VolumeOf(link), &total, &free);
        *Total += total;
        *Free += free;
    }
}
