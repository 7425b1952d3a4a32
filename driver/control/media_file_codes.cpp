// What a recording application tells the driver about a media file, and asks it: space for a stream, how much of it was
// used, where everything lies, and what is kept with the file.
#include "control/ioctl.h"
#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/guards.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "media/body_table_cache.h"
#include "volume/hw_volume.h"

namespace {

static_assert(VRKFS_FILE_HAS_ALPHA == kFileHasAlpha && VRKFS_FILE_VIDEO_PENDING == kFileVideoReserved);
static_assert(VRKFS_FILE_PLAIN == kFileKindPlain && VRKFS_FILE_MEDIA == kFileKindMedia);

constexpr ULONG kLines625 = 625;
constexpr ULONG kLines525 = 525;
constexpr ULONG kSettleReleases = 4;  // the rest of data and table of both streams

bool IsMedia(const FileEntry* Entry) {
    return Entry->Kind == kFileKindMedia;
}

bool HasAlpha(const FileEntry* Entry) {
    return IsMedia(Entry) && (Entry->Flags & kFileHasAlpha) != 0;
}

// ---- The frame of all these codes ----

using MediaFileWork = NTSTATUS (*)(FCB* Fcb, PVOID Record);

// Length checks, the VCB's resource, the handle, and the file's own resource around the work.
NTSTATUS WithMediaFile(PDEVICE_OBJECT DeviceObject, PIRP Irp, BOOLEAN ExclusiveVcb, BOOLEAN Changes,
                       ULONG_PTR Information, MediaFileWork Work) {
    NTSTATUS status;
    CardInstance* card = VrkFsCardOfDevice(DeviceObject);
    PFILE_OBJECT fileObject = nullptr;
    {
        VCB* vcb = &VrkFsDiskExtOfDevice(card->DiskDevice)->Vcb;
        ResourceGuard volume;
        ResourceGuard common;
        static_cast<void>(ExclusiveVcb ? volume.TryExclusive(&vcb->Resource, TRUE)
                                       : volume.TryShared(&vcb->Resource, TRUE));
        FCB* fcb = nullptr;
        PVOID record = Irp->AssociatedIrp.SystemBuffer;
        status = VrkFsIoctlReferenceMediaFile(card, *VrkFsIoctlSystemBuffer<const ULONG>(Irp), &fileObject, &fcb);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        PERESOURCE resource = fcb->Common->Resource;
        static_cast<void>(Changes ? common.TryExclusive(resource, TRUE) : common.TryShared(resource, TRUE));
        status = VrkFsIoctlCheckFile(fcb, Changes);
        if (NT_SUCCESS(status)) {
            status = Work(fcb, record);
        }
    }
    ObDereferenceObject(fileObject);
    if (NT_SUCCESS(status)) {
        Irp->IoStatus.Information = Information;
    }
    return status;
}

// ---- Space for a stream ----

// A stream that holds space keeps it: recording into a finished clip, twice into the same file, or into one with plain
// data is refused.
bool HoldsSpace(const FileEntry* Entry, bool Alpha) {
    if (!IsMedia(Entry)) {
        return Entry->DataBlockCount != 0;
    }
    if (Alpha) {
        return Entry->AlphaDataBlockCount != 0 || Entry->AlphaBodyTableBlockCount != 0 ||
               (Entry->Flags & kFileAlphaReserved) != 0;
    }
    return Entry->DataBlockCount != 0 || Entry->VideoBodyTableBlockCount != 0 ||
           (Entry->Flags & kFileVideoReserved) != 0;
}

// In a plain file's record the streams' fields name nothing that is the file's: it becomes a media file without them.
VOID ClearStreams(FileEntry* Entry) {
    Entry->VideoDataLength = 0;
    Entry->DataStartLba = 0;
    Entry->FrameCount = 0;
    Entry->VideoBodyTableLba = 0;
    Entry->VideoBodyTableBlockCount = 0;
    Entry->AlphaBodyTableLba = 0;
    Entry->AlphaBodyTableBlockCount = 0;
    Entry->AlphaDataLength = 0;
    Entry->AlphaDataBlockCount = 0;
    Entry->AlphaDataStartLba = 0;
    Entry->Flags &= ~(kFileHasAlpha | kFileVideoReserved | kFileAlphaReserved);
}

VOID RecordVideoSpace(FileEntry* Entry, const DualAllocation* Space, ULONG Flags) {
    Entry->DataStartLba = Space->LowerStart;
    Entry->DataBlockCount = Space->LowerCount;
    Entry->VideoBodyTableLba = Space->UpperStart;
    Entry->VideoBodyTableBlockCount = Space->UpperCount;
    Entry->Flags |= kFileVideoReserved | ((Flags & VRKFS_SPACE_SDTI_ALLOWED) != 0 ? kFileVideoFormatSet : 0);
}

VOID RecordAlphaSpace(FileEntry* Entry, const DualAllocation* Space, ULONG Flags) {
    Entry->AlphaDataStartLba = Space->LowerStart;
    Entry->AlphaDataBlockCount = Space->LowerCount;
    Entry->AlphaBodyTableLba = Space->UpperStart;
    Entry->AlphaBodyTableBlockCount = Space->UpperCount;
    Entry->Flags |=
        kFileHasAlpha | kFileAlphaReserved | ((Flags & VRKFS_SPACE_SDTI_ALLOWED) != 0 ? kFileAlphaFormatSet : 0);
}

bool TakeSpace(FCBCommon* Common, const VrkFsVideoSpace* Space, DualAllocation* Taken) {
    HwVolume* volume = Common->VolumeHandle;
    return NT_SUCCESS(VrkFsHwRetryUnreadRecords(&VrkFsCardOfVcb(Common->Vcb)->Hw, volume)) &&
           NT_SUCCESS(VrkFsVolAllocAllocateDualSpace(&volume->Allocator, Space->DataBlocksWanted,
                                                     Space->BodyTableBlocksWanted, Taken));
}

NTSTATUS AllocateVideoSpace(FCB* Fcb, PVOID Record) {
    auto* space = static_cast<VrkFsVideoSpace*>(Record);
    FCBCommon* common = Fcb->Common;
    FileEntry* entry = common->FileEntry;
    const bool alpha = (space->Flags & VRKFS_SPACE_ALPHA) != 0;
    RtlCopyMemory(&space->Volume, common->VolumeHandle, sizeof(space->Volume));
    DualAllocation taken;
    if (HoldsSpace(entry, alpha) || !TakeSpace(common, space, &taken)) {
        space->Result = VRKFS_ALLOCATE_NO_SPACE;
        return STATUS_SUCCESS;
    }
    if (!IsMedia(entry)) {
        ClearStreams(entry);
        entry->Kind = kFileKindMedia;
    }
    entry->LineStandard = (space->Flags & VRKFS_SPACE_625) != 0 ? kLines625 : kLines525;
    if (alpha) {
        RecordAlphaSpace(entry, &taken, space->Flags);
    } else {
        RecordVideoSpace(entry, &taken, space->Flags);
    }
    common->LayoutGeneration++;
    space->BodyTableLba = taken.UpperStart;
    space->BodyTableBlocks = taken.UpperCount;
    space->DataLba = taken.LowerStart;
    space->DataBlocks = taken.LowerCount;
    space->Result = VRKFS_RESULT_DONE;
    return STATUS_SUCCESS;
}

// ---- Settling ----

// One stream of an update, as the caller counts it.
struct StreamUse {
    ULONG TableAllocated;
    ULONG DataAllocated;
    ULONG TableUsed;
    ULONG DataUsed;
};

// What is recorded and what is given back by these numbers must be the file's own, as its record has it.
bool IsOwnSpace(const StreamUse* Use, ULONG DataBlocks, ULONG TableBlocks) {
    return Use->DataAllocated <= DataBlocks && Use->TableAllocated <= TableBlocks && Use->DataUsed <= DataBlocks &&
           Use->TableUsed <= TableBlocks;
}

// What a record names that the mount could not read may have been handed out to others since.
bool IsClaimed(const FCB* Fcb) {
    HwVolume* volume = Fcb->Common->VolumeHandle;
    const ULONG folderSlot = Fcb->Parent->Common->FolderEntryIndex;
    return !VrkFsHwIsUnread(volume, folderSlot, kUnreadFolder) &&
           !VrkFsHwIsUnread(volume, folderSlot, Fcb->Common->FileEntryIndex);
}

NTSTATUS ReleaseRest(FCBCommon* Common, ULONG Start, ULONG Allocated, ULONG Used) {
    return Allocated > Used
               ? VrkFsVolAllocReleaseSpace(&Common->VolumeHandle->Allocator, Start + Used, Allocated - Used)
               : STATUS_SUCCESS;
}

NTSTATUS ReleaseUnused(FCBCommon* Common, const StreamUse* Use, ULONG DataLba, ULONG TableLba) {
    const NTSTATUS status = ReleaseRest(Common, DataLba, Use->DataAllocated, Use->DataUsed);
    return NT_SUCCESS(status) ? ReleaseRest(Common, TableLba, Use->TableAllocated, Use->TableUsed) : status;
}

ULONG TableBytes(ULONG Blocks) {
    return Blocks <= 0xFFFFFFFF / kBlockSize ? Blocks * kBlockSize : 0;
}

VOID EndReservation(FileEntry* Entry, ULONG Flag) {
    Entry->Flags &= ~Flag;
    // A plain file holds no streams, so it is one only when nothing is left to be settled.
    if (Entry->FrameCount == 0 && (Entry->Flags & (kFileVideoReserved | kFileAlphaReserved)) == 0) {
        Entry->Kind = kFileKindPlain;
    }
}

NTSTATUS SettleVideo(FCBCommon* Common, const VrkFsVideoFileUpdate* Update, const StreamUse* Use) {
    FileEntry* entry = Common->FileEntry;
    entry->VideoDataLength = Update->VideoDataLength;
    entry->DataBlockCount = Use->DataUsed;
    entry->FrameCount = Update->FrameCount;
    entry->VideoBodyTableBlockCount = Use->TableUsed;
    VrkFsBTSettleTable(&VrkFsCardOfVcb(Common->Vcb)->BodyTableCache, Common->VolumeHandle, entry->VideoBodyTableLba,
                       TableBytes(Use->TableUsed), Update->FrameCount);
    const NTSTATUS status = ReleaseUnused(Common, Use, entry->DataStartLba, entry->VideoBodyTableLba);
    if (NT_SUCCESS(status)) {
        EndReservation(entry, kFileVideoReserved);
    }
    return status;
}

NTSTATUS SettleAlpha(FCBCommon* Common, const VrkFsVideoFileUpdate* Update, const StreamUse* Use) {
    FileEntry* entry = Common->FileEntry;
    entry->AlphaDataLength = Update->AlphaDataLength;
    entry->AlphaDataBlockCount = Use->DataUsed;
    entry->FrameCount = Update->FrameCount;
    entry->AlphaBodyTableBlockCount = Use->TableUsed;
    entry->Flags |= kFileHasAlpha;
    VrkFsBTSettleTable(&VrkFsCardOfVcb(Common->Vcb)->BodyTableCache, Common->VolumeHandle, entry->AlphaBodyTableLba,
                       TableBytes(Use->TableUsed), Update->FrameCount);
    const NTSTATUS status = ReleaseUnused(Common, Use, entry->AlphaDataStartLba, entry->AlphaBodyTableLba);
    if (NT_SUCCESS(status)) {
        EndReservation(entry, kFileAlphaReserved);
    }
    return status;
}

NTSTATUS UpdateVideoFile(FCB* Fcb, PVOID Record) {
    auto* update = static_cast<VrkFsVideoFileUpdate*>(Record);
    FCBCommon* common = Fcb->Common;
    const FileEntry* entry = common->FileEntry;
    const StreamUse video = {update->VideoBodyTableAllocated, update->VideoDataAllocated, update->VideoBodyTableUsed,
                             update->VideoDataUsed};
    const StreamUse alpha = {update->AlphaBodyTableAllocated, update->AlphaDataAllocated, update->AlphaBodyTableUsed,
                             update->AlphaDataUsed};
    const bool settlesVideo = (update->Flags & VRKFS_UPDATE_VIDEO) != 0;
    const bool settlesAlpha = (update->Flags & VRKFS_UPDATE_ALPHA) != 0;
    if ((settlesVideo &&
         !(IsMedia(entry) && IsOwnSpace(&video, entry->DataBlockCount, entry->VideoBodyTableBlockCount))) ||
        (settlesAlpha &&
         !(HasAlpha(entry) && IsOwnSpace(&alpha, entry->AlphaDataBlockCount, entry->AlphaBodyTableBlockCount)))) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!IsClaimed(Fcb)) {
        return STATUS_FILE_CORRUPT_ERROR;
    }
    AllocObject* alloc = &common->VolumeHandle->Allocator;
    NTSTATUS status = VrkFsVolAllocReserveSegments(alloc, kSettleReleases);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    common->LayoutGeneration++;
    status = settlesVideo ? SettleVideo(common, update, &video) : STATUS_SUCCESS;
    if (NT_SUCCESS(status) && settlesAlpha) {
        status = SettleAlpha(common, update, &alpha);
    }
    VrkFsVolAllocUnreserveSegments(alloc, kSettleReleases);
    update->Result = VRKFS_RESULT_DONE;
    return status;
}

// ---- Questions ----

NTSTATUS GetFileInfo(FCB* Fcb, PVOID Record) {
    auto* info = static_cast<VrkFsFileInfo*>(Record);
    const FileEntry* entry = Fcb->Common->FileEntry;
    info->Kind = entry->Kind;
    info->LineStandard = entry->LineStandard;
    info->DataLba = entry->DataStartLba;
    info->DataBlocks = entry->DataBlockCount;
    if (IsMedia(entry)) {
        info->BodyTableBlocks = entry->VideoBodyTableBlockCount;
        info->BodyTableLba = entry->VideoBodyTableLba;
        info->DataLength = entry->VideoDataLength;
        info->FrameCount = entry->FrameCount;
        info->Flags = entry->Flags;
    }
    if (HasAlpha(entry)) {
        info->AlphaDataLba = entry->AlphaDataStartLba;
        info->AlphaDataBlocks = entry->AlphaDataBlockCount;
        info->AlphaBodyTableBlocks = entry->AlphaBodyTableBlockCount;
        info->AlphaBodyTableLba = entry->AlphaBodyTableLba;
        info->AlphaDataLength = entry->AlphaDataLength;
    }
    RtlCopyMemory(&info->Volume, Fcb->Common->VolumeHandle, sizeof(info->Volume));
    info->Result = VRKFS_RESULT_DONE;
    return STATUS_SUCCESS;
}

NTSTATUS GetFileLocationInfo(FCB* Fcb, PVOID Record) {
    auto* place = static_cast<VrkFsFileLocation*>(Record);
    const FCBCommon* common = Fcb->Common;
    const FileEntry* entry = common->FileEntry;
    const ULONG handle = place->Handle;
    RtlZeroMemory(place, sizeof(*place));
    place->Handle = handle;
    place->FileEntryLba = common->Parent->FolderEntry->FileTable[common->FileEntryIndex];
    place->FileEntryBlocks = kFileEntryBlocks;
    place->DataLba = entry->DataStartLba;
    place->DataBlocks = entry->DataBlockCount;
    if (IsMedia(entry)) {
        place->BodyTableLba = entry->VideoBodyTableLba;
        place->BodyTableBlocks = entry->VideoBodyTableBlockCount;
    }
    if (HasAlpha(entry)) {
        place->AlphaDataLba = entry->AlphaDataStartLba;
        place->AlphaDataBlocks = entry->AlphaDataBlockCount;
        place->AlphaBodyTableLba = entry->AlphaBodyTableLba;
        place->AlphaBodyTableBlocks = entry->AlphaBodyTableBlockCount;
    }
    return STATUS_SUCCESS;
}

NTSTATUS GetFileEntry(FCB* Fcb, PVOID Record) {
    RtlCopyMemory(Record, Fcb->Common->FileEntry, sizeof(FileEntry));
    return STATUS_SUCCESS;
}

// ---- What is kept with a file ----

NTSTATUS SetApplicationInfo(FCB* Fcb, PVOID Record) {
    const auto* request = static_cast<const VrkFsApplicationInfoRequest*>(Record);
    FileEntry* entry = Fcb->Common->FileEntry;
    RtlCopyMemory(entry->ApplicationInfo, request->ApplicationInfo, sizeof(entry->ApplicationInfo));
    Fcb->Common->LayoutGeneration++;  // the image that readers see holds these bytes
    return STATUS_SUCCESS;
}

NTSTATUS SetSdtiType(FCB* Fcb, PVOID Record) {
    const auto* request = static_cast<const VrkFsSdtiTypeRequest*>(Record);
    FileEntry* entry = Fcb->Common->FileEntry;
    if ((entry->Flags & kFileVideoFormatSet) != 0 || request->VideoSdtiType == 0) {
        entry->VideoFormat = request->VideoSdtiType;
    }
    if ((entry->Flags & kFileHasAlpha) != 0 &&
        ((entry->Flags & kFileAlphaFormatSet) != 0 || request->AlphaSdtiType == 0)) {
        entry->AlphaFormat = request->AlphaSdtiType;
    }
    Fcb->Common->LayoutGeneration++;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS VrkFsIoctlAllocateVideoSpace(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return WithMediaFile(DeviceObject, Irp, TRUE, TRUE, sizeof(VrkFsVideoSpace), AllocateVideoSpace);
}

NTSTATUS VrkFsIoctlUpdateVideoFile(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return WithMediaFile(DeviceObject, Irp, TRUE, TRUE, sizeof(VrkFsVideoFileUpdate), UpdateVideoFile);
}

NTSTATUS VrkFsIoctlGetFileInfo(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return WithMediaFile(DeviceObject, Irp, FALSE, FALSE, sizeof(VrkFsFileInfo), GetFileInfo);
}

NTSTATUS VrkFsIoctlGetFileLocationInfo(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return WithMediaFile(DeviceObject, Irp, FALSE, FALSE, sizeof(VrkFsFileLocation), GetFileLocationInfo);
}

NTSTATUS VrkFsIoctlGetFileEntry(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return WithMediaFile(DeviceObject, Irp, FALSE, FALSE, sizeof(FileEntry), GetFileEntry);
}

NTSTATUS VrkFsIoctlSetAppFileEntryInfo(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return WithMediaFile(DeviceObject, Irp, FALSE, TRUE, 0, SetApplicationInfo);
}

NTSTATUS VrkFsIoctlSetSDTIType(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return WithMediaFile(DeviceObject, Irp, FALSE, TRUE, 0, SetSdtiType);
}
