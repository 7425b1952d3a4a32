// Set-up, teardown and state of the channel. The exchange with the service is still to come: nothing connects a channel
// yet, and the operations answer as a channel without a service does.
#include "control/service_channel.h"

namespace {

// What an operation says that found no service; a service that is there cannot be asked yet.
NTSTATUS VrkFsSReqUnserved(const ServiceChannel* Channel, NTSTATUS Disconnected) {
    return Channel->ServiceConnected ? STATUS_NOT_IMPLEMENTED : Disconnected;
}

// Completes what is posted in the slot as cancelled, unless its cancel routine has it already.
VOID VrkFsSReqCancelSlot(PIRP* Slot) {
    PIRP irp = *Slot;
    *Slot = nullptr;
    if (irp == nullptr || IoSetCancelRoutine(irp, nullptr) == nullptr) {
        return;
    }
    irp->IoStatus.Status = STATUS_CANCELLED;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
}

}  // namespace

VOID VrkFsSReqInitialize(ServiceChannel* Channel) {
    RtlZeroMemory(Channel, sizeof(*Channel));
    KeInitializeEvent(&Channel->FetchEvent, SynchronizationEvent, FALSE);
    KeInitializeEvent(&Channel->ResponseEvent, SynchronizationEvent, FALSE);
}

VOID VrkFsSReqCleanup(ServiceChannel* Channel) {
    VrkFsSReqCancelSlot(&Channel->FetchIrp);
    VrkFsSReqCancelSlot(&Channel->ResponseIrp);
}

VOID VrkFsSReqServiceConnect(ServiceChannel* Channel) {
    Channel->ServiceConnected = TRUE;
}

VOID VrkFsSReqServiceDisconnect(ServiceChannel* Channel) {
    Channel->ServiceConnected = FALSE;
}

NTSTATUS VrkFsSReqOpen(ServiceChannel* Channel, WCHAR DriveLetter, PCUNICODE_STRING FullPath, PULONG ServiceHandle) {
    UNREFERENCED_PARAMETER(DriveLetter);
    UNREFERENCED_PARAMETER(FullPath);
    *ServiceHandle = 0;
    return VrkFsSReqUnserved(Channel, STATUS_UNSUCCESSFUL);
}

NTSTATUS VrkFsSReqClean(ServiceChannel* Channel, ULONG ServiceHandle, ULONG TypeCode, ULONG FrameIndex) {
    UNREFERENCED_PARAMETER(ServiceHandle);
    UNREFERENCED_PARAMETER(TypeCode);
    UNREFERENCED_PARAMETER(FrameIndex);
    return VrkFsSReqUnserved(Channel, STATUS_UNSUCCESSFUL);
}

NTSTATUS VrkFsSReqClose(ServiceChannel* Channel, ULONG ServiceHandle) {
    UNREFERENCED_PARAMETER(ServiceHandle);
    return VrkFsSReqUnserved(Channel, STATUS_UNSUCCESSFUL);
}

NTSTATUS VrkFsSReqRead(ServiceChannel* Channel, ULONG ServiceHandle, ULONG TypeCode, ULONG OffsetLow, ULONG OffsetHigh,
                       ULONG ByteCount, ULONG FrameIndex, PVOID Buffer) {
    UNREFERENCED_PARAMETER(ServiceHandle);
    UNREFERENCED_PARAMETER(TypeCode);
    UNREFERENCED_PARAMETER(OffsetLow);
    UNREFERENCED_PARAMETER(OffsetHigh);
    UNREFERENCED_PARAMETER(ByteCount);
    UNREFERENCED_PARAMETER(FrameIndex);
    UNREFERENCED_PARAMETER(Buffer);
    return VrkFsSReqUnserved(Channel, STATUS_UNSUCCESSFUL);
}

NTSTATUS VrkFsSReqWrite(ServiceChannel* Channel, ULONG ServiceHandle, ULONG TypeCode, ULONG OffsetLow, ULONG OffsetHigh,
                        ULONG ByteCount, ULONG FrameIndex, const VOID* Buffer) {
    UNREFERENCED_PARAMETER(ServiceHandle);
    UNREFERENCED_PARAMETER(TypeCode);
    UNREFERENCED_PARAMETER(OffsetLow);
    UNREFERENCED_PARAMETER(OffsetHigh);
    UNREFERENCED_PARAMETER(ByteCount);
    UNREFERENCED_PARAMETER(FrameIndex);
    UNREFERENCED_PARAMETER(Buffer);
    return VrkFsSReqUnserved(Channel, STATUS_UNSUCCESSFUL);
}

NTSTATUS VrkFsSReqUpdatePrefs(ServiceChannel* Channel, const VrkFsPreferences* Prefs) {
    UNREFERENCED_PARAMETER(Prefs);
    return VrkFsSReqUnserved(Channel, STATUS_SUCCESS);
}

NTSTATUS VrkFsSReqGetAvailableSpace(ServiceChannel* Channel, const VrkFsPortSpaceQuery* Query, PUCHAR SpaceInfo) {
    UNREFERENCED_PARAMETER(Query);
    UNREFERENCED_PARAMETER(SpaceInfo);
    return VrkFsSReqUnserved(Channel, STATUS_SUCCESS);
}

NTSTATUS VrkFsSReqCreateMediaFile(ServiceChannel* Channel, const VrkFsPortCreation* Creation) {
    UNREFERENCED_PARAMETER(Creation);
    return VrkFsSReqUnserved(Channel, STATUS_SUCCESS);
}
