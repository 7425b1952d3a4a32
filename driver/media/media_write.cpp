// Writing a media file. The image is not stored as bytes: its header is gathered in memory and committed when it is
// whole (media_commit.cpp), and the frame data that follows is dealt to the disks.
#include <vrkfs/media.h>

#include <algorithm>

#include "core/pool.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "media/media_file.h"
#include "volume/allocator.h"
#include "volume/hw_volume.h"

namespace {

BOOLEAN HasAlphaChunks(const MediaFileObject* Object) {
    return Object->StagedHeader.ChunkCount > VRKFS_MEDIA_CHUNKS_VIDEO_ONLY;
}

VOID SetRegion(MediaFileObject* Object, ULONG Region, ULONGLONG Length) {
    MediaRegionTable* regions = &Object->RegionTable;
    regions->Start[Region] = Region == 0 ? 0 : regions->Start[Region - 1] + regions->Length[Region - 1];
    regions->Length[Region] = Length;
}

// A header size that no image of that many chunks has would have later copies reach past the header image.
BOOLEAN IsHeaderSizePossible(const MediaFileHeader* Header) {
    const bool hasAlpha = Header->ChunkCount == VRKFS_MEDIA_CHUNKS_WITH_ALPHA;
    if (!hasAlpha && Header->ChunkCount != VRKFS_MEDIA_CHUNKS_VIDEO_ONLY) {
        return FALSE;
    }
    const ULONGLONG smallest = VrkFsMediaHeaderSize(0, hasAlpha);
    if (Header->HeaderSize < smallest || Header->HeaderSize > kMediaMaxHeaderBytes) {
        return FALSE;
    }
    const ULONG tableUnit = VRKFS_SECTOR_SIZE * (hasAlpha ? 2 : 1);
    return (Header->HeaderSize - smallest) % tableUnit == 0;
}

// The file header has to come in one piece from offset 0; bytes of a shorter piece have no effect.
NTSTATUS AcceptFileHeader(MediaFileObject* Object, const UCHAR* Buffer, ULONGLONG Offset, PULONG Count) {
    if (Offset >= sizeof(MediaFileHeader)) {
        *Count = 0;
        return STATUS_FILE_INVALID;
    }
    *Count = std::min<ULONG>(*Count, sizeof(MediaFileHeader) - static_cast<ULONG>(Offset));
    RtlCopyMemory(static_cast<PUCHAR>(static_cast<PVOID>(&Object->StagedHeader)) + Offset, Buffer, *Count);
    if (*Count != sizeof(MediaFileHeader)) {
        return STATUS_SUCCESS;
    }
    const MediaFileHeader header = Object->StagedHeader;
    if (header.Magic != VRKFS_MEDIA_MAGIC || !IsHeaderSizePossible(&header)) {
        return STATUS_FILE_INVALID;
    }
    auto* image = static_cast<PUCHAR>(VrkFsAllocatePool(PagedPool, header.HeaderSize));
    if (image == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    // Until now the object may have served reads of what the file held before.
    VrkFsRZVFreeFileObject(Object);
    RtlZeroMemory(image, header.HeaderSize);
    RtlCopyMemory(image, &header, sizeof(header));
    Object->HeaderImage = image;
    Object->HeaderSize = header.HeaderSize;
    Object->Flags = kMediaHeaderImage | kMediaFileHeader;
    RtlZeroMemory(&Object->RegionTable, sizeof(Object->RegionTable));
    SetRegion(Object, kRegionHeader, header.HeaderSize);
    return STATUS_SUCCESS;
}

// The region that holds Offset, if the image has come far enough for it to be written.
NTSTATUS FindRegion(const MediaFileObject* Object, ULONGLONG Offset, PULONG Region) {
    const MediaRegionTable* regions = &Object->RegionTable;
    for (ULONG i = 0; i < kRegionCount; ++i) {
        const bool isOpen = (i <= kRegionHeader || (Object->Flags & kMediaCommitted) != 0) &&
                            (i <= kRegionVideoChunk || (Object->Flags & kMediaVideoChunk) != 0) &&
                            (i <= kRegionAlphaChunk || (Object->Flags & kMediaAlphaChunk) != 0);
        if (!isOpen) {
            return STATUS_FILE_INVALID;
        }
        if (Offset >= regions->Start[i] && Offset - regions->Start[i] < regions->Length[i]) {
            *Region = i;
            return STATUS_SUCCESS;
        }
    }
    return STATUS_FILE_INVALID;
}

// Bytes of the header that arrive after the commit change what readers of this object see as header, never where the
// data lies: the tables that it was placed by move out of the way first.
NTSTATUS DetachTables(MediaFileObject* Object) {
    const ULONG tables = Object->AlphaBodyTable != nullptr ? 2 : 1;
    if ((Object->Flags & kMediaOwnTables) != 0 || Object->BodyTableBytes == 0) {
        return STATUS_SUCCESS;
    }
    auto* copy = static_cast<PUCHAR>(VrkFsAllocatePool(PagedPool, SIZE_T{Object->BodyTableBytes} * tables));
    if (copy == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(copy, Object->VideoBodyTable, Object->BodyTableBytes);
    Object->VideoBodyTable = static_cast<BodyTableNode*>(static_cast<PVOID>(copy));
    if (tables == 2) {
        RtlCopyMemory(copy + Object->BodyTableBytes, Object->AlphaBodyTable, Object->BodyTableBytes);
        Object->AlphaBodyTable = static_cast<BodyTableNode*>(static_cast<PVOID>(copy + Object->BodyTableBytes));
    }
    Object->OwnTables = copy;
    Object->Flags |= kMediaOwnTables;
    return STATUS_SUCCESS;
}

NTSTATUS WriteHeaderBytes(MediaFileObject* Object, const UCHAR* Buffer, ULONGLONG Position, ULONG Count) {
    if ((Object->Flags & kMediaCommitted) != 0) {
        const NTSTATUS status = DetachTables(Object);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    RtlCopyMemory(Object->HeaderImage + Position, Buffer, Count);
    if (Position + Count == Object->HeaderSize && (Object->Flags & kMediaCommitted) == 0) {
        return VrkFsRZVCommit(Object);
    }
    return STATUS_SUCCESS;
}

VOID WriteChunkBytes(ChunkHeader* Chunk, const UCHAR* Buffer, ULONGLONG Position, ULONG Count) {
    RtlCopyMemory(static_cast<PUCHAR>(static_cast<PVOID>(Chunk)) + Position, Buffer, Count);
}

NTSTATUS WriteFrameData(MediaFileObject* Object, ULONG Region, const UCHAR* Buffer, ULONGLONG Position, PULONG Count,
                        MediaCursor* Cursor) {
    StripeOrder order = Region == kRegionVideoData ? StripeOrder::Video : StripeOrder::Alpha;
    if (Region == kRegionVideoData && (Object->Flags & kMediaInterleaved) != 0) {
        order = StripeOrder::Interleaved;
    }
    const StripeMap map = VrkFsRZVMapRegion(Object, Region, order);
    // Nothing is written to blocks that another record turned out to claim as well.
    AllocObject* allocator = &VrkFsRZVVolume(Object)->Allocator;
    for (ULONG stream = 0; stream < kStripeStreams; ++stream) {
        if (map.BlockCount[stream] != 0 &&
            !VrkFsVolAllocIsOwnedSpace(allocator, map.StartLba[stream], map.BlockCount[stream])) {
            *Count = 0;
            return STATUS_FILE_CORRUPT_ERROR;
        }
    }
    return VrkFsStripeTransfer(&map, StripeDirection::Write, const_cast<PUCHAR>(Buffer), Position, Count, Cursor);
}

// Writes *Count bytes, which lie in one region. *Count returns the bytes consumed.
NTSTATUS WriteRegion(MediaFileObject* Object, ULONG Region, const UCHAR* Buffer, ULONGLONG Position, PULONG Count,
                     MediaCursor* Cursor) {
    switch (Region) {
        case kRegionHeader:
            return WriteHeaderBytes(Object, Buffer, Position, *Count);
        case kRegionVideoChunk:
            WriteChunkBytes(&Object->VideoDataChunk, Buffer, Position, *Count);
            SetRegion(Object, kRegionVideoData,
                      Object->VideoBytes + ((Object->Flags & kMediaInterleaved) != 0 ? Object->AlphaBytes : 0));
            SetRegion(Object, kRegionAlphaChunk, VRKFS_CHUNK_HEADER_SIZE);
            Object->Flags |= kMediaVideoChunk;
            return STATUS_SUCCESS;
        case kRegionAlphaChunk:
            if (!HasAlphaChunks(Object)) {
                *Count = 0;
                return STATUS_FILE_INVALID;
            }
            WriteChunkBytes(&Object->AlphaDataChunk, Buffer, Position, *Count);
            SetRegion(Object, kRegionAlphaData, Object->AlphaBytes);
            Object->Flags |= kMediaAlphaChunk;
            return STATUS_SUCCESS;
        default:
            return WriteFrameData(Object, Region, Buffer, Position, Count, Cursor);
    }
}

NTSTATUS WriteChunks(MediaFileObject* Object, const UCHAR* Buffer, ULONGLONG Offset, PULONG Count,
                     MediaCursor* Cursor) {
    const ULONG given = *Count;
    *Count = 0;
    ULONG region = 0;
    NTSTATUS status = STATUS_SUCCESS;
    while (*Count < given && NT_SUCCESS(status)) {
        // Also stops at the end of the last region: what lies beyond has no place.
        status = FindRegion(Object, Offset, &region);
        if (!NT_SUCCESS(status)) {
            break;
        }
        const ULONGLONG position = Offset - Object->RegionTable.Start[region];
        ULONG moved =
            static_cast<ULONG>(std::min<ULONGLONG>(given - *Count, Object->RegionTable.Length[region] - position));
        status = WriteRegion(Object, region, Buffer + *Count, position, &moved, Cursor);
        *Count += moved;
        Offset += moved;
    }
    return status;
}

}  // namespace

NTSTATUS VrkFsRZVInitializeFileObjectForWrite(MediaFileObject* Object, FCB* Fcb) {
    VrkFsRZVBindFileObject(Object, Fcb);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsRZVFileWrite(MediaFileObject* Object, const UCHAR* Buffer, ULONGLONG Offset, PULONG Count,
                           MediaCursor* Cursor) {
    const FCBCommon* common = Object->FCB->Common;
    const ULONG given = *Count;
    *Count = 0;
    if ((common->Flags & kFcbCommonSubstitute) != 0) {
        return STATUS_FILE_CORRUPT_ERROR;
    }
    // Somebody else has given the file another layout since: this object's tables place nothing any more.
    if ((Object->Flags & kMediaCommitted) != 0 && Object->Generation != common->LayoutGeneration) {
        VrkFsRZVFreeFileObject(Object);
    }
    ULONG consumed = 0;
    if ((Object->Flags & kMediaFileHeader) == 0) {
        consumed = given;
        const NTSTATUS status = AcceptFileHeader(Object, Buffer, Offset, &consumed);
        *Count = consumed;
        if (!NT_SUCCESS(status) || (Object->Flags & kMediaFileHeader) == 0) {
            return status;
        }
    }
    ULONG rest = given - consumed;
    const NTSTATUS status = WriteChunks(Object, Buffer + consumed, Offset + consumed, &rest, Cursor);
    *Count = consumed + rest;
    return status;
}
