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
    ULONG TableLba;     // the table of the file that it belongs to
    ULONG TableBlocks;  // 0 until the mount meets that file
};

// FALSE: there is no usable backup, and nothing to free. A file that could be opened is gone afterwards either way.
[[nodiscard]] BOOLEAN VrkFsGetBTBackupFileDetails(BackupDetails* Details);
VOID VrkFsHwFreeBackupDetails(BackupDetails* Details);
// Remembers where the backup goes if it is this file's.
VOID VrkFsHwMatchBackup(BackupDetails* Backup, const FileEntry* Entry);
// Writes the backup to the table of the file that was met. Every file of the volume has been claimed by then: a table
// that any other record names as well is left alone.
VOID VrkFsHwRecoverBodyTable(HwContext* Hw, HwVolume* Volume, const BackupDetails* Backup);
