// How many frames can be recorded in one piece on a volume. What the free space permits is found by trial: the blocks
// of so many rows are allocated as a recording would allocate them, and given back. A row is one field on every device;
// two fields make a frame.
#include <vrkfs/media.h>

#include <algorithm>
#include <utility>

#include "control/ioctl.h"
#include "control/space_estimate.h"
#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/guards.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "storage/hw_context.h"
#include "volume/hw_volume.h"

namespace {

constexpr ULONG kNodesPerTableBlock = kBlockSize / sizeof(BodyTableNode);
constexpr ULONG kTrialReleases = 5;  // data and table of two streams, and the file record

// From how many rows on trials are made: what the larger of the two segments holds of both streams, or each of one.
ULONG VrkFsIoctlBoundRows(const SpaceEstimate* Estimate, AllocRange First, AllocRange Second) {
    const AllocRange big = First.Count > Second.Count ? First : Second;
    if (Estimate->AlphaBlocks == 0) {
        return big.Count / Estimate->VideoBlocks;
    }
    const auto shared = static_cast<ULONG>(big.Count / (ULONGLONG{Estimate->VideoBlocks} + Estimate->AlphaBlocks));
    AllocRange video = First;
    AllocRange alpha = Second;
    if (video.Count == 0 || (alpha.Count != 0 && alpha.Start < video.Start)) {
        std::swap(video, alpha);
    }
    const ULONG split = std::min<ULONG>(video.Count / Estimate->VideoBlocks, alpha.Count / Estimate->AlphaBlocks);
    return std::max<ULONG>(shared, split);
}

VOID VrkFsIoctlReleaseTrial(AllocObject* Alloc, const DualAllocation* Dual) {
    // Blocks taken a moment ago, with the segment records that their release may need set aside: this cannot fail.
    static_cast<void>(VrkFsVolAllocReleaseSpace(Alloc, Dual->UpperStart, Dual->UpperCount));
    static_cast<void>(VrkFsVolAllocReleaseSpace(Alloc, Dual->LowerStart, Dual->LowerCount));
}

// Whether the volume takes so many rows. Rows is at most VrkFsIoctlBoundRows, so the products are block counts.
bool VrkFsIoctlTryRows(const SpaceEstimate* Estimate, ULONG Rows) {
    const ULONGLONG nodes = ULONGLONG{Estimate->Devices} * Rows;
    const auto tableBlocks = static_cast<ULONG>((nodes + kNodesPerTableBlock - 1) / kNodesPerTableBlock);
    DualAllocation video;
    if (!NT_SUCCESS(
            VrkFsVolAllocAllocateDualSpace(Estimate->Alloc, Rows * Estimate->VideoBlocks, tableBlocks, &video))) {
        return false;
    }
    bool fits = true;
    if (Estimate->AlphaBlocks != 0) {
        DualAllocation alpha;
        fits = NT_SUCCESS(
            VrkFsVolAllocAllocateDualSpace(Estimate->Alloc, Rows * Estimate->AlphaBlocks, tableBlocks, &alpha));
        if (fits) {
            VrkFsIoctlReleaseTrial(Estimate->Alloc, &alpha);
        }
    }
    VrkFsIoctlReleaseTrial(Estimate->Alloc, &video);
    return fits;
}

// The largest number of rows that trials from Bound downwards would find, in a few trials instead of up to Bound.
//
// Halving finds the same, because what fits n rows fits fewer. Let the video and the alpha of n rows lie in
// segments v and a, where first fit put them, and the tables in holes of the upper region or at the top of the last
// segment. With fewer rows first fit puts the video into v or an earlier segment. If that leaves a alone, or a is v,
// the alpha finds room in a or earlier. If the video now lies in a, then a lies before v and was too short for the
// video of n rows; the alpha, which did fit a, is shorter than that video, so it fits v, which is free. The tables
// are shorter, so the holes serve at least as many of them. From the last segment streams and tables together take no
// more than before: a stream moves into it only when the longer one has left it.
ULONG VrkFsIoctlLargestFit(const SpaceEstimate* Estimate, ULONG Bound) {
    ULONG fits = 0;
    ULONG limit = Bound;
    while (fits < limit) {
        const ULONG rows = limit - (limit - fits) / 2;
        if (VrkFsIoctlTryRows(Estimate, rows)) {
            fits = rows;
        } else {
            limit = rows - 1;
        }
    }
    return fits;
}

// With the file's record, which takes its blocks first.
ULONG VrkFsIoctlEstimateRows(const SpaceEstimate* Estimate) {
    ULONG record = 0;
    if (!NT_SUCCESS(VrkFsVolAllocAllocateUpperSpace(Estimate->Alloc, kFileEntryBlocks, &record))) {
        return 0;
    }
    AllocRange first;
    AllocRange second;
    VrkFsVolAllocGetTwoLargestSegmentsInfo(Estimate->Alloc, &first, &second);
    const ULONG rows = VrkFsIoctlLargestFit(Estimate, VrkFsIoctlBoundRows(Estimate, first, second));
    static_cast<void>(VrkFsVolAllocReleaseSpace(Estimate->Alloc, record, kFileEntryBlocks));
    return rows;
}

NTSTATUS VrkFsIoctlMeasureVolume(HwVolume* Volume, VrkFsVolumeSpaceInfo* Info) {
    ULONGLONG total = 0;
    ULONGLONG free = 0;
    VrkFsHwGetVolumeSpaceInfo(Volume, &total, &free);
    Info->TotalBlocks = total;
    Info->FreeBlocks = free;
    Info->LastBlock = 0;
    Info->FrameEstimate = 0;
    if ((Volume->InitFlags & kVolumeInitAllocator) == 0) {
        return STATUS_SUCCESS;
    }
    Info->LastBlock = static_cast<ULONG>(VrkFsVolAllocGetTotalBlocks(&Volume->Allocator) - 1);
    if (Info->VideoBlocksPerFrame == 0) {
        return STATUS_SUCCESS;
    }
    const SpaceEstimate estimate = {&Volume->Allocator, Volume->DeviceCount, Info->VideoBlocksPerFrame,
                                    Info->AlphaBlocksPerFrame};
    ULONG frames = 0;
    const NTSTATUS status = VrkFsIoctlEstimateFrames(&estimate, &frames);
    Info->FrameEstimate = frames;
    return status;
}

// *FileObject stays referenced, for the caller to drop when the VCB's resource is free again.
NTSTATUS VrkFsIoctlMeasureHandle(CardInstance* Card, VrkFsVolumeSpaceInfo* Info, PFILE_OBJECT* FileObject) {
    ResourceGuard lock;
    lock.Shared(&VrkFsDiskExtOfDevice(Card->DiskDevice)->Vcb.Resource);
    FCB* fcb = nullptr;
    const NTSTATUS status =
        VrkFsIoctlReferenceFile(Card, Info->Handle, kIoctlWantFolder | kIoctlWantFile, FileObject, &fcb);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    HwVolume* volume = fcb->Common->VolumeHandle;
    return volume == nullptr ? STATUS_UNSUCCESSFUL : VrkFsIoctlMeasureVolume(volume, Info);
}

}  // namespace

NTSTATUS VrkFsIoctlEstimateFrames(const SpaceEstimate* Estimate, PULONG Frames) {
    const NTSTATUS status = VrkFsVolAllocReserveSegments(Estimate->Alloc, kTrialReleases);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const ULONGLONG fields = ULONGLONG{Estimate->Devices} * VrkFsIoctlEstimateRows(Estimate);
    VrkFsVolAllocUnreserveSegments(Estimate->Alloc, kTrialReleases);
    *Frames = static_cast<ULONG>(std::min<ULONGLONG>(fields / VRKFS_FIELDS_PER_FRAME, 0xFFFFFFFF));
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsIoctlGetVolumeSpaceInfo(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    PFILE_OBJECT fileObject = nullptr;
    NTSTATUS status = VrkFsIoctlMeasureHandle(VrkFsCardOfDevice(DeviceObject),
                                              VrkFsIoctlSystemBuffer<VrkFsVolumeSpaceInfo>(Irp), &fileObject);
    if (fileObject != nullptr) {
        ObDereferenceObject(fileObject);
    }
    if (NT_SUCCESS(status)) {
        Irp->IoStatus.Information = sizeof(VrkFsVolumeSpaceInfo);
    }
    return status;
}
