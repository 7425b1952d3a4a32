#pragma once

#include <nt.h>

#include "volume/records.h"

struct FCB;
struct HwContext;
struct HwVolume;

// Reading and writing one record of a volume through its entry cache: what the entry operations are made of.

// An open folder as its FCB has it.
struct OpenFolder {
    HwVolume* Volume;
    DirEntry* Image;
    ULONG Slot;
    bool Writable;  // neither deleted nor a stand-in for an unreadable record
};

[[nodiscard]] OpenFolder VrkFsHwOpenFolderOf(const FCB* FolderFCB);
// Whether the files of the folder, or what one of them holds, have been claimed in the allocator: not so while the
// mount's failure to read the record has not been made good. Unclaimed blocks may have become somebody else's, so
// nothing is written to them, entered beside them or given back.
[[nodiscard]] BOOLEAN VrkFsHwIsFolderClaimed(const OpenFolder& Folder);
[[nodiscard]] BOOLEAN VrkFsHwIsFileClaimed(const OpenFolder& Folder, ULONG Slot);
// Whether the file in that slot may have its record written: the folder is writable, all is claimed, and the record's
// blocks have one owner.
[[nodiscard]] BOOLEAN VrkFsHwIsFileWritable(const OpenFolder& Folder, ULONG Slot);
[[nodiscard]] ULONG VrkFsHwFolderLba(const HwVolume* Volume, ULONG Slot);

// Cache first, then the disk. What is read for real is cached, its files recounted, and noted readable if the mount
// could not read it. A slot that was unreadable at mount may turn out empty: Image->InUse is 0 then.
[[nodiscard]] NTSTATUS VrkFsHwReadFolderRecord(HwContext* Hw, HwVolume* Volume, ULONG Slot, DirEntry* Image,
                                               PBOOLEAN Substituted);
[[nodiscard]] NTSTATUS VrkFsHwReadFileRecord(HwContext* Hw, HwVolume* Volume, ULONG FolderSlot, ULONG Slot, ULONG Lba,
                                             FileEntry* Image, PBOOLEAN Substituted);
// Checksum, write, cache. A failed write leaves the cache alone. A folder is written under the scratch lock, which the
// caller does not hold.
[[nodiscard]] NTSTATUS VrkFsHwWriteFolderRecord(HwContext* Hw, HwVolume* Volume, ULONG Slot, DirEntry* Image);
[[nodiscard]] NTSTATUS VrkFsHwWriteFileRecord(HwContext* Hw, HwVolume* Volume, ULONG Lba, FileEntry* Image);

// Marks everything that a file holds contested: two places on the disk may name it.
VOID VrkFsHwContestFile(HwVolume* Volume, ULONG RecordLba, const FileEntry* Image);

// The ranges that a record names besides its own two blocks, in the order in which they are claimed and given back.
// Ranges without a start or without blocks are left out.
enum class FileRangeKind : ULONG { Data, BodyTable };
struct FileRange {
    ULONG Start;
    ULONG Count;
    FileRangeKind Kind;
};
inline constexpr ULONG kMaxFileRanges = 4;
struct FileRanges {
    ULONG Count;
    FileRange Range[kMaxFileRanges];
};
[[nodiscard]] FileRanges VrkFsHwRangesOfFile(const FileEntry* Image);

// Listing records.
struct FoundEntry;
VOID VrkFsHwFillFoundFolder(FoundEntry* Entry, ULONG Slot, const DirEntry* Image);
VOID VrkFsHwFillFoundFile(FoundEntry* Entry, ULONG Slot, const FileEntry* Image, const FCB* FolderFCB);
