#include <algorithm>

#include "storage/hw_context.h"

namespace {

NTSTATUS SendPathRequest(HwContext* Hw, ULONG ControlCode) {
    const NTSTATUS status = VrkFsHwDevIOCTL(Hw, ControlCode, nullptr, 0, nullptr, 0, nullptr);
    return status == STATUS_TIMEOUT ? STATUS_DEVICE_CONFIGURATION_ERROR : status;
}

// Card memory holds one chunk for one user, so the path is claimed around each read-and-write pair.
NTSTATUS MoveChunk(HwContext* Hw, ULONG ScsiId, ULONG SourceLba, ULONG BlockCount, ULONG DestinationLba) {
    NTSTATUS status = VrkFsHwAcquireSCSI(Hw);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = VrkFsHwSCSIRead(Hw, ScsiId, SourceLba, BlockCount, nullptr, VRK_TRANSFER_CARD_MEMORY);
    if (NT_SUCCESS(status)) {
        status = VrkFsHwSCSIWrite(Hw, ScsiId, DestinationLba, BlockCount, nullptr, VRK_TRANSFER_CARD_MEMORY);
    }
    static_cast<void>(VrkFsHwReleaseSCSI(Hw));
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
                *ProgressOut = static_cast<ULONG>(*Progress / Divisor);
            }
        }
    }
    return status;
}
