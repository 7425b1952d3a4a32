// The commit of a written header: from here on the image has a place on disk. Everything is checked before space is
// taken, and the file's record changes last, so whatever fails leaves the file as it was.
#include <vrkfs/media.h>

#include <algorithm>

#include "core/card_instance.h"
#include "core/guards.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "media/body_table_cache.h"
#include "media/frame_name.h"
#include "media/media_file.h"
#include "storage/hw_context.h"
#include "volume/allocator.h"
#include "volume/entries.h"
#include "volume/hw_volume.h"
#include "volume/record_io.h"

namespace {

// The pieces of a whole header.
struct HeaderView {
    const UCHAR* Application;
    const VideoParameters* Video;
    const VideoParameters* Alpha;  // null without alpha chunks
    BodyTableNode* Table[kStripeStreams];
    ULONG Frames;
    ULONG TableBytes;  // of each table
    ULONG TableBlocks;
    BOOLEAN HasAlpha;  // alpha chunks that hold frames
    BOOLEAN Interleaved;
};

struct StreamPlan {
    ULONGLONG Length;  // blocks over all disks
    ULONG PerDisk;     // blocks of the fullest disk
    DualAllocation Space;
};

struct CommitPlan {
    HeaderView Header;
    StreamPlan Stream[kStripeStreams];
    ULONG Streams;  // 1 or 2
};

// What a record says of the file's content: everything but its identity and its name.
struct RecordContent {
    ULONG Checksum;
    UCHAR Layout[offsetof(FileEntry, Zero2) - offsetof(FileEntry, VideoDataLength)];
    UCHAR Application[sizeof(FileEntry::ApplicationInfo)];
};

BOOLEAN IsChunk(const ChunkHeader* Chunk, ULONGLONG Size, ULONG Type, ULONG Stream) {
    return Chunk->Size == Size && Chunk->Type == Type && Chunk->Stream == Stream;
}

// ---- Checking the header ----

NTSTATUS CheckParameters(const VideoParameters* Parameters, ULONG Stream) {
    const ULONG alphaFlag = Stream == VRKFS_STREAM_ALPHA ? VRKFS_PARAMETERS_ALPHA : 0u;
    if (!IsChunk(&Parameters->Header, VRKFS_VIDEO_PARAMETERS_SIZE, VRKFS_CHUNK_PARAMETERS, Stream) ||
        (Parameters->Flags & VRKFS_PARAMETERS_ALPHA) != alphaFlag) {
        return STATUS_FILE_INVALID;
    }
    return VrkFsRZVVerifyVideoParameters(Parameters);
}

// The tables must be exactly as long as their frames need, and the header exactly as long as its parts.
NTSTATUS LocateTables(const MediaFileObject* Object, HeaderView* View) {
    PUCHAR image = Object->HeaderImage;
    const bool hasAlphaChunks = View->Alpha != nullptr;
    const ULONGLONG tableBytes = VrkFsBodyTableBytes(View->Frames);
    if (View->Frames > VRKFS_MEDIA_MAX_FRAMES ||
        VrkFsMediaHeaderSize(tableBytes, hasAlphaChunks) != Object->HeaderSize) {
        return STATUS_FILE_INVALID;
    }
    const ULONGLONG chunkBytes = tableBytes + VRKFS_CHUNK_HEADER_SIZE;
    const ULONG videoChunk = VrkFsMediaVideoBodyTableChunkOffset(hasAlphaChunks);
    if (!IsChunk(VrkFsRZVRecordAt<ChunkHeader>(image, videoChunk), chunkBytes, VRKFS_CHUNK_BODY_TABLE,
                 VRKFS_STREAM_VIDEO)) {
        return STATUS_FILE_INVALID;
    }
    View->Table[VRKFS_STREAM_VIDEO] = VrkFsRZVRecordAt<BodyTableNode>(image, videoChunk + VRKFS_CHUNK_HEADER_SIZE);
    if (hasAlphaChunks) {
        const ULONGLONG alphaChunk = VrkFsMediaAlphaBodyTableChunkOffset(tableBytes);
        if (!IsChunk(VrkFsRZVRecordAt<ChunkHeader>(image, alphaChunk), chunkBytes, VRKFS_CHUNK_BODY_TABLE,
                     VRKFS_STREAM_ALPHA)) {
            return STATUS_FILE_INVALID;
        }
        View->Table[VRKFS_STREAM_ALPHA] = VrkFsRZVRecordAt<BodyTableNode>(image, alphaChunk + VRKFS_CHUNK_HEADER_SIZE);
    }
    View->TableBytes = static_cast<ULONG>(tableBytes);
    View->TableBlocks = View->TableBytes / kBlockSize;
    return STATUS_SUCCESS;
}

NTSTATUS CheckHeader(const MediaFileObject* Object, HeaderView* View) {
    PUCHAR image = Object->HeaderImage;
    *View = {};
    View->Application = image + VRKFS_MEDIA_APPLICATION_BLOCK_OFFSET;
    View->Video = VrkFsRZVRecordAt<VideoParameters>(image, VRKFS_MEDIA_VIDEO_PARAMETERS_OFFSET);
    const ChunkHeader* application = VrkFsRZVRecordAt<ChunkHeader>(image, VRKFS_MEDIA_APPLICATION_CHUNK_OFFSET);
    if (application->Type != VRKFS_CHUNK_APPLICATION || application->Size != VRKFS_APPLICATION_CHUNK_SIZE) {
        return STATUS_FILE_INVALID;
    }
    NTSTATUS status = CheckParameters(View->Video, VRKFS_STREAM_VIDEO);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    View->Frames = View->Video->FrameCount;
    if (Object->StagedHeader.ChunkCount > VRKFS_MEDIA_CHUNKS_VIDEO_ONLY) {
        View->Alpha = VrkFsRZVRecordAt<VideoParameters>(image, VRKFS_MEDIA_ALPHA_PARAMETERS_OFFSET);
        status = CheckParameters(View->Alpha, VRKFS_STREAM_ALPHA);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        // Both streams have the same frames, or the alpha stream has none and is not kept.
        if (View->Alpha->FrameCount != 0 && View->Alpha->FrameCount != View->Frames) {
            return STATUS_FILE_INVALID;
        }
        View->HasAlpha = View->Alpha->FrameCount != 0;
        View->Interleaved = View->HasAlpha && (View->Alpha->Flags & VRKFS_PARAMETERS_INTERLEAVED) != 0;
    }
    return LocateTables(Object, View);
}

// ---- Space ----

NTSTATUS MeasureStreams(const HwVolume* Volume, CommitPlan* Plan) {
    Plan->Streams = Plan->Header.HasAlpha ? 2 : 1;
    for (ULONG stream = 0; stream < Plan->Streams; ++stream) {
        ULONGLONG sums[kStripeMaxDisks];
        if (!VrkFsStripeMeasure(Plan->Header.Table[stream], Plan->Header.Frames * VRKFS_FIELDS_PER_FRAME,
                                Volume->DeviceCount, sums)) {
            return STATUS_FILE_INVALID;
        }
        ULONGLONG total = 0;
        ULONGLONG fullest = 0;
        for (const ULONGLONG sum : sums) {
            total += sum;
            fullest = std::max(fullest, sum);
        }
        if (fullest > 0xFFFFFFFFu) {
            return STATUS_DISK_FULL;
        }
        Plan->Stream[stream].Length = total;
        Plan->Stream[stream].PerDisk = static_cast<ULONG>(fullest);
    }
    return STATUS_SUCCESS;
}

// The caller has set segment records aside, so a release does not fail for memory. Of ranges that are the file's own it
// does not fail otherwise; blocks that somebody else claims as well stay taken.
VOID ReleaseRange(HwVolume* Volume, ULONG Start, ULONG Count) {
    static_cast<void>(VrkFsVolAllocReleaseSpace(&Volume->Allocator, Start, Count));
}

VOID ReleasePlan(HwVolume* Volume, const CommitPlan* Plan, ULONG Streams) {
    for (ULONG stream = 0; stream < Streams; ++stream) {
        const DualAllocation& space = Plan->Stream[stream].Space;
        ReleaseRange(Volume, space.LowerStart, space.LowerCount);
        ReleaseRange(Volume, space.UpperStart, space.UpperCount);
    }
}

NTSTATUS AllocatePlan(HwVolume* Volume, CommitPlan* Plan) {
    for (ULONG stream = 0; stream < Plan->Streams; ++stream) {
        const NTSTATUS status = VrkFsVolAllocAllocateDualSpace(&Volume->Allocator, Plan->Stream[stream].PerDisk,
                                                               Plan->Header.TableBlocks, &Plan->Stream[stream].Space);
        if (!NT_SUCCESS(status)) {
            ReleasePlan(Volume, Plan, stream);
            return STATUS_DISK_FULL;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS WriteTables(HwContext* Hw, const HwVolume* Volume, const CommitPlan* Plan) {
    for (ULONG stream = 0; stream < Plan->Streams && Plan->Header.TableBlocks != 0; ++stream) {
        const NTSTATUS status =
            VrkFsHwSCSIWriteEx(Hw, Volume->Devices[0], Plan->Stream[stream].Space.UpperStart, Plan->Header.TableBlocks,
                               Plan->Header.Table[stream], 0, kHwRecordBodyTable);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return STATUS_SUCCESS;
}

// ---- The file's record ----

PUCHAR LayoutOf(FileEntry* Entry) {
    return static_cast<PUCHAR>(static_cast<PVOID>(Entry)) + offsetof(FileEntry, VideoDataLength);
}

VOID SaveContent(FileEntry* Entry, RecordContent* Content) {
    Content->Checksum = Entry->Checksum;
    RtlCopyMemory(Content->Layout, LayoutOf(Entry), sizeof(Content->Layout));
    RtlCopyMemory(Content->Application, Entry->ApplicationInfo, sizeof(Content->Application));
}

VOID RestoreContent(FileEntry* Entry, const RecordContent* Content) {
    Entry->Checksum = Content->Checksum;
    RtlCopyMemory(LayoutOf(Entry), Content->Layout, sizeof(Content->Layout));
    RtlCopyMemory(Entry->ApplicationInfo, Content->Application, sizeof(Content->Application));
}

// Whether what the file holds is taken in the allocator: not so for a record that the mount could not read and that
// nobody has been able to claim since.
BOOLEAN IsClaimed(HwVolume* Volume, const FCB* Fcb) {
    const ULONG folderSlot = Fcb->Parent->Common->FolderEntryIndex;
    return !VrkFsHwIsUnread(Volume, folderSlot, kUnreadFolder) &&
           !VrkFsHwIsUnread(Volume, folderSlot, Fcb->Common->FileEntryIndex);
}

VOID FillStream(ULONG SdtiCode, ULONG SetFlag, PULONG Flags, PULONG Format) {
    *Flags |= VrkFsSdtiCodeIsSet(SdtiCode) ? SetFlag : 0;
    *Format = VrkFsSdtiTypeFromCode(SdtiCode);
}

VOID FillRecord(FileEntry* Entry, const CommitPlan* Plan) {
    const HeaderView& header = Plan->Header;
    const StreamPlan& video = Plan->Stream[VRKFS_STREAM_VIDEO];
    const StreamPlan& alpha = Plan->Stream[VRKFS_STREAM_ALPHA];  // all zero without alpha
    const BOOLEAN hasAlpha = header.HasAlpha;
    ULONG flags = hasAlpha ? kFileHasAlpha : 0;
    ULONG videoFormat = 0;
    ULONG alphaFormat = 0;
    FillStream(header.Video->SdtiType, kFileVideoFormatSet, &flags, &videoFormat);
    if (header.Alpha != nullptr) {
        FillStream(header.Alpha->SdtiType, kFileAlphaFormatSet, &flags, &alphaFormat);
    }

    RtlCopyMemory(Entry->ApplicationInfo, header.Application, sizeof(Entry->ApplicationInfo));
    Entry->Kind = kFileKindMedia;
    Entry->LineStandard =
        header.Video->FrameRate == VRKFS_VIDEO_RATE_625 ? VRKFS_LINE_STANDARD_625 : VRKFS_LINE_STANDARD_525;
    Entry->FrameCount = header.Frames;
    Entry->Flags = flags;
    Entry->VideoFormat = videoFormat;
    Entry->VideoDataLength = video.Length;
    Entry->DataStartLba = video.Space.LowerStart;
    Entry->DataBlockCount = video.PerDisk;
    Entry->VideoBodyTableLba = video.Space.UpperStart;
    Entry->VideoBodyTableBlockCount = header.TableBlocks;
    Entry->AlphaFormat = alphaFormat;
    Entry->AlphaDataLength = alpha.Length;
    Entry->AlphaDataStartLba = alpha.Space.LowerStart;
    Entry->AlphaDataBlockCount = alpha.PerDisk;
    Entry->AlphaBodyTableLba = alpha.Space.UpperStart;
    Entry->AlphaBodyTableBlockCount = hasAlpha ? header.TableBlocks : 0;
}

// TRUE when the disk certainly holds what the image in memory says.
BOOLEAN IsRecordOnDisk(HwContext* Hw, const HwVolume* Volume, const FCBCommon* Common) {
    const EventLockGuard scratch(&Hw->FileScratchLock);
    const NTSTATUS status =
        VrkFsHwSCSIRead(Hw, Volume->Devices[0], Common->RecordLba, kFileEntryBlocks, Hw->FileScratchBuffer, 0);
    return NT_SUCCESS(status) && RtlEqualMemory(Hw->FileScratchBuffer, Common->FileEntry, sizeof(FileEntry));
}

NTSTATUS WriteRecord(HwContext* Hw, FCB* Fcb) {
    return VrkFsHwWriteFileEntry(Hw, Fcb->Parent, Fcb->Common->FileEntry, Fcb->Common->FileEntryIndex,
                                 Fcb->Common->RecordLba);
}

// A record write that failed may have reached the disk all the same. TRUE when the old record is certainly there
// (again), so that the new space may be given back.
BOOLEAN PutOldRecordBack(HwContext* Hw, HwVolume* Volume, FCB* Fcb, const RecordContent* Old) {
    RestoreContent(Fcb->Common->FileEntry, Old);
    return IsRecordOnDisk(Hw, Volume, Fcb->Common) || NT_SUCCESS(WriteRecord(Hw, Fcb));
}

// A file that held space keeps it until the disk names the new one, and its old tables are not written back any more
// when their blocks are free for others.
NTSTATUS ReplaceOldLayout(HwContext* Hw, HwVolume* Volume, MediaFileObject* Object, const CommitPlan* Plan) {
    FCB* fcb = Object->FCB;
    FileEntry* entry = fcb->Common->FileEntry;
    const FileRanges ranges = VrkFsHwRangesOfFile(entry);
    RecordContent old;
    SaveContent(entry, &old);
    const ULONG oldTables[] = {entry->VideoBodyTableLba, entry->AlphaBodyTableLba};
    FillRecord(entry, Plan);
    // A file without space has nothing to lose: its record is written when the writer's handle is cleaned up.
    if (ranges.Count == 0) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = WriteRecord(Hw, fcb);
    if (!NT_SUCCESS(status)) {
        // Otherwise either record may be on the disk, and the space of both stays taken until the next mount.
        if (PutOldRecordBack(Hw, Volume, fcb, &old)) {
            ReleasePlan(Volume, Plan, Plan->Streams);
        }
        return status;
    }
    for (const ULONG lba : oldTables) {
        VrkFsBTForgetTable(&Object->CardInstance->BodyTableCache, Volume, lba);
    }
    for (ULONG i = 0; i < ranges.Count && IsClaimed(Volume, fcb); ++i) {
        ReleaseRange(Volume, ranges.Range[i].Start, ranges.Range[i].Count);
    }
    return STATUS_SUCCESS;
}

// Checked, and segment records are set aside.
NTSTATUS CommitPlanned(MediaFileObject* Object, CommitPlan* Plan) {
    HwContext* hw = VrkFsRZVHw(Object);
    HwVolume* volume = VrkFsRZVVolume(Object);
    NTSTATUS status = AllocatePlan(volume, Plan);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = WriteTables(hw, volume, Plan);
    if (!NT_SUCCESS(status)) {
        ReleasePlan(volume, Plan, Plan->Streams);
        return status;
    }
    return ReplaceOldLayout(hw, volume, Object, Plan);
}

NTSTATUS TryCommit(MediaFileObject* Object, CommitPlan* Plan) {
    HwVolume* volume = VrkFsRZVVolume(Object);
    // Moved away through another path: nobody would write the record through this one.
    if (!VrkFsFCBIsInPlace(Object->FCB)) {
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    NTSTATUS status = CheckHeader(Object, &Plan->Header);
    if (NT_SUCCESS(status)) {
        status = MeasureStreams(volume, Plan);
    }
    if (NT_SUCCESS(status)) {
        status = VrkFsHwRetryUnreadRecords(VrkFsRZVHw(Object), volume);
    }
    if (NT_SUCCESS(status)) {
        status = VrkFsVolAllocReserveSegments(&volume->Allocator, kMaxFileRanges);
    }
    if (NT_SUCCESS(status)) {
        status = CommitPlanned(Object, Plan);
        VrkFsVolAllocUnreserveSegments(&volume->Allocator, kMaxFileRanges);
    }
    return status;
}

}  // namespace

NTSTATUS VrkFsRZVCommit(MediaFileObject* Object) {
    CommitPlan plan = {};
    const NTSTATUS status = TryCommit(Object, &plan);
    if (!NT_SUCCESS(status)) {
        VrkFsRZVFreeFileObject(Object);
        return status;
    }
    Object->BodyTableBytes = plan.Header.TableBytes;
    Object->Frames = plan.Header.Frames;
    Object->VideoBodyTable = plan.Header.Table[VRKFS_STREAM_VIDEO];
    Object->AlphaBodyTable = plan.Header.HasAlpha ? plan.Header.Table[VRKFS_STREAM_ALPHA] : nullptr;
    Object->VideoBytes = plan.Stream[VRKFS_STREAM_VIDEO].Length * kBlockSize;
    Object->AlphaBytes = plan.Stream[VRKFS_STREAM_ALPHA].Length * kBlockSize;
    Object->Flags |= kMediaCommitted | (plan.Header.Interleaved ? kMediaInterleaved : 0);
    Object->Generation = ++Object->FCB->Common->LayoutGeneration;
    ++Object->Snapshot;
    Object->RegionTable.Start[kRegionVideoChunk] = Object->HeaderSize;
    Object->RegionTable.Length[kRegionVideoChunk] = VRKFS_CHUNK_HEADER_SIZE;
    // What a reader sees until the writer's own chunk headers arrive.
    VrkFsRZVFillDataChunks(Object);
    return STATUS_SUCCESS;
}
