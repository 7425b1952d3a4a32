#include <algorithm>

#include "storage/hw_context.h"

namespace {

constexpr ULONG kReleaseAttempts = 5;

NTSTATUS SendPathRequest(HwContext* Hw, ULONG ControlCode) {
    const NTSTATUS status = VrkFsHwDevIOCTL(Hw, ControlCode, nullptr, 0, nullptr, 0, nullptr);
    return status == STATUS_TIMEOUT ? STATUS_DEVICE_CONFIGURATION_ERROR : status;
}

// A claim that stays keeps everybody waiting who wants the path after us, so one failure is not the last word.
VOID GiveBackPath(HwContext* Hw) {
    for (ULONG attempt = 0; attempt < kReleaseAttempts; ++attempt) {
        if (NT_SUCCESS(VrkFsHwReleaseSCSI(Hw))) {
            return;
        }
    }
}

// Card memory holds one chunk for one user, so the path is claimed around each read-and-write pair. A write that fails
// may have spoilt blocks of the chunk's own source where the two overlap: they are written again from card memory.
NTSTATUS MoveChunk(HwContext* Hw, ULONG ScsiId, ULONG SourceLba, ULONG BlockCount, ULONG DestinationLba) {
    NTSTATUS status = VrkFsHwAcquireSCSI(Hw);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = VrkFsHwSCSIRead(Hw, ScsiId, SourceLba, BlockCount, nullptr, VRK_TRANSFER_CARD_MEMORY);
    if (NT_SUCCESS(status)) {
        status = VrkFsHwSCSIWrite(Hw, ScsiId, DestinationLba, BlockCount, nullptr, VRK_TRANSFER_CARD_MEMORY);
        const ULONG distance = std::max(SourceLba, DestinationLba) - std::min(SourceLba, DestinationLba);
        if (!NT_SUCCESS(status) && distance < BlockCount) {
            static_cast<void>(VrkFsHwSCSIWrite(Hw, ScsiId, SourceLba, BlockCount, nullptr, VRK_TRANSFER_CARD_MEMORY));
        }
    }
    GiveBackPath(Hw);
    return status;
}

}  // namespace

NTSTATUS VrkFsHwAcquireSCSI(HwContext* Hw) {
    return SendPathRequest(Hw, IOCTL_VRK_SCSI_ACQUIRE);
}

NTSTATUS VrkFsHwReleaseSCSI(HwContext* Hw) {
    return SendPathRequest(Hw, IOCTL_VRK_SCSI_RELEASE);
}

NTSTATUS VrkFsHwMoveBlocks(HwContext* Hw, ULONG ScsiId, ULONG SourceLba, ULONG BlockCount, ULONG DestinationLba,
                           PULONGLONG Progress, ULONG Weight, ULONG Divisor, PULONG ProgressOut) {
    if (DestinationLba == SourceLba) {
        return STATUS_SUCCESS;
    }
    if (BlockCount == 0 || BlockCount - 1 > 0xFFFFFFFF - std::max(SourceLba, DestinationLba)) {
        return STATUS_UNSUCCESSFUL;
    }
    // Towards lower blocks from the start on, towards higher ones from the end back: what overlaps is read before it is
    // written.
    const bool upward = DestinationLba < SourceLba;
    NTSTATUS status = STATUS_SUCCESS;
    for (ULONG done = 0; done < BlockCount;) {
        const ULONG chunk = std::min<ULONG>(BlockCount - done, kMoveChunkBlocks);
        const ULONG offset = upward ? done : BlockCount - done - chunk;
        status = MoveChunk(Hw, ScsiId, SourceLba + offset, chunk, DestinationLba + offset);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        done += chunk;
        if (Progress != nullptr) {
            *Progress += ULONGLONG{chunk} * Weight;
            if (ProgressOut != nullptr && Divisor != 0) {
                // Whoever watches it reads it at any time.
                __atomic_store_n(ProgressOut, static_cast<ULONG>(*Progress / Divisor), __ATOMIC_RELAXED);
            }
        }
    }
    return status;
}
