#include "volume/name_index.h"

#include "core/guards.h"
#include "core/pool.h"
#include "core/strings.h"
#include "fsd/fcb.h"
#include "media/directory.h"
#include "storage/hw_context.h"
#include "volume/entries.h"
#include "volume/hw_volume.h"
#include "volume/record_io.h"

namespace {

constexpr ULONG kHashSeed = 2166136261u;
constexpr ULONG kHashFactor = 16777619u;

ULONG AddToHash(ULONG Hash, WCHAR Character) {
    return (Hash ^ Character) * kHashFactor;
}

// Keeps real hashes apart from the values with a meaning.
ULONG FinishHash(ULONG Hash) {
    return Hash < kNameHashFirst ? Hash + kNameHashFirst : Hash;
}

ULONG HashUpcased(PCUNICODE_STRING Name) {
    ULONG hash = kHashSeed;
    for (ULONG i = 0; i < Name->Length / sizeof(WCHAR); ++i) {
        hash = AddToHash(hash, Name->Buffer[i]);
    }
    return FinishHash(hash);
}

ULONG HashFound(const FoundEntry* Entry) {
    UNICODE_STRING name = {};
    name.Length = static_cast<USHORT>(Entry->NameLength);
    name.MaximumLength = name.Length;
    name.Buffer = const_cast<PWSTR>(Entry->Name);
    return VrkFsHwHashName(&name);
}

ULONG LoadHash(const ULONG* Hash) {
    return __atomic_load_n(Hash, __ATOMIC_RELAXED);
}

VOID StoreHash(PULONG Hash, ULONG Value) {
    __atomic_store_n(Hash, Value, __ATOMIC_RELAXED);
}

PULONG HashesOf(const HwVolume* Volume, ULONG FolderSlot) {
    return __atomic_load_n(&Volume->Names.Files[FolderSlot], __ATOMIC_ACQUIRE);
}

// A slot whose hash is known and another's need not be looked at.
bool IsRuledOut(ULONG Hash, ULONG Wanted) {
    return Hash >= kNameHashFirst && Hash != Wanted;
}

}  // namespace

ULONG VrkFsHwHashName(PCUNICODE_STRING Name) {
    ULONG hash = kHashSeed;
    for (ULONG i = 0; i < Name->Length / sizeof(WCHAR); ++i) {
        hash = AddToHash(hash, RtlUpcaseUnicodeChar(Name->Buffer[i]));
    }
    return FinishHash(hash);
}

VOID VrkFsHwFreeNameIndex(NameIndex* Index) {
    for (PULONG& hashes : Index->Files) {
        VrkFsFreePool(hashes);
        hashes = nullptr;
    }
}

VOID VrkFsHwSetFolderHash(HwVolume* Volume, ULONG Slot, ULONG Hash) {
    StoreHash(&Volume->Names.Folders[Slot], Hash);
}

VOID VrkFsHwDropFileHashes(HwVolume* Volume, ULONG FolderSlot) {
    VrkFsFreePool(InterlockedExchangePointer(reinterpret_cast<PVOID*>(&Volume->Names.Files[FolderSlot]), nullptr));
}

VOID VrkFsHwMakeFileHashes(HwVolume* Volume, ULONG FolderSlot) {
    if (HashesOf(Volume, FolderSlot) != nullptr) {
        return;
    }
    PULONG const hashes = static_cast<PULONG>(VrkFsAllocatePool(PagedPool, kMaxFilesPerFolder * sizeof(ULONG)));
    if (hashes == nullptr) {
        return;
    }
    for (ULONG slot = 0; slot < kMaxFilesPerFolder; ++slot) {
        hashes[slot] = kNameHashMustLook;
    }
    PVOID* const place = reinterpret_cast<PVOID*>(&Volume->Names.Files[FolderSlot]);
    if (InterlockedCompareExchangePointer(place, hashes, nullptr) != nullptr) {
        VrkFsFreePool(hashes);  // another lookup was faster
    }
}

VOID VrkFsHwSetFileHash(HwVolume* Volume, ULONG FolderSlot, ULONG Slot, ULONG Hash) {
    PULONG const hashes = HashesOf(Volume, FolderSlot);
    if (hashes != nullptr) {
        StoreHash(&hashes[Slot], Hash);
    }
}

NTSTATUS VrkFsHwFindFolderByName(HwContext* Hw, HwVolume* Volume, PCUNICODE_STRING UpcasedName, ULONG StartSlot,
                                 PULONG Slot, FoundEntry* Entry, PBOOLEAN Found) {
    const ULONG wanted = HashUpcased(UpcasedName);
    *Found = FALSE;
    for (ULONG slot = StartSlot; slot < kMaxFolders; ++slot) {
        if (!VrkFsHwCheckBitmapEntry(Volume, slot) || IsRuledOut(LoadHash(&Volume->Names.Folders[slot]), wanted)) {
            continue;
        }
        ULONG at = slot;
        BOOLEAN found;
        BOOLEAN substituted;
        const NTSTATUS status = VrkFsHwGetNextDirEntry(Hw, Volume, &at, Entry, &found, &substituted);
        if (!NT_SUCCESS(status) || !found) {
            return status;
        }
        slot = at;
        VrkFsHwSetFolderHash(Volume, slot, substituted ? kNameHashMustLook : HashFound(Entry));
        if (VrkFsFoundEntryHasName(Entry, UpcasedName)) {
            *Slot = slot;
            *Found = TRUE;
            return STATUS_SUCCESS;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsHwFindFileByName(HwContext* Hw, FCB* FolderFCB, PCUNICODE_STRING UpcasedName, ULONG StartSlot,
                               PULONG Slot, FoundEntry* Entry, PBOOLEAN Found) {
    const OpenFolder folder = VrkFsHwOpenFolderOf(FolderFCB);
    const ULONG wanted = HashUpcased(UpcasedName);
    *Found = FALSE;
    VrkFsHwMakeFileHashes(folder.Volume, folder.Slot);
    const ULONG* const hashes = HashesOf(folder.Volume, folder.Slot);
    for (ULONG slot = StartSlot; slot < kMaxFilesPerFolder; ++slot) {
        if (folder.Image->FileTable[slot] == 0 || (hashes != nullptr && IsRuledOut(LoadHash(&hashes[slot]), wanted))) {
            continue;
        }
        ULONG at = slot;
        BOOLEAN found;
        BOOLEAN substituted;
        const NTSTATUS status = VrkFsHwGetNextFileEntry(Hw, FolderFCB, &at, Entry, &found, &substituted);
        if (!NT_SUCCESS(status) || !found) {
            return status;
        }
        VrkFsHwSetFileHash(folder.Volume, folder.Slot, slot, substituted ? kNameHashMustLook : HashFound(Entry));
        if (VrkFsFoundEntryHasName(Entry, UpcasedName)) {
            *Slot = slot;
            *Found = TRUE;
            return STATUS_SUCCESS;
        }
    }
    return STATUS_SUCCESS;
}
