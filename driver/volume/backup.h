#pragma once

#include <nt.h>

#include <cstddef>

#include "volume/records.h"

struct FileEntry;
struct HwContext;
struct HwVolume;

// A body table that a recorder saved beside the driver when it could not write it to the disk:
// "\SystemRoot\system32\drivers\!RZVBKUP.!BT". The first complete volume that is mounted reads it, which deletes it.
#pragma pack(push, 1)
struct BackupFileHeader {
    WCHAR Path[516];   // "P:\RZV\volume\folder\file", terminated
    ULONG EntryCount;  // body-table nodes, two per frame
    UCHAR Unused1[2];
    UCHAR Stream;  // 0 video, else alpha
    UCHAR Unused2[17];
};
#pragma pack(pop)
static_assert(sizeof(BackupFileHeader) == 1056);
static_assert(offsetof(BackupFileHeader, EntryCount) == 0x408);
static_assert(offsetof(BackupFileHeader, Stream) == 0x40E);

struct BackupDetails {
    WCHAR VolumeName[kRecordNameChars];
    WCHAR FolderName[kRecordNameChars];
    WCHAR FileName[kRecordNameChars];
    UCHAR Stream;
    ULONG EntryCount;
    PVOID Data;  // paged
    ULONG DataLength;
};

// FALSE: there is no usable backup, and nothing to free. A file that could be opened is gone afterwards either way.
[[nodiscard]] BOOLEAN VrkFsGetBTBackupFileDetails(BackupDetails* Details);
VOID VrkFsHwFreeBackupDetails(BackupDetails* Details);
// Writes the backup into the file's table if it is this file's. Every range of Entry has just been claimed.
VOID VrkFsHwRecoverBodyTable(HwContext* Hw, HwVolume* Volume, const BackupDetails* Backup, const FileEntry* Entry);
