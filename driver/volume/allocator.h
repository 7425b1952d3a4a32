#pragma once

#include <nt.h>

#include "volume/alloc_list.h"

// The free space of one volume. A block number stands for the block of that LBA on every device of the volume. The data
// area is divided at Boundary into a lower region, from which file data is taken first fit from the bottom, and an
// upper region, from which records are taken; the two grow towards each other. Nothing of this is on disk: a mount
// starts with everything free and the volume's records claim their ranges.
//
// The indexes beside the lists (alloc_list.h) do not change what is allocated where: it is what a walk would give.
//
// Two facts keep a range from ever lying across the boundary: the block at Boundary is never free (its release moves
// Boundary up to the next taken block), and Boundary moves down only over blocks that were free.

// Embedded in HwVolume (non-paged, for the lock). Every operation takes Lock for its own length, so callers need none.
struct AllocObject {
    AllocSegmentList Lower;
    AllocSegmentList Upper;
    ULONG Boundary;        // first block of the upper region; Last + 1 while that is empty
    ULONGLONG FreeBlocks;  // the sum of all counts in both lists
    ULONG First;
    ULONG Last;
    ULONG Flags;
    // Blocks that more than one record on disk claims, or whose owner is in doubt. They are in no free list, are never
    // given back before the next mount, and nothing is written to them through a record.
    AllocSegmentList Contested;
    // Records set aside for releases that must not fail (see VrkFsVolAllocReserveSegments).
    AllocSegment* Spare;
    ULONG SpareCount;
    ULONG ReservedCount;
    FAST_MUTEX Lock;
};

inline constexpr ULONG kAllocInitialized = 0x01;

struct DualAllocation {
    ULONG LowerStart;
    ULONG LowerCount;
    ULONG UpperStart;
    ULONG UpperCount;
};
static_assert(sizeof(DualAllocation) == 16);

// Statuses: STATUS_UNSUCCESSFUL when there is no such space, STATUS_INSUFFICIENT_RESOURCES when no segment record can
// be had; a failed operation has changed nothing. A count of 0 is never taken or given back: allocations of 0 blocks
// succeed with a start of 0, claims and releases of 0 blocks succeed and do nothing.

// First + Count must not pass 2^32 - 1. Count at least 1.
[[nodiscard]] NTSTATUS VrkFsVolAllocInitializeAllocObject(AllocObject* Alloc, ULONG First, ULONG Count);
VOID VrkFsVolAllocFreeAllocObject(AllocObject* Alloc);

// First fit.
[[nodiscard]] BOOLEAN VrkFsVolAllocAllocateLowerSpace(AllocObject* Alloc, ULONG Count, PULONG Start);
// Best fit among the holes of the upper region, else from the top of the lower one.
[[nodiscard]] NTSTATUS VrkFsVolAllocAllocateUpperSpace(AllocObject* Alloc, ULONG Count, PULONG Start);
// Both or neither.
[[nodiscard]] NTSTATUS VrkFsVolAllocAllocateDualSpace(AllocObject* Alloc, ULONG LowerCount, ULONG UpperCount,
                                                      DualAllocation* Dual);
// Exactly these blocks.
[[nodiscard]] NTSTATUS VrkFsVolAllocAllocateSpecificLowerSpace(AllocObject* Alloc, ULONG Start, ULONG Count);
[[nodiscard]] NTSTATUS VrkFsVolAllocAllocateSpecificUpperSpace(AllocObject* Alloc, ULONG Start, ULONG Count);
// Exactly these blocks, from whichever region they are free in, for records and data that lie on the wrong side.
[[nodiscard]] NTSTATUS VrkFsVolAllocAllocateSpecificAnySpace(AllocObject* Alloc, ULONG Start, ULONG Count);

// Gives a range back, except for its contested blocks, which stay taken. STATUS_UNSUCCESSFUL: the range leaves the data
// area, crosses the boundary or holds a free block. Without memory the part before a contested block may be free
// already; the rest stays taken until the next mount.
[[nodiscard]] NTSTATUS VrkFsVolAllocReleaseSpace(AllocObject* Alloc, ULONG Start, ULONG Count);

// Marks the part of the range that lies in the data area contested, taking what of it is still free. The range may
// wrap. Without memory a part may be marked already: whoever asked tries again before space is handed out.
[[nodiscard]] NTSTATUS VrkFsVolAllocContestSpace(AllocObject* Alloc, ULONG Start, ULONG Count);
// TRUE when the whole range lies in the data area, is taken and has one owner: it may be written to through a record.
[[nodiscard]] BOOLEAN VrkFsVolAllocIsOwnedSpace(AllocObject* Alloc, ULONG Start, ULONG Count);

// A release can need one segment record. Whoever must not fail to release sets Count records aside beforehand and hands
// back the same count when done: a release that gets no memory takes one of them, and merging refills them.
[[nodiscard]] NTSTATUS VrkFsVolAllocReserveSegments(AllocObject* Alloc, ULONG Count);
VOID VrkFsVolAllocUnreserveSegments(AllocObject* Alloc, ULONG Count);

[[nodiscard]] ULONGLONG VrkFsVolAllocGetFreeBlocks(AllocObject* Alloc);
// The data area's last block number plus one: the blocks below the data area count as used.
[[nodiscard]] ULONGLONG VrkFsVolAllocGetTotalBlocks(AllocObject* Alloc);
// The two largest segments of the lower region, {0, 0} where there is none.
VOID VrkFsVolAllocGetTwoLargestSegmentsInfo(AllocObject* Alloc, AllocRange* First, AllocRange* Second);
