// Inside of create: what an open asks for, and the routines that open one kind of object each. The VCB's Resource is
// held exclusively throughout.
#pragma once

#include "nt.h"

struct CCB;
struct CardInstance;
struct DiskDeviceExt;
struct FCB;
struct FoundEntry;
struct VCB;

// One create request, taken apart.
struct OpenRequest {
    VCB* Vcb;
    DiskDeviceExt* Ext;
    CardInstance* Card;
    PFILE_OBJECT FileObject;
    ACCESS_MASK DesiredAccess;
    USHORT ShareAccess;
    ULONG Options;
    ULONG Disposition;
    BOOLEAN TargetDirectory;  // opens the folder that holds the name, for a rename into it
};

// Objects that exist. All of them fail with STATUS_SHARING_VIOLATION and STATUS_INSUFFICIENT_RESOURCES; those that say
// so with STATUS_OBJECT_NAME_COLLISION unless the disposition is FILE_OPEN or FILE_OPEN_IF. An FCB that a failing
// routine has made is gone again; its Parent stays, for the caller to remove.

[[nodiscard]] NTSTATUS VrkFsOpenVolume(const OpenRequest* Open);
[[nodiscard]] NTSTATUS VrkFsOpenRootDir(const OpenRequest* Open);
// Collision.
[[nodiscard]] NTSTATUS VrkFsOpenExistingFCB(const OpenRequest* Open, FCB* Fcb);
// Opens Folder and cuts the file object's name down to its last component.
[[nodiscard]] NTSTATUS VrkFsOpenTargetDir(const OpenRequest* Open, FCB* Folder);
// Collision.
[[nodiscard]] NTSTATUS VrkFsOpenExistingDir(const OpenRequest* Open, FCB* Parent, const FoundEntry* Found);
// The FCB of a folder on the way, without a file object.
[[nodiscard]] NTSTATUS VrkFsInternalOpenExistingDir(const OpenRequest* Open, FCB* Parent, const FoundEntry* Found,
                                                    FCB** Fcb);
// Collision, except for frame files. STATUS_NO_SUCH_FILE for a RAM file that has gone.
[[nodiscard]] NTSTATUS VrkFsOpenExistingFile(const OpenRequest* Open, FCB* Parent, const FoundEntry* Found);

// Objects that do not exist yet. Name is not on disk.

// STATUS_OBJECT_NAME_NOT_FOUND for any other name than the command port's.
[[nodiscard]] NTSTATUS VrkFsOpenComPortFile(const OpenRequest* Open, FCB* Parent, PCUNICODE_STRING Name);
// STATUS_ACCESS_DENIED where folders or files cannot be created, or no more of them; STATUS_OBJECT_NAME_COLLISION for a
// name that something open has although the disk does not list it; the entry operation's status.
[[nodiscard]] NTSTATUS VrkFsCreateNewDir(const OpenRequest* Open, FCB* Parent, PCUNICODE_STRING Name);
[[nodiscard]] NTSTATUS VrkFsCreateNewFile(const OpenRequest* Open, FCB* Parent, PCUNICODE_STRING Name);

// The two halves of every open. Prepare records the share access and makes the CCB: all that can fail. Commit ties the
// file object to its records and counts it; Cancel undoes Prepare.
[[nodiscard]] NTSTATUS VrkFsPrepareOpen(const OpenRequest* Open, FCB* Fcb, CCB** Ccb);
VOID VrkFsCommitOpen(const OpenRequest* Open, FCB* Fcb, CCB* Ccb);
VOID VrkFsCancelOpen(const OpenRequest* Open, FCB* Fcb, CCB* Ccb);

// Sees to it that the object's record is in memory. A record that could not be read last time is read again.
[[nodiscard]] NTSTATUS VrkFsLoadEntry(const OpenRequest* Open, FCB* Fcb, ULONG Index);
[[nodiscard]] NTSTATUS VrkFsReloadSubstitute(const OpenRequest* Open, FCB* Fcb);

[[nodiscard]] inline bool VrkFsOpensExisting(ULONG Disposition) {
    return Disposition == FILE_OPEN || Disposition == FILE_OPEN_IF;
}
