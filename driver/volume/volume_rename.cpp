#include "core/guards.h"
#include "core/strings.h"
#include "storage/hw_context.h"
#include "volume/entries.h"
#include "volume/hw_volume.h"

namespace {

// Gives one device's volume entry a name, by way of the scratch buffer, whose lock is held. NewField is a whole name
// field.
NTSTATUS WriteDeviceName(HwContext* Hw, ULONG ScsiId, const WCHAR* NewField) {
    VolumeEntry* const entry = reinterpret_cast<VolumeEntry*>(Hw->ScratchBuffer);
    NTSTATUS status = VrkFsHwSCSIRead(Hw, ScsiId, kVolumeEntryLba, kVolumeEntryBlocks, entry, 0);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (VrkFsHwCalcVolumeChecksum(entry) != entry->Checksum) {
        // Torn or gone bad since the scan: a new checksum must not make it look sound.
        RtlCopyMemory(entry, &Hw->Devices[ScsiId].VolumeEntry, sizeof(VolumeEntry));
    }
    RtlCopyMemory(entry->Name, NewField, sizeof(entry->Name));
    entry->Checksum = VrkFsHwCalcVolumeChecksum(entry);
    status = VrkFsHwSCSIWriteEx(Hw, ScsiId, kVolumeEntryLba, kVolumeEntryBlocks, entry, 0, kHwRecordVolumeEntry);
    if (NT_SUCCESS(status)) {
        RtlCopyMemory(&Hw->Devices[ScsiId].VolumeEntry, entry, sizeof(VolumeEntry));
    }
    return status;
}

// Devices of one volume under two names would be two incomplete volumes at the next mount: after a failure those that
// have the new name already get the old one back, the failed one included, as far as they can be written.
NTSTATUS WriteNameToAll(HwContext* Hw, const HwVolume* Volume, const WCHAR* NewField) {
    const EventLockGuard scratch(&Hw->ScratchLock);
    for (ULONG position = 0; position < Volume->DeviceCount; ++position) {
        const NTSTATUS status = WriteDeviceName(Hw, Volume->Devices[position], NewField);
        if (NT_SUCCESS(status)) {
            continue;
        }
        for (ULONG written = 0; written <= position; ++written) {
            static_cast<void>(WriteDeviceName(Hw, Volume->Devices[written], Volume->Name));
        }
        return status;
    }
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS VrkFsHwRenameVolume(HwContext* Hw, VCB* Vcb, HwVolume* Volume, PCUNICODE_STRING NewName) {
    if ((Volume->Flags & kVolumeIncomplete) != 0) {
        return STATUS_UNSUCCESSFUL;
    }
    const UNICODE_STRING oldName = VrkFsHwVolumeName(Volume);
    VrkFsHwVolumeChangeNotify(Hw, &oldName, Vcb, FILE_NOTIFY_CHANGE_DIR_NAME, FILE_ACTION_RENAMED_OLD_NAME);
    WCHAR newField[kRecordNameChars];
    VrkFsHwSetRecordName(newField, NewName);
    const NTSTATUS status = WriteNameToAll(Hw, Volume, newField);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    RtlCopyMemory(Volume->Name, newField, sizeof(Volume->Name));
    const UNICODE_STRING name = VrkFsHwVolumeName(Volume);
    VrkFsHwVolumeChangeNotify(Hw, &name, Vcb, FILE_NOTIFY_CHANGE_DIR_NAME, FILE_ACTION_RENAMED_NEW_NAME);
    return STATUS_SUCCESS;
}
