#include "core/event_log.h"
#include "core/global_data.h"
#include "core/guards.h"
#include "core/strings.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "media/media_file.h"
#include "storage/hw_context.h"
#include "volume/entries.h"
#include "volume/hw_volume.h"
#include "volume/record_io.h"

namespace {

constexpr ULONG kSegmentsOfCreate = 1;  // for giving back what a failed create took

VOID EnterFile(DirEntry* Folder, ULONG Slot, ULONG Lba) {
    Folder->FileTable[Slot] = Lba;
    ++Folder->FileCount;
}

VOID StrikeFile(DirEntry* Folder, ULONG Slot) {
    Folder->FileTable[Slot] = 0;
    --Folder->FileCount;
}

VOID MakeFile(FileEntry* Image, PCUNICODE_STRING Name) {
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    RtlZeroMemory(Image, sizeof(FileEntry));
    Image->Magic = kFileEntryMagic;
    Image->CreationTime = static_cast<ULONGLONG>(now.QuadPart);
    VrkFsHwSetRecordName(Image->Name, Name);
}

// A folder write that failed may have reached the disk, whole or in part: writes the restored image, and returns
// whether the disk certainly holds it now.
BOOLEAN WriteOldFolder(HwContext* Hw, const OpenFolder& Folder) {
    return NT_SUCCESS(VrkFsHwWriteFolderRecord(Hw, Folder.Volume, Folder.Slot, Folder.Image));
}

// Writes the new record, then the folder that names it. On failure neither is there any more, or *DiskMayNameIt is set.
NTSTATUS WriteNewFile(HwContext* Hw, const OpenFolder& Folder, ULONG Slot, ULONG Lba, FileEntry* Image,
                      PBOOLEAN DiskMayNameIt) {
    *DiskMayNameIt = FALSE;
    NTSTATUS status = VrkFsHwWriteFileRecord(Hw, Folder.Volume, Lba, Image);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    EnterFile(Folder.Image, Slot, Lba);
    status = VrkFsHwWriteFolderRecord(Hw, Folder.Volume, Folder.Slot, Folder.Image);
    if (!NT_SUCCESS(status)) {
        StrikeFile(Folder.Image, Slot);
        *DiskMayNameIt = !WriteOldFolder(Hw, Folder);
        VrkFsVolCacheFileEntryRemove(&Folder.Volume->EntryCache, Lba);
    }
    return status;
}

NTSTATUS CreateInSlot(HwContext* Hw, const OpenFolder& Folder, ULONG Slot, FileEntry* Image) {
    AllocObject* const allocator = &Folder.Volume->Allocator;
    ULONG lba;
    if (!NT_SUCCESS(VrkFsVolAllocAllocateUpperSpace(allocator, kFileEntryBlocks, &lba))) {
        return STATUS_DISK_FULL;
    }
    BOOLEAN diskMayNameIt;
    const NTSTATUS status = WriteNewFile(Hw, Folder, Slot, lba, Image, &diskMayNameIt);
    if (!NT_SUCCESS(status) && !diskMayNameIt) {
        static_cast<void>(VrkFsVolAllocReleaseSpace(allocator, lba, kFileEntryBlocks));
    }
    return status;
}

// Gives back what a deleted file held. A range that the allocator refuses was never the file's: it leaves the data area
// or wraps. The others are given back all the same.
VOID ReleaseFile(const OpenFolder& Folder, const FileEntry* Image, ULONG RecordLba, BOOLEAN ContentsClaimed) {
    AllocObject* const allocator = &Folder.Volume->Allocator;
    const FileRanges ranges = ContentsClaimed ? VrkFsHwRangesOfFile(Image) : FileRanges{};
    for (ULONG i = 0; i < ranges.Count; ++i) {
        static_cast<void>(VrkFsVolAllocReleaseSpace(allocator, ranges.Range[i].Start, ranges.Range[i].Count));
    }
    static_cast<void>(VrkFsVolAllocReleaseSpace(allocator, RecordLba, kFileEntryBlocks));
}

// A record write that failed may have torn the record: puts the last one that was written back in its place. The file
// scratch lock is held.
VOID WriteCachedRecord(HwContext* Hw, HwVolume* Volume, ULONG Lba) {
    FileEntry* const image = reinterpret_cast<FileEntry*>(Hw->FileScratchBuffer);
    if (VrkFsVolCacheFileEntrySearch(&Volume->EntryCache, Lba, image)) {
        static_cast<void>(VrkFsHwWriteFileRecord(Hw, Volume, Lba, image));
    }
}

}  // namespace

ULONGLONG VrkFsHwGetFileAllocationSize(const FileEntry* Image) {
    switch (Image->Kind) {
        case kFileKindPlain:
            return Image->FileSize;
        case kFileKindMedia:
            return VrkFsRZVGetTotalFileSize(Image);
        default:
            return 0;
    }
}

NTSTATUS VrkFsHwCreateFileEntry(HwContext* Hw, VCB* Vcb, FCB* FolderFCB, PCUNICODE_STRING Name, FileEntry* Image,
                                PULONG Slot) {
    const OpenFolder folder = VrkFsHwOpenFolderOf(FolderFCB);
    if (!folder.Writable) {
        return STATUS_UNSUCCESSFUL;
    }
    if (folder.Image->FileCount >= kMaxFilesPerFolder) {
        VrkFsGlobLogEvent(pVrkFsGlobalData->DriverObject, kVrkFsEventFile, 0, nullptr, 0, "File limit exceeded",
                          nullptr);
        return STATUS_ACCESS_DENIED;
    }
    const ULONG slot = VrkFsHwFindFreeFileSlot(folder.Image);
    if (slot == kMaxFilesPerFolder) {
        return STATUS_ACCESS_DENIED;
    }
    NTSTATUS status = VrkFsHwRetryUnreadRecords(Hw, folder.Volume);
    if (NT_SUCCESS(status) && !VrkFsHwIsFolderClaimed(folder)) {
        return STATUS_UNSUCCESSFUL;
    }
    if (NT_SUCCESS(status)) {
        status = VrkFsVolAllocReserveSegments(&folder.Volume->Allocator, kSegmentsOfCreate);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    MakeFile(Image, Name);
    status = CreateInSlot(Hw, folder, slot, Image);
    VrkFsVolAllocUnreserveSegments(&folder.Volume->Allocator, kSegmentsOfCreate);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    *Slot = slot;
    const UNICODE_STRING name = VrkFsRtlBoundedString(Image->Name, kRecordNameChars);
    VrkFsHwSetFileHash(folder.Volume, folder.Slot, slot, VrkFsHwHashName(&name));
    VrkFsHwFileChangeNotify(Hw, FolderFCB, &name, Vcb, FILE_NOTIFY_CHANGE_FILE_NAME, FILE_ACTION_ADDED);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsHwReadFileEntry(HwContext* Hw, FCB* FolderFCB, ULONG Slot, FileEntry* Image, PBOOLEAN Substituted) {
    const OpenFolder folder = VrkFsHwOpenFolderOf(FolderFCB);
    if (Slot >= kMaxFilesPerFolder || folder.Image->FileTable[Slot] == 0) {
        return STATUS_UNSUCCESSFUL;
    }
    BOOLEAN substituted;
    const NTSTATUS status =
        VrkFsHwReadFileRecord(Hw, folder.Volume, folder.Slot, Slot, folder.Image->FileTable[Slot], Image, &substituted);
    if (Substituted != nullptr) {
        *Substituted = substituted;
    }
    return status;
}

NTSTATUS VrkFsHwWriteFileEntry(HwContext* Hw, FCB* FolderFCB, FileEntry* Image, ULONG Slot, ULONG ExpectedLba) {
    if (VrkFsHwIsSubstituteFile(Image)) {
        return STATUS_SUCCESS;
    }
    const OpenFolder folder = VrkFsHwOpenFolderOf(FolderFCB);
    static_cast<void>(VrkFsHwRetryUnreadRecords(Hw, folder.Volume));
    if (!VrkFsHwIsFileWritable(folder, Slot) || folder.Image->FileTable[Slot] != ExpectedLba) {
        return STATUS_UNSUCCESSFUL;
    }
    // A commit holds no lock that keeps listings away: one that has read the old record must cache it before this
    // write, not over its result.
    const EventLockGuard scratch(&Hw->FileScratchLock);
    const NTSTATUS status = VrkFsHwWriteFileRecord(Hw, folder.Volume, ExpectedLba, Image);
    if (!NT_SUCCESS(status)) {
        WriteCachedRecord(Hw, folder.Volume, ExpectedLba);
    }
    return status;
}

NTSTATUS VrkFsHwRemoveFileEntry(HwContext* Hw, VCB* Vcb, FCB* FolderFCB, const FileEntry* Image, ULONG Slot) {
    const OpenFolder folder = VrkFsHwOpenFolderOf(FolderFCB);
    if (!folder.Writable || Slot >= kMaxFilesPerFolder || folder.Image->FileTable[Slot] == 0) {
        return STATUS_UNSUCCESSFUL;
    }
    // What cannot be claimed even now is not given back below, so the outcome does not matter.
    static_cast<void>(VrkFsHwRetryUnreadRecords(Hw, folder.Volume));
    const ULONG lba = folder.Image->FileTable[Slot];
    StrikeFile(folder.Image, Slot);
    VrkFsVolCacheFileEntryRemove(&folder.Volume->EntryCache, lba);
    const NTSTATUS status = VrkFsHwWriteFolderRecord(Hw, folder.Volume, folder.Slot, folder.Image);
    if (!NT_SUCCESS(status)) {
        EnterFile(folder.Image, Slot, lba);
        static_cast<void>(WriteOldFolder(Hw, folder));
        return status;
    }
    VrkFsHwSetFileHash(folder.Volume, folder.Slot, Slot, kNameHashEmpty);
    const UNICODE_STRING name = VrkFsRtlBoundedString(Image->Name, kRecordNameChars);
    VrkFsHwFileChangeNotify(Hw, FolderFCB, &name, Vcb, FILE_NOTIFY_CHANGE_FILE_NAME, FILE_ACTION_REMOVED);
    if (VrkFsHwIsFolderClaimed(folder)) {
        ReleaseFile(folder, Image, lba, VrkFsHwIsFileClaimed(folder, Slot));
    }
    VrkFsHwForgetUnread(folder.Volume, folder.Slot, Slot);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsHwGetNextFileEntry(HwContext* Hw, FCB* FolderFCB, PULONG Slot, FoundEntry* Entry, PBOOLEAN Found,
                                 PBOOLEAN Substituted) {
    const OpenFolder folder = VrkFsHwOpenFolderOf(FolderFCB);
    ULONG slot = *Slot;
    while (slot < kMaxFilesPerFolder && folder.Image->FileTable[slot] == 0) {
        ++slot;
    }
    *Found = FALSE;
    if (slot >= kMaxFilesPerFolder) {
        return STATUS_SUCCESS;
    }
    const EventLockGuard scratch(&Hw->FileScratchLock);
    FileEntry* const image = reinterpret_cast<FileEntry*>(Hw->FileScratchBuffer);
    BOOLEAN substituted;
    const NTSTATUS status =
        VrkFsHwReadFileRecord(Hw, folder.Volume, folder.Slot, slot, folder.Image->FileTable[slot], image, &substituted);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    VrkFsHwFillFoundFile(Entry, slot, image, FolderFCB);
    *Slot = slot;
    *Found = TRUE;
    if (Substituted != nullptr) {
        *Substituted = substituted;
    }
    return STATUS_SUCCESS;
}
