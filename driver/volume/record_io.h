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
[[nodiscard]] ULONG VrkFsHwFolderLba(const HwVolume* Volume, ULONG Slot);

// Cache first, then the disk. What is read for real is cached, its files recounted, and noted readable if the mount
// could not read it. A slot that was unreadable at mount may turn out empty: Image->InUse is 0 then.
[[nodiscard]] NTSTATUS VrkFsHwReadFolderRecord(HwContext* Hw, HwVolume* Volume, ULONG Slot, DirEntry* Image,
                                               PBOOLEAN Substituted);
[[nodiscard]] NTSTATUS VrkFsHwReadFileRecord(HwContext* Hw, HwVolume* Volume, ULONG FolderSlot, ULONG Slot, ULONG Lba,
                                             FileEntry* Image, PBOOLEAN Substituted);
// Checksum, write, cache. A failed write leaves the cache alone.
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
