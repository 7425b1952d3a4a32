#include "media/media_file.h"

#include <algorithm>

#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/pool.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "volume/hw_volume.h"
#include "volume/records.h"

namespace {

// A file header has been accepted, the commit is yet to come: there is nothing but the header so far.
bool IsHeaderBeingWritten(const MediaFileObject* Object) {
    return (Object->Flags & (kMediaFileHeader | kMediaCommitted)) == kMediaFileHeader;
}

}  // namespace

VOID VrkFsRZVBindFileObject(MediaFileObject* Object, FCB* Fcb) {
    const ULONG snapshot = Object->Snapshot;
    RtlZeroMemory(Object, sizeof(*Object));
    Object->Snapshot = snapshot + 1;
    Object->FCB = Fcb;
    Object->CardInstance = VrkFsCardOfVcb(Fcb->Common->Vcb);
    Object->FileEntry = Fcb->Common->FileEntry;
}

VOID VrkFsRZVFreeFileObject(MediaFileObject* Object) {
    if ((Object->Flags & kMediaHeaderImage) != 0) {
        VrkFsFreePool(Object->HeaderImage);
    }
    if ((Object->Flags & kMediaOwnTables) != 0) {
        VrkFsFreePool(Object->OwnTables);
    }
    Object->HeaderImage = nullptr;
    Object->OwnTables = nullptr;
    Object->VideoBodyTable = nullptr;
    Object->AlphaBodyTable = nullptr;
    Object->Flags = 0;
}

BOOLEAN VrkFsRZVIsReadable(const MediaFileObject* Object) {
    if ((Object->Flags & kMediaHeaderImage) == 0) {
        return FALSE;
    }
    return IsHeaderBeingWritten(Object) || Object->Generation == Object->FCB->Common->LayoutGeneration;
}

ULONGLONG VrkFsRZVGetTotalFileSize(const FileEntry* Entry) {
    // Lengths that no volume can hold are cut, so that sizes stay positive numbers.
    const ULONGLONG video =
        Entry->VideoBodyTableBlockCount + std::min<ULONGLONG>(Entry->VideoDataLength, kMediaMaxDataBlocks);
    if ((Entry->Flags & kFileHasAlpha) == 0) {
        return video * VRKFS_SECTOR_SIZE + VrkFsMediaTotalSize(0, 0, 0, false);
    }
    const ULONGLONG alphaData = Entry->AlphaDataLength;  // lies at 4 modulo 8: no reference may be bound to it
    const ULONGLONG alpha = Entry->AlphaBodyTableBlockCount + std::min<ULONGLONG>(alphaData, kMediaMaxDataBlocks);
    return (video + alpha) * VRKFS_SECTOR_SIZE + VrkFsMediaTotalSize(0, 0, 0, true);
}

VOID VrkFsRZVGetReadRegions(const MediaFileObject* Object, MediaRegionTable* Regions) {
    RtlZeroMemory(Regions, sizeof(*Regions));
    Regions->Length[kRegionHeader] = Object->HeaderSize;
    if (!IsHeaderBeingWritten(Object)) {
        Regions->Length[kRegionVideoChunk] = VRKFS_CHUNK_HEADER_SIZE;
        Regions->Length[kRegionVideoData] = Object->VideoBytes;
        if (Object->AlphaBodyTable != nullptr) {
            Regions->Length[kRegionAlphaChunk] = VRKFS_CHUNK_HEADER_SIZE;
            Regions->Length[kRegionAlphaData] = Object->AlphaBytes;
        }
    }
    for (ULONG i = 1; i < kRegionCount; ++i) {
        Regions->Start[i] = Regions->Start[i - 1] + Regions->Length[i - 1];
    }
}

StripeMap VrkFsRZVMapRegion(const MediaFileObject* Object, ULONG Region, StripeOrder Order) {
    const FileEntry* entry = Object->FCB->Common->FileEntry;
    StripeMap map = {};
    map.Hw = VrkFsRZVHw(Object);
    map.Volume = VrkFsRZVVolume(Object);
    map.Order = Order;
    map.RegionIndex = Region;
    map.Snapshot = Object->Snapshot;
    map.FieldCount = Object->Frames * VRKFS_FIELDS_PER_FRAME * (Order == StripeOrder::Interleaved ? kStripeStreams : 1);
    map.Table[VRKFS_STREAM_VIDEO] = Object->VideoBodyTable;
    map.StartLba[VRKFS_STREAM_VIDEO] = entry->DataStartLba;
    map.BlockCount[VRKFS_STREAM_VIDEO] = entry->DataBlockCount;
    map.Table[VRKFS_STREAM_ALPHA] = Object->AlphaBodyTable;
    map.StartLba[VRKFS_STREAM_ALPHA] = entry->AlphaDataStartLba;
    map.BlockCount[VRKFS_STREAM_ALPHA] = entry->AlphaDataBlockCount;
    return map;
}

VOID VrkFsRZVFillDataChunks(MediaFileObject* Object) {
    Object->VideoDataChunk = {Object->VideoBytes + VRKFS_CHUNK_HEADER_SIZE, VRKFS_CHUNK_FRAME_DATA, VRKFS_STREAM_VIDEO};
    Object->AlphaDataChunk = {Object->AlphaBytes + VRKFS_CHUNK_HEADER_SIZE, VRKFS_CHUNK_FRAME_DATA, VRKFS_STREAM_ALPHA};
}

HwContext* VrkFsRZVHw(const MediaFileObject* Object) {
    return &Object->CardInstance->Hw;
}

HwVolume* VrkFsRZVVolume(const MediaFileObject* Object) {
    return Object->FCB->Common->VolumeHandle;
}
