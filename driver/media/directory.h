// Directory control: listing what lies below a handle, looking one name up, and telling watchers what changed.
#pragma once

#include <nt.h>

struct CCB;
struct DiskDeviceExt;
struct IRPContext;
struct VCB;

inline constexpr ULONG kFoundNameChars = 256;  // terminator included

// One entry of a folder.
struct FoundEntry {
    ULONG Index;       // its position in the folder's listing
    ULONG Reserved;    // 0
    LONGLONG Time;     // 100 ns since 1601; for folders and files on disk their creation
    ULONGLONG Size;    // bytes
    ULONG NameLength;  // bytes, terminator not counted
    WCHAR Name[kFoundNameChars];
    BOOLEAN IsDirectory;
};

// Finds the first entry at or after StartIndex in the folder Ccb->Fcb that the CCB's search state matches (SearchName,
// HasWildcards, kCcbMatchAll). The VCB's Resource and the folder's FCBCommon's Resource are held, shared at least.
[[nodiscard]] BOOLEAN VrkFsFindDirEntry(DiskDeviceExt* Ext, CCB* Ccb, ULONG StartIndex, FoundEntry* Found);

// Whether the entry's name, upcased, is UpcasedName.
[[nodiscard]] BOOLEAN VrkFsFoundEntryHasName(const FoundEntry* Found, PCUNICODE_STRING UpcasedName);

// Reports a change of the object FullName (terminated path from the root) to the watchers of the card.
// Filter: FILE_NOTIFY_CHANGE_...; Action: FILE_ACTION_...
VOID VrkFsNotifyChange(VCB* Vcb, PCWSTR FullName, ULONG Filter, ULONG Action);

// The two directory requests; both take their own locks. *Information: bytes stored.
[[nodiscard]] NTSTATUS VrkFsQueryDirectory(IRPContext* Context, ULONG_PTR* Information);
// STATUS_PENDING: the request belongs to the notification package.
[[nodiscard]] NTSTATUS VrkFsChangeNotify(IRPContext* Context);
