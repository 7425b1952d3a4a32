// Moving the pieces of one file to other blocks, for applications that gather a volume's free space. At every moment
// the file's record names blocks that hold the piece whole: it is copied first, then the record that names its new
// place is written, and only then the old blocks are given back.
//
// Only a move into a range that overlaps the old one writes over blocks that the record still names. A copy that fails
// is taken back in the other direction; a power cut in the middle of such a copy loses the piece.
#include <algorithm>

#include "control/ioctl.h"
#include "control/posted_file.h"
#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/global_data.h"
#include "core/guards.h"
#include "core/probe.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/irp_context.h"
#include "fsd/name_tree.h"
#include "fsd/vcb.h"
#include "media/body_table_cache.h"
#include "volume/entries.h"
#include "volume/hw_volume.h"
#include "volume/record_io.h"

namespace {

constexpr ULONG kMoveReleases = VRKFS_SEGMENT_COUNT;  // each gives back its old blocks, or what it took of the new

// A request's work: the file, its volume, and how far the copies have come.
struct SegmentMover {
    FCB* Fcb;
    FCBCommon* Common;
    HwVolume* Volume;
    HwContext* Hw;
    ULONGLONG Progress;
    PULONG Counter;  // the caller's, in system space
};

// One of the five segments.
struct Segment {
    ULONG Kind;     // VRKFS_SEGMENT_...
    ULONG Current;  // first block
    ULONG Length;   // blocks
    PULONG Field;   // of the record, where the place is stored; null for the record itself
    bool IsData;    // on every device, from the lower region; else on the position-0 device, from the upper one
};

// ---- What is where ----

// FALSE when the file has no such segment.
bool FindSegment(const SegmentMover* Mover, ULONG Kind, Segment* Found) {
    FileEntry* entry = Mover->Common->FileEntry;
    const bool media = entry->Kind == kFileKindMedia;
    const bool alpha = media && (entry->Flags & kFileHasAlpha) != 0;
    switch (Kind) {
        case VRKFS_SEGMENT_FILE_ENTRY:
            *Found = {Kind, Mover->Common->RecordLba, kFileEntryBlocks, nullptr, false};
            return true;
        case VRKFS_SEGMENT_DATA:
            *Found = {Kind, entry->DataStartLba, entry->DataBlockCount, &entry->DataStartLba, true};
            return media;
        case VRKFS_SEGMENT_BODY_TABLE:
            *Found = {Kind, entry->VideoBodyTableLba, entry->VideoBodyTableBlockCount, &entry->VideoBodyTableLba,
                      false};
            return media;
        case VRKFS_SEGMENT_ALPHA_DATA:
            *Found = {Kind, entry->AlphaDataStartLba, entry->AlphaDataBlockCount, &entry->AlphaDataStartLba, true};
            return alpha;
        default:
            *Found = {Kind, entry->AlphaBodyTableLba, entry->AlphaBodyTableBlockCount, &entry->AlphaBodyTableLba,
                      false};
            return alpha;
    }
}

// What a move takes and gives back, so that blocks of both places are neither. The two have the same length.
struct Exchange {
    ULONG Take;
    ULONG Free;
    ULONG Count;
    bool Overlaps;
};

Exchange ExchangeOf(const Segment* From, ULONG To) {
    const ULONG length = From->Length;
    if (To > From->Current && To - From->Current < length) {
        return {From->Current + length, From->Current, To - From->Current, true};
    }
    if (To < From->Current && From->Current - To < length) {
        return {To, To + length, From->Current - To, true};
    }
    return {To, From->Current, length, false};
}

// Blocks that another record names too, or that were never claimed, are not given back, and an overlapping copy would
// write over them; a record that may not be written cannot name a new place.
bool IsOwnPiece(const SegmentMover* Mover, const Segment* Moved) {
    const FCBCommon* common = Mover->Common;
    const OpenFolder folder = VrkFsHwOpenFolderOf(Mover->Fcb->Parent);
    return VrkFsHwIsFileWritable(folder, common->FileEntryIndex) &&
           folder.Image->FileTable[common->FileEntryIndex] == common->RecordLba &&
           VrkFsVolAllocIsOwnedSpace(&Mover->Volume->Allocator, Moved->Current, Moved->Length);
}

bool TakeBlocks(SegmentMover* Mover, const Segment* Moved, const Exchange* Blocks) {
    AllocObject* alloc = &Mover->Volume->Allocator;
    return NT_SUCCESS(Moved->IsData ? VrkFsVolAllocAllocateSpecificLowerSpace(alloc, Blocks->Take, Blocks->Count)
                                    : VrkFsVolAllocAllocateSpecificUpperSpace(alloc, Blocks->Take, Blocks->Count));
}

VOID GiveBack(SegmentMover* Mover, ULONG Start, ULONG Count) {
    // With the segment records set aside this fails for no block that the file holds.
    static_cast<void>(VrkFsVolAllocReleaseSpace(&Mover->Volume->Allocator, Start, Count));
}

// ---- Copies ----

ULONG DevicesOf(const SegmentMover* Mover, const Segment* Moved) {
    return Moved->IsData ? Mover->Volume->DeviceCount : 1;
}

// Takes back what has been copied on a device: the first or the last Done blocks, as the direction had it.
VOID CopyBack(SegmentMover* Mover, const Segment* Moved, ULONG To, ULONG Position, ULONG Done) {
    const ULONG offset = To > Moved->Current ? Moved->Length - Done : 0;
    if (Done != 0) {
        static_cast<void>(VrkFsHwMoveBlocks(Mover->Hw, Mover->Volume->Devices[Position], To + offset, Done,
                                            Moved->Current + offset, nullptr, 0, 0, nullptr));
    }
}

VOID CopyAllBack(SegmentMover* Mover, const Segment* Moved, ULONG To, ULONG Devices) {
    for (ULONG position = 0; position < Devices; ++position) {
        CopyBack(Mover, Moved, To, position, Moved->Length);
    }
}

// On failure of an overlapping copy the old place is as before.
NTSTATUS Copy(SegmentMover* Mover, const Segment* Moved, ULONG To, bool Overlaps) {
    const ULONG devices = Mover->Volume->DeviceCount;
    const ULONG weight = Moved->IsData ? 1 : devices;
    for (ULONG position = 0; position < DevicesOf(Mover, Moved); ++position) {
        const ULONGLONG before = Mover->Progress;
        const NTSTATUS status = VrkFsHwMoveBlocks(Mover->Hw, Mover->Volume->Devices[position], Moved->Current,
                                                  Moved->Length, To, &Mover->Progress, weight, devices, Mover->Counter);
        if (!NT_SUCCESS(status)) {
            if (Overlaps) {
                CopyBack(Mover, Moved, To, position, static_cast<ULONG>((Mover->Progress - before) / weight));
                CopyAllBack(Mover, Moved, To, position);
            }
            return status;
        }
    }
    return STATUS_SUCCESS;
}

// ---- Records ----

NTSTATUS WriteRecord(SegmentMover* Mover) {
    return VrkFsHwWriteFileEntry(Mover->Hw, Mover->Fcb->Parent, Mover->Common->FileEntry, Mover->Common->FileEntryIndex,
                                 Mover->Common->RecordLba);
}

// The folder's Resource is held exclusively.
NTSTATUS NameRecordPlace(SegmentMover* Mover, ULONG To) {
    const NTSTATUS status = VrkFsHwChangeFileEntryPointer(Mover->Hw, Mover->Fcb, To);
    if (NT_SUCCESS(status)) {
        Mover->Common->RecordLba = To;
    }
    return status;
}

// Has the record name the new place. When it cannot be written the old one is back, in memory and on the disk; where
// the disk may have either, the new blocks go to nobody before the next mount.
NTSTATUS NamePlace(SegmentMover* Mover, const Segment* Moved, ULONG To, const Exchange* Blocks) {
    if (Moved->Field == nullptr) {
        return NameRecordPlace(Mover, To);
    }
    *Moved->Field = To;
    const NTSTATUS status = WriteRecord(Mover);
    if (NT_SUCCESS(status)) {
        Mover->Common->LayoutGeneration++;  // what was read of the file so far places nothing any more
        return status;
    }
    *Moved->Field = Moved->Current;
    if (!NT_SUCCESS(WriteRecord(Mover))) {
        static_cast<void>(VrkFsVolAllocContestSpace(&Mover->Volume->Allocator, Blocks->Take, Blocks->Count));
    }
    return status;
}

// Tables in memory name the blocks of data and tables. An application that is writing into them keeps the file where
// it is; otherwise they are read again from their new place when somebody asks.
bool LetGoOfTables(SegmentMover* Mover) {
    FCBCommon* common = Mover->Common;
    BodyTableCache* cache = &VrkFsCardOfVcb(common->Vcb)->BodyTableCache;
    if (common->BodyTable != nullptr) {
        if (VrkFsBTIsWriteReferenced(cache, common->BodyTable)) {
            return false;
        }
        VrkFsBTDereferenceObject(cache, common->BodyTable);
        common->BodyTable = nullptr;
    }
    if (!NT_SUCCESS(VrkFsFCBCommonSetupFullName(common->Vcb, Mover->Fcb, common))) {
        return false;
    }
    VrkFsBTRemoveObjectByName(cache, &common->FullName);
    return true;
}

LONG MoveSegment(SegmentMover* Mover, ULONG Kind, ULONG To) {
    Segment moved;
    if (!FindSegment(Mover, Kind, &moved)) {
        return VRKFS_MOVE_NO_SEGMENT;
    }
    if (moved.Current == To) {
        return VRKFS_RESULT_DONE;
    }
    if (moved.Length != 0 && !VrkFsHwIsDataAreaRange(Mover->Volume, To, moved.Length)) {
        return VRKFS_MOVE_NOT_FREE;
    }
    if (!NT_SUCCESS(VrkFsHwRetryUnreadRecords(Mover->Hw, Mover->Volume))) {
        return VRKFS_MOVE_FAILED;
    }
    const Exchange blocks = ExchangeOf(&moved, To);
    if (!TakeBlocks(Mover, &moved, &blocks)) {
        return VRKFS_MOVE_NOT_FREE;
    }
    if (!IsOwnPiece(Mover, &moved) || (moved.Field != nullptr && !LetGoOfTables(Mover))) {
        GiveBack(Mover, blocks.Take, blocks.Count);
        return VRKFS_MOVE_FAILED;
    }
    // The VCB's Resource is shared with listings of the folder, which read its files' records, and with moves of
    // others.
    ResourceGuard folder;
    if (moved.Field == nullptr) {
        folder.Exclusive(Mover->Fcb->Parent->Common->Resource);
    }
    NTSTATUS status = Copy(Mover, &moved, To, blocks.Overlaps);
    if (NT_SUCCESS(status)) {
        status = NamePlace(Mover, &moved, To, &blocks);
        if (!NT_SUCCESS(status) && blocks.Overlaps) {
            CopyAllBack(Mover, &moved, To, DevicesOf(Mover, &moved));
        }
    }
    GiveBack(Mover, NT_SUCCESS(status) ? blocks.Free : blocks.Take, blocks.Count);
    return NT_SUCCESS(status) ? VRKFS_RESULT_DONE : VRKFS_MOVE_FAILED;
}

// ---- The second pass ----

// The file has no other user: nobody reads it through another path, and no other handle can come while the VCB's
// Resource is held.
bool IsOnlyUse(const FCB* Fcb) {
    return Fcb->ReferenceCount == 1 && Fcb->Common->ReferenceCount == 1 && IsListEmpty(&Fcb->Children);
}

NTSTATUS MoveSegments(IRPContext* Context, const PostedFile* File, PULONG Counter) {
    auto* request = VrkFsIoctlSystemBuffer<VrkFsSegmentMove>(Context->Irp);
    if (!IsOnlyUse(File->Fcb) || !VrkFsFCBIsInPlace(File->Fcb)) {
        return STATUS_ACCESS_DENIED;
    }
    FCBCommon* common = File->Fcb->Common;
    SegmentMover mover = {File->Fcb, common, common->VolumeHandle, &VrkFsCardOfDevice(Context->DeviceObject)->Hw,
                          0,         Counter};
    NTSTATUS status = VrkFsVolAllocReserveSegments(&mover.Volume->Allocator, kMoveReleases);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    for (ULONG kind = 0; kind < VRKFS_SEGMENT_COUNT; ++kind) {
        if (request->NewLba[kind] != 0) {
            request->Results[kind] = MoveSegment(&mover, kind, request->NewLba[kind]);
        }
    }
    VrkFsVolAllocUnreserveSegments(&mover.Volume->Allocator, kMoveReleases);
    return STATUS_SUCCESS;
}

VOID UnlockCounter(PMDL Mdl) {
    MmUnlockPages(Mdl);
    IoFreeMdl(Mdl);
}

NTSTATUS DoMove(IRPContext* Context) {
    auto* request = VrkFsIoctlSystemBuffer<VrkFsSegmentMove>(Context->Irp);
    const PostedFile file = VrkFsIoctlTakePosted(&request->ScratchFile);
    auto* counterMdl = static_cast<PMDL>(NtTokenResolve(request->ScratchProgress));
    NtTokenRelease(request->ScratchProgress);
    request->ScratchProgress = 0;
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
    auto* counter = static_cast<PULONG>(MmGetSystemAddressForMdlSafe(counterMdl, NormalPagePriority));
    if (counter != nullptr) {
        ResourceGuard volume;
        volume.Shared(&file.Fcb->Common->Vcb->Resource);
        ResourceGuard common;
        common.Exclusive(file.Fcb->Common->Resource);
        status = VrkFsIoctlCheckPosted(&file);
        if (NT_SUCCESS(status)) {
            status = MoveSegments(Context, &file, counter);
        }
    }
    UnlockCounter(counterMdl);
    ObDereferenceObject(file.FileObject);
    return status;
}

// ---- The first pass ----

bool IsShared(PFILE_OBJECT FileObject) {
    return FileObject->SharedRead || FileObject->SharedWrite || FileObject->SharedDelete;
}

// Locks the caller's counter. STATUS_INSUFFICIENT_RESOURCES; STATUS_ACCESS_DENIED for an address that is not the
// caller's.
NTSTATUS LockCounter(const IRPContext* Context, PMDL* Mdl) {
    const auto* request = VrkFsIoctlSystemBuffer<const VrkFsSegmentMove>(Context->Irp);
    PVOID address = NtUserTokenResolve(request->ProgressAddress, sizeof(ULONG));
    if (address == nullptr) {
        return STATUS_ACCESS_DENIED;
    }
    PMDL mdl = IoAllocateMdl(address, sizeof(ULONG), FALSE, FALSE, nullptr);
    if (mdl == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (!NT_SUCCESS(VrkFsProbeAndLockPages(mdl, Context->Irp->RequestorMode, IoModifyAccess))) {
        IoFreeMdl(mdl);
        return STATUS_ACCESS_DENIED;
    }
    *Mdl = mdl;
    return STATUS_SUCCESS;
}

NTSTATUS KeepForWorker(VrkFsSegmentMove* Request, PFILE_OBJECT FileObject, PMDL CounterMdl) {
    const ULONG file = NtTokenCreate(FileObject);
    const ULONG counter = NtTokenCreate(CounterMdl);
    if (file == 0 || counter == 0) {
        NtTokenRelease(file);
        NtTokenRelease(counter);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Request->ScratchFile = file;
    Request->ScratchProgress = counter;
    return STATUS_SUCCESS;
}

NTSTATUS ResolveAlone(IRPContext* Context, PostedFile* File) {
    VCB* vcb = &VrkFsDiskExtOfDevice(VrkFsCardOfDevice(Context->DeviceObject)->DiskDevice)->Vcb;
    ResourceGuard volume;
    volume.Shared(&vcb->Resource);
    const NTSTATUS status = VrkFsIoctlResolvePosted(Context, File);
    return NT_SUCCESS(status) && IsShared(File->FileObject) ? STATUS_ACCESS_DENIED : status;
}

// *File and *CounterMdl are left with what has been obtained.
NTSTATUS PrepareMove(IRPContext* Context, PostedFile* File, PMDL* CounterMdl) {
    NTSTATUS status = ResolveAlone(Context, File);
    if (NT_SUCCESS(status)) {
        status = LockCounter(Context, CounterMdl);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    // No cached table of another file may be written over blocks that this one moves to.
    VrkFsBTFlushUnrefObjects(&VrkFsCardOfDevice(Context->DeviceObject)->BodyTableCache);
    return KeepForWorker(VrkFsIoctlSystemBuffer<VrkFsSegmentMove>(Context->Irp), File->FileObject, *CounterMdl);
}

NTSTATUS StartMove(IRPContext* Context) {
    PostedFile file = {};
    PMDL counterMdl = nullptr;
    const NTSTATUS status = PrepareMove(Context, &file, &counterMdl);
    if (NT_SUCCESS(status)) {
        return VrkFsIRPContextPost(Context);
    }
    if (counterMdl != nullptr) {
        UnlockCounter(counterMdl);
    }
    if (file.FileObject != nullptr) {
        ObDereferenceObject(file.FileObject);
    }
    VrkFsIRPContextFree(&pVrkFsGlobalData->IrpContextLookaside, Context);
    return status;
}

}  // namespace

NTSTATUS VrkFsIoctlMoveFileSegments(IRPContext* Context) {
    return (Context->Flags & kIrpContextPosted) == 0 ? StartMove(Context) : DoMove(Context);
}
