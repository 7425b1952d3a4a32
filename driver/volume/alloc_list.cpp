#include "volume/alloc_list.h"

#include "core/global_data.h"
#include "core/lookaside.h"

namespace {

AllocSegment* ByPosition(AllocTreeNode* Node) {
    return Node == nullptr ? nullptr : CONTAINING_RECORD(Node, AllocSegment, ByPosition);
}

AllocSegment* BySize(AllocTreeNode* Node) {
    return Node == nullptr ? nullptr : CONTAINING_RECORD(Node, AllocSegment, BySize);
}

// Ascending keys are descending counts, and ascending starts among equal counts.
constexpr ULONGLONG SizeKey(ULONG Start, ULONG Count) {
    return static_cast<ULONGLONG>(0xFFFFFFFF - Count) << 32 | Start;
}

VOID LinkBySize(AllocSegmentList* List, AllocSegment* Segment, AllocSegment* Next) {
    AllocSegment* const previous = Next != nullptr ? Next->PrevBySize : List->LastBySize;
    Segment->NextBySize = Next;
    Segment->PrevBySize = previous;
    (previous != nullptr ? previous->NextBySize : List->FirstBySize) = Segment;
    (Next != nullptr ? Next->PrevBySize : List->LastBySize) = Segment;
}

VOID RemoveSizeSegment(AllocSegmentList* List, AllocSegment* Segment) {
    VrkFsAllocTreeRemove(&List->BySize, &Segment->BySize);
    AllocSegment* const previous = Segment->PrevBySize;
    AllocSegment* const next = Segment->NextBySize;
    (previous != nullptr ? previous->NextBySize : List->FirstBySize) = next;
    (next != nullptr ? next->PrevBySize : List->LastBySize) = previous;
}

VOID SetRange(AllocSegment* Segment, ULONG Start, ULONG Count) {
    Segment->Start = Start;
    Segment->Count = Count;
    VrkFsAllocTreeUpdate(&Segment->ByPosition, Start, Count);
}

ULONGLONG EndOf(const AllocSegment* Segment) {
    return static_cast<ULONGLONG>(Segment->Start) + Segment->Count;
}

// The segments on either side of a range that is not in the list.
struct Neighbours {
    AllocSegment* Previous;
    AllocSegment* Next;
    bool TouchesPrevious;
    bool TouchesNext;
};

Neighbours FindNeighbours(const AllocSegmentList* List, ULONG Start, ULONG Count) {
    Neighbours found = {};
    found.Previous = ByPosition(VrkFsAllocTreeFindAtMost(&List->ByPosition, Start));
    found.Next = found.Previous != nullptr ? found.Previous->NextByPosition : List->FirstByPosition;
    found.TouchesPrevious = found.Previous != nullptr && EndOf(found.Previous) == Start;
    found.TouchesNext = found.Next != nullptr && found.Next->Start == static_cast<ULONGLONG>(Start) + Count;
    return found;
}

}  // namespace

AllocSegment* VrkFsVolAllocAllocateSegment() {
    return VrkFsLookasideAllocate<AllocSegment>(&pVrkFsGlobalData->AllocSegmentLookaside);
}

VOID VrkFsVolAllocFreeSegment(AllocSegment* Segment) {
    if (Segment != nullptr) {
        VrkFsLookasideFree(&pVrkFsGlobalData->AllocSegmentLookaside, Segment);
    }
}

VOID VrkFsVolAllocInitializeAllocList(AllocSegmentList* List) {
    *List = {};
}

VOID VrkFsVolAllocFreeAllocList(AllocSegmentList* List) {
    AllocSegment* segment = List->FirstByPosition;
    *List = {};
    while (segment != nullptr) {
        AllocSegment* const next = segment->NextByPosition;
        VrkFsVolAllocFreeSegment(segment);
        segment = next;
    }
}

AllocSegment* VrkFsVolAllocFindEndingAfter(const AllocSegmentList* List, ULONG Start) {
    AllocSegment* const segment = ByPosition(VrkFsAllocTreeFindAtMost(&List->ByPosition, Start));
    if (segment == nullptr) {
        return List->FirstByPosition;
    }
    return EndOf(segment) > Start ? segment : segment->NextByPosition;
}

AllocSegment* VrkFsVolAllocFindSpace(const AllocSegmentList* List, ULONG Start, ULONG Count) {
    AllocSegment* const segment = VrkFsVolAllocFindEndingAfter(List, Start);
    const bool holds = segment != nullptr && segment->Start <= Start && Count <= EndOf(segment) - Start;
    return holds ? segment : nullptr;
}

BOOLEAN VrkFsVolAllocTouches(const AllocSegmentList* List, ULONG Start, ULONG Count) {
    const Neighbours found = FindNeighbours(List, Start, Count);
    return found.TouchesPrevious || found.TouchesNext;
}

AllocSegment* VrkFsVolAllocFreeSpace(AllocSegmentList* List, ULONG Start, ULONG Count, AllocSegment* Record) {
    const Neighbours found = FindNeighbours(List, Start, Count);
    if (found.TouchesNext) {
        if (!found.TouchesPrevious) {
            VrkFsVolAllocRepositionLarger(List, found.Next, Start, found.Next->Count + Count);
            return Record;
        }
        const ULONG start = found.Previous->Start;
        const ULONG count = found.Previous->Count + Count + found.Next->Count;
        VrkFsVolAllocRemoveSegment(List, found.Previous);
        VrkFsVolAllocRepositionLarger(List, found.Next, start, count);
        return found.Previous;
    }
    if (found.TouchesPrevious) {
        VrkFsVolAllocRepositionLarger(List, found.Previous, found.Previous->Start, found.Previous->Count + Count);
        return Record;
    }
    Record->Start = Start;
    Record->Count = Count;
    VrkFsVolAllocInsertSegment(List, Record, found.Next);
    return nullptr;
}

AllocSegment* VrkFsVolAllocAllocateSpace(AllocSegmentList* List, AllocSegment* Segment, ULONG Start, ULONG Count,
                                         AllocSegment* Record) {
    const ULONG before = Start - Segment->Start;
    const ULONG after = Segment->Count - before - Count;
    if (before == 0 && after == 0) {
        VrkFsVolAllocRemoveSegment(List, Segment);
        return Segment;
    }
    if (before == 0) {
        VrkFsVolAllocRepositionSmaller(List, Segment, Start + Count, after);
        return Record;
    }
    VrkFsVolAllocRepositionSmaller(List, Segment, Segment->Start, before);
    if (after == 0) {
        return Record;
    }
    Record->Start = Start + Count;
    Record->Count = after;
    VrkFsVolAllocInsertSegment(List, Record, Segment->NextByPosition);
    return nullptr;
}

AllocSegment* VrkFsVolAllocGetFirstFit(const AllocSegmentList* List, ULONG Count) {
    return ByPosition(VrkFsAllocTreeFindFirstWeight(&List->ByPosition, Count));
}

AllocSegment* VrkFsVolAllocGetBestFit(const AllocSegmentList* List, ULONG Count) {
    return BySize(VrkFsAllocTreeFindAtMost(&List->BySize, SizeKey(0xFFFFFFFF, Count)));
}

VOID VrkFsVolAllocQueryTwoLargest(const AllocSegmentList* List, AllocRange* First, AllocRange* Second) {
    *First = {};
    *Second = {};
    const AllocSegment* const largest = List->FirstBySize;
    if (largest == nullptr) {
        return;
    }
    *First = {largest->Start, largest->Count};
    if (largest->NextBySize != nullptr) {
        *Second = {largest->NextBySize->Start, largest->NextBySize->Count};
    }
}

VOID VrkFsVolAllocInsertSegment(AllocSegmentList* List, AllocSegment* Segment, AllocSegment* Next) {
    AllocSegment* const previous = Next != nullptr ? Next->PrevByPosition : List->LastByPosition;
    Segment->NextByPosition = Next;
    Segment->PrevByPosition = previous;
    (previous != nullptr ? previous->NextByPosition : List->FirstByPosition) = Segment;
    (Next != nullptr ? Next->PrevByPosition : List->LastByPosition) = Segment;
    Segment->ByPosition.Key = Segment->Start;
    Segment->ByPosition.Weight = Segment->Count;
    VrkFsAllocTreeInsert(&List->ByPosition, &Segment->ByPosition);
    VrkFsVolAllocInsertSizeSegment(List, Segment);
}

VOID VrkFsVolAllocInsertSizeSegment(AllocSegmentList* List, AllocSegment* Segment) {
    const ULONGLONG key = SizeKey(Segment->Start, Segment->Count);
    LinkBySize(List, Segment, BySize(VrkFsAllocTreeFindAtLeast(&List->BySize, key)));
    Segment->BySize.Key = key;
    Segment->BySize.Weight = Segment->Count;
    VrkFsAllocTreeInsert(&List->BySize, &Segment->BySize);
}

VOID VrkFsVolAllocRemoveSegment(AllocSegmentList* List, AllocSegment* Segment) {
    VrkFsAllocTreeRemove(&List->ByPosition, &Segment->ByPosition);
    AllocSegment* const previous = Segment->PrevByPosition;
    AllocSegment* const next = Segment->NextByPosition;
    (previous != nullptr ? previous->NextByPosition : List->FirstByPosition) = next;
    (next != nullptr ? next->PrevByPosition : List->LastByPosition) = previous;
    RemoveSizeSegment(List, Segment);
}

VOID VrkFsVolAllocRepositionLarger(AllocSegmentList* List, AllocSegment* Segment, ULONG Start, ULONG Count) {
    SetRange(Segment, Start, Count);
    const ULONGLONG key = SizeKey(Start, Count);
    const AllocSegment* const previous = Segment->PrevBySize;
    if (previous == nullptr || previous->BySize.Key < key) {
        VrkFsAllocTreeUpdate(&Segment->BySize, key, Count);
        return;
    }
    RemoveSizeSegment(List, Segment);
    VrkFsVolAllocInsertSizeSegment(List, Segment);
}

VOID VrkFsVolAllocRepositionSmaller(AllocSegmentList* List, AllocSegment* Segment, ULONG Start, ULONG Count) {
    SetRange(Segment, Start, Count);
    const ULONGLONG key = SizeKey(Start, Count);
    const AllocSegment* const next = Segment->NextBySize;
    if (next == nullptr || next->BySize.Key > key) {
        VrkFsAllocTreeUpdate(&Segment->BySize, key, Count);
        return;
    }
    RemoveSizeSegment(List, Segment);
    VrkFsVolAllocInsertSizeSegment(List, Segment);
}
