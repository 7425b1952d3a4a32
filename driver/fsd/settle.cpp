#include "fsd/settle.h"

#include "core/card_instance.h"
#include "core/device_ext.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "media/body_table_cache.h"
#include "volume/entries.h"
#include "volume/hw_volume.h"
#include "volume/record_io.h"

namespace {

// The part of a record that holds whatever a settlement changes.
constexpr ULONG kSettledBytes = offsetof(FileEntry, Zero2);

// Takes a range out of the record, for release later. What the record names without holding it, as a damaged one may,
// is somebody else's and only leaves the record.
VOID TakeRange(const FileRanges& Held, FileRanges* Taken, PULONG Start, PULONG Count) {
    for (ULONG i = 0; i < Held.Count; i++) {
        if (Held.Range[i].Start == *Start && Held.Range[i].Count == *Count) {
            Taken->Range[Taken->Count++] = Held.Range[i];
            break;
        }
    }
    *Start = 0;
    *Count = 0;
}

VOID TakeVideo(FileEntry* Entry, const FileRanges& Held, FileRanges* Taken) {
    TakeRange(Held, Taken, &Entry->DataStartLba, &Entry->DataBlockCount);
    TakeRange(Held, Taken, &Entry->VideoBodyTableLba, &Entry->VideoBodyTableBlockCount);
    Entry->FrameCount = 0;
    Entry->Kind = kFileKindPlain;
    Entry->Flags &= ~kFileVideoReserved;
}

VOID TakeAlpha(FileEntry* Entry, const FileRanges& Held, FileRanges* Taken) {
    TakeRange(Held, Taken, &Entry->AlphaDataStartLba, &Entry->AlphaDataBlockCount);
    TakeRange(Held, Taken, &Entry->AlphaBodyTableLba, &Entry->AlphaBodyTableBlockCount);
    if (Entry->FrameCount == 0) {
        Entry->Kind = kFileKindPlain;
    }
    Entry->Flags &= ~(kFileAlphaReserved | kFileHasAlpha);
}

FileRanges TakeReserved(FileEntry* Entry) {
    const FileRanges held = VrkFsHwRangesOfFile(Entry);
    FileRanges taken = {};
    if ((Entry->Flags & kFileVideoReserved) != 0) {
        TakeVideo(Entry, held, &taken);
    }
    // A plain file holds no alpha: what is left of it goes as well, or nobody would ever give it back.
    const bool orphaned = Entry->Kind == kFileKindPlain && (Entry->Flags & kFileHasAlpha) != 0;
    if ((Entry->Flags & kFileAlphaReserved) != 0 || orphaned) {
        TakeAlpha(Entry, held, &taken);
    }
    return taken;
}

NTSTATUS WriteBack(FCB* Fcb) {
    FCBCommon* common = Fcb->Common;
    if (!VrkFsFCBIsInPlace(Fcb)) {
        return STATUS_UNSUCCESSFUL;
    }
    return VrkFsHwWriteFileEntry(&VrkFsCardOfVcb(common->Vcb)->Hw, Fcb->Parent, common->FileEntry,
                                 common->FileEntryIndex, common->RecordLba);
}

// The body tables' blocks are not written to any more once they can be somebody else's.
NTSTATUS Release(FCBCommon* Common, const FileRanges& Taken) {
    HwVolume* volume = Common->VolumeHandle;
    NTSTATUS status = STATUS_SUCCESS;
    for (ULONG i = 0; i < Taken.Count && NT_SUCCESS(status); i++) {
        const FileRange& range = Taken.Range[i];
        if (range.Kind == FileRangeKind::BodyTable) {
            VrkFsBTForgetTable(&VrkFsCardOfVcb(Common->Vcb)->BodyTableCache, volume, range.Start);
        }
        status = VrkFsVolAllocReleaseSpace(&volume->Allocator, range.Start, range.Count);
    }
    return status;
}

// The record stops naming the space before anybody else can get it. A record that cannot be written keeps the space, in
// memory as on disk; so does one whose space was never claimed. Segment records for the release are set aside.
NTSTATUS GiveBackReserved(FCB* Fcb) {
    FCBCommon* common = Fcb->Common;
    UCHAR before[kSettledBytes];
    RtlCopyMemory(before, common->FileEntry, sizeof(before));
    const FileRanges taken = TakeReserved(common->FileEntry);
    common->LayoutGeneration++;
    if (!NT_SUCCESS(WriteBack(Fcb))) {
        RtlCopyMemory(common->FileEntry, before, sizeof(before));
        return STATUS_SUCCESS;
    }
    return Release(common, taken);
}

// TRUE when nobody can use the reserved space any more, and giving it back cannot fail for want of memory.
bool CanGiveBack(FCBCommon* Common) {
    return (Common->FileEntry->Flags & (kFileVideoReserved | kFileAlphaReserved)) != 0 && Common->HandleCount == 0 &&
           NT_SUCCESS(VrkFsVolAllocReserveSegments(&Common->VolumeHandle->Allocator, kMaxFileRanges));
}

}  // namespace

NTSTATUS VrkFsSettleFile(FCB* Fcb, BOOLEAN OpenedAsFile) {
    FCBCommon* common = Fcb->Common;
    if (!VrkFsFCBIsFile(Fcb) || (common->Flags & (kFcbCommonDeleted | kFcbCommonSubstitute)) != 0) {
        return STATUS_SUCCESS;
    }
    if (CanGiveBack(common)) {
        const NTSTATUS status = GiveBackReserved(Fcb);
        VrkFsVolAllocUnreserveSegments(&common->VolumeHandle->Allocator, kMaxFileRanges);
        return status;
    }
    if (OpenedAsFile && (Fcb->Flags & kFcbDeletePending) == 0) {
        static_cast<void>(WriteBack(Fcb));
    }
    return STATUS_SUCCESS;
}
