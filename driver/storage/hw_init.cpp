#include "core/global_data.h"
#include "core/pool.h"
#include "storage/hw_context.h"
#include "storage/hw_request.h"
#include "volume/hw_volume.h"

namespace {

constexpr ACCESS_MASK kBoardAccess = 0x001F01FF;  // everything that a file can be opened for
constexpr LONGLONG kInitTimeout = -300000000;     // 30 s
constexpr LONGLONG kScanTimeout = -100000000;     // 10 s
constexpr LONGLONG kQueryTimeout = -10000000;     // 1 s

// How one start-up request failed, if it did: a failure and a board that does not answer have texts of their own.
struct StepTexts {
    PCSTR Failed;
    PCSTR TimedOut;
};

NTSTATUS LogStep(NTSTATUS Status, const StepTexts& Texts, const ULONG* ScsiId) {
    const ULONG dumpBytes = ScsiId != nullptr ? sizeof(*ScsiId) : 0;
    if (Status == STATUS_TIMEOUT) {
        VrkFsGlobLogStartFailure(Texts.TimedOut, ScsiId, dumpBytes);
        return STATUS_DEVICE_CONFIGURATION_ERROR;
    }
    if (!NT_SUCCESS(Status)) {
        VrkFsGlobLogStartFailure(Texts.Failed, ScsiId, dumpBytes);
    }
    return Status;
}

NTSTATUS AllocateScratch(HwContext* Hw, PUCHAR* Buffer, PKEVENT Lock, ULONG Bytes, ULONG Flag, PCSTR FailureText) {
    *Buffer = static_cast<PUCHAR>(VrkFsAllocatePool(PagedPool, Bytes));
    if (*Buffer == nullptr) {
        VrkFsGlobLogStartFailure(FailureText, nullptr, 0);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Hw->Flags |= Flag;
    KeInitializeEvent(Lock, SynchronizationEvent, TRUE);
    return STATUS_SUCCESS;
}

VOID FreeScratch(HwContext* Hw, PUCHAR* Buffer, ULONG Flag) {
    if ((Hw->Flags & Flag) != 0) {
        Hw->Flags &= ~Flag;
        VrkFsFreePool(*Buffer);
        *Buffer = nullptr;
    }
}

NTSTATUS AllocateScratches(HwContext* Hw) {
    NTSTATUS status = AllocateScratch(Hw, &Hw->ScratchBuffer, &Hw->ScratchLock, kScratchBytes, kHwScratch,
                                      "SCSI scratch mem. alloc failed");
    if (NT_SUCCESS(status)) {
        status = AllocateScratch(Hw, &Hw->FileScratchBuffer, &Hw->FileScratchLock, kFileScratchBytes, kHwFileScratch,
                                 "SCSI file scratch mem. alloc failed");
    }
    if (NT_SUCCESS(status)) {
        status = AllocateScratch(Hw, &Hw->VerifyBuffer, &Hw->VerifyLock, kVerifyBytes, kHwVerify,
                                 "SCSI verify scratch mem. alloc failed");
    }
    return status;
}

NTSTATUS ScanBus(HwContext* Hw) {
    ScsiRequest request{};
    request.Command = VRK_SCSI_SCAN;
    LARGE_INTEGER timeout;
    timeout.QuadPart = kScanTimeout;
    const NTSTATUS status =
        VrkFsHwDevIOCTL(Hw, IOCTL_VRK_SCSI_COMMAND, &request, sizeof(request), &request, sizeof(request), &timeout);
    return LogStep(status, {"Main board SCSI scan failed", "Main board SCSI scan timed out"}, nullptr);
}

// Asks the board about one ID; a usable disk's volume entry is read as well. *DiskRead is set, never cleared.
NTSTATUS ScanDevice(HwContext* Hw, ULONG ScsiId, PBOOLEAN DiskRead) {
    ScsiDevice* device = &Hw->Devices[ScsiId];
    ScsiDeviceInfo* info = &device->DeviceInfo;
    RtlZeroMemory(info, sizeof(*info));
    info->ScsiId = ScsiId;
    LARGE_INTEGER timeout;
    timeout.QuadPart = kQueryTimeout;
    NTSTATUS status =
        VrkFsHwDevIOCTL(Hw, IOCTL_VRK_SCSI_DEVICE_QUERY, info, sizeof(*info), info, sizeof(*info), &timeout);
    status = LogStep(status, {"SCSI device query failed", "SCSI device query timed out"}, &ScsiId);
    if (!NT_SUCCESS(status) || info->State != VRK_DEVICE_STATE_DISK || ScsiId == kScsiIdReserved) {
        return status;
    }
    status = VrkFsHwSCSIRead(Hw, ScsiId, kVolumeEntryLba, kVolumeEntryBlocks, &device->VolumeEntry, VRK_TRANSFER_HOST);
    if (!NT_SUCCESS(status)) {
        VrkFsGlobLogStartFailure("SCSI volume info. read failed", &ScsiId, sizeof(ScsiId));
        return status;
    }
    *DiskRead = TRUE;
    return status;
}

}  // namespace

NTSTATUS VrkFsHwInitialize(HwContext* Hw, ULONG CardIndex) {
    RtlZeroMemory(Hw, sizeof(*Hw));
    Hw->CardIndex = CardIndex;
    InitializeListHead(&Hw->Volumes);
    Hw->Flags |= kHwVolumeList;
    NTSTATUS status = AllocateScratches(Hw);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = VrkFsHwGetVRKDeviceObject(Hw, CardIndex);
    if (!NT_SUCCESS(status)) {
        // No board at a higher index is the usual end of the search for cards.
        if (CardIndex == 0) {
            VrkFsGlobLogStartFailure("Main driver connect failure", nullptr, 0);
        }
        return status;
    }
    status = VrkFsHwInitializeVRK(Hw);
    return NT_SUCCESS(status) ? VrkFsHwSCSIScan(Hw) : status;
}

VOID VrkFsHwFree(HwContext* Hw) {
    FreeScratch(Hw, &Hw->VerifyBuffer, kHwVerify);
    FreeScratch(Hw, &Hw->FileScratchBuffer, kHwFileScratch);
    FreeScratch(Hw, &Hw->ScratchBuffer, kHwScratch);
    if ((Hw->Flags & kHwVolumeList) != 0) {
        Hw->Flags &= ~kHwVolumeList;
        VrkFsHwFreeVolumes(Hw);
    }
    VrkFsHwFreeVRKDeviceObject(Hw);
}

NTSTATUS VrkFsHwGetVRKDeviceObject(HwContext* Hw, ULONG CardIndex) {
    WCHAR text[] = VRKFS_W("\\Device\\Vrk0");
    text[RTL_NUMBER_OF(text) - 2] = static_cast<WCHAR>('0' + CardIndex);
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, text);
    PFILE_OBJECT file = nullptr;
    PDEVICE_OBJECT device = nullptr;
    NTSTATUS status = IoGetDeviceObjectPointer(&name, kBoardAccess, &file, &device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = ObReferenceObjectByPointer(device, kBoardAccess, nullptr, KernelMode);
    if (!NT_SUCCESS(status)) {
        ObfDereferenceObject(file);
        return status;
    }
    Hw->BoardDevice = device;
    Hw->BoardFileObject = file;
    Hw->Flags |= kHwBoardReferenced;

    Hw->SpareRequest = VrkFsHwCreateRequest(Hw, sizeof(ScsiRequest));
    if (Hw->SpareRequest == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    KeInitializeEvent(&Hw->SpareLock, SynchronizationEvent, TRUE);
    Hw->Flags |= kHwSpareRequest;
    return STATUS_SUCCESS;
}

VOID VrkFsHwFreeVRKDeviceObject(HwContext* Hw) {
    if ((Hw->Flags & kHwSpareRequest) != 0) {
        Hw->Flags &= ~kHwSpareRequest;
        VrkFsHwReleaseRequest(Hw->SpareRequest);
        Hw->SpareRequest = nullptr;
    }
    if ((Hw->Flags & kHwBoardReferenced) != 0) {
        Hw->Flags &= ~kHwBoardReferenced;
        ObfDereferenceObject(Hw->BoardFileObject);
        ObfDereferenceObject(Hw->BoardDevice);
        Hw->BoardFileObject = nullptr;
        Hw->BoardDevice = nullptr;
    }
}

NTSTATUS VrkFsHwInitializeVRK(HwContext* Hw) {
    UCHAR flex[VRK_FLEX_BUFFER_SIZE] = {};
    LARGE_INTEGER timeout;
    timeout.QuadPart = kInitTimeout;
    NTSTATUS status = VrkFsHwDevIOCTL(Hw, IOCTL_VRK_INIT_FLEX, flex, sizeof(flex), flex, sizeof(flex), &timeout);
    status = LogStep(status, {"Main driver FLEX init. failure", "Main driver FLEX init. timeout"}, nullptr);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = VrkFsHwDevIOCTL(Hw, IOCTL_VRK_INIT_BOARD, nullptr, 0, nullptr, 0, &timeout);
    return LogStep(status, {"Main board init. failed", "Main board init. timed out"}, nullptr);
}

NTSTATUS VrkFsHwSCSIScan(HwContext* Hw) {
    NTSTATUS status = ScanBus(Hw);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    BOOLEAN diskRead = FALSE;
    for (ULONG id = 0; id < kScsiIdCount; ++id) {
        status = ScanDevice(Hw, id, &diskRead);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    if (diskRead) {
        // A volume that cannot be mounted does not keep the card from starting.
        static_cast<void>(VrkFsHwInitializeVolumes(Hw));
    }
    return STATUS_SUCCESS;
}

VOID VrkFsHwObtainSCSIScratchLock(HwContext* Hw) {
    KeWaitForSingleObject(&Hw->ScratchLock, Executive, KernelMode, FALSE, nullptr);
}

VOID VrkFsHwReleaseSCSIScratchLock(HwContext* Hw) {
    KeSetEvent(&Hw->ScratchLock, IO_NO_INCREMENT, FALSE);
}

VOID VrkFsHwObtainFileSCSIScratchLock(HwContext* Hw) {
    KeWaitForSingleObject(&Hw->FileScratchLock, Executive, KernelMode, FALSE, nullptr);
}
