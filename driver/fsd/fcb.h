// The file control block: one distinct path that is open or lies on the way to an open path.
#pragma once

#include "control/service_channel.h"
#include "fsd/shared_flags.h"
#include "media/media_file.h"
#include "nt.h"

struct FCBCommon;
struct HwContext;
struct RamFile;
struct VCB;

inline constexpr ULONG kFcbNodeType = 2;

// Levels of the name space, for FCB::Level and FCBCommon::Level.
inline constexpr ULONG kLevelRoot = 0;
inline constexpr ULONG kLevelType = 1;  // one folder per registered file type
inline constexpr ULONG kLevelVolume = 2;
inline constexpr ULONG kLevelFolder = 3;
inline constexpr ULONG kLevelFile = 4;   // a media file or a plain file
inline constexpr ULONG kLevelFrame = 5;  // a frame file or a RAM file below a media file

// FCB::TypeIndex of a command port file that was opened directly in the root.
inline constexpr ULONG kFcbNoTypeIndex = 255;

// FCB::Flags
inline constexpr ULONG kFcbFolder = 0x001;
inline constexpr ULONG kFcbRoot = 0x002;
inline constexpr ULONG kFcbDeletePending = 0x004;  // set by the disposition request, acted on at cleanup
inline constexpr ULONG kFcbInChildTree = 0x008;    // linked in the parent's ChildTree
inline constexpr ULONG kFcbMediaObject = 0x010;    // MediaFileObject is set up
inline constexpr ULONG kFcbRamFile = 0x020;
inline constexpr ULONG kFcbResourceAllocated = 0x040;
inline constexpr ULONG kFcbResourceInitialised = 0x080;
inline constexpr ULONG kFcbCommandPort = 0x100;
inline constexpr ULONG kFcbServiceReadFailed = 0x200;  // a read through the user-mode service failed
inline constexpr ULONG kFcbSegmentsReserved = 0x400;  // kFcbDeleteSegments segment records are set aside for the delete

// How many segment records the release of everything that one file holds can take.
inline constexpr ULONG kFcbDeleteSegments = 6;

struct FCB;

// What a rename or move under way is about to make of an FCB. Empty at any other time.
struct RenameStep {
    UNICODE_STRING Name;  // own copy
    FCB* Parent;          // referenced; null: the FCB stays below the one that it has
    FCB* Next;            // the next FCB that the change reaches
};

// Paged, from GlobalData's list. A create makes it for its path and for every folder on the way; it lives while it is
// referenced or has children. Everything but the MediaFileObject and the ServiceHandle is guarded by the VCB's
// Resource; those two by the FCB's own Resource or the FCBCommon's (see the data paths), and so are the flags that
// belong to them. ServiceClose goes with the ServiceHandle.
struct FCB {
    ULONG NodeType;  // kFcbNodeType
    PERESOURCE Resource;
    FCBCommon* Common;
    SHARE_ACCESS ShareAccess;  // of the handles on this path
    ULONG ReferenceCount;      // file objects on this FCB, not yet closed
    ULONG HandleCount;         // file objects on this FCB, not yet cleaned up
    UNICODE_STRING Name;       // last component, as the disk or its creator spells it; zero-terminated
    UNICODE_STRING FullName;   // cached path from the root, or empty; zero-terminated
    FCB* Parent;               // null for the root
    ULONG Level;
    ULONG TypeIndex;         // row of the file-type table under which the path lies
    LIST_ENTRY SiblingLink;  // in the parent's Children
    ULONG EntryIndex;        // level 5: frame number or RAM-file index
    SharedFlags Flags;
    PRTL_SPLAY_LINKS ChildTree;          // folders: children by Name
    LIST_ENTRY Children;                 // folders only
    RTL_SPLAY_LINKS SplayLinks;          // this FCB's node in the parent's ChildTree
    struct ServiceHandle ServiceHandle;  // the user-mode service's, for this file
    struct ServiceClose* ServiceClose;   // made with the handle, sent when the FCB goes; or null
    struct MediaFileObject MediaFileObject;
    struct RamFile* RamFile;  // RAM files: the record in the volume's set
    RenameStep Rename;
};

// The lists: FCBs paged ("FCBL"), their resources non-paged ("FCBN"), depth 20 each. Allocations fail with
// STATUS_INSUFFICIENT_RESOURCES.
VOID VrkFsFCBLListInitialize(PPAGED_LOOKASIDE_LIST List);
[[nodiscard]] NTSTATUS VrkFsFCBLListAllocate(PPAGED_LOOKASIDE_LIST List, FCB** Fcb);
VOID VrkFsFCBLListRelease(PPAGED_LOOKASIDE_LIST List, FCB* Fcb);
VOID VrkFsFCBNonPagedLListInitialize(PNPAGED_LOOKASIDE_LIST List);
[[nodiscard]] NTSTATUS VrkFsFCBNonPagedLListAllocate(PNPAGED_LOOKASIDE_LIST List, PERESOURCE* Resource);
VOID VrkFsFCBNonPagedLListRelease(PNPAGED_LOOKASIDE_LIST List, PERESOURCE Resource);

// An empty FCB with its resource; in no tree. Free undoes whatever the FCB has, except its links.
[[nodiscard]] NTSTATUS VrkFsFCBAllocate(FCB** Fcb, VCB* Vcb, BOOLEAN IsFolder);
VOID VrkFsFCBFree(FCB* Fcb);
// Forgets the image; the next transfer sets it up anew. The FCBCommon's Resource is held exclusively, or nobody else
// knows the FCB.
VOID VrkFsFCBDropMediaObject(FCB* Fcb);

// All of the following: the VCB's Resource is held exclusively.

// Makes the FCB of a child of Parent, finds or makes its FCBCommon, and links it. The new FCB has no references.
// STATUS_INSUFFICIENT_RESOURCES; STATUS_OBJECT_PATH_NOT_FOUND for a volume that can no longer be opened and for a path
// below level 5. Nothing is kept on failure.
[[nodiscard]] NTSTATUS VrkFsFCBCreate(FCB** Fcb, VCB* Vcb, FCB* Parent, PCUNICODE_STRING Name, LONGLONG Time,
                                      BOOLEAN IsFolder, PDEVICE_OBJECT DeviceObject);
// The same for the command port below Parent, which is no object on disk: its FCBCommon is never shared with one
// (except at level 5, where all share the media file's).
[[nodiscard]] NTSTATUS VrkFsFCBCreateComPort(FCB** Fcb, VCB* Vcb, FCB* Parent, PCUNICODE_STRING Name, LONGLONG Time,
                                             PDEVICE_OBJECT DeviceObject);
// Removes the FCB if nothing uses it, and then every ancestor that this leaves unused. Waits for requests that have
// completed but not yet released the FCB's or the FCBCommon's resource.
VOID VrkFsFCBRemove(FCB* Fcb, HwContext* Hw);
// The same, but stops at the ancestor Stop: for whoever still works with that one.
VOID VrkFsFCBRemoveUpTo(FCB* Fcb, const FCB* Stop, HwContext* Hw);

// Rename and move change the object's name on disk and then in the tree: the FCBCommon, every open path to the object
// (each stays in its own type folder), its frame files and its RAM files follow. The FCBCommon's Resource is held
// exclusively. The caller has looked for collisions. ReplaceExisting is handed to the entry operation, which reports
// the change accordingly. STATUS_ACCESS_DENIED for levels that have no name on disk, for a path that no longer leads to
// its object, for the command port's name and for a target that is no folder of the same volume;
// STATUS_OBJECT_NAME_INVALID; STATUS_FILE_DELETED, for the target folder STATUS_DELETE_PENDING;
// STATUS_INSUFFICIENT_RESOURCES, nothing changed; else the entry operation's status.
[[nodiscard]] NTSTATUS VrkFsFCBRename(FCB* Fcb, PCUNICODE_STRING NewName, BOOLEAN ReplaceExisting, HwContext* Hw);
[[nodiscard]] NTSTATUS VrkFsFCBMove(FCB* NewParent, FCB* Fcb, PCUNICODE_STRING NewName, BOOLEAN ReplaceExisting,
                                    HwContext* Hw);

// The cache knows body tables by the file's name, and the flush thread writes them to the file's blocks: neither may go
// on under a name or for blocks that are no longer the file's. Writes them back and takes them out of the cache;
// nothing for what is no file. STATUS_INSUFFICIENT_RESOURCES. The FCBCommon's Resource is held exclusively.
[[nodiscard]] NTSTATUS VrkFsFCBForgetBodyTable(FCB* Fcb);

// Deletes what the FCB stands for. The FCBCommon's Resource is held exclusively. STATUS_CANNOT_DELETE for what may not
// be deleted; else the entry operation's status. On success the FCBCommon is marked deleted and out of its parent's
// tree. Without memory it still deletes what VrkFsFCBSetDeletePending has prepared. On failure the object is an
// ordinary one again.
[[nodiscard]] NTSTATUS VrkFsFCBDeleteEntry(FCB* Fcb);
[[nodiscard]] BOOLEAN VrkFsFCBCanSetDisposition(const FCB* Fcb);
// Sets and clears the delete-pending mark together with what the delete will need, so that it cannot fail for memory.
// STATUS_INSUFFICIENT_RESOURCES.
[[nodiscard]] NTSTATUS VrkFsFCBSetDeletePending(FCB* Fcb);
VOID VrkFsFCBClearDeletePending(FCB* Fcb);

// TRUE when the file type under which the path lies lets files and folders be created and deleted. A type that is no
// longer registered does not.
[[nodiscard]] BOOLEAN VrkFsFCBTypeAllowsChanges(const FCB* Fcb);
// The type's code, which the user-mode service is told; 0 where the path lies under no type.
[[nodiscard]] ULONG VrkFsFCBTypeCode(const FCB* Fcb);

// The name that opens the command port in every folder and can be nobody else's.
[[nodiscard]] BOOLEAN VrkFsIsComPortName(PCUNICODE_STRING Name);
// TRUE for what can be one component of a path: a valid name of at most 255 characters. A NUL in it is refused: the
// disk would keep another name than the one that was looked for.
[[nodiscard]] BOOLEAN VrkFsIsValidComponent(PCUNICODE_STRING Name);

// TRUE when the object lies where this path says: after a move through another type folder it does not, and then
// nothing may be written through this path's folder.
[[nodiscard]] BOOLEAN VrkFsFCBIsInPlace(const FCB* Fcb);
// TRUE for a media or plain file at level 4 that is not a command port.
[[nodiscard]] BOOLEAN VrkFsFCBIsFile(const FCB* Fcb);
// TRUE for a frame file: level 5, neither RAM file nor command port.
[[nodiscard]] BOOLEAN VrkFsFCBIsFrame(const FCB* Fcb);

// Ties a file object to its records: first context, second context, VPB.
VOID VrkFsFCBSetupFileObject(PFILE_OBJECT FileObject, VCB* Vcb, PVOID FcbOrVcb, struct CCB* Ccb);
