#include "media/striping.h"

#include <algorithm>

#include "core/guards.h"
#include "storage/hw_context.h"
#include "volume/hw_volume.h"

namespace {

static_assert(kStripeMaxDisks == kMaxVolumeDevices);
static_assert(kBlockSize == VRKFS_SECTOR_SIZE);

struct Field {
    ULONG Stream;
    ULONG Disk;  // position in the volume
    ULONG Sectors;
};

Field FieldAt(const StripeMap* Map, ULONG Position) {
    Field field = {};
    ULONG index = Position;
    switch (Map->Order) {
        case StripeOrder::Video:
            field.Stream = VRKFS_STREAM_VIDEO;
            break;
        case StripeOrder::Alpha:
            field.Stream = VRKFS_STREAM_ALPHA;
            break;
        case StripeOrder::Interleaved:
            field.Stream = VrkFsMediaInterleavedStream(Position);
            index = static_cast<ULONG>(VrkFsMediaInterleavedField(Position));
            break;
    }
    field.Disk = index % Map->Volume->DeviceCount;
    field.Sectors = VrkFsBodyTableNodeSectors(Map->Table[field.Stream][index]);
    return field;
}

// Moves the walk past the field it stands on. FALSE if the field does not lie inside its stream's range.
BOOLEAN NextField(const StripeMap* Map, MediaCursor* Walk, const Field& Current) {
    ULONG* blocks = &Walk->Blocks[Current.Stream][Current.Disk];
    const ULONGLONG end = ULONGLONG{*blocks} + Current.Sectors;
    if (end > Map->BlockCount[Current.Stream]) {
        return FALSE;
    }
    *blocks = static_cast<ULONG>(end);
    Walk->Position += ULONGLONG{Current.Sectors} * kBlockSize;
    ++Walk->FieldIndex;
    return TRUE;
}

BOOLEAN IsUsable(const StripeMap* Map, const MediaCursor* Cursor, ULONGLONG Position) {
    return Cursor->RegionIndex == Map->RegionIndex && Cursor->Snapshot == Map->Snapshot &&
           Cursor->Order == Map->Order && Cursor->Position <= Position && Cursor->FieldIndex <= Map->FieldCount;
}

VOID BeginWalk(const StripeMap* Map, const MediaCursor* Cursor, ULONGLONG Position, MediaCursor* Walk) {
    if (Cursor != nullptr && IsUsable(Map, Cursor, Position)) {
        *Walk = *Cursor;
        return;
    }
    RtlZeroMemory(Walk, sizeof(*Walk));
    Walk->RegionIndex = Map->RegionIndex;
    Walk->Snapshot = Map->Snapshot;
    Walk->Order = Map->Order;
}

// Moves the walk to the field that holds Position, past all empty ones.
NTSTATUS WalkTo(const StripeMap* Map, MediaCursor* Walk, ULONGLONG Position) {
    while (Walk->FieldIndex < Map->FieldCount) {
        const Field field = FieldAt(Map, Walk->FieldIndex);
        if (Position < Walk->Position + ULONGLONG{field.Sectors} * kBlockSize) {
            return STATUS_SUCCESS;
        }
        if (!NextField(Map, Walk, field)) {
            break;
        }
    }
    return STATUS_FILE_CORRUPT_ERROR;
}

// A run of sectors inside one field.
struct Run {
    ULONG ScsiId;
    ULONG Lba;
    ULONG Sectors;  // from Lba to the end of the field, at least 1
};

// The run that starts at Position, which the walk's field holds.
NTSTATUS LocateRun(const StripeMap* Map, const MediaCursor* Walk, ULONGLONG Position, Run* Out) {
    const Field field = FieldAt(Map, Walk->FieldIndex);
    const ULONG sector = static_cast<ULONG>((Position - Walk->Position) / kBlockSize);
    const ULONGLONG before = ULONGLONG{Walk->Blocks[field.Stream][field.Disk]};
    const ULONGLONG lastLba = Map->StartLba[field.Stream] + before + field.Sectors - 1;
    if (before + field.Sectors > Map->BlockCount[field.Stream] || lastLba > 0xFFFFFFFFu) {
        return STATUS_FILE_CORRUPT_ERROR;
    }
    Out->ScsiId = Map->Volume->Devices[field.Disk];
    Out->Lba = static_cast<ULONG>(Map->StartLba[field.Stream] + before) + sector;
    Out->Sectors = field.Sectors - sector;
    return STATUS_SUCCESS;
}

// Part of one sector, Offset bytes into it.
NTSTATUS MovePartialSector(const StripeMap* Map, StripeDirection Direction, const Run& At, PUCHAR Buffer, ULONG Offset,
                           ULONG Bytes) {
    HwContext* hw = Map->Hw;
    EventLockGuard scratch(&hw->ScratchLock);
    const NTSTATUS status = VrkFsHwSCSIRead(hw, At.ScsiId, At.Lba, 1, hw->ScratchBuffer, 0);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (Direction == StripeDirection::Read) {
        RtlCopyMemory(Buffer, hw->ScratchBuffer + Offset, Bytes);
        return STATUS_SUCCESS;
    }
    RtlCopyMemory(hw->ScratchBuffer + Offset, Buffer, Bytes);
    return VrkFsHwSCSIWrite(hw, At.ScsiId, At.Lba, 1, hw->ScratchBuffer, 0);
}

// Moves what one request to the board can move of Wanted bytes: the rest of a sector, or whole sectors of one field.
NTSTATUS MoveRun(const StripeMap* Map, StripeDirection Direction, const Run& At, PUCHAR Buffer, ULONGLONG Position,
                 ULONG Wanted, PULONG Moved) {
    const ULONG offset = static_cast<ULONG>(Position % kBlockSize);
    if (offset != 0 || Wanted < kBlockSize) {
        *Moved = std::min<ULONG>(Wanted, kBlockSize - offset);
        return MovePartialSector(Map, Direction, At, Buffer, offset, *Moved);
    }
    const ULONG sectors = std::min<ULONG>(Wanted / kBlockSize, At.Sectors);
    *Moved = sectors * kBlockSize;
    return Direction == StripeDirection::Read ? VrkFsHwSCSIRead(Map->Hw, At.ScsiId, At.Lba, sectors, Buffer, 0)
                                              : VrkFsHwSCSIWrite(Map->Hw, At.ScsiId, At.Lba, sectors, Buffer, 0);
}

}  // namespace

NTSTATUS VrkFsStripeTransfer(const StripeMap* Map, StripeDirection Direction, PUCHAR Buffer, ULONGLONG Position,
                             PULONG Count, MediaCursor* Cursor) {
    const ULONG wanted = *Count;
    *Count = 0;
    if (Map->Volume->DeviceCount == 0 || Map->Volume->DeviceCount > kStripeMaxDisks) {
        return STATUS_FILE_CORRUPT_ERROR;
    }
    MediaCursor walk;
    BeginWalk(Map, Cursor, Position, &walk);
    NTSTATUS status = STATUS_SUCCESS;
    while (*Count < wanted && NT_SUCCESS(status)) {
        status = WalkTo(Map, &walk, Position);
        if (!NT_SUCCESS(status)) {
            break;
        }
        // The handle goes on from where this transfer began, so that reading the same bytes again is as cheap.
        if (*Count == 0 && Cursor != nullptr) {
            *Cursor = walk;
        }
        Run run = {};
        status = LocateRun(Map, &walk, Position, &run);
        if (!NT_SUCCESS(status)) {
            break;
        }
        ULONG moved = 0;
        status = MoveRun(Map, Direction, run, Buffer + *Count, Position, wanted - *Count, &moved);
        if (NT_SUCCESS(status)) {
            *Count += moved;
            Position += moved;
        }
    }
    return status;
}

BOOLEAN VrkFsStripeMeasure(const BodyTableNode* Table, ULONG FieldCount, ULONG DiskCount, ULONGLONG* Sums) {
    for (ULONG disk = 0; disk < kStripeMaxDisks; ++disk) {
        Sums[disk] = 0;
    }
    for (ULONG field = 0, disk = 0; field < FieldCount; ++field) {
        const ULONG sectors = VrkFsBodyTableNodeSectors(Table[field]);
        if (sectors > VRKFS_FIELD_MAX_SECTORS) {
            return FALSE;
        }
        Sums[disk] += sectors;
        disk = disk + 1 < DiskCount ? disk + 1 : 0;
    }
    return TRUE;
}
