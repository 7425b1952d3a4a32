#include "core/event_log.h"
#include "core/global_data.h"
#include "core/guards.h"
#include "core/strings.h"
#include "storage/hw_context.h"
#include "volume/entries.h"
#include "volume/hw_volume.h"
#include "volume/record_io.h"

namespace {

UCHAR BitOf(ULONG Slot) {
    return static_cast<UCHAR>(1u << (Slot % 8));
}

// The lowest free slot; kMaxFolders if there is none.
ULONG FindFreeSlot(const HwVolume* Volume) {
    ULONG slot = 0;
    while (slot < kMaxFolders && VrkFsHwCheckBitmapEntry(Volume, slot)) {
        ++slot;
    }
    return slot;
}

VOID MakeFolder(DirEntry* Image, PCUNICODE_STRING Name) {
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    RtlZeroMemory(Image, sizeof(DirEntry));
    Image->Magic = kDirEntryMagic;
    Image->InUse = 1;
    Image->CreationTime = static_cast<ULONGLONG>(now.QuadPart);
    VrkFsHwSetRecordName(Image->Name, Name);
}

VOID NoteFolderName(HwVolume* Volume, ULONG Slot, const DirEntry* Image) {
    const UNICODE_STRING name = VrkFsRtlBoundedString(Image->Name, kRecordNameChars);
    VrkFsHwSetFolderHash(Volume, Slot, VrkFsHwHashName(&name));
}

// Writes a record whose earlier write failed back as it was, in case that write reached the disk after all or tore.
VOID WriteOldFolder(HwContext* Hw, HwVolume* Volume, ULONG Slot, DirEntry* Image) {
    static_cast<void>(VrkFsHwWriteFolderRecord(Hw, Volume, Slot, Image));
}

}  // namespace

VOID VrkFsHwSetBitmapEntry(HwVolume* Volume, ULONG Slot) {
    Volume->FolderBitmap[Slot / 8] |= BitOf(Slot);
}

VOID VrkFsHwClearBitmapEntry(HwVolume* Volume, ULONG Slot) {
    Volume->FolderBitmap[Slot / 8] &= static_cast<UCHAR>(~BitOf(Slot));
}

BOOLEAN VrkFsHwCheckBitmapEntry(const HwVolume* Volume, ULONG Slot) {
    return (Volume->FolderBitmap[Slot / 8] & BitOf(Slot)) != 0;
}

NTSTATUS VrkFsHwCreateDirEntry(HwContext* Hw, VCB* Vcb, HwVolume* Volume, PCUNICODE_STRING Name, DirEntry* Image,
                               PULONG Slot) {
    NTSTATUS status = VrkFsHwRetryUnreadRecords(Hw, Volume);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    VrkFsHwReclaimEmptyFolders(Volume);
    if (Volume->FolderCount >= kMaxFolders) {
        VrkFsGlobLogEvent(pVrkFsGlobalData->DriverObject, kVrkFsEventFile, 0, nullptr, 0, "Folder limit exceeded",
                          nullptr);
        return STATUS_ACCESS_DENIED;
    }
    const ULONG slot = FindFreeSlot(Volume);
    if (slot == kMaxFolders) {
        return STATUS_ACCESS_DENIED;
    }
    MakeFolder(Image, Name);
    VrkFsHwSetBitmapEntry(Volume, slot);
    ++Volume->FolderCount;
    VrkFsHwDropFileHashes(Volume, slot);
    status = VrkFsHwWriteFolderRecord(Hw, Volume, slot, Image);
    if (!NT_SUCCESS(status)) {
        VrkFsHwClearBitmapEntry(Volume, slot);
        --Volume->FolderCount;
        Image->InUse = 0;
        WriteOldFolder(Hw, Volume, slot, Image);
        return status;
    }
    NoteFolderName(Volume, slot, Image);
    *Slot = slot;
    const UNICODE_STRING name = VrkFsRtlBoundedString(Image->Name, kRecordNameChars);
    VrkFsHwFolderChangeNotify(Hw, Volume, &name, Vcb, FILE_NOTIFY_CHANGE_DIR_NAME, FILE_ACTION_ADDED);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsHwInvalidateDirEntry(HwContext* Hw, VCB* Vcb, HwVolume* Volume, DirEntry* Image, ULONG Slot) {
    if (Slot >= kMaxFolders || VrkFsHwIsSubstituteFolder(Image)) {
        return STATUS_UNSUCCESSFUL;
    }
    const ULONG inUse = Image->InUse;
    Image->InUse = 0;
    VrkFsHwClearBitmapEntry(Volume, Slot);
    --Volume->FolderCount;
    const NTSTATUS status = VrkFsHwWriteFolderRecord(Hw, Volume, Slot, Image);
    if (!NT_SUCCESS(status)) {
        // Still there: a free slot in memory would let a new folder be written over it.
        Image->InUse = inUse;
        VrkFsHwSetBitmapEntry(Volume, Slot);
        ++Volume->FolderCount;
        WriteOldFolder(Hw, Volume, Slot, Image);
        return status;
    }
    VrkFsHwForgetUnread(Volume, Slot, kUnreadFolder);
    VrkFsHwSetFolderHash(Volume, Slot, kNameHashEmpty);
    VrkFsHwDropFileHashes(Volume, Slot);
    const UNICODE_STRING name = VrkFsRtlBoundedString(Image->Name, kRecordNameChars);
    VrkFsHwFolderChangeNotify(Hw, Volume, &name, Vcb, FILE_NOTIFY_CHANGE_DIR_NAME, FILE_ACTION_REMOVED);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsHwReadDirEntry(HwContext* Hw, HwVolume* Volume, ULONG Slot, DirEntry* Image, PBOOLEAN Substituted) {
    if (Slot >= kMaxFolders) {
        return STATUS_UNSUCCESSFUL;
    }
    BOOLEAN substituted;
    const NTSTATUS status = VrkFsHwReadFolderRecord(Hw, Volume, Slot, Image, &substituted);
    if (Substituted != nullptr) {
        *Substituted = substituted;
    }
    return status;
}

NTSTATUS VrkFsHwGetNextDirEntry(HwContext* Hw, HwVolume* Volume, PULONG Slot, FoundEntry* Entry, PBOOLEAN Found,
                                PBOOLEAN Substituted) {
    *Found = FALSE;
    for (ULONG slot = *Slot; slot < kMaxFolders; ++slot) {
        if (!VrkFsHwCheckBitmapEntry(Volume, slot) || VrkFsHwIsNotedEmpty(Volume, slot)) {
            continue;
        }
        const EventLockGuard scratch(&Hw->ScratchLock);
        DirEntry* const image = reinterpret_cast<DirEntry*>(Hw->ScratchBuffer);
        BOOLEAN substituted;
        const NTSTATUS status = VrkFsHwReadFolderRecord(Hw, Volume, slot, image, &substituted);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        if (image->InUse == 0) {
            continue;
        }
        VrkFsHwFillFoundFolder(Entry, slot, image);
        *Slot = slot;
        *Found = TRUE;
        if (Substituted != nullptr) {
            *Substituted = substituted;
        }
        return STATUS_SUCCESS;
    }
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsHwRenameFolder(HwContext* Hw, VCB* Vcb, HwVolume* Volume, DirEntry* Image, ULONG Slot,
                             PCUNICODE_STRING NewName) {
    if (Slot >= kMaxFolders || VrkFsHwIsSubstituteFolder(Image)) {
        return STATUS_UNSUCCESSFUL;
    }
    WCHAR oldField[kRecordNameChars];
    RtlCopyMemory(oldField, Image->Name, sizeof(oldField));
    const UNICODE_STRING oldName = VrkFsRtlBoundedString(oldField, kRecordNameChars);
    VrkFsHwFolderChangeNotify(Hw, Volume, &oldName, Vcb, FILE_NOTIFY_CHANGE_DIR_NAME, FILE_ACTION_RENAMED_OLD_NAME);
    VrkFsHwSetFolderHash(Volume, Slot, kNameHashMustLook);
    VrkFsHwSetRecordName(Image->Name, NewName);
    const NTSTATUS status = VrkFsHwWriteFolderRecord(Hw, Volume, Slot, Image);
    if (NT_SUCCESS(status)) {
        NoteFolderName(Volume, Slot, Image);
        const UNICODE_STRING name = VrkFsRtlBoundedString(Image->Name, kRecordNameChars);
        VrkFsHwFolderChangeNotify(Hw, Volume, &name, Vcb, FILE_NOTIFY_CHANGE_DIR_NAME, FILE_ACTION_RENAMED_NEW_NAME);
    } else {
        RtlCopyMemory(Image->Name, oldField, sizeof(oldField));
        WriteOldFolder(Hw, Volume, Slot, Image);
    }
    return status;
}

NTSTATUS VrkFsHwInvalidateFolders(HwContext* Hw, HwVolume* Volume) {
    const EventLockGuard scratch(&Hw->ScratchLock);
    RtlZeroMemory(Hw->ScratchBuffer, sizeof(DirEntry));
    for (ULONG slot = 0; slot < kMaxFolders; ++slot) {
        const NTSTATUS status = VrkFsHwSCSIWrite(Hw, Volume->Devices[0], VrkFsHwFolderLba(Volume, slot),
                                                 kDirEntryBlocks, Hw->ScratchBuffer, 0);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return STATUS_SUCCESS;
}
