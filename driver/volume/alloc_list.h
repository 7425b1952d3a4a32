#pragma once

#include <nt.h>

#include "volume/alloc_tree.h"

// One region's free segments, linked by position and by size. Beside the two lists stand two balanced trees over the
// same segments, so that no operation walks a list: with 100,000 segments a walk per request would show. Segments of a
// list never touch. The owner's lock is held for all of this.

// Paged, from GlobalData's list.
struct AllocSegment {
    AllocSegment* NextByPosition;
    AllocSegment* PrevByPosition;
    AllocSegment* NextBySize;
    AllocSegment* PrevBySize;
    ULONG Start;
    ULONG Count;               // never 0 while the segment is in a list
    AllocTreeNode ByPosition;  // key: Start; carries the largest Count below each node
    AllocTreeNode BySize;      // key: Count descending, Start ascending
};

struct AllocSegmentList {
    AllocSegment* FirstByPosition;  // lowest start
    AllocSegment* LastByPosition;
    AllocSegment* FirstBySize;  // largest; equal counts by ascending start
    AllocSegment* LastBySize;
    AllocTree ByPosition;
    AllocTree BySize;
};

struct AllocRange {
    ULONG Start;
    ULONG Count;
};

// A zeroed record from GlobalData's list, or null.
[[nodiscard]] AllocSegment* VrkFsVolAllocAllocateSegment();
VOID VrkFsVolAllocFreeSegment(AllocSegment* Segment);  // null is ignored
VOID VrkFsVolAllocInitializeAllocList(AllocSegmentList* List);
// Gives back every segment.
VOID VrkFsVolAllocFreeAllocList(AllocSegmentList* List);

// No memory is taken or given back below: an operation that may make a segment is handed a record for it (see
// VrkFsVolAllocTouches and VrkFsVolAllocFindSpace for when it needs one), and hands back the one that it leaves over,
// or null.

// The segment that holds the whole range, or null. The range does not wrap.
[[nodiscard]] AllocSegment* VrkFsVolAllocFindSpace(const AllocSegmentList* List, ULONG Start, ULONG Count);
// The first segment that ends behind Start, or null.
[[nodiscard]] AllocSegment* VrkFsVolAllocFindEndingAfter(const AllocSegmentList* List, ULONG Start);
// TRUE when a segment ends where the range starts or starts where it ends: the range then needs no record of its own.
[[nodiscard]] BOOLEAN VrkFsVolAllocTouches(const AllocSegmentList* List, ULONG Start, ULONG Count);

// Puts the range, none of which is in the list, into it, merged with what it touches.
[[nodiscard]] AllocSegment* VrkFsVolAllocFreeSpace(AllocSegmentList* List, ULONG Start, ULONG Count,
                                                   AllocSegment* Record);
// Takes the range, which lies in Segment, out of the list. Needs a record when it touches neither end of the segment.
[[nodiscard]] AllocSegment* VrkFsVolAllocAllocateSpace(AllocSegmentList* List, AllocSegment* Segment, ULONG Start,
                                                       ULONG Count, AllocSegment* Record);

// The first segment by position with at least Count blocks, or null.
[[nodiscard]] AllocSegment* VrkFsVolAllocGetFirstFit(const AllocSegmentList* List, ULONG Count);
// The smallest segment with at least Count blocks, among equals the one with the highest start, or null.
[[nodiscard]] AllocSegment* VrkFsVolAllocGetBestFit(const AllocSegmentList* List, ULONG Count);
// The two largest segments, {0, 0} where there is none.
VOID VrkFsVolAllocQueryTwoLargest(const AllocSegmentList* List, AllocRange* First, AllocRange* Second);

// Links a record whose Start and Count are set before Next by position (null: at the end), and by size.
VOID VrkFsVolAllocInsertSegment(AllocSegmentList* List, AllocSegment* Segment, AllocSegment* Next);
VOID VrkFsVolAllocInsertSizeSegment(AllocSegmentList* List, AllocSegment* Segment);
// Unlinks from both orders; the record is the caller's.
VOID VrkFsVolAllocRemoveSegment(AllocSegmentList* List, AllocSegment* Segment);
// Gives a linked segment another range that keeps its place between its neighbours, and puts it in its place by size.
VOID VrkFsVolAllocRepositionLarger(AllocSegmentList* List, AllocSegment* Segment, ULONG Start, ULONG Count);
VOID VrkFsVolAllocRepositionSmaller(AllocSegmentList* List, AllocSegment* Segment, ULONG Start, ULONG Count);
