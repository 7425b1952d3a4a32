// Frame files: a media file that is opened as a folder shows every frame as a file of its own. Here is what such a file
// is called, how large it is, and what the parameters of a media file must say for the file to be accepted at all.
#pragma once

#include <nt.h>

#include "core/file_types.h"

struct FileEntry;
struct FoundEntry;
struct VideoParameters;

inline constexpr ULONG kFrameNameMaxChars = 256;  // terminator included

// Fills the name of frame file FrameIndex (below FrameCount) into Found: the base name without the built-in type's
// extension, a dot if the type wants one, the frame number in at least MinFrameDigits digits, and the extension of the
// type in row TypeIndex. A name that grows too long keeps its end and loses characters of the base name. BaseName need
// not be terminated if it fills its 256 characters. Frame numbers are FrameIndex + BaseFrameNumber in 64 bits.
VOID VrkFsConstructFileFrameName(const WCHAR* BaseName, ULONG TypeIndex, ULONG FrameCount, ULONG FrameIndex,
                                 ULONG BaseFrameNumber, ULONG MinFrameDigits, FoundEntry* Found);

// The lowest frame index from StartIndex on, below FrameCount, whose upcased name is UpcasedName; exactly what building
// and comparing every name would find, without building them all.
[[nodiscard]] BOOLEAN VrkFsFindFrameByName(const WCHAR* BaseName, ULONG TypeIndex, ULONG FrameCount, ULONG StartIndex,
                                           ULONG BaseFrameNumber, ULONG MinFrameDigits, PCUNICODE_STRING UpcasedName,
                                           PULONG FrameIndex, FoundEntry* Found);

// Bytes that a frame file of Entry reports under the type in row TypeIndex.
[[nodiscard]] ULONGLONG VrkFsGetFrameFileSize(ULONG TypeIndex, const FileEntry* Entry);

// Frames of the file that have nodes in its body table: the number of its frame files. A record that claims more frames
// than its body table can hold cannot make a listing endless.
[[nodiscard]] ULONG VrkFsGetFrameFileCount(const FileEntry* Entry);

// STATUS_FILE_INVALID for parameters that no recording card produces.
[[nodiscard]] NTSTATUS VrkFsRZVVerifyVideoParameters(const VideoParameters* Parameters);
