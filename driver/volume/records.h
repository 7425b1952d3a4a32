#pragma once

#include <nt.h>
#include <vrkfs/media.h>

#include <cstddef>

// What lies on the disks of a volume: the geometry, the three guarded records and their checksum. Blocks have 512
// bytes; block addresses (LBAs) are 32 bits and count per SCSI device; all integers are little-endian; names are UTF-16
// in 512-byte fields and may lack their terminator; times count 100 ns since 1601.
//
// With L the smallest last LBA among a volume's devices, every device of the volume is divided alike:
//   0 .. 1            VolumeEntry, each device its own
//   2 .. 1023         unused
//   1024 .. L - 4608  data area; FileEntry records and body tables lie on the device at position 0 only
//   L - 4607 .. L     256 slots of 18 blocks for DirEntry records, on the device at position 0

inline constexpr ULONG kVolumeEntryLba = 0;
inline constexpr ULONG kVolumeEntryBlocks = 2;
inline constexpr ULONG kFirstDataLba = 1024;
inline constexpr ULONG kDirEntryBlocks = 18;
inline constexpr ULONG kFileEntryBlocks = 2;
inline constexpr ULONG kMaxFolders = 256;  // of a volume
inline constexpr ULONG kMaxFilesPerFolder = 2048;
inline constexpr ULONG kFolderAreaBlocks = kMaxFolders * kDirEntryBlocks;  // 4608
inline constexpr ULONG kMaxVolumeDevices = 16;
inline constexpr ULONG kMaxFormatDevices = 14;
inline constexpr ULONG kNoDevice = 0xFFFFFFFF;
// A smaller disk has no room for the folder slots and the record of a single file.
inline constexpr ULONG kMinLastLba = kFirstDataLba + kFileEntryBlocks - 1 + kFolderAreaBlocks;
inline constexpr ULONG kRecordNameChars = 256;

inline constexpr ULONG kVolumeEntryMagic = 0x304C4F56;  // "VOL0"
inline constexpr ULONG kDirEntryMagic = 0x304C4F46;     // "FOL0"
inline constexpr ULONG kFileEntryMagic = 0x304C4946;    // "FIL0"
inline constexpr ULONG kVolumeEntryVersion = 0x00010000;

// Block 0 and 1 of every device of a volume. CreationTime and Name together say which volume a device belongs to.
struct VolumeEntry {
    ULONG Magic;
    ULONG Version;
    ULONGLONG CreationTime;
    ULONG Checksum;
    ULONG DeviceCount;
    ULONG Position;  // of this device, 0 to DeviceCount - 1
    UCHAR Zero[484];
    WCHAR Name[kRecordNameChars];
};
static_assert(sizeof(VolumeEntry) == 1024);
static_assert(offsetof(VolumeEntry, CreationTime) == 0x008);
static_assert(offsetof(VolumeEntry, Checksum) == 0x010);
static_assert(offsetof(VolumeEntry, DeviceCount) == 0x014);
static_assert(offsetof(VolumeEntry, Position) == 0x018);
static_assert(offsetof(VolumeEntry, Name) == 0x200);

// A folder. In memory FileCount always equals the number of non-zero entries of FileTable, whatever the disk said.
struct DirEntry {
    ULONG Magic;
    ULONG Checksum;
    ULONGLONG CreationTime;
    ULONG FileCount;
    ULONG InUse;  // 0: the slot is free and the rest is what a deleted folder left
    UCHAR Zero[488];
    ULONG FileTable[kMaxFilesPerFolder];  // LBAs of the files' records, 0: empty. The index is the file's slot
    WCHAR Name[kRecordNameChars];
};
static_assert(sizeof(DirEntry) == 9216);
static_assert(offsetof(DirEntry, Checksum) == 0x0004);
static_assert(offsetof(DirEntry, CreationTime) == 0x0008);
static_assert(offsetof(DirEntry, FileCount) == 0x0010);
static_assert(offsetof(DirEntry, InUse) == 0x0014);
static_assert(offsetof(DirEntry, FileTable) == 0x0200);
static_assert(offsetof(DirEntry, Name) == 0x2200);

// FileEntry.Kind
inline constexpr ULONG kFileKindPlain = 0;
inline constexpr ULONG kFileKindMedia = 1;

// FileEntry.Flags
inline constexpr ULONG kFileHasAlpha = 0x01;
inline constexpr ULONG kFileVideoFormatSet = 0x02;
inline constexpr ULONG kFileAlphaFormatSet = 0x04;
inline constexpr ULONG kFileVideoReserved = 0x08;  // space reserved for video and not yet settled
inline constexpr ULONG kFileAlphaReserved = 0x10;

// A file. Ranges are in data-area blocks and the same on every device for data, on position 0 alone for body tables; a
// start or a count of 0 means that there is no such range.
#pragma pack(push, 4)
struct FileEntry {
    ULONG Magic;
    ULONG Checksum;
    ULONGLONG CreationTime;
    ULONGLONG VideoDataLength;  // blocks of all video fields over all devices
    ULONG DataBlockCount;       // blocks of the data range on each device: plain data, or video
    ULONG DataStartLba;
    ULONG Kind;
    ULONG LineStandard;  // media: 525 or 625
    ULONGLONG FileSize;  // plain: bytes
    UCHAR Zero1[32];
    ULONG FrameCount;
    ULONG VideoBodyTableLba;
    ULONG VideoBodyTableBlockCount;
    ULONG AlphaBodyTableLba;
    ULONG AlphaBodyTableBlockCount;
    ULONGLONG AlphaDataLength;  // blocks of all alpha fields over all devices
    ULONG AlphaDataBlockCount;
    ULONG AlphaDataStartLba;
    ULONG Flags;
    ULONG VideoFormat;  // SDTI type
    ULONG AlphaFormat;
    UCHAR Zero2[128];
    UCHAR ApplicationInfo[256];
    WCHAR Name[kRecordNameChars];
};
#pragma pack(pop)
static_assert(sizeof(FileEntry) == 1024);
static_assert(offsetof(FileEntry, Checksum) == 0x004);
static_assert(offsetof(FileEntry, VideoDataLength) == 0x010);
static_assert(offsetof(FileEntry, DataBlockCount) == 0x018);
static_assert(offsetof(FileEntry, Kind) == 0x020);
static_assert(offsetof(FileEntry, FileSize) == 0x028);
static_assert(offsetof(FileEntry, FrameCount) == 0x050);
static_assert(offsetof(FileEntry, VideoBodyTableLba) == 0x054);
static_assert(offsetof(FileEntry, AlphaBodyTableLba) == 0x05C);
static_assert(offsetof(FileEntry, AlphaDataLength) == 0x064);
static_assert(offsetof(FileEntry, AlphaDataBlockCount) == 0x06C);
static_assert(offsetof(FileEntry, AlphaDataStartLba) == 0x070);
static_assert(offsetof(FileEntry, Flags) == 0x074);
static_assert(offsetof(FileEntry, VideoFormat) == 0x078);
static_assert(offsetof(FileEntry, ApplicationInfo) == 0x100);
static_assert(offsetof(FileEntry, Name) == 0x200);

// A body-table node with its place: what recording and playback applications share with the driver, so fixed.
using PlacedBodyTableNode = VrkFsPlacedNode;

// ---- Checksum (checksum.cpp) ----

[[nodiscard]] ULONG VrkFsHwCalcChecksum(const VOID* Bytes, ULONG Length);
// Of a whole record with its checksum field taken as 0; the record is not touched.
[[nodiscard]] ULONG VrkFsHwCalcVolumeChecksum(const VolumeEntry* Entry);
[[nodiscard]] ULONG VrkFsHwCalcFolderChecksum(const DirEntry* Entry);
[[nodiscard]] ULONG VrkFsHwCalcFileChecksum(const FileEntry* Entry);
// The test of a record as read. RecordType is an HwRecordType; body tables carry no checksum and always fail. With
// AllowEmpty a record of magic 0 passes unchecked. The magic is not tested otherwise.
[[nodiscard]] BOOLEAN VrkFsHwVerifyChecksum(const VOID* Record, ULONG RecordType, BOOLEAN AllowEmpty);

// ---- Names and sizes (records.cpp) ----

// 1 to 256 characters before the end or the first NUL, none of \ / : * ? " < > |
[[nodiscard]] BOOLEAN VrkFsHwIsValidFilename(PCUNICODE_STRING Name);
// Fills a name field: cut at the first NUL and at 256 characters, zeroes after it.
VOID VrkFsHwSetRecordName(PWCHAR Field, PCUNICODE_STRING Name);
// Whether two name fields hold the same name, case included.
[[nodiscard]] BOOLEAN VrkFsHwIsSameName(const WCHAR* First, const WCHAR* Second);
// Bytes on disk of one stream's body table, whole blocks, and of its nodes in memory.
[[nodiscard]] ULONGLONG VrkFsHwGetBodyTableSize(ULONG Frames);
[[nodiscard]] ULONGLONG VrkFsHwGetBodyTableNodesSize(ULONG Frames);
// Sets FileCount to what the table holds.
VOID VrkFsHwRecountFiles(DirEntry* Entry);
// The lowest free slot of the table; kMaxFilesPerFolder if there is none.
[[nodiscard]] ULONG VrkFsHwFindFreeFileSlot(const DirEntry* Entry);
// Whether a slot that was read with empty slots allowed holds a folder: a record of magic 0 passed unchecked and counts
// only if its checksum is right after all.
[[nodiscard]] BOOLEAN VrkFsHwIsFolderInUse(const DirEntry* Entry);
// TRUE for a record that stands in for an unreadable one, and for one that was never filled: such an image is never
// written and nothing is entered into it.
[[nodiscard]] BOOLEAN VrkFsHwIsSubstituteFolder(const DirEntry* Entry);
[[nodiscard]] BOOLEAN VrkFsHwIsSubstituteFile(const FileEntry* Entry);
// Makes the stand-in of a file record at Lba that is not to be read: "BAD_FILE_<lba>", holding no space.
VOID VrkFsHwMakeSubstituteFile(FileEntry* Entry, ULONG Lba);
