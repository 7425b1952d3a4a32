// The context control block: one open handle (file object) of the file-system device.
#pragma once

#include "media/media_file.h"
#include "nt.h"

struct ComPort;
struct FCB;
struct ServiceChannel;
struct VCB;

inline constexpr ULONG kCcbType = 1;

// CCB::Flags
inline constexpr ULONG kCcbMatchAll = 0x10;   // the search pattern matches every name
inline constexpr ULONG kCcbComPort = 0x20;    // ComPort is attached
inline constexpr ULONG kCcbCleanedUp = 0x40;  // no handle any more: nothing would settle a write or end a watch now

// Paged, from GlobalData's list; made by create, freed by close. The search state is guarded by the resource of the
// folder's FCBCommon, the cursor by that of the file's.
struct CCB {
    ULONG Type;  // kCcbType, in every CCB; what a control handle carries in its place never begins with it
    union {
        FCB* Fcb;
        VCB* Vcb;  // of a volume open
    };
    PFILE_OBJECT FileObject;
    ULONG NextIndex;            // where the next directory query goes on
    UNICODE_STRING SearchName;  // upcased search pattern, or empty; own paged copy
    BOOLEAN HasWildcards;       // SearchName contains wildcards
    // Own paged copy of the watched folder's path, made by the first notify request. The notification package keeps a
    // pointer to it until the handle's cleanup, and a rename drops the FCB's own FullName before that.
    UNICODE_STRING NotifyName;
    struct ComPort* ComPort;  // paged pool; or null
    ULONG Flags;
    struct MediaCursor MediaCursor;
};

// The list: paged ("CCBL"), depth 30. Allocations fail with STATUS_INSUFFICIENT_RESOURCES.
VOID VrkFsCCBLListInitialize(PPAGED_LOOKASIDE_LIST List);
[[nodiscard]] NTSTATUS VrkFsCCBLListAllocate(PPAGED_LOOKASIDE_LIST List, CCB** Ccb);
VOID VrkFsCCBLListRelease(PPAGED_LOOKASIDE_LIST List, CCB* Ccb);

[[nodiscard]] NTSTATUS VrkFsCCBAllocate(PPAGED_LOOKASIDE_LIST List, CCB** Ccb, PVOID FcbOrVcb, PFILE_OBJECT FileObject);
VOID VrkFsCCBFree(PPAGED_LOOKASIDE_LIST List, CCB* Ccb);
// Gives the handle a command port. STATUS_INSUFFICIENT_RESOURCES.
[[nodiscard]] NTSTATUS VrkFsCCBAddComPort(CCB* Ccb, ServiceChannel* Channel);
