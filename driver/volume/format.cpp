#include "volume/format.h"

#include <algorithm>

#include "core/strings.h"
#include "storage/hw_context.h"
#include "volume/entries.h"
#include "volume/hw_volume.h"

namespace {

bool IsDeviceCountValid(ULONG Count) {
    return Count == 1 || (Count != 0 && Count <= kMaxFormatDevices && Count % 2 == 0);
}

// A device that is there, may belong to a volume, has room for one and is not listed twice.
bool IsDeviceUsable(const HwContext* Hw, const VolumeInfoRecord* Request, ULONG Position) {
    const ULONG id = Request->Devices[Position];
    if (id >= kScsiIdCount || id == kScsiIdReserved) {
        return false;
    }
    for (ULONG earlier = 0; earlier < Position; ++earlier) {
        if (Request->Devices[earlier] == id) {
            return false;
        }
    }
    const ScsiDeviceInfo& device = Hw->Devices[id].DeviceInfo;
    return device.State == VRK_DEVICE_STATE_DISK && device.LastLba >= kMinLastLba;
}

LONG CheckRequest(HwContext* Hw, const VolumeInfoRecord* Request) {
    if (!IsDeviceCountValid(Request->DeviceCount)) {
        return VRKFS_FORMAT_BAD_DEVICE_COUNT;
    }
    for (ULONG position = 0; position < Request->DeviceCount; ++position) {
        if (!IsDeviceUsable(Hw, Request, position)) {
            return VRKFS_FORMAT_DEVICE_ABSENT;
        }
    }
    for (ULONG position = 0; position < Request->DeviceCount; ++position) {
        const HwVolume* const volume = Hw->Devices[Request->Devices[position]].Volume;
        if (volume != nullptr && volume->OpenCount != 0) {
            return VRKFS_FORMAT_DEVICE_IN_USE;
        }
    }
    const UNICODE_STRING name = VrkFsRtlBoundedString(Request->Name, kRecordNameChars);
    if (!VrkFsHwIsValidFilename(&name)) {
        return VRKFS_FORMAT_BAD_NAME;
    }
    return VrkFsHwCheckVolumeNameConflict(Hw, Request) ? VRKFS_FORMAT_NAME_TAKEN : VRKFS_RESULT_DONE;
}

VOID LeaveOldVolumes(HwContext* Hw, VCB* Vcb, const VolumeInfoRecord* Request) {
    for (ULONG position = 0; position < Request->DeviceCount; ++position) {
        const ULONG id = Request->Devices[position];
        if (Hw->Devices[id].Volume != nullptr) {
            VrkFsHwRemoveDeviceFromVolume(Hw, Hw->Devices[id].Volume, Vcb, id);
        }
    }
}

// Writes the new entry to every device, built in the device's own copy, which thereby is what the disk holds.
NTSTATUS WriteVolumeEntries(HwContext* Hw, const VolumeInfoRecord* Request) {
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    for (ULONG position = 0; position < Request->DeviceCount; ++position) {
        const ULONG id = Request->Devices[position];
        VolumeEntry* const entry = &Hw->Devices[id].VolumeEntry;
        RtlZeroMemory(entry, sizeof(VolumeEntry));
        entry->Magic = kVolumeEntryMagic;
        entry->Version = kVolumeEntryVersion;
        entry->CreationTime = static_cast<ULONGLONG>(now.QuadPart);
        entry->DeviceCount = Request->DeviceCount;
        entry->Position = position;
        RtlCopyMemory(entry->Name, Request->Name, sizeof(entry->Name));
        entry->Checksum = VrkFsHwCalcVolumeChecksum(entry);
        const NTSTATUS status =
            VrkFsHwSCSIWriteEx(Hw, id, kVolumeEntryLba, kVolumeEntryBlocks, entry, 0, kHwRecordVolumeEntry);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return STATUS_SUCCESS;
}

// Null: no memory.
HwVolume* MakeVolume(HwContext* Hw, const VolumeInfoRecord* Request, PULONG LastLba) {
    HwVolume* const volume = VrkFsHwAllocateVolume(Hw);
    if (volume == nullptr) {
        return nullptr;
    }
    RtlCopyMemory(volume->Name, Request->Name, sizeof(volume->Name));
    volume->DeviceCount = Request->DeviceCount;
    *LastLba = 0xFFFFFFFF;
    for (ULONG position = 0; position < Request->DeviceCount; ++position) {
        const ULONG id = Request->Devices[position];
        volume->Devices[position] = id;
        Hw->Devices[id].Volume = volume;
        *LastLba = std::min<ULONG>(*LastLba, Hw->Devices[id].DeviceInfo.LastLba);
    }
    VrkFsHwSetGeometry(volume, *LastLba);
    return volume;
}

}  // namespace

NTSTATUS VrkFsHwFormatVolume(HwContext* Hw, VCB* Vcb, const VrkFsVolumeInfoRecord* Request, PLONG Result) {
    const LONG refusal = CheckRequest(Hw, Request);
    if (refusal != VRKFS_RESULT_DONE) {
        *Result = refusal;
        return STATUS_SUCCESS;
    }
    LeaveOldVolumes(Hw, Vcb, Request);
    NTSTATUS status = WriteVolumeEntries(Hw, Request);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ULONG lastLba;
    HwVolume* const volume = MakeVolume(Hw, Request, &lastLba);
    if (volume == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    status = VrkFsHwInvalidateFolders(Hw, volume);
    if (NT_SUCCESS(status)) {
        status = VrkFsHwBringUpVolume(volume, lastLba);
    }
    if (!NT_SUCCESS(status)) {
        VrkFsHwFreeVolume(volume);
        return status;
    }
    InsertTailList(&Hw->Volumes, &volume->Link);
    const UNICODE_STRING name = VrkFsHwVolumeName(volume);
    VrkFsHwVolumeChangeNotify(Hw, &name, Vcb, FILE_NOTIFY_CHANGE_DIR_NAME, FILE_ACTION_ADDED);
    *Result = VRKFS_RESULT_DONE;
    return STATUS_SUCCESS;
}
