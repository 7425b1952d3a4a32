#include "volume/unread_records.h"

#include "core/card_instance.h"
#include "core/guards.h"
#include "core/pool.h"
#include "storage/hw_context.h"
#include "volume/entries.h"
#include "volume/hw_volume.h"
#include "volume/record_io.h"

namespace {

bool TestBit(const ULONG* Bits, ULONG Index) {
    return (Bits[Index / 32] >> (Index % 32) & 1) != 0;
}

// These return whether the bit changed.
bool SetBit(PULONG Bits, ULONG Index) {
    const bool changed = !TestBit(Bits, Index);
    Bits[Index / 32] |= 1u << (Index % 32);
    return changed;
}

bool ResetBit(PULONG Bits, ULONG Index) {
    const bool changed = TestBit(Bits, Index);
    Bits[Index / 32] &= ~(1u << (Index % 32));
    return changed;
}

// The bits that speak of one record; null when the folder has no notes on its files.
struct NoteBits {
    PULONG Unread;
    PULONG Due;
    ULONG Index;
};

NoteBits BitsOf(UnreadRecords* Unread, ULONG FolderSlot, ULONG FileSlot) {
    if (FileSlot == kUnreadFolder) {
        return {Unread->Folders, Unread->FoldersDue, FolderSlot};
    }
    UnreadFiles* const files = Unread->Files[FolderSlot];
    return files == nullptr ? NoteBits{} : NoteBits{files->Unread, files->Due, FileSlot};
}

VOID MarkDue(UnreadRecords* Unread, const NoteBits& Bits) {
    Unread->DueCount += SetBit(Bits.Due, Bits.Index);
}

VOID ClearDue(UnreadRecords* Unread, const NoteBits& Bits) {
    Unread->DueCount -= ResetBit(Bits.Due, Bits.Index);
}

// Returns whether the record was noted.
bool Forget(UnreadRecords* Unread, const NoteBits& Bits) {
    const bool noted = ResetBit(Bits.Unread, Bits.Index);
    Unread->Count -= noted;
    ClearDue(Unread, Bits);
    return noted;
}

// Makes everything that is still unread due once more.
VOID MarkAllDue(UnreadRecords* Unread) {
    for (ULONG folder = 0; folder < kMaxFolders; ++folder) {
        if (TestBit(Unread->Folders, folder)) {
            MarkDue(Unread, BitsOf(Unread, folder, kUnreadFolder));
        }
        const UnreadFiles* const files = Unread->Files[folder];
        for (ULONG slot = 0; files != nullptr && slot < kMaxFilesPerFolder; ++slot) {
            if (TestBit(files->Unread, slot)) {
                MarkDue(Unread, BitsOf(Unread, folder, slot));
            }
        }
    }
}

bool IsAnythingDue(HwContext* Hw, UnreadRecords* Unread) {
    const ULONG retries = VrkFsHwRetriesInForce(Hw);
    const FastMutexGuard lock(&Unread->Lock);
    if (Unread->Count != 0 && retries > Unread->RetriesUsed) {
        Unread->RetriesUsed = retries;
        MarkAllDue(Unread);
    }
    return Unread->DueCount != 0;
}

// The record stays unread and is left alone for now.
VOID SetAside(HwVolume* Volume, ULONG FolderSlot, ULONG FileSlot) {
    const FastMutexGuard lock(&Volume->Unread.Lock);
    const NoteBits bits = BitsOf(&Volume->Unread, FolderSlot, FileSlot);
    if (bits.Unread != nullptr) {
        ClearDue(&Volume->Unread, bits);
    }
}

bool IsDue(HwVolume* Volume, ULONG FolderSlot, ULONG FileSlot) {
    const FastMutexGuard lock(&Volume->Unread.Lock);
    const NoteBits bits = BitsOf(&Volume->Unread, FolderSlot, FileSlot);
    return bits.Unread != nullptr && TestBit(bits.Due, bits.Index);
}

// Reads a slot, empty or not. An ordinary read may have succeeded where the disk fails now.
bool ReadSlot(HwContext* Hw, HwVolume* Volume, ULONG FolderSlot, DirEntry* Folder) {
    const ULONG lba = VrkFsHwFolderLba(Volume, FolderSlot);
    if (VrkFsVolCacheFolderEntrySearch(&Volume->EntryCache, lba, Folder)) {
        return true;
    }
    BOOLEAN substituted = FALSE;
    const NTSTATUS status = VrkFsHwSCSIReadEx(Hw, Volume->Devices[0], lba, kDirEntryBlocks, Folder, 0,
                                              kHwRecordDirEntry, TRUE, &substituted);
    return NT_SUCCESS(status) && !substituted;
}

NTSTATUS RetryFolder(HwContext* Hw, HwVolume* Volume, ULONG FolderSlot) {
    const EventLockGuard scratch(&Hw->ScratchLock);
    DirEntry* const folder = reinterpret_cast<DirEntry*>(Hw->ScratchBuffer);
    if (!ReadSlot(Hw, Volume, FolderSlot, folder)) {
        SetAside(Volume, FolderSlot, kUnreadFolder);
        return STATUS_SUCCESS;
    }
    if (!VrkFsHwIsFolderInUse(folder)) {
        VrkFsHwNoteEmptyFolder(Volume, FolderSlot);
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = VrkFsHwTakeInFolder(Hw, Volume, FolderSlot, folder, nullptr);
    if (NT_SUCCESS(status)) {
        VrkFsHwForgetUnread(Volume, FolderSlot, kUnreadFolder);
    }
    return status;
}

NTSTATUS RetryFile(HwContext* Hw, HwVolume* Volume, ULONG FolderSlot, ULONG Slot, ULONG Lba) {
    if (Lba == 0) {
        VrkFsHwForgetUnread(Volume, FolderSlot, Slot);
        return STATUS_SUCCESS;
    }
    BOOLEAN claimed;
    const NTSTATUS status = VrkFsHwClaimUnreadFile(Hw, Volume, FolderSlot, Slot, Lba, &claimed);
    if (status == STATUS_INSUFFICIENT_RESOURCES) {
        return status;
    }
    if (claimed) {
        VrkFsHwForgetUnread(Volume, FolderSlot, Slot);
    } else {
        SetAside(Volume, FolderSlot, Slot);
    }
    return STATUS_SUCCESS;
}

NTSTATUS RetryFilesOf(HwContext* Hw, HwVolume* Volume, ULONG FolderSlot) {
    const EventLockGuard scratch(&Hw->ScratchLock);
    DirEntry* const folder = reinterpret_cast<DirEntry*>(Hw->ScratchBuffer);
    BOOLEAN substituted;
    NTSTATUS status = VrkFsHwReadFolderRecord(Hw, Volume, FolderSlot, folder, &substituted);
    for (ULONG slot = 0; slot < kMaxFilesPerFolder && NT_SUCCESS(status); ++slot) {
        if (!IsDue(Volume, FolderSlot, slot)) {
            continue;
        }
        if (substituted) {
            SetAside(Volume, FolderSlot, slot);
        } else {
            status = RetryFile(Hw, Volume, FolderSlot, slot, folder->FileTable[slot]);
        }
    }
    return status;
}

bool HasNotesOnFiles(HwVolume* Volume, ULONG FolderSlot) {
    const FastMutexGuard lock(&Volume->Unread.Lock);
    return Volume->Unread.Files[FolderSlot] != nullptr;
}

}  // namespace

ULONG VrkFsHwRetriesInForce(HwContext* Hw) {
    return VrkFsGlobScsiPrefsOf(VrkFsCardOfHw(Hw)).MaxRetries;
}

VOID VrkFsHwInitializeUnreadRecords(UnreadRecords* Unread) {
    RtlZeroMemory(Unread, sizeof(UnreadRecords));
    ExInitializeFastMutex(&Unread->Lock);
    KeInitializeEvent(&Unread->RetryLock, SynchronizationEvent, TRUE);
}

VOID VrkFsHwFreeUnreadRecords(UnreadRecords* Unread) {
    for (UnreadFiles*& files : Unread->Files) {
        VrkFsFreePool(files);
        files = nullptr;
    }
    Unread->Count = 0;
    Unread->DueCount = 0;
}

NTSTATUS VrkFsHwNoteUnread(HwVolume* Volume, ULONG FolderSlot, ULONG FileSlot) {
    UnreadRecords* const unread = &Volume->Unread;
    const FastMutexGuard lock(&unread->Lock);
    NoteBits bits = BitsOf(unread, FolderSlot, FileSlot);
    if (bits.Unread == nullptr) {
        auto* files = static_cast<UnreadFiles*>(VrkFsAllocatePool(PagedPool, sizeof(UnreadFiles)));
        if (files == nullptr) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        RtlZeroMemory(files, sizeof(*files));
        unread->Files[FolderSlot] = files;  // NOLINT(clang-analyzer-core.NullDereference): unread is no null pointer
        bits = {files->Unread, files->Due, FileSlot};
    }
    unread->Count += SetBit(bits.Unread, bits.Index);
    MarkDue(unread, bits);
    return STATUS_SUCCESS;
}

BOOLEAN VrkFsHwIsUnread(HwVolume* Volume, ULONG FolderSlot, ULONG FileSlot) {
    const FastMutexGuard lock(&Volume->Unread.Lock);
    const NoteBits bits = BitsOf(&Volume->Unread, FolderSlot, FileSlot);
    return bits.Unread != nullptr && TestBit(bits.Unread, bits.Index);
}

VOID VrkFsHwNoteReadable(HwVolume* Volume, ULONG FolderSlot, ULONG FileSlot) {
    const FastMutexGuard lock(&Volume->Unread.Lock);
    const NoteBits bits = BitsOf(&Volume->Unread, FolderSlot, FileSlot);
    if (bits.Unread != nullptr && TestBit(bits.Unread, bits.Index)) {
        MarkDue(&Volume->Unread, bits);
    }
}

VOID VrkFsHwForgetUnread(HwVolume* Volume, ULONG FolderSlot, ULONG FileSlot) {
    const FastMutexGuard lock(&Volume->Unread.Lock);
    const NoteBits bits = BitsOf(&Volume->Unread, FolderSlot, FileSlot);
    if (bits.Unread != nullptr) {
        Forget(&Volume->Unread, bits);
    }
    if (FileSlot == kUnreadFolder) {
        ResetBit(Volume->Unread.EmptyFolders, FolderSlot);
    }
}

VOID VrkFsHwNoteEmptyFolder(HwVolume* Volume, ULONG FolderSlot) {
    const FastMutexGuard lock(&Volume->Unread.Lock);
    if (Forget(&Volume->Unread, BitsOf(&Volume->Unread, FolderSlot, kUnreadFolder))) {
        SetBit(Volume->Unread.EmptyFolders, FolderSlot);
    }
}

BOOLEAN VrkFsHwIsNotedEmpty(HwVolume* Volume, ULONG FolderSlot) {
    const FastMutexGuard lock(&Volume->Unread.Lock);
    return TestBit(Volume->Unread.EmptyFolders, FolderSlot);
}

VOID VrkFsHwReclaimEmptyFolders(HwVolume* Volume) {
    const FastMutexGuard lock(&Volume->Unread.Lock);
    for (ULONG slot = 0; slot < kMaxFolders; ++slot) {
        if (ResetBit(Volume->Unread.EmptyFolders, slot)) {
            VrkFsHwClearBitmapEntry(Volume, slot);
            --Volume->FolderCount;
        }
    }
}

NTSTATUS VrkFsHwRetryUnreadRecords(HwContext* Hw, HwVolume* Volume) {
    if (!IsAnythingDue(Hw, &Volume->Unread)) {
        return STATUS_SUCCESS;
    }
    const EventLockGuard pass(&Volume->Unread.RetryLock);
    NTSTATUS status = STATUS_SUCCESS;
    for (ULONG slot = 0; slot < kMaxFolders && NT_SUCCESS(status); ++slot) {
        if (IsDue(Volume, slot, kUnreadFolder)) {
            status = RetryFolder(Hw, Volume, slot);
        }
        if (NT_SUCCESS(status) && HasNotesOnFiles(Volume, slot)) {
            status = RetryFilesOf(Hw, Volume, slot);
        }
    }
    return status;
}
