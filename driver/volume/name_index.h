#pragma once

#include <nt.h>

#include "volume/records.h"

struct FCB;
struct FoundEntry;
struct HwContext;
struct HwVolume;

// Hashes of the upcased names in a volume's folders, so that opening a file in a folder of 2048 reads one record and
// not 2048. A hash only says which slots need not be looked at; what is found is always decided by the record itself.
//
// Embedded in HwVolume. A folder's array is made when its files are first looked at and freed with the volume or the
// folder. Values are read and written whole, without a lock: lookups run under the VCB resource at least shared,
// changes of a name under it exclusively.

inline constexpr ULONG kNameHashEmpty = 0;     // nothing there
inline constexpr ULONG kNameHashMustLook = 1;  // something is there, under any name
inline constexpr ULONG kNameHashFirst = 2;     // real hashes start here

struct NameIndex {
    ULONG Folders[kMaxFolders];
    PULONG Files[kMaxFolders];  // by folder slot: null, or kMaxFilesPerFolder hashes (paged)
};

[[nodiscard]] ULONG VrkFsHwHashName(PCUNICODE_STRING Name);
VOID VrkFsHwFreeNameIndex(NameIndex* Index);
VOID VrkFsHwSetFolderHash(HwVolume* Volume, ULONG Slot, ULONG Hash);
// Drops all that is known of a folder's files.
VOID VrkFsHwDropFileHashes(HwVolume* Volume, ULONG FolderSlot);
// Makes the folder's array if there is memory; does nothing for an array that is not there.
VOID VrkFsHwSetFileHash(HwVolume* Volume, ULONG FolderSlot, ULONG Slot, ULONG Hash);
VOID VrkFsHwMakeFileHashes(HwVolume* Volume, ULONG FolderSlot);

// The first folder or file at or after StartSlot of exactly that (upcased) name, as a walk with GetNext would give it.
[[nodiscard]] NTSTATUS VrkFsHwFindFolderByName(HwContext* Hw, HwVolume* Volume, PCUNICODE_STRING UpcasedName,
                                               ULONG StartSlot, PULONG Slot, FoundEntry* Entry, PBOOLEAN Found);
[[nodiscard]] NTSTATUS VrkFsHwFindFileByName(HwContext* Hw, FCB* FolderFCB, PCUNICODE_STRING UpcasedName,
                                             ULONG StartSlot, PULONG Slot, FoundEntry* Entry, PBOOLEAN Found);
