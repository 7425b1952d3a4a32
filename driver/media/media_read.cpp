// Reading a media file: the image's header is made in memory when the file is first read, frame data comes from the
// disks.
#include <vrkfs/media.h>

#include <algorithm>

#include "core/card_instance.h"
#include "core/pool.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "media/media_file.h"
#include "volume/body_table_io.h"
#include "volume/records.h"

namespace {

// Numbers of a record that say more than its tables, its volume or this driver's memory can hold.
BOOLEAN IsPlausible(const FileEntry* Entry, BOOLEAN HasAlpha) {
    const ULONGLONG tableBytes = ULONGLONG{Entry->VideoBodyTableBlockCount} * VRKFS_SECTOR_SIZE;
    if (VrkFsBodyTableBytes(Entry->FrameCount) > tableBytes ||
        VrkFsMediaHeaderSize(tableBytes, HasAlpha) > kMediaMaxHeaderBytes ||
        Entry->VideoDataLength > kMediaMaxDataBlocks) {
        return FALSE;
    }
    return !HasAlpha || Entry->AlphaDataLength <= kMediaMaxDataBlocks;
}

VOID FillParameters(VideoParameters* Parameters, const FileEntry* Entry, ULONG Stream) {
    const bool isAlpha = Stream == VRKFS_STREAM_ALPHA;
    const bool is625 = Entry->LineStandard == VRKFS_LINE_STANDARD_625;
    const ULONG formatSet = isAlpha ? kFileAlphaFormatSet : kFileVideoFormatSet;
    Parameters->Header = {VRKFS_VIDEO_PARAMETERS_SIZE, VRKFS_CHUNK_PARAMETERS, Stream};
    Parameters->Width = VRKFS_VIDEO_WIDTH;
    Parameters->Height = is625 ? VRKFS_VIDEO_HEIGHT_625 : VRKFS_VIDEO_HEIGHT_525;
    Parameters->BitsPerComponent = VRKFS_VIDEO_BITS;
    Parameters->AspectNumerator = VRKFS_VIDEO_ASPECT_NUMERATOR;
    Parameters->AspectDenominator = VRKFS_VIDEO_ASPECT_DENOMINATOR;
    Parameters->FrameRate = is625 ? VRKFS_VIDEO_RATE_625 : VRKFS_VIDEO_RATE_525;
    Parameters->SdtiType =
        VrkFsSdtiCodeFromType((Entry->Flags & formatSet) != 0, isAlpha ? Entry->AlphaFormat : Entry->VideoFormat);
    Parameters->FrameCount = Entry->FrameCount;
    Parameters->Flags = (isAlpha ? VRKFS_PARAMETERS_ALPHA : 0u) | (is625 ? 0u : VRKFS_PARAMETERS_RATE_30);
}

VOID FillHeaderImage(MediaFileObject* Object, const FileEntry* Entry, bool HasAlpha) {
    PUCHAR image = Object->HeaderImage;
    const ULONGLONG tableChunk = ULONGLONG{Object->BodyTableBytes} + VRKFS_CHUNK_HEADER_SIZE;
    *VrkFsRZVRecordAt<MediaFileHeader>(image, 0) = {
        VRKFS_MEDIA_MAGIC, VRKFS_MEDIA_FILE_HEADER_SIZE,
        HasAlpha ? VRKFS_MEDIA_CHUNKS_WITH_ALPHA : VRKFS_MEDIA_CHUNKS_VIDEO_ONLY, Object->HeaderSize};
    *VrkFsRZVRecordAt<ChunkHeader>(image, VRKFS_MEDIA_APPLICATION_CHUNK_OFFSET) = {
        VRKFS_APPLICATION_CHUNK_SIZE, VRKFS_CHUNK_APPLICATION, VRKFS_STREAM_VIDEO};
    RtlCopyMemory(image + VRKFS_MEDIA_APPLICATION_BLOCK_OFFSET, Entry->ApplicationInfo, VRKFS_APPLICATION_BLOCK_SIZE);
    FillParameters(VrkFsRZVRecordAt<VideoParameters>(image, VRKFS_MEDIA_VIDEO_PARAMETERS_OFFSET), Entry,
                   VRKFS_STREAM_VIDEO);
    *VrkFsRZVRecordAt<ChunkHeader>(image, VrkFsMediaVideoBodyTableChunkOffset(HasAlpha)) = {
        tableChunk, VRKFS_CHUNK_BODY_TABLE, VRKFS_STREAM_VIDEO};
    Object->VideoBodyTable = VrkFsRZVRecordAt<BodyTableNode>(image, VrkFsMediaVideoBodyTableOffset(HasAlpha));
    if (HasAlpha) {
        const ULONG alphaChunk = static_cast<ULONG>(VrkFsMediaAlphaBodyTableChunkOffset(Object->BodyTableBytes));
        FillParameters(VrkFsRZVRecordAt<VideoParameters>(image, VRKFS_MEDIA_ALPHA_PARAMETERS_OFFSET), Entry,
                       VRKFS_STREAM_ALPHA);
        *VrkFsRZVRecordAt<ChunkHeader>(image, alphaChunk) = {tableChunk, VRKFS_CHUNK_BODY_TABLE, VRKFS_STREAM_ALPHA};
        Object->AlphaBodyTable = VrkFsRZVRecordAt<BodyTableNode>(image, alphaChunk + VRKFS_CHUNK_HEADER_SIZE);
    }
}

NTSTATUS BuildSnapshot(MediaFileObject* Object) {
    const FileEntry* entry = Object->FileEntry;
    const bool hasAlpha = (entry->Flags & kFileHasAlpha) != 0;
    if (!IsPlausible(entry, hasAlpha)) {
        return STATUS_FILE_CORRUPT_ERROR;
    }
    Object->BodyTableBytes = entry->VideoBodyTableBlockCount * VRKFS_SECTOR_SIZE;
    Object->HeaderSize = static_cast<ULONG>(VrkFsMediaHeaderSize(Object->BodyTableBytes, hasAlpha));
    Object->Frames = entry->FrameCount;
    Object->Generation = Object->FCB->Common->LayoutGeneration;
    Object->VideoBytes = entry->VideoDataLength * VRKFS_SECTOR_SIZE;
    Object->AlphaBytes = hasAlpha ? entry->AlphaDataLength * VRKFS_SECTOR_SIZE : 0;

    Object->HeaderImage = static_cast<PUCHAR>(VrkFsAllocatePool(PagedPool, Object->HeaderSize));
    if (Object->HeaderImage == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Object->Flags |= kMediaHeaderImage;
    RtlZeroMemory(Object->HeaderImage, Object->HeaderSize);
    FillHeaderImage(Object, entry, hasAlpha);
    VrkFsRZVFillDataChunks(Object);
    VrkFsRZVGetReadRegions(Object, &Object->RegionTable);
    return VrkFsHwReadBodyTable(VrkFsRZVHw(Object), Object->FCB, Object->VideoBodyTable, Object->AlphaBodyTable);
}

NTSTATUS ReadRegion(MediaFileObject* Object, ULONG Region, PUCHAR Buffer, ULONGLONG Position, PULONG Count,
                    MediaCursor* Cursor) {
    switch (Region) {
        case kRegionHeader:
            RtlCopyMemory(Buffer, Object->HeaderImage + Position, *Count);
            return STATUS_SUCCESS;
        case kRegionVideoChunk:
        case kRegionAlphaChunk: {
            ChunkHeader* chunk = Region == kRegionVideoChunk ? &Object->VideoDataChunk : &Object->AlphaDataChunk;
            RtlCopyMemory(Buffer, static_cast<PUCHAR>(static_cast<PVOID>(chunk)) + Position, *Count);
            return STATUS_SUCCESS;
        }
        default: {
            const StripeMap map =
                VrkFsRZVMapRegion(Object, Region, Region == kRegionVideoData ? StripeOrder::Video : StripeOrder::Alpha);
            return VrkFsStripeTransfer(&map, StripeDirection::Read, Buffer, Position, Count, Cursor);
        }
    }
}

}  // namespace

NTSTATUS VrkFsRZVInitializeFileObjectForRead(MediaFileObject* Object, FCB* Fcb) {
    VrkFsRZVBindFileObject(Object, Fcb);
    const NTSTATUS status = BuildSnapshot(Object);
    if (!NT_SUCCESS(status)) {
        VrkFsRZVFreeFileObject(Object);
    }
    return status;
}

NTSTATUS VrkFsRZVFileRead(MediaFileObject* Object, PUCHAR Buffer, ULONGLONG Offset, PULONG Count, MediaCursor* Cursor) {
    const ULONG wanted = *Count;
    *Count = 0;
    if (!VrkFsRZVIsReadable(Object)) {
        return STATUS_END_OF_FILE;
    }
    MediaRegionTable regions;
    VrkFsRZVGetReadRegions(Object, &regions);
    NTSTATUS status = STATUS_SUCCESS;
    for (ULONG i = 0; i < kRegionCount && *Count < wanted && NT_SUCCESS(status); ++i) {
        const ULONGLONG end = regions.Start[i] + regions.Length[i];
        if (Offset >= end) {
            continue;
        }
        ULONG moved = static_cast<ULONG>(std::min<ULONGLONG>(wanted - *Count, end - Offset));
        status = ReadRegion(Object, i, Buffer + *Count, Offset - regions.Start[i], &moved, Cursor);
        *Count += moved;
        Offset += moved;
    }
    // The record may promise more than the snapshot has, while a recorder makes the clip longer.
    return NT_SUCCESS(status) && *Count == 0 ? STATUS_END_OF_FILE : status;
}
