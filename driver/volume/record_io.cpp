#include "volume/record_io.h"

#include "core/global_data.h"
#include "core/guards.h"
#include "core/strings.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "media/directory.h"
#include "storage/hw_context.h"
#include "volume/entries.h"
#include "volume/hw_volume.h"

namespace {

// A type whose access mode is this one shows its files as folders of frames.
constexpr ULONG kAccessModeFolders = 2;

BOOLEAN ShowsFilesAsFolders(const FCB* FolderFCB) {
    return FolderFCB->TypeIndex < VrkFsGlobFileTypeCount(pVrkFsGlobalData) &&
           VrkFsGlobFileType(pVrkFsGlobalData, FolderFCB->TypeIndex).AccessMode == kAccessModeFolders;
}

VOID AddRange(FileRanges* Ranges, ULONG Start, ULONG Count, FileRangeKind Kind) {
    if (Start != 0 && Count != 0) {
        Ranges->Range[Ranges->Count++] = {Start, Count, Kind};
    }
}

VOID FillFound(FoundEntry* Entry, ULONG Slot, ULONGLONG Time, const WCHAR* Name) {
    RtlZeroMemory(Entry, sizeof(FoundEntry));
    Entry->Index = Slot;
    Entry->Time = static_cast<LONGLONG>(Time);
    Entry->NameLength = VrkFsRtlBoundedLength(Name, kRecordNameChars) * sizeof(WCHAR);
    RtlCopyMemory(Entry->Name, Name, Entry->NameLength);
}

}  // namespace

OpenFolder VrkFsHwOpenFolderOf(const FCB* FolderFCB) {
    const FCBCommon* const common = FolderFCB->Common;
    const bool writable = (common->Flags & (kFcbCommonSubstitute | kFcbCommonDeleted)) == 0 &&
                          !VrkFsHwIsSubstituteFolder(common->FolderEntry);
    return {common->VolumeHandle, common->FolderEntry, common->FolderEntryIndex, writable};
}

BOOLEAN VrkFsHwIsFolderClaimed(const OpenFolder& Folder) {
    return !VrkFsHwIsUnread(Folder.Volume, Folder.Slot, kUnreadFolder);
}

BOOLEAN VrkFsHwIsFileClaimed(const OpenFolder& Folder, ULONG Slot) {
    return VrkFsHwIsFolderClaimed(Folder) && !VrkFsHwIsUnread(Folder.Volume, Folder.Slot, Slot);
}

BOOLEAN VrkFsHwIsFileWritable(const OpenFolder& Folder, ULONG Slot) {
    return Folder.Writable && Slot < kMaxFilesPerFolder && VrkFsHwIsFileClaimed(Folder, Slot) &&
           VrkFsVolAllocIsOwnedSpace(&Folder.Volume->Allocator, Folder.Image->FileTable[Slot], kFileEntryBlocks);
}

ULONG VrkFsHwFolderLba(const HwVolume* Volume, ULONG Slot) {
    return Volume->FirstDirLba + kDirEntryBlocks * Slot;
}

NTSTATUS VrkFsHwReadFolderRecord(HwContext* Hw, HwVolume* Volume, ULONG Slot, DirEntry* Image, PBOOLEAN Substituted) {
    const ULONG lba = VrkFsHwFolderLba(Volume, Slot);
    *Substituted = FALSE;
    if (VrkFsVolCacheFolderEntrySearch(&Volume->EntryCache, lba, Image)) {
        return STATUS_SUCCESS;
    }
    const BOOLEAN unread = VrkFsHwIsUnread(Volume, Slot, kUnreadFolder);
    const NTSTATUS status = VrkFsHwSCSIReadEx(Hw, Volume->Devices[0], lba, kDirEntryBlocks, Image, 0, kHwRecordDirEntry,
                                              unread, Substituted);
    if (!NT_SUCCESS(status) || *Substituted) {
        return status;
    }
    if (unread) {
        VrkFsHwNoteReadable(Volume, Slot, kUnreadFolder);
        if (!VrkFsHwIsFolderInUse(Image)) {
            Image->InUse = 0;
            return status;
        }
    }
    VrkFsHwRecountFiles(Image);
    VrkFsVolCacheFolderEntryCache(&Volume->EntryCache, Image, lba);
    return status;
}

NTSTATUS VrkFsHwReadFileRecord(HwContext* Hw, HwVolume* Volume, ULONG FolderSlot, ULONG Slot, ULONG Lba,
                               FileEntry* Image, PBOOLEAN Substituted) {
    *Substituted = FALSE;
    if (!VrkFsHwIsDataAreaRange(Volume, Lba, kFileEntryBlocks)) {
        VrkFsHwMakeSubstituteFile(Image, Lba);
        *Substituted = TRUE;
        return STATUS_SUCCESS;
    }
    if (VrkFsVolCacheFileEntrySearch(&Volume->EntryCache, Lba, Image)) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = VrkFsHwSCSIReadEx(Hw, Volume->Devices[0], Lba, kFileEntryBlocks, Image, 0,
                                              kHwRecordFileEntry, FALSE, Substituted);
    if (NT_SUCCESS(status) && !*Substituted) {
        VrkFsHwNoteReadable(Volume, FolderSlot, Slot);
        VrkFsVolCacheFileEntryCache(&Volume->EntryCache, Image, Lba);
    }
    return status;
}

NTSTATUS VrkFsHwWriteFolderRecord(HwContext* Hw, HwVolume* Volume, ULONG Slot, DirEntry* Image) {
    const ULONG lba = VrkFsHwFolderLba(Volume, Slot);
    // A move of a file's record keeps no listing of the volume away: one that has read the old record must cache it
    // before this write, not over its result.
    const EventLockGuard scratch(&Hw->ScratchLock);
    Image->Checksum = VrkFsHwCalcFolderChecksum(Image);
    const NTSTATUS status =
        VrkFsHwSCSIWriteEx(Hw, Volume->Devices[0], lba, kDirEntryBlocks, Image, 0, kHwRecordDirEntry);
    if (NT_SUCCESS(status)) {
        VrkFsVolCacheFolderEntryCache(&Volume->EntryCache, Image, lba);
    }
    return status;
}

NTSTATUS VrkFsHwWriteFileRecord(HwContext* Hw, HwVolume* Volume, ULONG Lba, FileEntry* Image) {
    Image->Checksum = VrkFsHwCalcFileChecksum(Image);
    const NTSTATUS status =
        VrkFsHwSCSIWriteEx(Hw, Volume->Devices[0], Lba, kFileEntryBlocks, Image, 0, kHwRecordFileEntry);
    if (NT_SUCCESS(status)) {
        VrkFsVolCacheFileEntryCache(&Volume->EntryCache, Image, Lba);
    }
    return status;
}

VOID VrkFsHwContestFile(HwVolume* Volume, ULONG RecordLba, const FileEntry* Image) {
    // Taken blocks need at most a record each to be marked; without memory they are merely not protected any further.
    static_cast<void>(VrkFsVolAllocContestSpace(&Volume->Allocator, RecordLba, kFileEntryBlocks));
    const FileRanges ranges = VrkFsHwRangesOfFile(Image);
    for (ULONG i = 0; i < ranges.Count; ++i) {
        static_cast<void>(VrkFsVolAllocContestSpace(&Volume->Allocator, ranges.Range[i].Start, ranges.Range[i].Count));
    }
}

FileRanges VrkFsHwRangesOfFile(const FileEntry* Image) {
    FileRanges ranges = {};
    AddRange(&ranges, Image->DataStartLba, Image->DataBlockCount, FileRangeKind::Data);
    if (Image->Kind == kFileKindMedia) {
        AddRange(&ranges, Image->VideoBodyTableLba, Image->VideoBodyTableBlockCount, FileRangeKind::BodyTable);
        if ((Image->Flags & kFileHasAlpha) != 0) {
            AddRange(&ranges, Image->AlphaDataStartLba, Image->AlphaDataBlockCount, FileRangeKind::Data);
            AddRange(&ranges, Image->AlphaBodyTableLba, Image->AlphaBodyTableBlockCount, FileRangeKind::BodyTable);
        }
    }
    return ranges;
}

VOID VrkFsHwFillFoundFolder(FoundEntry* Entry, ULONG Slot, const DirEntry* Image) {
    FillFound(Entry, Slot, Image->CreationTime, Image->Name);
    Entry->IsDirectory = TRUE;
}

VOID VrkFsHwFillFoundFile(FoundEntry* Entry, ULONG Slot, const FileEntry* Image, const FCB* FolderFCB) {
    FillFound(Entry, Slot, Image->CreationTime, Image->Name);
    Entry->Size = VrkFsHwGetFileAllocationSize(Image);
    Entry->IsDirectory = ShowsFilesAsFolders(FolderFCB);
}
