#pragma once

#include <nt.h>

#include "volume/records.h"

struct HwContext;
struct HwVolume;

// Which records of a volume could not be read when it was mounted. What they hold is not claimed in the allocator, so
// before the volume hands out space they are read again, with the retries then in force, and what became readable is
// claimed. Embedded in HwVolume.
//
// A record that fails again is left alone until the card's retries are raised, or until an ordinary read of it
// succeeds: a disk full of bad records costs one more pass, not one per allocation.

struct UnreadFiles {
    ULONG Unread[kMaxFilesPerFolder / 32];  // bit: the file of that slot could not be read and is not claimed
    ULONG Due[kMaxFilesPerFolder / 32];     // bit: to be read again at the next occasion
};

struct UnreadRecords {
    ULONG Folders[kMaxFolders / 32];       // bit: the folder of that slot could not be read
    ULONG EmptyFolders[kMaxFolders / 32];  // bit: counted as a folder, but a later read found the slot empty
    ULONG FoldersDue[kMaxFolders / 32];    // bit: to be read again at the next occasion
    UnreadFiles* Files[kMaxFolders];       // by folder slot, or null; paged
    ULONG Count;                           // bits set in Folders and in all Files[..].Unread
    ULONG DueCount;                        // bits set in FoldersDue and in all Files[..].Due
    ULONG RetriesUsed;                     // of the last pass
    FAST_MUTEX Lock;                       // the fields above, for moments
    KEVENT RetryLock;                      // one pass at a time; taken before the scratch locks
};

// The card's retries as they stand now; 0 while the card starts.
[[nodiscard]] ULONG VrkFsHwRetriesInForce(HwContext* Hw);

VOID VrkFsHwInitializeUnreadRecords(UnreadRecords* Unread);
VOID VrkFsHwFreeUnreadRecords(UnreadRecords* Unread);

// Notes an unreadable record; FileSlot kUnreadFolder is the folder's own. STATUS_INSUFFICIENT_RESOURCES.
inline constexpr ULONG kUnreadFolder = 0xFFFFFFFF;
[[nodiscard]] NTSTATUS VrkFsHwNoteUnread(HwVolume* Volume, ULONG FolderSlot, ULONG FileSlot);
[[nodiscard]] BOOLEAN VrkFsHwIsUnread(HwVolume* Volume, ULONG FolderSlot, ULONG FileSlot);
// An ordinary read of the record succeeded: the next pass reads and claims it.
VOID VrkFsHwNoteReadable(HwVolume* Volume, ULONG FolderSlot, ULONG FileSlot);
// The record was claimed or deleted. The holder of the VCB resource may be deleting a folder while another thread's
// pass finds the slot empty: whoever comes second does nothing, so that the folder is counted off once.
VOID VrkFsHwForgetUnread(HwVolume* Volume, ULONG FolderSlot, ULONG FileSlot);

// A slot that could not be read at mount, and so counts as a folder, turned out empty. It keeps its bit in the folder
// bitmap, which belongs to the holder of the VCB resource, until that holder reclaims it. Nothing happens unless the
// folder is still noted as unread, which it is no more afterwards.
VOID VrkFsHwNoteEmptyFolder(HwVolume* Volume, ULONG FolderSlot);
[[nodiscard]] BOOLEAN VrkFsHwIsNotedEmpty(HwVolume* Volume, ULONG FolderSlot);
VOID VrkFsHwReclaimEmptyFolders(HwVolume* Volume);

// Called before space is handed out, with no scratch lock held. STATUS_INSUFFICIENT_RESOURCES: what became readable
// could not be claimed, and no space may be handed out now.
[[nodiscard]] NTSTATUS VrkFsHwRetryUnreadRecords(HwContext* Hw, HwVolume* Volume);
