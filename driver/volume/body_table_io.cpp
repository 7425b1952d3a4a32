#include "volume/body_table_io.h"

#include "core/pool.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "storage/hw_context.h"
#include "volume/hw_volume.h"

namespace {

// Where one stream's table and data lie according to the file's record.
struct StreamPlace {
    ULONG TableLba;
    ULONG TableBlocks;
    ULONG DataLba;
};

StreamPlace VideoPlace(const FileEntry* Entry) {
    return {Entry->VideoBodyTableLba, Entry->VideoBodyTableBlockCount, Entry->DataStartLba};
}

StreamPlace AlphaPlace(const FileEntry* Entry) {
    return {Entry->AlphaBodyTableLba, Entry->AlphaBodyTableBlockCount, Entry->AlphaDataStartLba};
}

bool HasAlpha(const FileEntry* Entry) {
    return (Entry->Flags & kFileHasAlpha) != 0;
}

// Blocks that the nodes of Frames frames fill. The record's own count may be larger, never smaller: a buffer that was
// sized by the frames must be neither overrun nor left unfilled.
NTSTATUS ReadTable(HwContext* Hw, const HwVolume* Volume, const StreamPlace& Place, ULONG Frames, PVOID Buffer) {
    const ULONGLONG blocks = VrkFsBodyTableSectors(Frames);
    if (blocks == 0) {
        return STATUS_SUCCESS;
    }
    if (blocks > Place.TableBlocks || !VrkFsHwIsDataAreaRange(Volume, Place.TableLba, Place.TableBlocks)) {
        return STATUS_UNSUCCESSFUL;
    }
    return VrkFsHwSCSIRead(Hw, Volume->Devices[0], Place.TableLba, static_cast<ULONG>(blocks), Buffer, 0);
}

// Places the fields of one stream: field k lies on the device at position k modulo the device count, right behind that
// device's previous field.
NTSTATUS PlaceNodes(const HwVolume* Volume, ULONG DataLba, ULONG Frames, const BodyTableNode* Table,
                    PlacedBodyTableNode* Nodes) {
    ULONG cursors[kMaxVolumeDevices];
    for (ULONG& cursor : cursors) {
        cursor = DataLba;
    }
    ULONG position = 0;
    for (ULONG k = 0; k < Frames * VRKFS_FIELDS_PER_FRAME; ++k) {
        const ULONG sectors = VrkFsBodyTableNodeSectors(Table[k]);
        if (sectors != 0 && !VrkFsHwIsDataAreaRange(Volume, cursors[position], sectors)) {
            return STATUS_UNSUCCESSFUL;
        }
        Nodes[k] = {Volume->Devices[position], cursors[position], Table[k]};
        cursors[position] += sectors;
        position = position + 1 == Volume->DeviceCount ? 0 : position + 1;
    }
    return STATUS_SUCCESS;
}

NTSTATUS ReadStreamNodes(HwContext* Hw, const HwVolume* Volume, const StreamPlace& Place, ULONG Frames,
                         PlacedBodyTableNode* Nodes) {
    const ULONGLONG bytes = VrkFsHwGetBodyTableSize(Frames);
    if (bytes == 0) {
        return STATUS_SUCCESS;
    }
    if (Frames > VRKFS_MEDIA_MAX_FRAMES || bytes / kBlockSize > Place.TableBlocks) {
        return STATUS_UNSUCCESSFUL;
    }
    BodyTableNode* const table = static_cast<BodyTableNode*>(VrkFsAllocatePool(PagedPool, static_cast<SIZE_T>(bytes)));
    if (table == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = ReadTable(Hw, Volume, Place, Frames, table);
    if (NT_SUCCESS(status)) {
        status = PlaceNodes(Volume, Place.DataLba, Frames, table, Nodes);
    }
    VrkFsFreePool(table);
    return status;
}

// The node part of each placed node, into a cleared buffer of Bytes bytes; null when there is no memory.
PVOID CollectNodes(ULONG Frames, const PlacedBodyTableNode* Nodes, ULONG Bytes) {
    BodyTableNode* const table = static_cast<BodyTableNode*>(VrkFsAllocatePool(PagedPool, Bytes));
    if (table != nullptr) {
        RtlZeroMemory(table, Bytes);
        for (ULONG k = 0; k < Frames * VRKFS_FIELDS_PER_FRAME; ++k) {
            table[k] = Nodes[k].Node;
        }
    }
    return table;
}

bool HoldsFrames(ULONG Bytes, ULONG Frames) {
    return Frames <= VRKFS_MEDIA_MAX_FRAMES && Bytes >= VrkFsHwGetBodyTableSize(Frames);
}

NTSTATUS WriteTable(HwContext* Hw, HwVolume* Volume, ULONG Lba, PVOID Buffer, ULONG Bytes) {
    if (Bytes % kBlockSize != 0 || !VrkFsVolAllocIsOwnedSpace(&Volume->Allocator, Lba, Bytes / kBlockSize)) {
        return STATUS_UNSUCCESSFUL;
    }
    return VrkFsHwSCSIWriteEx(Hw, Volume->Devices[0], Lba, Bytes / kBlockSize, Buffer, 0, kHwRecordBodyTable);
}

}  // namespace

NTSTATUS VrkFsHwReadBodyTable(HwContext* Hw, FCB* FileFCB, PVOID VideoBuffer, PVOID AlphaBuffer) {
    const FileEntry* const entry = FileFCB->Common->FileEntry;
    const HwVolume* const volume = FileFCB->Common->VolumeHandle;
    const NTSTATUS status = ReadTable(Hw, volume, VideoPlace(entry), entry->FrameCount, VideoBuffer);
    if (!NT_SUCCESS(status) || !HasAlpha(entry) || AlphaBuffer == nullptr) {
        return status;
    }
    return ReadTable(Hw, volume, AlphaPlace(entry), entry->FrameCount, AlphaBuffer);
}

NTSTATUS VrkFsHwReadBodyTableNodes(HwContext* Hw, FCB* FileFCB, PlacedBodyTableNode* VideoNodes,
                                   PlacedBodyTableNode* AlphaNodes) {
    const FileEntry* const entry = FileFCB->Common->FileEntry;
    const HwVolume* const volume = FileFCB->Common->VolumeHandle;
    const NTSTATUS status = ReadStreamNodes(Hw, volume, VideoPlace(entry), entry->FrameCount, VideoNodes);
    if (!NT_SUCCESS(status) || !HasAlpha(entry) || AlphaNodes == nullptr) {
        return status;
    }
    return ReadStreamNodes(Hw, volume, AlphaPlace(entry), entry->FrameCount, AlphaNodes);
}

NTSTATUS VrkFsHwWriteBodyTableNodes(HwContext* Hw, ULONG Frames, const PlacedBodyTableNode* VideoNodes,
                                    const PlacedBodyTableNode* AlphaNodes, ULONG VideoLba, ULONG AlphaLba,
                                    ULONG VideoBytes, ULONG AlphaBytes, HwVolume* Volume) {
    const bool hasVideo = VideoBytes != 0 && VideoNodes != nullptr;
    const bool hasAlpha = AlphaBytes != 0 && AlphaNodes != nullptr;
    if ((hasVideo && !HoldsFrames(VideoBytes, Frames)) || (hasAlpha && !HoldsFrames(AlphaBytes, Frames))) {
        return STATUS_UNSUCCESSFUL;
    }
    PVOID const video = hasVideo ? CollectNodes(Frames, VideoNodes, VideoBytes) : nullptr;
    PVOID const alpha = hasAlpha ? CollectNodes(Frames, AlphaNodes, AlphaBytes) : nullptr;
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
    if ((video != nullptr || !hasVideo) && (alpha != nullptr || !hasAlpha)) {
        status = VrkFsHwWriteBodyTable(Hw, video, alpha, VideoLba, AlphaLba, VideoBytes, AlphaBytes, Volume);
    }
    VrkFsFreePool(video);
    VrkFsFreePool(alpha);
    return status;
}

NTSTATUS VrkFsHwWriteBodyTable(HwContext* Hw, PVOID VideoBuffer, PVOID AlphaBuffer, ULONG VideoLba, ULONG AlphaLba,
                               ULONG VideoBytes, ULONG AlphaBytes, HwVolume* Volume) {
    NTSTATUS status = STATUS_SUCCESS;
    if (VideoBytes != 0 && VideoBuffer != nullptr) {
        status = WriteTable(Hw, Volume, VideoLba, VideoBuffer, VideoBytes);
    }
    if (!NT_SUCCESS(status) || AlphaBytes == 0 || AlphaBuffer == nullptr) {
        return status;
    }
    return WriteTable(Hw, Volume, AlphaLba, AlphaBuffer, AlphaBytes);
}
