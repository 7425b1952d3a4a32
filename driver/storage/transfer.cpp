#include "storage/hw_context.h"

namespace {

// Numbers that reach this point may come from a disk: nothing leaves for the board that it could misread.
bool IsPossible(ULONG ScsiId, ULONG Lba, ULONG BlockCount) {
    return ScsiId < kScsiIdCount && BlockCount <= kMaxTransferBlocks && BlockCount - 1 <= 0xFFFFFFFF - Lba;
}

NTSTATUS Transfer(HwContext* Hw, ULONG Command, ULONG ScsiId, ULONG Lba, ULONG BlockCount, PVOID Buffer,
                  ULONG CardMemoryFlag) {
    if (BlockCount == 0) {
        return STATUS_SUCCESS;
    }
    if (!IsPossible(ScsiId, Lba, BlockCount)) {
        return STATUS_INVALID_PARAMETER;
    }
    ScsiRequest request{};
    request.Command = Command;
    request.ScsiId = ScsiId;
    request.Lba = Lba;
    request.BlockCount = BlockCount;
    request.CardMemory = CardMemoryFlag;
    if (Buffer != nullptr) {
        request.HostBuffer = NtTokenCreate(Buffer);
        if (request.HostBuffer == 0) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        request.HostBufferLength = BlockCount * kBlockSize;
    }
    // The board may write over the request, so the token is kept here.
    const ULONG token = request.HostBuffer;
    const NTSTATUS status =
        VrkFsHwDevIOCTL(Hw, IOCTL_VRK_SCSI_COMMAND, &request, sizeof(request), &request, sizeof(request), nullptr);
    if (token != 0) {
        NtTokenRelease(token);
    }
    return status == STATUS_TIMEOUT ? STATUS_DEVICE_CONFIGURATION_ERROR : status;
}

}  // namespace

NTSTATUS VrkFsHwSCSIRead(HwContext* Hw, ULONG ScsiId, ULONG Lba, ULONG BlockCount, PVOID Buffer, ULONG CardMemoryFlag) {
    return Transfer(Hw, VRK_SCSI_READ, ScsiId, Lba, BlockCount, Buffer, CardMemoryFlag);
}

NTSTATUS VrkFsHwSCSIWrite(HwContext* Hw, ULONG ScsiId, ULONG Lba, ULONG BlockCount, PVOID Buffer,
                          ULONG CardMemoryFlag) {
    return Transfer(Hw, VRK_SCSI_WRITE, ScsiId, Lba, BlockCount, Buffer, CardMemoryFlag);
}
