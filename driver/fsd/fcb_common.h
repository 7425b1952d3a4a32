// The common file control block: one object on disk (a volume, a folder, a file), however many paths lead to it.
#pragma once

#include "nt.h"

struct BodyTableObject;
struct DirEntry;
struct FCB;
struct FileEntry;
struct HwContext;
struct HwVolume;
struct VCB;

// FCBCommon::Flags
inline constexpr ULONG kFcbCommonResourceInitialised = 0x01;
inline constexpr ULONG kFcbCommonFolder = 0x02;
inline constexpr ULONG kFcbCommonRoot = 0x04;
inline constexpr ULONG kFcbCommonInChildTree = 0x10;  // linked in the parent's ChildTree
inline constexpr ULONG kFcbCommonResourceAllocated = 0x20;
inline constexpr ULONG kFcbCommonSubstitute = 0x40;  // the entry stands in for an unreadable record: never write it
inline constexpr ULONG kFcbCommonDeleted = 0x80;     // gone from the disk; only its open handles still know it

// Paged, from GlobalData's list. Lives while an FCB uses it or while it has children. Links, counts and names are
// guarded by the VCB's Resource (FullName by its NameLock as well); a file's image, RecordLba, LayoutGeneration and
// BodyTable change only under Resource exclusively and are read under it (shared or exclusive).
//
// Volumes hang below the root's record, whatever type folder they were reached through; type folders' records are
// listed below the root but in no tree. A level-5 FCB uses its media file's record.
struct FCBCommon {
    PERESOURCE Resource;
    VCB* Vcb;
    PDEVICE_OBJECT DeviceObject;
    ULONG ReferenceCount;     // FCBs that use this record
    ULONG HandleCount;        // file objects on paths of this level to the object, not yet cleaned up
    UNICODE_STRING Name;      // last component, zero-terminated
    UNICODE_STRING FullName;  // cached path with the built-in type's folder as its first component, or empty
    FCBCommon* Parent;        // null for the root
    LONGLONG Time;            // time stamp of the object's entry
    ULONG Level;
    LIST_ENTRY SiblingLink;  // in the parent's Children
    HwVolume* VolumeHandle;  // levels 2 to 4; opened by level 2
    ULONG Flags;
    // levels 0 to 3
    PRTL_SPLAY_LINKS ChildTree;
    LIST_ENTRY Children;
    // level 3: paged copy of the folder's record (changed under the VCB's Resource exclusively), and its slot
    struct DirEntry* FolderEntry;
    ULONG FolderEntryIndex;
    // level 4: paged copy of the file's record, its slot in the folder's table, the block it lives at, its body tables
    struct FileEntry* FileEntry;
    ULONG FileEntryIndex;
    ULONG RecordLba;
    // Raised whenever the record's data ranges, tables or lengths are replaced: cursors and media objects of the layout
    // before are not used again.
    ULONG LayoutGeneration;
    BodyTableObject* BodyTable;
    RTL_SPLAY_LINKS SplayLinks;  // this record's node in the parent's ChildTree
};

// The lists: records paged ("FCBC"), their resources non-paged ("FCBn"), depth 20 each. Allocations fail with
// STATUS_INSUFFICIENT_RESOURCES.
VOID VrkFsFCBCommonLListInitialize(PPAGED_LOOKASIDE_LIST List);
[[nodiscard]] NTSTATUS VrkFsFCBCommonLListAllocate(PPAGED_LOOKASIDE_LIST List, FCBCommon** Common);
VOID VrkFsFCBCommonLListRelease(PPAGED_LOOKASIDE_LIST List, FCBCommon* Common);
VOID VrkFsCommonFCBNonPagedLListInitialize(PNPAGED_LOOKASIDE_LIST List);
[[nodiscard]] NTSTATUS VrkFsCommonFCBNonPagedLListAllocate(PNPAGED_LOOKASIDE_LIST List, PERESOURCE* Resource);
VOID VrkFsCommonFCBNonPagedLListRelease(PNPAGED_LOOKASIDE_LIST List, PERESOURCE Resource);

[[nodiscard]] NTSTATUS VrkFsFCBCommonAllocate(FCBCommon** Common, VCB* Vcb, BOOLEAN IsFolder);
// Gives back the body-table object, the entry copies, the names and the resource; not the links.
VOID VrkFsFCBCommonFree(FCBCommon* Common);

// Makes a record below Parent, with a reference count of 0. Opens the volume at level 2 (STATUS_OBJECT_PATH_NOT_FOUND
// when there is none of that name). The VCB's Resource is held exclusively. Nothing is kept on failure.
[[nodiscard]] NTSTATUS VrkFsFCBCommmonCreate(FCBCommon** Common, VCB* Vcb, FCBCommon* Parent, PCUNICODE_STRING Name,
                                             LONGLONG Time, BOOLEAN IsFolder, PDEVICE_OBJECT DeviceObject, ULONG Level,
                                             BOOLEAN InsertIntoTree);
// Removes the record if nothing uses it, and then every ancestor that this leaves unused. The VCB's Resource is held
// exclusively. Waits for requests that have completed but not yet released a record's resource.
VOID VrkFsFCBCommonRemove(FCBCommon* Common, HwContext* Hw);
// Waits until nobody holds the resource any more. Nobody new can want it: its record is out of reach.
VOID VrkFsDrainResource(PERESOURCE Resource);
// Marks the record deleted and takes it out of its parent's tree, so that a new object of the name gets a record of its
// own.
VOID VrkFsFCBCommonMarkDeleted(FCBCommon* Common);
