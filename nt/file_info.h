#pragma once

#include <cstddef>

#include "nt/base.h"

// The records that file, directory and volume information requests carry, with the classes that name them. They
// cross to applications, so their layout is that of the 32-bit kernel: asserted below, field by field where a 64-bit
// compiler could move one. `FileName` and its kin begin inside the record, behind the fixed part; the fixed part is
// FIELD_OFFSET(record, FileName), not sizeof.

typedef struct _IO_STATUS_BLOCK {
    __extension__ union {
        NTSTATUS Status;
        PVOID Pointer;
    };
    ULONG_PTR Information;
} IO_STATUS_BLOCK, *PIO_STATUS_BLOCK;

typedef VOID(NTAPI* PIO_APC_ROUTINE)(PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, ULONG Reserved);

typedef enum _FILE_INFORMATION_CLASS {
    FileDirectoryInformation = 1,
    FileFullDirectoryInformation,
    FileBothDirectoryInformation,
    FileBasicInformation,
    FileStandardInformation,
    FileInternalInformation,
    FileEaInformation,
    FileAccessInformation,
    FileNameInformation,
    FileRenameInformation,
    FileLinkInformation,
    FileNamesInformation,
    FileDispositionInformation,
    FilePositionInformation,
    FileFullEaInformation,
    FileModeInformation,
    FileAlignmentInformation,
    FileAllInformation,
    FileAllocationInformation,
    FileEndOfFileInformation,
    FileAlternateNameInformation,
    FileStreamInformation,
    FilePipeInformation,
    FilePipeLocalInformation,
    FilePipeRemoteInformation,
    FileMailslotQueryInformation,
    FileMailslotSetInformation,
    FileCompressionInformation,
    FileObjectIdInformation,
    FileCompletionInformation,
    FileMoveClusterInformation,
    FileQuotaInformation,
    FileReparsePointInformation,
    FileNetworkOpenInformation,
    FileAttributeTagInformation,
    FileTrackingInformation,
    FileMaximumInformation
} FILE_INFORMATION_CLASS,
    *PFILE_INFORMATION_CLASS;

typedef enum _FSINFOCLASS {
    FileFsVolumeInformation = 1,
    FileFsLabelInformation,
    FileFsSizeInformation,
    FileFsDeviceInformation,
    FileFsAttributeInformation,
    FileFsControlInformation,
    FileFsFullSizeInformation,
    FileFsObjectIdInformation,
    FileFsDriverPathInformation,
    FileFsMaximumInformation
} FS_INFORMATION_CLASS,
    *PFS_INFORMATION_CLASS;

// ---- directory entries ----

typedef struct _FILE_DIRECTORY_INFORMATION {
    ULONG NextEntryOffset;
    ULONG FileIndex;
    LARGE_INTEGER CreationTime;
    LARGE_INTEGER LastAccessTime;
    LARGE_INTEGER LastWriteTime;
    LARGE_INTEGER ChangeTime;
    LARGE_INTEGER EndOfFile;
    LARGE_INTEGER AllocationSize;
    ULONG FileAttributes;
    ULONG FileNameLength;
    WCHAR FileName[1];
} FILE_DIRECTORY_INFORMATION, *PFILE_DIRECTORY_INFORMATION;
static_assert(offsetof(FILE_DIRECTORY_INFORMATION, EndOfFile) == 40);
static_assert(offsetof(FILE_DIRECTORY_INFORMATION, FileAttributes) == 56);
static_assert(offsetof(FILE_DIRECTORY_INFORMATION, FileName) == 64 && sizeof(FILE_DIRECTORY_INFORMATION) == 72);

typedef struct _FILE_FULL_DIR_INFORMATION {
    ULONG NextEntryOffset;
    ULONG FileIndex;
    LARGE_INTEGER CreationTime;
    LARGE_INTEGER LastAccessTime;
    LARGE_INTEGER LastWriteTime;
    LARGE_INTEGER ChangeTime;
    LARGE_INTEGER EndOfFile;
    LARGE_INTEGER AllocationSize;
    ULONG FileAttributes;
    ULONG FileNameLength;
    ULONG EaSize;
    WCHAR FileName[1];
} FILE_FULL_DIR_INFORMATION, *PFILE_FULL_DIR_INFORMATION;
static_assert(offsetof(FILE_FULL_DIR_INFORMATION, EaSize) == 64);
static_assert(offsetof(FILE_FULL_DIR_INFORMATION, FileName) == 68 && sizeof(FILE_FULL_DIR_INFORMATION) == 72);

typedef struct _FILE_BOTH_DIR_INFORMATION {
    ULONG NextEntryOffset;
    ULONG FileIndex;
    LARGE_INTEGER CreationTime;
    LARGE_INTEGER LastAccessTime;
    LARGE_INTEGER LastWriteTime;
    LARGE_INTEGER ChangeTime;
    LARGE_INTEGER EndOfFile;
    LARGE_INTEGER AllocationSize;
    ULONG FileAttributes;
    ULONG FileNameLength;
    ULONG EaSize;
    CCHAR ShortNameLength;
    WCHAR ShortName[12];
    WCHAR FileName[1];
} FILE_BOTH_DIR_INFORMATION, *PFILE_BOTH_DIR_INFORMATION;
static_assert(offsetof(FILE_BOTH_DIR_INFORMATION, ShortName) == 70);
static_assert(offsetof(FILE_BOTH_DIR_INFORMATION, FileName) == 94 && sizeof(FILE_BOTH_DIR_INFORMATION) == 96);

typedef struct _FILE_NAMES_INFORMATION {
    ULONG NextEntryOffset;
    ULONG FileIndex;
    ULONG FileNameLength;
    WCHAR FileName[1];
} FILE_NAMES_INFORMATION, *PFILE_NAMES_INFORMATION;
static_assert(offsetof(FILE_NAMES_INFORMATION, FileName) == 12 && sizeof(FILE_NAMES_INFORMATION) == 16);

typedef struct _FILE_NOTIFY_INFORMATION {
    ULONG NextEntryOffset;
    ULONG Action;
    ULONG FileNameLength;
    WCHAR FileName[1];
} FILE_NOTIFY_INFORMATION, *PFILE_NOTIFY_INFORMATION;
static_assert(offsetof(FILE_NOTIFY_INFORMATION, FileName) == 12);

// ---- one file ----

typedef struct _FILE_BASIC_INFORMATION {
    LARGE_INTEGER CreationTime;
    LARGE_INTEGER LastAccessTime;
    LARGE_INTEGER LastWriteTime;
    LARGE_INTEGER ChangeTime;
    ULONG FileAttributes;
} FILE_BASIC_INFORMATION, *PFILE_BASIC_INFORMATION;
static_assert(offsetof(FILE_BASIC_INFORMATION, FileAttributes) == 32 && sizeof(FILE_BASIC_INFORMATION) == 40);

typedef struct _FILE_STANDARD_INFORMATION {
    LARGE_INTEGER AllocationSize;
    LARGE_INTEGER EndOfFile;
    ULONG NumberOfLinks;
    BOOLEAN DeletePending;
    BOOLEAN Directory;
} FILE_STANDARD_INFORMATION, *PFILE_STANDARD_INFORMATION;
static_assert(offsetof(FILE_STANDARD_INFORMATION, DeletePending) == 20 && sizeof(FILE_STANDARD_INFORMATION) == 24);

typedef struct _FILE_INTERNAL_INFORMATION {
    LARGE_INTEGER IndexNumber;
} FILE_INTERNAL_INFORMATION, *PFILE_INTERNAL_INFORMATION;
static_assert(sizeof(FILE_INTERNAL_INFORMATION) == 8);

typedef struct _FILE_EA_INFORMATION {
    ULONG EaSize;
} FILE_EA_INFORMATION, *PFILE_EA_INFORMATION;
static_assert(sizeof(FILE_EA_INFORMATION) == 4);

typedef struct _FILE_ACCESS_INFORMATION {
    ACCESS_MASK AccessFlags;
} FILE_ACCESS_INFORMATION, *PFILE_ACCESS_INFORMATION;

typedef struct _FILE_POSITION_INFORMATION {
    LARGE_INTEGER CurrentByteOffset;
} FILE_POSITION_INFORMATION, *PFILE_POSITION_INFORMATION;
static_assert(sizeof(FILE_POSITION_INFORMATION) == 8);

typedef struct _FILE_MODE_INFORMATION {
    ULONG Mode;
} FILE_MODE_INFORMATION, *PFILE_MODE_INFORMATION;

typedef struct _FILE_ALIGNMENT_INFORMATION {
    ULONG AlignmentRequirement;
} FILE_ALIGNMENT_INFORMATION, *PFILE_ALIGNMENT_INFORMATION;

typedef struct _FILE_NAME_INFORMATION {
    ULONG FileNameLength;
    WCHAR FileName[1];
} FILE_NAME_INFORMATION, *PFILE_NAME_INFORMATION;
static_assert(offsetof(FILE_NAME_INFORMATION, FileName) == 4 && sizeof(FILE_NAME_INFORMATION) == 8);

typedef struct _FILE_ALL_INFORMATION {
    FILE_BASIC_INFORMATION BasicInformation;
    FILE_STANDARD_INFORMATION StandardInformation;
    FILE_INTERNAL_INFORMATION InternalInformation;
    FILE_EA_INFORMATION EaInformation;
    FILE_ACCESS_INFORMATION AccessInformation;
    FILE_POSITION_INFORMATION PositionInformation;
    FILE_MODE_INFORMATION ModeInformation;
    FILE_ALIGNMENT_INFORMATION AlignmentInformation;
    FILE_NAME_INFORMATION NameInformation;
} FILE_ALL_INFORMATION, *PFILE_ALL_INFORMATION;
static_assert(offsetof(FILE_ALL_INFORMATION, StandardInformation) == 40);
static_assert(offsetof(FILE_ALL_INFORMATION, InternalInformation) == 64);
static_assert(offsetof(FILE_ALL_INFORMATION, EaInformation) == 72);
static_assert(offsetof(FILE_ALL_INFORMATION, AccessInformation) == 76);
static_assert(offsetof(FILE_ALL_INFORMATION, PositionInformation) == 80);
static_assert(offsetof(FILE_ALL_INFORMATION, ModeInformation) == 88);
static_assert(offsetof(FILE_ALL_INFORMATION, AlignmentInformation) == 92);
static_assert(offsetof(FILE_ALL_INFORMATION, NameInformation) == 96 && sizeof(FILE_ALL_INFORMATION) == 104);

typedef struct _FILE_NETWORK_OPEN_INFORMATION {
    LARGE_INTEGER CreationTime;
    LARGE_INTEGER LastAccessTime;
    LARGE_INTEGER LastWriteTime;
    LARGE_INTEGER ChangeTime;
    LARGE_INTEGER AllocationSize;
    LARGE_INTEGER EndOfFile;
    ULONG FileAttributes;
} FILE_NETWORK_OPEN_INFORMATION, *PFILE_NETWORK_OPEN_INFORMATION;
static_assert(offsetof(FILE_NETWORK_OPEN_INFORMATION, FileAttributes) == 48);
static_assert(sizeof(FILE_NETWORK_OPEN_INFORMATION) == 56);

// RootDirectory is a handle of the calling process, 32 bits wide as for a 32-bit application.
typedef struct _FILE_RENAME_INFORMATION {
    BOOLEAN ReplaceIfExists;
    ULONG RootDirectory;
    ULONG FileNameLength;
    WCHAR FileName[1];
} FILE_RENAME_INFORMATION, *PFILE_RENAME_INFORMATION;
static_assert(offsetof(FILE_RENAME_INFORMATION, RootDirectory) == 4);
static_assert(offsetof(FILE_RENAME_INFORMATION, FileNameLength) == 8);
static_assert(offsetof(FILE_RENAME_INFORMATION, FileName) == 12 && sizeof(FILE_RENAME_INFORMATION) == 16);

typedef struct _FILE_DISPOSITION_INFORMATION {
    BOOLEAN DeleteFile;
} FILE_DISPOSITION_INFORMATION, *PFILE_DISPOSITION_INFORMATION;
static_assert(sizeof(FILE_DISPOSITION_INFORMATION) == 1);

typedef struct _FILE_ALLOCATION_INFORMATION {
    LARGE_INTEGER AllocationSize;
} FILE_ALLOCATION_INFORMATION, *PFILE_ALLOCATION_INFORMATION;
static_assert(sizeof(FILE_ALLOCATION_INFORMATION) == 8);

typedef struct _FILE_END_OF_FILE_INFORMATION {
    LARGE_INTEGER EndOfFile;
} FILE_END_OF_FILE_INFORMATION, *PFILE_END_OF_FILE_INFORMATION;
static_assert(sizeof(FILE_END_OF_FILE_INFORMATION) == 8);

typedef struct _FILE_STREAM_INFORMATION {
    ULONG NextEntryOffset;
    ULONG StreamNameLength;
    LARGE_INTEGER StreamSize;
    LARGE_INTEGER StreamAllocationSize;
    WCHAR StreamName[1];
} FILE_STREAM_INFORMATION, *PFILE_STREAM_INFORMATION;
static_assert(sizeof(FILE_STREAM_INFORMATION) == 32);

typedef struct _FILE_COMPRESSION_INFORMATION {
    LARGE_INTEGER CompressedFileSize;
    USHORT CompressionFormat;
    UCHAR CompressionUnitShift;
    UCHAR ChunkShift;
    UCHAR ClusterShift;
    UCHAR Reserved[3];
} FILE_COMPRESSION_INFORMATION, *PFILE_COMPRESSION_INFORMATION;
static_assert(sizeof(FILE_COMPRESSION_INFORMATION) == 16);

// ---- a volume ----

typedef struct _FILE_FS_VOLUME_INFORMATION {
    LARGE_INTEGER VolumeCreationTime;
    ULONG VolumeSerialNumber;
    ULONG VolumeLabelLength;
    BOOLEAN SupportsObjects;
    WCHAR VolumeLabel[1];
} FILE_FS_VOLUME_INFORMATION, *PFILE_FS_VOLUME_INFORMATION;
static_assert(offsetof(FILE_FS_VOLUME_INFORMATION, SupportsObjects) == 16);
static_assert(offsetof(FILE_FS_VOLUME_INFORMATION, VolumeLabel) == 18 && sizeof(FILE_FS_VOLUME_INFORMATION) == 24);

typedef struct _FILE_FS_LABEL_INFORMATION {
    ULONG VolumeLabelLength;
    WCHAR VolumeLabel[1];
} FILE_FS_LABEL_INFORMATION, *PFILE_FS_LABEL_INFORMATION;
static_assert(offsetof(FILE_FS_LABEL_INFORMATION, VolumeLabel) == 4 && sizeof(FILE_FS_LABEL_INFORMATION) == 8);

typedef struct _FILE_FS_SIZE_INFORMATION {
    LARGE_INTEGER TotalAllocationUnits;
    LARGE_INTEGER AvailableAllocationUnits;
    ULONG SectorsPerAllocationUnit;
    ULONG BytesPerSector;
} FILE_FS_SIZE_INFORMATION, *PFILE_FS_SIZE_INFORMATION;
static_assert(sizeof(FILE_FS_SIZE_INFORMATION) == 24);

typedef struct _FILE_FS_FULL_SIZE_INFORMATION {
    LARGE_INTEGER TotalAllocationUnits;
    LARGE_INTEGER CallerAvailableAllocationUnits;
    LARGE_INTEGER ActualAvailableAllocationUnits;
    ULONG SectorsPerAllocationUnit;
    ULONG BytesPerSector;
} FILE_FS_FULL_SIZE_INFORMATION, *PFILE_FS_FULL_SIZE_INFORMATION;
static_assert(sizeof(FILE_FS_FULL_SIZE_INFORMATION) == 32);

typedef struct _FILE_FS_DEVICE_INFORMATION {
    ULONG DeviceType;
    ULONG Characteristics;
} FILE_FS_DEVICE_INFORMATION, *PFILE_FS_DEVICE_INFORMATION;
static_assert(sizeof(FILE_FS_DEVICE_INFORMATION) == 8);

typedef struct _FILE_FS_ATTRIBUTE_INFORMATION {
    ULONG FileSystemAttributes;
    ULONG MaximumComponentNameLength;
    ULONG FileSystemNameLength;
    WCHAR FileSystemName[1];
} FILE_FS_ATTRIBUTE_INFORMATION, *PFILE_FS_ATTRIBUTE_INFORMATION;
static_assert(offsetof(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName) == 12);
static_assert(sizeof(FILE_FS_ATTRIBUTE_INFORMATION) == 16);
