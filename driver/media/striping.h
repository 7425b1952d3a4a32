// Frame data on its disks. A stream's fields are dealt to the disks of the volume in turn; on each disk they follow
// each other from the stream's data start block. The body table gives the length of every field, so a position in the
// stream is found by walking it. Both data paths move bytes through here.
#pragma once

#include <nt.h>
#include <vrkfs/media.h>

struct HwContext;
struct HwVolume;

inline constexpr ULONG kStripeMaxDisks = 16;  // every volume that can be mounted
inline constexpr ULONG kStripeStreams = 2;    // VRKFS_STREAM_VIDEO, VRKFS_STREAM_ALPHA

// How the fields of a region follow each other.
enum class StripeOrder : ULONG {
    Video,        // the fields of the video stream
    Alpha,        // the fields of the alpha stream
    Interleaved,  // per frame two video fields, then two alpha fields
};

// Where a walk through a region stands: at the start of a field. One in every CCB, so that the next transfer of the
// handle does not begin at the first field; guarded like the FCB's MediaFileObject. All zeros: nowhere. It counts
// blocks from the stream's data start, so it stays true when the data is moved as a whole.
struct MediaCursor {
    ULONG FieldIndex;                               // position in the region's order
    ULONG RegionIndex;                              // kRegionVideoData or kRegionAlphaData
    ULONG Blocks[kStripeStreams][kStripeMaxDisks];  // before this field, on each disk of the volume
    ULONGLONG Position;                             // bytes from the start of the region to this field
    ULONG Snapshot;                                 // of the media object that the cursor was made for
    StripeOrder Order;
};

// One region of one snapshot of a file, as a transfer needs it.
struct StripeMap {
    HwContext* Hw;
    const HwVolume* Volume;
    StripeOrder Order;
    ULONG RegionIndex;
    ULONG Snapshot;
    ULONG FieldCount;                            // positions in the region's order
    const BodyTableNode* Table[kStripeStreams];  // null: no such stream
    ULONG StartLba[kStripeStreams];              // on every disk
    ULONG BlockCount[kStripeStreams];            // of the stream's range on every disk
};

enum class StripeDirection { Read, Write };

// Moves *Count bytes between Buffer and position Position (bytes) of the region, whole sectors without a copy, the rest
// through the card's scratch buffer. *Count returns the bytes moved, also after a failure. STATUS_FILE_CORRUPT_ERROR
// when the table ends before the bytes do or leads outside the stream's range; a transfer's status. Cursor may be null.
[[nodiscard]] NTSTATUS VrkFsStripeTransfer(const StripeMap* Map, StripeDirection Direction, PUCHAR Buffer,
                                           ULONGLONG Position, PULONG Count, MediaCursor* Cursor);

// Blocks that each disk needs for a table's fields. Sums[] has kStripeMaxDisks elements. FALSE if a field is longer
// than VRKFS_FIELD_MAX_SECTORS.
[[nodiscard]] BOOLEAN VrkFsStripeMeasure(const BodyTableNode* Table, ULONG FieldCount, ULONG DiskCount,
                                         ULONGLONG* Sums);
