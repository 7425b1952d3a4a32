#pragma once

#include <nt.h>

#include "volume/records.h"

struct BackupDetails;
struct FCB;
struct FoundEntry;
struct HwContext;
struct HwVolume;
struct VCB;

// Operations on a volume's records. Every change updates the caller's image, writes it to the position-0 device, stores
// it in the entry cache and reports the change. Callers hold the VCB resource (exclusively for what changes a name, a
// table or the bitmap) and serialise the changes of one image. FolderFCB is an open folder (level 3): its FCBCommon
// holds the DirEntry image, its slot and the volume. None of these may be called with a scratch lock held.
//
// Where a write fails, the image is as it was before the call, and so is the allocator; blocks that the disk may name
// after all are marked contested, so that nobody gets them before the next mount. An image that stands in for an
// unreadable record is refused by every operation that would write it (STATUS_UNSUCCESSFUL).

// ---- Folders (folder_entries.cpp) ----

// STATUS_ACCESS_DENIED: 256 folders. On success *Slot says where, and Image is the new folder.
[[nodiscard]] NTSTATUS VrkFsHwCreateDirEntry(HwContext* Hw, VCB* Vcb, HwVolume* Volume, PCUNICODE_STRING Name,
                                             DirEntry* Image, PULONG Slot);
// Deletes a folder. Its table is not looked at: the caller sees to it that the folder is empty.
[[nodiscard]] NTSTATUS VrkFsHwInvalidateDirEntry(HwContext* Hw, VCB* Vcb, HwVolume* Volume, DirEntry* Image,
                                                 ULONG Slot);
// Always succeeds for Slot below 256. *Substituted (may be null): the image stands in for an unreadable record.
[[nodiscard]] NTSTATUS VrkFsHwReadDirEntry(HwContext* Hw, HwVolume* Volume, ULONG Slot, DirEntry* Image,
                                           PBOOLEAN Substituted);
// The first folder at or after *Slot. *Substituted may be null.
[[nodiscard]] NTSTATUS VrkFsHwGetNextDirEntry(HwContext* Hw, HwVolume* Volume, PULONG Slot, FoundEntry* Entry,
                                              PBOOLEAN Found, PBOOLEAN Substituted = nullptr);
[[nodiscard]] NTSTATUS VrkFsHwRenameFolder(HwContext* Hw, VCB* Vcb, HwVolume* Volume, DirEntry* Image, ULONG Slot,
                                           PCUNICODE_STRING NewName);
// Zeroes all 256 slots.
[[nodiscard]] NTSTATUS VrkFsHwInvalidateFolders(HwContext* Hw, HwVolume* Volume);

VOID VrkFsHwSetBitmapEntry(HwVolume* Volume, ULONG Slot);
VOID VrkFsHwClearBitmapEntry(HwVolume* Volume, ULONG Slot);
[[nodiscard]] BOOLEAN VrkFsHwCheckBitmapEntry(const HwVolume* Volume, ULONG Slot);

// ---- Files (file_entries.cpp, file_rename.cpp) ----

// The size that listings show: plain files their byte size, media files that of the whole image, anything else 0.
[[nodiscard]] ULONGLONG VrkFsHwGetFileAllocationSize(const FileEntry* Image);

// STATUS_ACCESS_DENIED: 2048 files. STATUS_DISK_FULL. On failure no block stays taken unless the disk may name it.
[[nodiscard]] NTSTATUS VrkFsHwCreateFileEntry(HwContext* Hw, VCB* Vcb, FCB* FolderFCB, PCUNICODE_STRING Name,
                                              FileEntry* Image, PULONG Slot);
// Always succeeds for Slot below 2048 whose table entry is not 0 (else STATUS_UNSUCCESSFUL). An entry that points
// outside the data area is not read: it gets the stand-in of an unreadable record.
[[nodiscard]] NTSTATUS VrkFsHwReadFileEntry(HwContext* Hw, FCB* FolderFCB, ULONG Slot, FileEntry* Image,
                                            PBOOLEAN Substituted);
// The only way by which a file's record reaches the disk again. Success without a write for an image that was never
// filled or stands in for an unreadable record. STATUS_UNSUCCESSFUL, and nothing written, unless the folder's table has
// ExpectedLba at Slot and the record there is this file's alone.
[[nodiscard]] NTSTATUS VrkFsHwWriteFileEntry(HwContext* Hw, FCB* FolderFCB, FileEntry* Image, ULONG Slot,
                                             ULONG ExpectedLba);
// Deletes a file and gives back what it holds. Fails only where the folder could not be written, and then the file is
// still there. Takes at most 6 segment records (VrkFsVolAllocReserveSegments) and needs no other memory.
[[nodiscard]] NTSTATUS VrkFsHwRemoveFileEntry(HwContext* Hw, VCB* Vcb, FCB* FolderFCB, const FileEntry* Image,
                                              ULONG Slot);
// The first file at or after *Slot. *Substituted may be null.
[[nodiscard]] NTSTATUS VrkFsHwGetNextFileEntry(HwContext* Hw, FCB* FolderFCB, PULONG Slot, FoundEntry* Entry,
                                               PBOOLEAN Found, PBOOLEAN Substituted = nullptr);
[[nodiscard]] NTSTATUS VrkFsHwRenameFile(HwContext* Hw, VCB* Vcb, HwVolume* Volume, FCB* FolderFCB, FileEntry* Image,
                                         ULONG Slot, PCUNICODE_STRING NewName, BOOLEAN ReplaceExisting);
// *Slot is the file's slot in the source folder, and afterwards in the destination. STATUS_ACCESS_DENIED: the
// destination is full. Both folders lie on one volume.
[[nodiscard]] NTSTATUS VrkFsHwMoveFile(HwContext* Hw, VCB* Vcb, FCB* DestinationFolderFCB, FCB* SourceFolderFCB,
                                       FileEntry* Image, PULONG Slot, PCUNICODE_STRING NewName,
                                       BOOLEAN ReplaceExisting);
// FileFCB's record has been copied to NewLba, whose blocks are the caller's. On failure the table still has the old
// one.
[[nodiscard]] NTSTATUS VrkFsHwChangeFileEntryPointer(HwContext* Hw, FCB* FileFCB, ULONG NewLba);

// ---- Volume (volume_rename.cpp) ----

[[nodiscard]] NTSTATUS VrkFsHwRenameVolume(HwContext* Hw, VCB* Vcb, HwVolume* Volume, PCUNICODE_STRING NewName);

// ---- Mount (mount.cpp) ----

// Reads every folder and claims every file. Damaged or conflicting entries do not make it fail: only
// STATUS_INSUFFICIENT_RESOURCES does, and then the volume must not be used.
[[nodiscard]] NTSTATUS VrkFsHwConstructFolderBitmap(HwContext* Hw, HwVolume* Volume, PULONG FolderCount);
// Claims one file: its record, then what the record names. A range that is already taken, leaves the data area or wraps
// is marked contested, the others are claimed all the same, and the first failure is returned. FolderSlot is where
// Folder lies. The caller holds the scratch lock of Folder's buffer.
[[nodiscard]] NTSTATUS VrkFsHwClaimFileSpace(HwContext* Hw, HwVolume* Volume, ULONG FolderSlot, const DirEntry* Folder,
                                             ULONG Slot, BackupDetails* Backup);
// Caches a folder that was read from its slot and claims its files. Folder is in the scratch buffer, whose lock is
// held. Fails with STATUS_INSUFFICIENT_RESOURCES only.
[[nodiscard]] NTSTATUS VrkFsHwTakeInFolder(HwContext* Hw, HwVolume* Volume, ULONG FolderSlot, DirEntry* Folder,
                                           BackupDetails* Backup);
// Reads a file that the mount could not read again, and claims what it names; its record's blocks were claimed then.
// *Claimed FALSE: still unreadable. STATUS_INSUFFICIENT_RESOURCES: not all could be claimed.
[[nodiscard]] NTSTATUS VrkFsHwClaimUnreadFile(HwContext* Hw, HwVolume* Volume, ULONG FolderSlot, ULONG Slot, ULONG Lba,
                                              PBOOLEAN Claimed);
