#pragma once

#include <vrkfs/control.h>
#include "nt.h"

struct GlobalData;

// The driver-wide table of media file types. Row 0 is the built-in type "RZV", always there and never changed. The
// service may replace the others at any time: they are copied and changed under GlobalData.FileTypesLock, by the
// functions below. FileTypeCount is read without it: it never passes kMaxFileTypes, and a row is whole before it is
// counted.
using FileType = VrkFsFileType;

inline constexpr ULONG kMaxFileTypes = 32;
inline constexpr ULONG kFileTypeExtensionChars = 3;

// Appends the row. Table full: STATUS_INSUFFICIENT_RESOURCES, nothing changed.
[[nodiscard]] NTSTATUS VrkFsGlobAddFileType(GlobalData* Global, const FileType* Row);
// Appends all Count rows or none of them.
[[nodiscard]] NTSTATUS VrkFsGlobAddFileTypes(GlobalData* Global, const FileType* Rows, ULONG Count);
// Overwrites a row and leaves the count alone. Index outside the table: STATUS_INVALID_PARAMETER.
[[nodiscard]] NTSTATUS VrkFsGlobUpdateFileType(GlobalData* Global, const FileType* Row, ULONG Index);
// The row as it stands; row 0 for an index outside the table (a command port in the root has one).
[[nodiscard]] FileType VrkFsGlobFileType(GlobalData* Global, ULONG Index);
// Keeps row 0 only.
VOID VrkFsGlobRemoveFileTypes(GlobalData* Global);
// Rows in use, for walking the table; between 1 and kMaxFileTypes once the driver is loaded.
[[nodiscard]] ULONG VrkFsGlobFileTypeCount(const GlobalData* Global);
