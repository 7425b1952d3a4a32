#pragma once

#include <vrkfs/control.h>
#include "nt.h"

struct GlobalData;

// The driver-wide table of media file types. Row 0 is the built-in type "RZV" and always there. The rows in use are
// read by every create and enumeration without a lock: FileTypeCount never passes kMaxFileTypes and a row is whole
// before it is counted. Changes are made one at a time, under GlobalData.FileTypesLock, by the functions below.
using FileType = VrkFsFileType;

inline constexpr ULONG kMaxFileTypes = 32;
inline constexpr ULONG kFileTypeExtensionChars = 3;

// Appends the row. Table full: STATUS_INSUFFICIENT_RESOURCES, nothing changed.
[[nodiscard]] NTSTATUS VrkFsGlobAddFileType(GlobalData* Global, const FileType* Row);
// Appends all Count rows or none of them.
[[nodiscard]] NTSTATUS VrkFsGlobAddFileTypes(GlobalData* Global, const FileType* Rows, ULONG Count);
// Overwrites a row and leaves the count alone. Index outside the table: STATUS_INVALID_PARAMETER.
[[nodiscard]] NTSTATUS VrkFsGlobUpdateFileType(GlobalData* Global, const FileType* Row, ULONG Index);
// Keeps row 0 only.
VOID VrkFsGlobRemoveFileTypes(GlobalData* Global);
// Rows in use, for walking the table; between 1 and kMaxFileTypes once the driver is loaded.
[[nodiscard]] ULONG VrkFsGlobFileTypeCount(const GlobalData* Global);
