#pragma once

#include "nt.h"

#include "core/file_types.h"

// The one driver-wide record: made by DriverEntry in non-paged pool before anything else, freed by the unload routine
// after everything else. The card list, the lookaside lists and the registry path do not change while the driver is
// loaded, so they are read without a lock.
struct GlobalData {
    PDRIVER_OBJECT DriverObject;
    UNICODE_STRING RegistryPath;        // own terminated copy of the service key's path
    LIST_ENTRY CardInstances;           // CardInstance.Link, ascending card index
    FileType FileTypes[kMaxFileTypes];  // FileTypeCount rows in use, row 0 built in
    ULONG FileTypeCount;
    ULONG SdtiFlags;  // registered by the user-mode service, greets every opener of a command port
    NPAGED_LOOKASIDE_LIST IrpContextLookaside;         // IRPContext; non-paged, a context holds its work item
    PAGED_LOOKASIDE_LIST FcbCommonLookaside;           // FCBCommon
    PAGED_LOOKASIDE_LIST FcbLookaside;                 // FCB
    NPAGED_LOOKASIDE_LIST FcbResourceLookaside;        // the ERESOURCE of an FCB
    NPAGED_LOOKASIDE_LIST FcbCommonResourceLookaside;  // the ERESOURCE of an FCBCommon
    PAGED_LOOKASIDE_LIST CcbLookaside;                 // CCB
    PAGED_LOOKASIDE_LIST AllocSegmentLookaside;        // AllocSegment
    ULONG Flags;                                       // kGlobal...: what VrkFsGlobFree has to undo
    FAST_MUTEX FileTypesLock;                          // FileTypes but for row 0, and changes of FileTypeCount
};

inline constexpr ULONG kGlobalCardFound = 0x01;  // at least one card instance is on the list
inline constexpr ULONG kGlobalIrpContextList = 0x02;
inline constexpr ULONG kGlobalFcbList = 0x04;
inline constexpr ULONG kGlobalFcbResourceList = 0x08;
inline constexpr ULONG kGlobalFcbCommonList = 0x10;
inline constexpr ULONG kGlobalCcbList = 0x20;
inline constexpr ULONG kGlobalAllocSegmentList = 0x40;
inline constexpr ULONG kGlobalFcbCommonResourceList = 0x80;

// How far DriverEntry came, and so what the unload routine has to undo.
inline constexpr ULONG kInitGlobalAllocated = 1;
inline constexpr ULONG kInitGlobalInitialized = 2;
inline constexpr ULONG kInitShutdownRegistered = 4;

extern ULONG ulInitFlags;
extern GlobalData* pVrkFsGlobalData;

// Fails with the status of the step that failed (no card at all: that of the last card index), and then has undone
// everything; the record itself is the caller's.
[[nodiscard]] NTSTATUS VrkFsGlobInitialize(GlobalData* Global, PDRIVER_OBJECT DriverObject,
                                           PUNICODE_STRING RegistryPath);
// Undoes what Flags says; may be called on a half-built record and twice.
VOID VrkFsGlobFree(GlobalData* Global);

// Event "error during initialization" with Text, and DumpBytes of Dump (or none). Once GlobalData.DriverObject is set.
VOID VrkFsGlobLogStartFailure(PCSTR Text, const VOID* Dump, ULONG DumpBytes);
