#include <algorithm>

#include "core/pool.h"
#include "core/strings.h"
#include "storage/hw_context.h"
#include "volume/entries.h"
#include "volume/hw_volume.h"

// Turning the volume entries that the bus scan read into volumes. Everything in an entry is a stranger's word: a device
// joins a volume only at a position that exists, that the volume does not have yet, and with the same device count.

namespace {

bool IsCandidate(const HwContext* Hw, ULONG ScsiId, const bool* Taken) {
    return ScsiId != kScsiIdReserved && !Taken[ScsiId] && Hw->Devices[ScsiId].DeviceInfo.State == VRK_DEVICE_STATE_DISK;
}

bool DescribesVolume(const VolumeEntry* Entry) {
    return VrkFsHwCalcVolumeChecksum(Entry) == Entry->Checksum && Entry->DeviceCount >= 1 &&
           Entry->DeviceCount <= kMaxVolumeDevices && Entry->Position < Entry->DeviceCount;
}

bool IsSameNameIgnoringCase(const WCHAR* First, const WCHAR* Second) {
    const UNICODE_STRING first = VrkFsRtlBoundedString(First, kRecordNameChars);
    const UNICODE_STRING second = VrkFsRtlBoundedString(Second, kRecordNameChars);
    return RtlEqualUnicodeString(&first, &second, TRUE);
}

VOID JoinVolume(HwContext* Hw, HwVolume* Volume, ULONG ScsiId) {
    ScsiDevice* const device = &Hw->Devices[ScsiId];
    Volume->Devices[device->VolumeEntry.Position] = ScsiId;
    device->Volume = Volume;
}

bool BelongsTo(const HwVolume* Volume, const VolumeEntry* First, const VolumeEntry* Entry) {
    return DescribesVolume(Entry) && Entry->CreationTime == First->CreationTime &&
           Entry->DeviceCount == Volume->DeviceCount && Volume->Devices[Entry->Position] == kNoDevice &&
           IsSameNameIgnoringCase(Entry->Name, Volume->Name);
}

// Puts every later candidate that belongs to the volume of FirstId into it.
VOID GatherDevices(HwContext* Hw, HwVolume* Volume, ULONG FirstId, bool* Taken) {
    const VolumeEntry* const first = &Hw->Devices[FirstId].VolumeEntry;
    for (ULONG id = FirstId + 1; id < kScsiIdCount; ++id) {
        if (IsCandidate(Hw, id, Taken) && BelongsTo(Volume, first, &Hw->Devices[id].VolumeEntry)) {
            JoinVolume(Hw, Volume, id);
            Taken[id] = true;
        }
    }
}

// Whether every position has its device; *LastLba is the smallest of theirs.
bool IsComplete(const HwContext* Hw, const HwVolume* Volume, PULONG LastLba) {
    *LastLba = 0xFFFFFFFF;
    for (ULONG position = 0; position < Volume->DeviceCount; ++position) {
        const ULONG id = Volume->Devices[position];
        if (id >= kScsiIdCount) {
            return false;
        }
        *LastLba = std::min<ULONG>(*LastLba, Hw->Devices[id].DeviceInfo.LastLba);
    }
    return true;
}

NTSTATUS MountVolume(HwContext* Hw, HwVolume* Volume, ULONG LastLba) {
    NTSTATUS status = VrkFsHwBringUpVolume(Volume, LastLba);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ULONG folderCount;
    status = VrkFsHwConstructFolderBitmap(Hw, Volume, &folderCount);
    if (!NT_SUCCESS(status)) {
        VrkFsHwTearDownVolume(Volume);
        return status;
    }
    Volume->Flags &= ~kVolumeIncomplete;
    VrkFsHwMarkVolumeNameConflict(Hw, Volume);
    return STATUS_SUCCESS;
}

// Makes the volume that the device starts, with all its devices, and mounts it if it is complete.
NTSTATUS DiscoverVolume(HwContext* Hw, ULONG ScsiId, bool* Taken) {
    HwVolume* const volume = VrkFsHwAllocateVolume(Hw);
    if (volume == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const VolumeEntry* const entry = &Hw->Devices[ScsiId].VolumeEntry;
    volume->DeviceCount = entry->DeviceCount;
    volume->Flags = kVolumeIncomplete;
    RtlCopyMemory(volume->Name, entry->Name, sizeof(volume->Name));
    JoinVolume(Hw, volume, ScsiId);
    InsertTailList(&Hw->Volumes, &volume->Link);
    GatherDevices(Hw, volume, ScsiId, Taken);
    ULONG lastLba;
    if (!IsComplete(Hw, volume, &lastLba) || lastLba < kMinLastLba) {
        return STATUS_SUCCESS;
    }
    return MountVolume(Hw, volume, lastLba);
}

}  // namespace

NTSTATUS VrkFsHwInitializeVolumes(HwContext* Hw) {
    bool taken[kScsiIdCount] = {};
    for (ULONG id = 0; id < kScsiIdCount; ++id) {
        if (!IsCandidate(Hw, id, taken)) {
            continue;
        }
        taken[id] = true;
        if (!DescribesVolume(&Hw->Devices[id].VolumeEntry)) {
            continue;
        }
        const NTSTATUS status = DiscoverVolume(Hw, id, taken);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return STATUS_SUCCESS;
}

HwVolume* VrkFsHwAllocateVolume(HwContext* Hw) {
    HwVolume* const volume = static_cast<HwVolume*>(VrkFsAllocatePool(NonPagedPool, sizeof(HwVolume)));
    if (volume == nullptr) {
        return nullptr;
    }
    RtlZeroMemory(volume, sizeof(HwVolume));
    for (ULONG& device : volume->Devices) {
        device = kNoDevice;
    }
    volume->DeviceTable = Hw->Devices;
    return volume;
}

VOID VrkFsHwSetGeometry(HwVolume* Volume, ULONG LastLba) {
    Volume->LastDataLba = LastLba - kFolderAreaBlocks;
    Volume->FirstDirLba = Volume->LastDataLba + 1;
}

NTSTATUS VrkFsHwBringUpVolume(HwVolume* Volume, ULONG LastLba) {
    VrkFsHwSetGeometry(Volume, LastLba);
    VrkFsHwInitializeUnreadRecords(&Volume->Unread);
    Volume->InitFlags |= kVolumeInitUnread | kVolumeInitAllocator;
    NTSTATUS status = VrkFsVolAllocInitializeAllocObject(&Volume->Allocator, kFirstDataLba,
                                                         Volume->LastDataLba - (kFirstDataLba - 1));
    if (NT_SUCCESS(status)) {
        VrkFsVFInitHandler(&Volume->RamFiles);
        Volume->InitFlags |= kVolumeInitRamFiles;
        status = VrkFsVolCacheInitialize(&Volume->EntryCache);
    }
    if (!NT_SUCCESS(status)) {
        VrkFsHwTearDownVolume(Volume);
        return status;
    }
    Volume->InitFlags |= kVolumeInitEntryCache;
    return STATUS_SUCCESS;
}

VOID VrkFsHwTearDownVolume(HwVolume* Volume) {
    VrkFsHwFreeNameIndex(&Volume->Names);
    if ((Volume->InitFlags & kVolumeInitEntryCache) != 0) {
        VrkFsVolCacheFree(&Volume->EntryCache);
    }
    if ((Volume->InitFlags & kVolumeInitRamFiles) != 0) {
        VrkFsVFFreeHandler(&Volume->RamFiles);
    }
    if ((Volume->InitFlags & kVolumeInitAllocator) != 0) {
        VrkFsVolAllocFreeAllocObject(&Volume->Allocator);
    }
    if ((Volume->InitFlags & kVolumeInitUnread) != 0) {
        VrkFsHwFreeUnreadRecords(&Volume->Unread);
    }
    Volume->InitFlags &= kVolumeInitRemovalReported;
}

VOID VrkFsHwFreeVolume(HwVolume* Volume) {
    VrkFsHwTearDownVolume(Volume);
    for (ULONG id = 0; id < kScsiIdCount; ++id) {
        if (Volume->DeviceTable[id].Volume == Volume) {
            Volume->DeviceTable[id].Volume = nullptr;
        }
    }
    VrkFsFreePool(Volume);
}

VOID VrkFsHwFreeVolumes(HwContext* Hw) {
    while (!IsListEmpty(&Hw->Volumes)) {
        VrkFsHwFreeVolume(CONTAINING_RECORD(RemoveHeadList(&Hw->Volumes), HwVolume, Link));
    }
}
