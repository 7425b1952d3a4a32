#include "control/com_port.h"

#include <algorithm>
#include <utility>

#include "control/service_channel.h"
#include "core/global_data.h"
#include "core/pool.h"
#include "core/strings.h"

namespace {

VOID VrkFsComPortSetReply(ComPort* Port, ULONG Length, LONG Result) {
    auto* reply = reinterpret_cast<VrkFsPortReply*>(Port->Reply);
    Port->ReplyLength = Length;
    reply->Length = Length;
    reply->Result = Result;
}

NTSTATUS VrkFsComPortFinish(ComPort* Port, NTSTATUS Status, ULONG DoneLength) {
    if (NT_SUCCESS(Status)) {
        VrkFsComPortSetReply(Port, DoneLength, VRKFS_RESULT_DONE);
    } else {
        VrkFsComPortSetReply(Port, VRKFS_PORT_REPLY_HEADER_SIZE, VRKFS_PORT_FAILED);
    }
    return STATUS_SUCCESS;
}

// The command's payload in a zero-filled record of its full size, or null: no memory, or a length that is no payload of
// such a record. A record is too large for the stack.
template <typename Record>
Record* VrkFsComPortCopyPayload(const ComPort* Port) {
    const ULONG length = reinterpret_cast<const VrkFsPortCommand*>(Port->Command)->Length;
    if (length < sizeof(VrkFsPortCommand) || length > sizeof(VrkFsPortCommand) + sizeof(Record)) {
        return nullptr;
    }
    PVOID record = VrkFsAllocatePool(PagedPool, sizeof(Record));
    if (record != nullptr) {
        RtlZeroMemory(record, sizeof(Record));
        RtlCopyMemory(record, Port->Command + sizeof(VrkFsPortCommand), length - sizeof(VrkFsPortCommand));
    }
    return static_cast<Record*>(record);
}

// Of Length bytes at the offset, how many lie before End.
ULONG VrkFsComPortClip(ULONG OffsetLow, ULONG OffsetHigh, ULONG Length, ULONG End) {
    return OffsetHigh != 0 || OffsetLow >= End ? 0 : std::min<ULONG>(Length, End - OffsetLow);
}

}  // namespace

NTSTATUS VrkFsComPortInitialize(ComPort* Port, ServiceChannel* Channel, CCB* Ccb) {
    RtlZeroMemory(Port, sizeof(*Port));
    const NTSTATUS status = VrkFsComPortCopyFolder(Ccb, &Port->Folder);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    Port->Channel = Channel;
    Port->Ccb = Ccb;
    const VrkFsPortGreeting greeting = {
        sizeof(greeting), {'R', 'Z', 'V', 'F'}, 1, __atomic_load_n(&pVrkFsGlobalData->SdtiFlags, __ATOMIC_RELAXED)};
    RtlCopyMemory(Port->Reply, &greeting, sizeof(greeting));
    Port->ReplyLength = sizeof(greeting);
    return STATUS_SUCCESS;
}

VOID VrkFsComPortFree(ComPort* Port) {
    VrkFsRtlFreeUnicodeString(&Port->Folder);
}

NTSTATUS VrkFsComPortRead(const ComPort* Port, PVOID Buffer, ULONG OffsetLow, ULONG OffsetHigh, PULONG Length) {
    *Length = VrkFsComPortClip(OffsetLow, OffsetHigh, *Length, Port->ReplyLength);
    if (*Length != 0) {
        RtlCopyMemory(Buffer, Port->Reply + OffsetLow, *Length);
    }
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsComPortWrite(ComPort* Port, const VOID* Buffer, ULONG OffsetLow, ULONG OffsetHigh, PULONG Length) {
    const bool beyond = OffsetHigh != 0 || OffsetLow >= VRKFS_PORT_COMMAND_SIZE;
    *Length = VrkFsComPortClip(OffsetLow, OffsetHigh, *Length, VRKFS_PORT_COMMAND_SIZE);
    if (beyond) {
        return STATUS_SUCCESS;
    }
    RtlCopyMemory(Port->Command + OffsetLow, Buffer, *Length);
    VrkFsComPortSetReply(Port, Port->ReplyLength, VRKFS_PORT_INCOMPLETE);

    const ULONG end = OffsetLow + *Length;
    const auto* command = reinterpret_cast<const VrkFsPortCommand*>(Port->Command);
    if (end < sizeof(VrkFsPortCommand) || end < command->Length) {
        return STATUS_SUCCESS;
    }
    return VrkFsComPortCmdDispatch(Port);
}

NTSTATUS VrkFsComPortCmdDispatch(ComPort* Port) {
    switch (reinterpret_cast<const VrkFsPortCommand*>(Port->Command)->Code) {
        case VRKFS_PORT_CREATE_MEDIA_FILE:
            return VrkFsComPortCmdCreateMediaFile(Port);
        case VRKFS_PORT_NOTHING_2:
        case VRKFS_PORT_NOTHING_3:
            return STATUS_SUCCESS;
        case VRKFS_PORT_AVAILABLE_SPACE:
            return VrkFsComPortCmdGetAvailableSpace(Port);
        default:
            VrkFsComPortSetReply(Port, VRKFS_PORT_REPLY_HEADER_SIZE, VRKFS_PORT_UNKNOWN_COMMAND);
            return STATUS_SUCCESS;
    }
}

NTSTATUS VrkFsComPortCmdCreateMediaFile(ComPort* Port) {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    auto* creation = VrkFsComPortCopyPayload<VrkFsPortCreation>(Port);
    if (creation != nullptr) {
        status = VrkFsComPortCreateFilePath(Port, creation);
        if (NT_SUCCESS(status)) {
            status = VrkFsSReqCreateMediaFile(Port->Channel, creation);
        }
        VrkFsFreePool(creation);
    }
    return VrkFsComPortFinish(Port, status, VRKFS_PORT_REPLY_HEADER_SIZE);
}

NTSTATUS VrkFsComPortCmdGetAvailableSpace(ComPort* Port) {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    auto* query = VrkFsComPortCopyPayload<VrkFsPortSpaceQuery>(Port);
    if (query != nullptr) {
        status = VrkFsComPortCreateVolumePath(Port, query);
        if (NT_SUCCESS(status)) {
            status = VrkFsSReqGetAvailableSpace(Port->Channel, query, Port->Reply + VRKFS_PORT_REPLY_HEADER_SIZE);
        }
        VrkFsFreePool(query);
    }
    return VrkFsComPortFinish(Port, status, sizeof(VrkFsPortReply));
}
