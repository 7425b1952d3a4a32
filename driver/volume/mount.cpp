#include "core/guards.h"
#include "core/pool.h"
#include "core/strings.h"
#include "storage/hw_context.h"
#include "volume/backup.h"
#include "volume/entries.h"
#include "volume/hw_volume.h"
#include "volume/record_io.h"

// Mounting: every folder is read, and every file's blocks are claimed in the allocator that starts with all of them
// free.
//
// What is on the disk is believed only as far as it agrees with the rest of the volume. Two records that claim one
// block are both listed, but none of the blocks in doubt is ever written through a record or given to anybody,
// whichever of the two is deleted: they are contested until a mount finds one claimant only. A range on the wrong side
// of the region boundary is no conflict; it is claimed where it lies.

namespace {

FileEntry* FileScratch(HwContext* Hw) {
    return reinterpret_cast<FileEntry*>(Hw->FileScratchBuffer);
}

NTSTATUS Contest(HwVolume* Volume, ULONG Start, ULONG Count) {
    const NTSTATUS status = VrkFsVolAllocContestSpace(&Volume->Allocator, Start, Count);
    return NT_SUCCESS(status) ? STATUS_UNSUCCESSFUL : status;
}

NTSTATUS ClaimUpper(HwVolume* Volume, ULONG Start, ULONG Count) {
    return VrkFsVolAllocAllocateSpecificUpperSpace(&Volume->Allocator, Start, Count);
}

NTSTATUS ClaimLower(HwVolume* Volume, ULONG Start, ULONG Count) {
    return VrkFsVolAllocAllocateSpecificLowerSpace(&Volume->Allocator, Start, Count);
}

// STATUS_UNSUCCESSFUL: the range is contested now.
NTSTATUS ClaimRange(HwVolume* Volume, ULONG Start, ULONG Count, bool IsData) {
    NTSTATUS status = IsData ? ClaimLower(Volume, Start, Count) : ClaimUpper(Volume, Start, Count);
    if (status == STATUS_UNSUCCESSFUL) {
        status = VrkFsVolAllocAllocateSpecificAnySpace(&Volume->Allocator, Start, Count);
    }
    return status == STATUS_UNSUCCESSFUL ? Contest(Volume, Start, Count) : status;
}

// A shortage of memory outweighs a conflict, a conflict outweighs success.
NTSTATUS WorseOf(NTSTATUS First, NTSTATUS Second) {
    if (NT_SUCCESS(First) || Second == STATUS_INSUFFICIENT_RESOURCES) {
        return Second;
    }
    return First;
}

// Claims what a record names. When the record itself is in doubt, so is everything that it names.
NTSTATUS ClaimContents(HwVolume* Volume, const FileEntry* Entry, bool RecordOwned) {
    const FileRanges ranges = VrkFsHwRangesOfFile(Entry);
    NTSTATUS status = STATUS_SUCCESS;
    for (ULONG i = 0; i < ranges.Count; ++i) {
        const FileRange& range = ranges.Range[i];
        const NTSTATUS claimed = RecordOwned
                                     ? ClaimRange(Volume, range.Start, range.Count, range.Kind == FileRangeKind::Data)
                                     : Contest(Volume, range.Start, range.Count);
        status = WorseOf(status, claimed);
    }
    return status;
}

VOID NoteFileName(HwVolume* Volume, ULONG FolderSlot, ULONG Slot, const FileEntry* Entry) {
    const UNICODE_STRING name = VrkFsRtlBoundedString(Entry->Name, kRecordNameChars);
    VrkFsHwSetFileHash(Volume, FolderSlot, Slot, VrkFsHwHashName(&name));
}

// Reads the record at Lba into the file scratch buffer, whose lock is held.
BOOLEAN ReadRecord(HwContext* Hw, HwVolume* Volume, ULONG Lba) {
    BOOLEAN substituted = FALSE;
    const NTSTATUS status = VrkFsHwSCSIReadEx(Hw, Volume->Devices[0], Lba, kFileEntryBlocks, Hw->FileScratchBuffer, 0,
                                              kHwRecordFileEntry, FALSE, &substituted);
    return NT_SUCCESS(status) && !substituted;
}

// Reads the folder slot into the scratch buffer, whose lock is held, and takes in what is there.
NTSTATUS MountSlot(HwContext* Hw, HwVolume* Volume, ULONG Slot, BackupDetails* Backup) {
    DirEntry* const folder = reinterpret_cast<DirEntry*>(Hw->ScratchBuffer);
    BOOLEAN substituted = FALSE;
    const NTSTATUS status = VrkFsHwSCSIReadEx(Hw, Volume->Devices[0], VrkFsHwFolderLba(Volume, Slot), kDirEntryBlocks,
                                              folder, 0, kHwRecordDirEntry, TRUE, &substituted);
    if (!NT_SUCCESS(status) || substituted) {
        VrkFsHwSetBitmapEntry(Volume, Slot);
        ++Volume->FolderCount;
        VrkFsHwSetFolderHash(Volume, Slot, kNameHashMustLook);
        return VrkFsHwNoteUnread(Volume, Slot, kUnreadFolder);
    }
    if (!VrkFsHwIsFolderInUse(folder)) {
        return STATUS_SUCCESS;
    }
    VrkFsHwSetBitmapEntry(Volume, Slot);
    ++Volume->FolderCount;
    return VrkFsHwTakeInFolder(Hw, Volume, Slot, folder, Backup);
}

// Null: there is no backup, or it is another volume's.
BackupDetails* LoadBackup(const HwVolume* Volume) {
    BackupDetails* const details = static_cast<BackupDetails*>(VrkFsAllocatePool(PagedPool, sizeof(BackupDetails)));
    if (details == nullptr) {
        return nullptr;
    }
    if (!VrkFsGetBTBackupFileDetails(details)) {
        VrkFsFreePool(details);
        return nullptr;
    }
    if (!VrkFsHwIsSameName(details->VolumeName, Volume->Name)) {
        VrkFsHwFreeBackupDetails(details);
        VrkFsFreePool(details);
        return nullptr;
    }
    return details;
}

}  // namespace

NTSTATUS VrkFsHwClaimFileSpace(HwContext* Hw, HwVolume* Volume, ULONG FolderSlot, const DirEntry* Folder, ULONG Slot,
                               BackupDetails* Backup) {
    const ULONG lba = Folder->FileTable[Slot];
    if (lba == 0) {
        return STATUS_UNSUCCESSFUL;
    }
    VrkFsHwSetFileHash(Volume, FolderSlot, Slot, kNameHashMustLook);
    if (!VrkFsHwIsDataAreaRange(Volume, lba, kFileEntryBlocks)) {
        return Contest(Volume, lba, kFileEntryBlocks);  // it may reach into the data area with one block
    }
    NTSTATUS status = ClaimRange(Volume, lba, kFileEntryBlocks, false);
    if (status == STATUS_INSUFFICIENT_RESOURCES) {
        return status;
    }
    const EventLockGuard scratch(&Hw->FileScratchLock);
    if (!ReadRecord(Hw, Volume, lba)) {
        return WorseOf(status, VrkFsHwNoteUnread(Volume, FolderSlot, Slot));
    }
    const FileEntry* const entry = FileScratch(Hw);
    VrkFsVolCacheFileEntryCache(&Volume->EntryCache, entry, lba);
    NoteFileName(Volume, FolderSlot, Slot, entry);
    status = WorseOf(status, ClaimContents(Volume, entry, NT_SUCCESS(status)));
    if (NT_SUCCESS(status) && Backup != nullptr) {
        VrkFsHwMatchBackup(Backup, entry);
    }
    return status;
}

NTSTATUS VrkFsHwClaimUnreadFile(HwContext* Hw, HwVolume* Volume, ULONG FolderSlot, ULONG Slot, ULONG Lba,
                                PBOOLEAN Claimed) {
    *Claimed = FALSE;
    const EventLockGuard scratch(&Hw->FileScratchLock);
    if (!VrkFsHwIsDataAreaRange(Volume, Lba, kFileEntryBlocks)) {
        return STATUS_SUCCESS;
    }
    // An ordinary read may have succeeded where the disk fails now.
    if (!VrkFsVolCacheFileEntrySearch(&Volume->EntryCache, Lba, FileScratch(Hw)) && !ReadRecord(Hw, Volume, Lba)) {
        return STATUS_SUCCESS;
    }
    const FileEntry* const entry = FileScratch(Hw);
    const bool owned = VrkFsVolAllocIsOwnedSpace(&Volume->Allocator, Lba, kFileEntryBlocks);
    const NTSTATUS status = ClaimContents(Volume, entry, owned);
    if (status == STATUS_INSUFFICIENT_RESOURCES) {
        return status;
    }
    VrkFsVolCacheFileEntryCache(&Volume->EntryCache, entry, Lba);
    NoteFileName(Volume, FolderSlot, Slot, entry);
    *Claimed = TRUE;
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsHwTakeInFolder(HwContext* Hw, HwVolume* Volume, ULONG FolderSlot, DirEntry* Folder,
                             BackupDetails* Backup) {
    VrkFsHwRecountFiles(Folder);
    VrkFsVolCacheFolderEntryCache(&Volume->EntryCache, Folder, VrkFsHwFolderLba(Volume, FolderSlot));
    const UNICODE_STRING name = VrkFsRtlBoundedString(Folder->Name, kRecordNameChars);
    VrkFsHwSetFolderHash(Volume, FolderSlot, VrkFsHwHashName(&name));
    if (Folder->FileCount == 0) {
        return STATUS_SUCCESS;
    }
    VrkFsHwMakeFileHashes(Volume, FolderSlot);
    const bool recovers = Backup != nullptr && VrkFsHwIsSameName(Backup->FolderName, Folder->Name);
    for (ULONG slot = 0; slot < kMaxFilesPerFolder; ++slot) {
        if (Folder->FileTable[slot] == 0) {
            continue;
        }
        const NTSTATUS status =
            VrkFsHwClaimFileSpace(Hw, Volume, FolderSlot, Folder, slot, recovers ? Backup : nullptr);
        if (status == STATUS_INSUFFICIENT_RESOURCES) {
            return status;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsHwConstructFolderBitmap(HwContext* Hw, HwVolume* Volume, PULONG FolderCount) {
    BackupDetails* const backup = LoadBackup(Volume);
    Volume->Unread.RetriesUsed = VrkFsHwRetriesInForce(Hw);
    NTSTATUS status = STATUS_SUCCESS;
    {
        const EventLockGuard scratch(&Hw->ScratchLock);
        for (ULONG slot = 0; slot < kMaxFolders && NT_SUCCESS(status); ++slot) {
            status = MountSlot(Hw, Volume, slot, backup);
        }
    }
    *FolderCount = Volume->FolderCount;
    if (backup != nullptr) {
        if (NT_SUCCESS(status)) {
            VrkFsHwRecoverBodyTable(Hw, Volume, backup);
        }
        VrkFsHwFreeBackupDetails(backup);
        VrkFsFreePool(backup);
    }
    return status;
}
