// A media file as one stream of bytes (the image of <vrkfs/media.h>), read and written through an FCB under the
// built-in type.
#pragma once

#include <nt.h>
#include <vrkfs/media.h>

#include "media/striping.h"

struct CardInstance;
struct FCB;
struct FileEntry;
struct HwContext;
struct HwVolume;

// Regions of the image, in order.
inline constexpr ULONG kRegionHeader = 0;
inline constexpr ULONG kRegionVideoChunk = 1;
inline constexpr ULONG kRegionVideoData = 2;
inline constexpr ULONG kRegionAlphaChunk = 3;
inline constexpr ULONG kRegionAlphaData = 4;
inline constexpr ULONG kRegionCount = 5;

struct MediaRegionTable {
    ULONGLONG Start[kRegionCount];   // bytes from the start of the image
    ULONGLONG Length[kRegionCount];  // bytes
};

// MediaFileObject::Flags. An object without kMediaFileHeader serves reads (or nothing yet); with it, it belongs to a
// writer.
inline constexpr ULONG kMediaHeaderImage = 0x01;  // HeaderImage is allocated
inline constexpr ULONG kMediaFileHeader = 0x02;   // a written file header has been accepted
inline constexpr ULONG kMediaCommitted =
    0x04;  // the written header is complete: space is allocated, tables are on disk
inline constexpr ULONG kMediaVideoChunk = 0x08;   // the written video data chunk header has begun
inline constexpr ULONG kMediaAlphaChunk = 0x10;   // the written alpha data chunk header has begun
inline constexpr ULONG kMediaInterleaved = 0x20;  // written fields alternate between the streams
inline constexpr ULONG kMediaOwnTables = 0x40;    // the body tables have left the header image for OwnTables

// Neither a disk nor a caller makes the driver keep a longer header in memory: with 16 bytes per frame that is still
// more than a day of video and alpha.
inline constexpr ULONG kMediaMaxHeaderBytes = 64 * 1024 * 1024;

// Data lengths are kept in 64-bit block counts; more than every disk of the widest volume can hold is damage.
inline constexpr ULONGLONG kMediaMaxDataBlocks = 0xFFFFFFFFull * kStripeMaxDisks;

// One per FCB of a media file, embedded in the FCB, valid with FCB flag 0x10. Guarded by the FCBCommon's Resource, held
// exclusively by every transfer. The header image and the tables are a snapshot of one layout of the file: Generation
// names it.
struct MediaFileObject {
    struct FCB* FCB;
    struct CardInstance* CardInstance;
    struct FileEntry* FileEntry;  // the FCBCommon's copy
    PUCHAR HeaderImage;           // paged pool, HeaderSize bytes; or null
    ULONG HeaderSize;             // H
    ULONG BodyTableBytes;         // B, of each table
    BodyTableNode* VideoBodyTable;
    BodyTableNode* AlphaBodyTable;  // null without alpha
    ChunkHeader VideoDataChunk;
    ChunkHeader AlphaDataChunk;
    MediaRegionTable RegionTable;
    MediaFileHeader StagedHeader;
    ULONG Flags;           // kMedia...
    ULONG Frames;          // of the snapshot: the tables have 2 * Frames nodes
    ULONG Generation;      // FCBCommon.LayoutGeneration of the snapshot
    ULONG Snapshot;        // counts them: cursors of an earlier one, of whatever layout, do not fit
    ULONGLONG VideoBytes;  // V
    ULONGLONG AlphaBytes;  // A, 0 without alpha
    PUCHAR OwnTables;  // paged pool: the tables that the data was placed by, once the image's own may change; or null
};

// All of the following: the FCBCommon's Resource is held exclusively.

// Sets the object up from the file's record and the body tables on disk. Pending changes of shared body tables are to
// be written back beforehand (the dispatch does). STATUS_INSUFFICIENT_RESOURCES; STATUS_FILE_CORRUPT_ERROR for a record
// whose numbers cannot be true; a transfer's status. Nothing is kept on failure.
[[nodiscard]] NTSTATUS VrkFsRZVInitializeFileObjectForRead(MediaFileObject* Object, FCB* Fcb);

// Cannot fail today; the writer's first bytes come next.
[[nodiscard]] NTSTATUS VrkFsRZVInitializeFileObjectForWrite(MediaFileObject* Object, FCB* Fcb);

// Frees what the object holds and clears its flags; harmless on a half-built or freed object.
VOID VrkFsRZVFreeFileObject(MediaFileObject* Object);

// TRUE when the object has something to serve reads from, and that still is the file's layout (or a header that is
// being written). Otherwise it has to be set up for reading.
[[nodiscard]] BOOLEAN VrkFsRZVIsReadable(const MediaFileObject* Object);

// Reads from the image. *Count: bytes wanted, then bytes copied, also after a failure. The image's end cuts the count;
// beyond it STATUS_END_OF_FILE. A table that leads outside the file's space: STATUS_FILE_CORRUPT_ERROR. Cursor may be
// null.
[[nodiscard]] NTSTATUS VrkFsRZVFileRead(MediaFileObject* Object, PUCHAR Buffer, ULONGLONG Offset, PULONG Count,
                                        MediaCursor* Cursor);

// Writes to the image. *Count: bytes given, then bytes consumed, also after a failure. Statuses: STATUS_FILE_INVALID
// for bytes out of order, beyond the end, or headers that contradict themselves; STATUS_DISK_FULL;
// STATUS_INSUFFICIENT_RESOURCES; STATUS_FILE_CORRUPT_ERROR for a file whose record could not be read; a transfer's
// status. Cursor may be null.
[[nodiscard]] NTSTATUS VrkFsRZVFileWrite(MediaFileObject* Object, const UCHAR* Buffer, ULONGLONG Offset, PULONG Count,
                                         MediaCursor* Cursor);

// The header image is whole: checks it, takes space, writes the body tables and makes the file's record say so. A clip
// that had space before keeps it until its record on disk names the new one. On failure the record is as before, in
// memory and on disk, no space is taken, and the object has been freed for another attempt.
[[nodiscard]] NTSTATUS VrkFsRZVCommit(MediaFileObject* Object);

// Bytes of the image of a media file.
[[nodiscard]] ULONGLONG VrkFsRZVGetTotalFileSize(const FileEntry* Entry);

// ---- Shared by the two paths (media_file.cpp) ----

// An empty object of this FCB; what it held before must be freed.
VOID VrkFsRZVBindFileObject(MediaFileObject* Object, FCB* Fcb);

// A record inside a header image, which is at least that long.
template <typename Record>
Record* VrkFsRZVRecordAt(PUCHAR Image, ULONGLONG Offset) {
    return static_cast<Record*>(static_cast<PVOID>(Image + Offset));
}
// The image's regions as a reader sees them: never interleaved, and no more of them than the object can serve.
VOID VrkFsRZVGetReadRegions(const MediaFileObject* Object, MediaRegionTable* Regions);
// Where the bytes of a data region lie on disk now: the space is looked up in the file's record for every transfer.
[[nodiscard]] StripeMap VrkFsRZVMapRegion(const MediaFileObject* Object, ULONG Region, StripeOrder Order);
// Fills the two data chunk headers of a file with these lengths.
VOID VrkFsRZVFillDataChunks(MediaFileObject* Object);
// What the object's file is and where it lives.
[[nodiscard]] HwContext* VrkFsRZVHw(const MediaFileObject* Object);
[[nodiscard]] HwVolume* VrkFsRZVVolume(const MediaFileObject* Object);
