#include "fsd/settle.h"

#include "core/card_instance.h"
#include "core/device_ext.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "volume/entries.h"
#include "volume/hw_volume.h"

namespace {

// The ranges of a file that a settlement gives back.
struct Reserved {
    AllocRange Ranges[4];
    ULONG Count;
};

// The fields that a settlement changes, kept aside for the case that the record cannot be written.
struct ReservedFields {
    ULONG FrameCount;
    ULONG DataBlockCount;
    ULONG DataStartLba;
    ULONG Kind;
    ULONG VideoBodyTableLba;
    ULONG VideoBodyTableBlockCount;
    ULONG AlphaBodyTableLba;
    ULONG AlphaBodyTableBlockCount;
    ULONG AlphaDataBlockCount;
    ULONG AlphaDataStartLba;
    ULONG Flags;
};

ReservedFields FieldsOf(const FileEntry* Entry) {
    return {Entry->FrameCount,
            Entry->DataBlockCount,
            Entry->DataStartLba,
            Entry->Kind,
            Entry->VideoBodyTableLba,
            Entry->VideoBodyTableBlockCount,
            Entry->AlphaBodyTableLba,
            Entry->AlphaBodyTableBlockCount,
            Entry->AlphaDataBlockCount,
            Entry->AlphaDataStartLba,
            Entry->Flags};
}

VOID PutFields(FileEntry* Entry, const ReservedFields& Fields) {
    Entry->FrameCount = Fields.FrameCount;
    Entry->DataBlockCount = Fields.DataBlockCount;
    Entry->DataStartLba = Fields.DataStartLba;
    Entry->Kind = Fields.Kind;
    Entry->VideoBodyTableLba = Fields.VideoBodyTableLba;
    Entry->VideoBodyTableBlockCount = Fields.VideoBodyTableBlockCount;
    Entry->AlphaBodyTableLba = Fields.AlphaBodyTableLba;
    Entry->AlphaBodyTableBlockCount = Fields.AlphaBodyTableBlockCount;
    Entry->AlphaDataBlockCount = Fields.AlphaDataBlockCount;
    Entry->AlphaDataStartLba = Fields.AlphaDataStartLba;
    Entry->Flags = Fields.Flags;
}

// Takes a range out of the record, for release later.
VOID TakeRange(Reserved* Taken, PULONG Start, PULONG Count) {
    if (*Start != 0 && *Count != 0) {
        Taken->Ranges[Taken->Count++] = {*Start, *Count};
    }
    *Start = 0;
    *Count = 0;
}

VOID TakeVideo(FileEntry* Entry, Reserved* Taken) {
    TakeRange(Taken, &Entry->DataStartLba, &Entry->DataBlockCount);
    TakeRange(Taken, &Entry->VideoBodyTableLba, &Entry->VideoBodyTableBlockCount);
    Entry->FrameCount = 0;
    Entry->Kind = kFileKindPlain;
    Entry->Flags &= ~kFileVideoReserved;
}

VOID TakeAlpha(FileEntry* Entry, Reserved* Taken) {
    TakeRange(Taken, &Entry->AlphaDataStartLba, &Entry->AlphaDataBlockCount);
    TakeRange(Taken, &Entry->AlphaBodyTableLba, &Entry->AlphaBodyTableBlockCount);
    if (Entry->FrameCount == 0) {
        Entry->Kind = kFileKindPlain;
    }
    Entry->Flags &= ~(kFileAlphaReserved | kFileHasAlpha);
}

NTSTATUS WriteBack(FCB* Fcb) {
    FCBCommon* common = Fcb->Common;
    if (!VrkFsFCBIsInPlace(Fcb)) {
        return STATUS_UNSUCCESSFUL;
    }
    return VrkFsHwWriteFileEntry(&VrkFsCardOfVcb(common->Vcb)->Hw, Fcb->Parent, common->FileEntry,
                                 common->FileEntryIndex, common->RecordLba);
}

NTSTATUS Release(FCBCommon* Common, const Reserved* Taken) {
    for (ULONG i = 0; i < Taken->Count; i++) {
        const NTSTATUS status =
            VrkFsVolAllocReleaseSpace(&Common->VolumeHandle->Allocator, Taken->Ranges[i].Start, Taken->Ranges[i].Count);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return STATUS_SUCCESS;
}

// The record stops naming the space before anybody else can get it. A record that cannot be written keeps the space, in
// memory as on disk.
NTSTATUS GiveBackReserved(FCB* Fcb) {
    FCBCommon* common = Fcb->Common;
    FileEntry* entry = common->FileEntry;
    const ReservedFields before = FieldsOf(entry);
    Reserved taken = {};
    if ((entry->Flags & kFileVideoReserved) != 0) {
        TakeVideo(entry, &taken);
    }
    if ((entry->Flags & kFileAlphaReserved) != 0) {
        TakeAlpha(entry, &taken);
    }
    common->LayoutGeneration++;
    if (!NT_SUCCESS(WriteBack(Fcb))) {
        PutFields(entry, before);
        return STATUS_SUCCESS;
    }
    return Release(common, &taken);
}

}  // namespace

NTSTATUS VrkFsSettleFile(FCB* Fcb, BOOLEAN OpenedAsFile) {
    FCBCommon* common = Fcb->Common;
    if (!VrkFsFCBIsFile(Fcb) || (common->Flags & (kFcbCommonDeleted | kFcbCommonSubstitute)) != 0) {
        return STATUS_SUCCESS;
    }
    const bool reserved = (common->FileEntry->Flags & (kFileVideoReserved | kFileAlphaReserved)) != 0;
    if (reserved && common->HandleCount == 0) {
        return GiveBackReserved(Fcb);
    }
    if (OpenedAsFile && (Fcb->Flags & kFcbDeletePending) == 0) {
        static_cast<void>(WriteBack(Fcb));
    }
    return STATUS_SUCCESS;
}
