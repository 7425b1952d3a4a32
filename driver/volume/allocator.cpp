#include "volume/allocator.h"

#include <algorithm>

#include "core/guards.h"

namespace {

// Whether an operation may take a record that was set aside for releases.
enum class SpareUse { Never, Allowed };

AllocSegment* TakeRecord(AllocObject* Alloc, SpareUse Use) {
    AllocSegment* record = VrkFsVolAllocAllocateSegment();
    if (record == nullptr && Use == SpareUse::Allowed && Alloc->Spare != nullptr) {
        record = Alloc->Spare;
        Alloc->Spare = record->NextByPosition;
        --Alloc->SpareCount;
        *record = {};
    }
    return record;
}

// Null is ignored. Records that releases took out of the reserve come back to it first.
VOID GiveRecord(AllocObject* Alloc, AllocSegment* Record) {
    if (Record == nullptr) {
        return;
    }
    if (Alloc->SpareCount >= Alloc->ReservedCount) {
        VrkFsVolAllocFreeSegment(Record);
        return;
    }
    Record->NextByPosition = Alloc->Spare;
    Alloc->Spare = Record;
    ++Alloc->SpareCount;
}

VOID FreeSparesBeyondReserve(AllocObject* Alloc) {
    while (Alloc->SpareCount > Alloc->ReservedCount) {
        AllocSegment* const record = Alloc->Spare;
        Alloc->Spare = record->NextByPosition;
        --Alloc->SpareCount;
        VrkFsVolAllocFreeSegment(record);
    }
}

BOOLEAN IsInside(const AllocObject* Alloc, ULONG Start, ULONG Count) {
    return Count != 0 && Start >= Alloc->First && Start <= Alloc->Last && Count - 1 <= Alloc->Last - Start;
}

BOOLEAN Overlaps(const AllocSegmentList* List, ULONG Start, ULONG Count) {
    const AllocSegment* const segment = VrkFsVolAllocFindEndingAfter(List, Start);
    return segment != nullptr && segment->Start < static_cast<ULONGLONG>(Start) + Count;
}

BOOLEAN IsFullyTaken(const AllocObject* Alloc, ULONG Start, ULONG Count) {
    return !Overlaps(&Alloc->Lower, Start, Count) && !Overlaps(&Alloc->Upper, Start, Count);
}

NTSTATUS PutInto(AllocObject* Alloc, AllocSegmentList* List, ULONG Start, ULONG Count, SpareUse Use) {
    AllocSegment* record = nullptr;
    if (!VrkFsVolAllocTouches(List, Start, Count)) {
        record = TakeRecord(Alloc, Use);
        if (record == nullptr) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    GiveRecord(Alloc, VrkFsVolAllocFreeSpace(List, Start, Count, record));
    return STATUS_SUCCESS;
}

// Takes a range out of the segment that holds it.
NTSTATUS TakeFrom(AllocObject* Alloc, AllocSegmentList* List, AllocSegment* Segment, ULONG Start, ULONG Count) {
    AllocSegment* record = nullptr;
    const bool splits = Segment->Start != Start && Segment->Start + (Segment->Count - 1) != Start + (Count - 1);
    if (splits) {
        record = TakeRecord(Alloc, SpareUse::Never);
        if (record == nullptr) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    GiveRecord(Alloc, VrkFsVolAllocAllocateSpace(List, Segment, Start, Count, record));
    Alloc->FreeBlocks -= Count;
    return STATUS_SUCCESS;
}

NTSTATUS TakeRange(AllocObject* Alloc, AllocSegmentList* List, ULONG Start, ULONG Count) {
    AllocSegment* const segment = VrkFsVolAllocFindSpace(List, Start, Count);
    return segment == nullptr ? STATUS_UNSUCCESSFUL : TakeFrom(Alloc, List, segment, Start, Count);
}

// The last segment of the lower region if the upper one can grow into it.
AllocSegment* TopOfLower(const AllocObject* Alloc) {
    AllocSegment* const top = Alloc->Lower.LastByPosition;
    const bool meets = top != nullptr && static_cast<ULONGLONG>(top->Start) + top->Count == Alloc->Boundary;
    return meets ? top : nullptr;
}

NTSTATUS AllocateUpper(AllocObject* Alloc, ULONG Count, PULONG Start) {
    AllocSegment* const hole = VrkFsVolAllocGetBestFit(&Alloc->Upper, Count);
    if (hole != nullptr) {
        *Start = hole->Start;
        return TakeFrom(Alloc, &Alloc->Upper, hole, hole->Start, Count);
    }
    AllocSegment* const top = TopOfLower(Alloc);
    if (top == nullptr || top->Count < Count) {
        return STATUS_UNSUCCESSFUL;
    }
    *Start = Alloc->Boundary - Count;
    const NTSTATUS status = TakeFrom(Alloc, &Alloc->Lower, top, *Start, Count);
    if (NT_SUCCESS(status)) {
        Alloc->Boundary = *Start;
    }
    return status;
}

// The range lies at the top of the lower region or below other free blocks of it: the upper region grows down to it,
// and what is free above it becomes a hole of the upper region.
NTSTATUS GrowUpperTo(AllocObject* Alloc, ULONG Start, ULONG Count) {
    AllocSegment* const top = TopOfLower(Alloc);
    if (top == nullptr || top->Start > Start || Count > Alloc->Boundary - Start) {
        return STATUS_UNSUCCESSFUL;
    }
    const ULONG end = Start + Count;
    if (end < Alloc->Boundary) {
        const NTSTATUS status = PutInto(Alloc, &Alloc->Upper, end, Alloc->Boundary - end, SpareUse::Never);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    GiveRecord(Alloc, VrkFsVolAllocAllocateSpace(&Alloc->Lower, top, Start, Alloc->Boundary - Start, nullptr));
    Alloc->Boundary = Start;
    Alloc->FreeBlocks -= Count;
    return STATUS_SUCCESS;
}

NTSTATUS AllocateSpecificUpper(AllocObject* Alloc, ULONG Start, ULONG Count) {
    const AllocSegment* const first = Alloc->Upper.FirstByPosition;
    if (first != nullptr && Start >= first->Start) {
        return TakeRange(Alloc, &Alloc->Upper, Start, Count);
    }
    return Start < Alloc->Boundary ? GrowUpperTo(Alloc, Start, Count) : STATUS_UNSUCCESSFUL;
}

// Frees the lowest block range of the upper region: it goes to the lower one, with the hole above it if they meet.
NTSTATUS ReleaseAtBoundary(AllocObject* Alloc, ULONG Start, ULONG Count) {
    AllocSegment* const hole = Alloc->Upper.FirstByPosition;
    const bool meets = hole != nullptr && hole->Start == static_cast<ULONGLONG>(Start) + Count;
    const ULONG whole = meets ? Count + hole->Count : Count;
    const NTSTATUS status = PutInto(Alloc, &Alloc->Lower, Start, whole, SpareUse::Allowed);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (meets) {
        VrkFsVolAllocRemoveSegment(&Alloc->Upper, hole);
        GiveRecord(Alloc, hole);
    }
    Alloc->Boundary = Start + whole;
    return STATUS_SUCCESS;
}

// The range is taken and on one side of the boundary.
NTSTATUS ReleaseTaken(AllocObject* Alloc, ULONG Start, ULONG Count) {
    NTSTATUS status;
    if (Start == Alloc->Boundary) {
        status = ReleaseAtBoundary(Alloc, Start, Count);
    } else {
        AllocSegmentList* const list = Start > Alloc->Boundary ? &Alloc->Upper : &Alloc->Lower;
        status = PutInto(Alloc, list, Start, Count, SpareUse::Allowed);
    }
    if (NT_SUCCESS(status)) {
        Alloc->FreeBlocks += Count;
    }
    return status;
}

// Releases what of the range is not contested, piece by piece.
NTSTATUS ReleaseUncontested(AllocObject* Alloc, ULONG Start, ULONG Count) {
    ULONG next = Start;
    const ULONG end = Start + Count;
    while (next < end) {
        const AllocSegment* const contested = VrkFsVolAllocFindEndingAfter(&Alloc->Contested, next);
        const ULONG pieceEnd = contested == nullptr ? end : std::min<ULONG>(end, contested->Start);
        if (next < pieceEnd) {
            const NTSTATUS status = ReleaseTaken(Alloc, next, pieceEnd - next);
            if (!NT_SUCCESS(status)) {
                return status;
            }
        }
        next = contested == nullptr ? end : contested->Start + contested->Count;
    }
    return STATUS_SUCCESS;
}

// Takes every free block of the range out of one region.
NTSTATUS TakeFreeParts(AllocObject* Alloc, AllocSegmentList* List, ULONG Start, ULONG Count) {
    const ULONG end = Start + Count;
    for (;;) {
        AllocSegment* const segment = VrkFsVolAllocFindEndingAfter(List, Start);
        if (segment == nullptr || segment->Start >= end) {
            return STATUS_SUCCESS;
        }
        const ULONG from = std::max<ULONG>(Start, segment->Start);
        const ULONG to = std::min<ULONG>(end, segment->Start + segment->Count);
        const NTSTATUS status = TakeFrom(Alloc, List, segment, from, to - from);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
}

// Adds to the contested blocks those of the range that are not among them yet.
NTSTATUS AddContested(AllocObject* Alloc, ULONG Start, ULONG Count) {
    ULONG next = Start;
    const ULONG end = Start + Count;
    while (next < end) {
        const AllocSegment* const known = VrkFsVolAllocFindEndingAfter(&Alloc->Contested, next);
        const ULONG gapEnd = known == nullptr ? end : std::min<ULONG>(end, known->Start);
        const ULONG knownEnd = known == nullptr ? end : known->Start + known->Count;
        if (next < gapEnd) {
            const NTSTATUS status = PutInto(Alloc, &Alloc->Contested, next, gapEnd - next, SpareUse::Never);
            if (!NT_SUCCESS(status)) {
                return status;
            }
        }
        next = std::max<ULONG>(gapEnd, knownEnd);
    }
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS VrkFsVolAllocInitializeAllocObject(AllocObject* Alloc, ULONG First, ULONG Count) {
    RtlZeroMemory(Alloc, sizeof(AllocObject));
    ExInitializeFastMutex(&Alloc->Lock);
    Alloc->First = First;
    Alloc->Last = First + (Count - 1);
    Alloc->Boundary = Alloc->Last + 1;
    Alloc->Flags = kAllocInitialized;
    return VrkFsVolAllocReleaseSpace(Alloc, First, Count);
}

VOID VrkFsVolAllocFreeAllocObject(AllocObject* Alloc) {
    if ((Alloc->Flags & kAllocInitialized) == 0) {
        return;
    }
    Alloc->Flags &= ~kAllocInitialized;
    VrkFsVolAllocFreeAllocList(&Alloc->Lower);
    VrkFsVolAllocFreeAllocList(&Alloc->Upper);
    VrkFsVolAllocFreeAllocList(&Alloc->Contested);
    while (Alloc->Spare != nullptr) {
        AllocSegment* const next = Alloc->Spare->NextByPosition;
        VrkFsVolAllocFreeSegment(Alloc->Spare);
        Alloc->Spare = next;
    }
    Alloc->SpareCount = 0;
}

BOOLEAN VrkFsVolAllocAllocateLowerSpace(AllocObject* Alloc, ULONG Count, PULONG Start) {
    *Start = 0;
    if (Count == 0) {
        return TRUE;
    }
    const FastMutexGuard lock(&Alloc->Lock);
    AllocSegment* const segment = VrkFsVolAllocGetFirstFit(&Alloc->Lower, Count);
    if (segment == nullptr) {
        return FALSE;
    }
    *Start = segment->Start;
    return NT_SUCCESS(TakeFrom(Alloc, &Alloc->Lower, segment, segment->Start, Count));
}

NTSTATUS VrkFsVolAllocAllocateUpperSpace(AllocObject* Alloc, ULONG Count, PULONG Start) {
    *Start = 0;
    if (Count == 0) {
        return STATUS_SUCCESS;
    }
    const FastMutexGuard lock(&Alloc->Lock);
    return AllocateUpper(Alloc, Count, Start);
}

NTSTATUS VrkFsVolAllocAllocateDualSpace(AllocObject* Alloc, ULONG LowerCount, ULONG UpperCount, DualAllocation* Dual) {
    *Dual = {0, LowerCount, 0, UpperCount};
    const FastMutexGuard lock(&Alloc->Lock);
    AllocSegment* segment = nullptr;
    AllocSegment* emptied = nullptr;  // kept, so that undoing needs no memory
    if (LowerCount != 0) {
        segment = VrkFsVolAllocGetFirstFit(&Alloc->Lower, LowerCount);
        if (segment == nullptr) {
            return STATUS_UNSUCCESSFUL;
        }
        Dual->LowerStart = segment->Start;
        emptied = VrkFsVolAllocAllocateSpace(&Alloc->Lower, segment, segment->Start, LowerCount, nullptr);
    }
    const NTSTATUS status = UpperCount == 0 ? STATUS_SUCCESS : AllocateUpper(Alloc, UpperCount, &Dual->UpperStart);
    if (!NT_SUCCESS(status)) {
        if (LowerCount != 0) {
            static_cast<void>(VrkFsVolAllocFreeSpace(&Alloc->Lower, Dual->LowerStart, LowerCount, emptied));
        }
        Dual->LowerStart = 0;
        return status;
    }
    Alloc->FreeBlocks -= LowerCount;
    GiveRecord(Alloc, emptied);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsVolAllocAllocateSpecificLowerSpace(AllocObject* Alloc, ULONG Start, ULONG Count) {
    if (Count == 0) {
        return STATUS_SUCCESS;
    }
    const FastMutexGuard lock(&Alloc->Lock);
    return IsInside(Alloc, Start, Count) ? TakeRange(Alloc, &Alloc->Lower, Start, Count) : STATUS_UNSUCCESSFUL;
}

NTSTATUS VrkFsVolAllocAllocateSpecificUpperSpace(AllocObject* Alloc, ULONG Start, ULONG Count) {
    if (Count == 0) {
        return STATUS_SUCCESS;
    }
    const FastMutexGuard lock(&Alloc->Lock);
    return IsInside(Alloc, Start, Count) ? AllocateSpecificUpper(Alloc, Start, Count) : STATUS_UNSUCCESSFUL;
}

NTSTATUS VrkFsVolAllocAllocateSpecificAnySpace(AllocObject* Alloc, ULONG Start, ULONG Count) {
    if (Count == 0) {
        return STATUS_SUCCESS;
    }
    const FastMutexGuard lock(&Alloc->Lock);
    if (!IsInside(Alloc, Start, Count)) {
        return STATUS_UNSUCCESSFUL;
    }
    const NTSTATUS status = TakeRange(Alloc, &Alloc->Lower, Start, Count);
    return status == STATUS_UNSUCCESSFUL ? TakeRange(Alloc, &Alloc->Upper, Start, Count) : status;
}

NTSTATUS VrkFsVolAllocReleaseSpace(AllocObject* Alloc, ULONG Start, ULONG Count) {
    if (Count == 0) {
        return STATUS_SUCCESS;
    }
    const FastMutexGuard lock(&Alloc->Lock);
    const bool crosses = Start < Alloc->Boundary && Count > Alloc->Boundary - Start;
    if (!IsInside(Alloc, Start, Count) || crosses || !IsFullyTaken(Alloc, Start, Count)) {
        return STATUS_UNSUCCESSFUL;
    }
    return ReleaseUncontested(Alloc, Start, Count);
}

NTSTATUS VrkFsVolAllocContestSpace(AllocObject* Alloc, ULONG Start, ULONG Count) {
    const FastMutexGuard lock(&Alloc->Lock);
    const ULONGLONG from = std::max<ULONG>(Start, Alloc->First);
    const ULONGLONG to = std::min<ULONGLONG>(static_cast<ULONGLONG>(Start) + Count, Alloc->Last + 1ULL);
    if (from >= to) {
        return STATUS_SUCCESS;
    }
    const ULONG start = static_cast<ULONG>(from);
    const ULONG count = static_cast<ULONG>(to - from);
    NTSTATUS status = AddContested(Alloc, start, count);
    if (NT_SUCCESS(status)) {
        status = TakeFreeParts(Alloc, &Alloc->Lower, start, count);
    }
    if (NT_SUCCESS(status)) {
        status = TakeFreeParts(Alloc, &Alloc->Upper, start, count);
    }
    return status;
}

BOOLEAN VrkFsVolAllocIsOwnedSpace(AllocObject* Alloc, ULONG Start, ULONG Count) {
    const FastMutexGuard lock(&Alloc->Lock);
    return IsInside(Alloc, Start, Count) && IsFullyTaken(Alloc, Start, Count) &&
           !Overlaps(&Alloc->Contested, Start, Count);
}

NTSTATUS VrkFsVolAllocReserveSegments(AllocObject* Alloc, ULONG Count) {
    const FastMutexGuard lock(&Alloc->Lock);
    Alloc->ReservedCount += Count;
    while (Alloc->SpareCount < Alloc->ReservedCount) {
        AllocSegment* const record = VrkFsVolAllocAllocateSegment();
        if (record == nullptr) {
            Alloc->ReservedCount -= Count;
            FreeSparesBeyondReserve(Alloc);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        GiveRecord(Alloc, record);
    }
    return STATUS_SUCCESS;
}

VOID VrkFsVolAllocUnreserveSegments(AllocObject* Alloc, ULONG Count) {
    const FastMutexGuard lock(&Alloc->Lock);
    Alloc->ReservedCount -= std::min<ULONG>(Count, Alloc->ReservedCount);
    FreeSparesBeyondReserve(Alloc);
}

ULONGLONG VrkFsVolAllocGetFreeBlocks(AllocObject* Alloc) {
    const FastMutexGuard lock(&Alloc->Lock);
    return Alloc->FreeBlocks;
}

ULONGLONG VrkFsVolAllocGetTotalBlocks(AllocObject* Alloc) {
    return Alloc->Last + 1ULL;
}

VOID VrkFsVolAllocGetTwoLargestSegmentsInfo(AllocObject* Alloc, AllocRange* First, AllocRange* Second) {
    const FastMutexGuard lock(&Alloc->Lock);
    VrkFsVolAllocQueryTwoLargest(&Alloc->Lower, First, Second);
}
