// RAM files: small companion files that applications keep next to the frames of a media file. They live in memory only
// and go with their volume.
#pragma once

#include <nt.h>

// RamFileSet::Flags
inline constexpr ULONG kRamSetInitialised = 0x01;

// RamFile::Flags
inline constexpr ULONG kRamFileData = 0x01;
inline constexpr ULONG kRamFileName = 0x02;
inline constexpr ULONG kRamFileParentName = 0x04;
inline constexpr ULONG kRamFileDeleted = 0x08;  // in no set any more

inline constexpr ULONG kRamFileGrowth = 65536;  // bytes that an allocation grows by at least

// One per volume. Changed under the VCB's Resource held exclusively, walked under it held shared.
struct RamFileSet {
    LIST_ENTRY Files;  // RamFile.Link, newest first
    ULONG Count;
    ULONG Flags;
};

// Paged pool. Size and data change under the FCBCommon's Resource held exclusively.
struct RamFile {
    LIST_ENTRY Link;
    UNICODE_STRING Name;           // own copy
    UNICODE_STRING ParentName;     // own copy of the path of the media file's FCB, type folder included
    UNICODE_STRING NewParentName;  // while a rename is under way: the one it will have; else empty
    ULONGLONG EndOfFile;           // bytes, never above Allocation
    LONGLONG Time;                 // of its creation
    PUCHAR Data;                   // paged pool, Allocation bytes; null while Allocation is 0
    ULONG Allocation;
    ULONG Users;  // FCBs that point to the record: a deleted one stays until the last of them lets go
    ULONG Flags;
};

VOID VrkFsVFInitHandler(RamFileSet* Set);
// Frees every file; nothing if the set is not set up.
VOID VrkFsVFFreeHandler(RamFileSet* Set);

// Names are compared without regard to case. Limit: files that the volume may hold; reaching it is logged and
// STATUS_ACCESS_DENIED. No memory: STATUS_INSUFFICIENT_RESOURCES.
[[nodiscard]] NTSTATUS VrkFsVFCreateNewFile(RamFileSet* Set, PCUNICODE_STRING ParentName, PCUNICODE_STRING Name,
                                            LONGLONG Time, ULONG Limit, RamFile** File);
// Ordinal: position among the files of that parent, newest first.
[[nodiscard]] BOOLEAN VrkFsVFFindFile(RamFileSet* Set, PCUNICODE_STRING ParentName, PCUNICODE_STRING Name,
                                      RamFile** File, PULONG Ordinal);
// The file at *Ordinal of that parent.
[[nodiscard]] BOOLEAN VrkFsVFFindNextFile(RamFileSet* Set, PCUNICODE_STRING ParentName, PULONG Ordinal, RamFile** File);
// Takes the file out of its set. Freed now, or when its last user lets go.
VOID VrkFsVFDeleteFile(RamFileSet* Set, RamFile* File);
VOID VrkFsVFAddUser(RamFile* File);
VOID VrkFsVFReleaseUser(RamFile* File);
// The media file, folder or volume at OldPath is about to go to NewPath (both without the type folder, beginning with
// "\"), and its RAM files follow. Prepare makes their new names, Finish gives them or drops them and cannot fail.
// Prepare keeps nothing on failure: STATUS_INSUFFICIENT_RESOURCES.
[[nodiscard]] NTSTATUS VrkFsVFPrepareRename(RamFileSet* Set, PCUNICODE_STRING OldPath, PCUNICODE_STRING NewPath);
VOID VrkFsVFFinishRename(RamFileSet* Set, BOOLEAN Renamed);

// Sizes in bytes, cut to MaximumSize. An allocation below the end of file lowers the end of file with it.
// STATUS_INSUFFICIENT_RESOURCES, nothing changed.
[[nodiscard]] NTSTATUS VrkFsVFSetFileAllocation(RamFile* File, ULONG MaximumSize, ULONGLONG Size);
[[nodiscard]] NTSTATUS VrkFsVFSetEndOfFile(RamFile* File, ULONG MaximumSize, ULONGLONG EndOfFile);

// *Count: bytes wanted, then bytes moved. STATUS_END_OF_FILE when that is none. Reads reach to the end of file; bytes
// that were never written read as zero. Writes grow the file and stop at MaximumSize.
[[nodiscard]] NTSTATUS VrkFsVFReadFile(const RamFile* File, PUCHAR Buffer, ULONGLONG Offset, PULONG Count);
[[nodiscard]] NTSTATUS VrkFsVFWriteFile(RamFile* File, const UCHAR* Buffer, ULONGLONG Offset, PULONG Count,
                                        ULONG MaximumSize);
