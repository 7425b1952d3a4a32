// The driver's operations on the service's side of the channel: request out, answers in.
#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>

#include "control/ioctl.h"
#include "control/service_channel.h"
#include "core/event_log.h"
#include "core/file_types.h"
#include "core/global_data.h"
#include "core/guards.h"

namespace {

constexpr ULONG kTypeFolderChars = 1 + kFileTypeExtensionChars;  // "\RZV"

// In 100 ns units. Every step has its own limit; all the answers of one operation together have another, since a
// service that brings a byte a minute would keep everybody else from the channel for as long as it likes.
constexpr LONGLONG kStepLimit = LONGLONG{VRKFS_SERVICE_TIMEOUT_SECONDS} * 10'000'000;
constexpr LONGLONG kAnswersLimit = 10 * kStepLimit;

// One operation: what goes out, and where what comes back belongs.
struct ServiceOrder {
    ULONG Type;        // VRKFS_SERVICE_...
    const VOID* Head;  // the request's payload, in two parts
    ULONG HeadBytes;
    const VOID* Tail;
    ULONG TailBytes;
    const ServiceHandle* File;  // what it is about, if it is about an open file
    ULONG Connection;           // under which it began, then the one whose service got the request
    LONGLONG Deadline;          // system time by which the last answer is in
    ServiceHandle* Opened;      // VRKFS_SERVICE_OPEN
    PUCHAR Target;              // VRKFS_SERVICE_READ: where the next byte goes
    const UCHAR* Source;        // VRKFS_SERVICE_WRITE: where the next byte is
    ULONG Remaining;            // bytes of either
    PUCHAR SpaceInfo;           // VRKFS_SERVICE_AVAILABLE_SPACE
};

PCSTR NameOf(ULONG Type) {
    constexpr PCSTR kNames[] = {"File Open",
                                "File Cleanup",
                                "File Close",
                                "File Read",
                                "File Write",
                                "Update Preferences",
                                "Get Available Volume Space",
                                "Create New Media File"};
    static_assert(std::size(kNames) == VRKFS_SERVICE_CREATE_MEDIA_FILE);
    return kNames[Type - VRKFS_SERVICE_OPEN];
}

// What an operation says that finds no service.
NTSTATUS Unserved(ULONG Type) {
    return Type >= VRKFS_SERVICE_UPDATE_PREFS ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

LONGLONG Now() {
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    return now.QuadPart;
}

NTSTATUS Await(ServiceChannel* Channel, const ServiceOrder* Order, PKEVENT Event, LONGLONG Limit) {
    const NTSTATUS status = VrkFsSReqAwait(Channel, Event, Limit);
    if (status == STATUS_TIMEOUT) {
        VrkFsGlobLogEvent(pVrkFsGlobalData->DriverObject, kVrkFsEventServiceTimeout, 0, nullptr, 0, NameOf(Order->Type),
                          nullptr);
        VrkFsSReqServiceLost(Channel, Order->Connection);
    }
    return status == STATUS_SUCCESS ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

// ---- The request ----

// All of the record is written: the service's program gets to see it.
VOID FillRequest(const ServiceOrder* Order, VrkFsServiceRequest* Request) {
    RtlZeroMemory(Request, sizeof(*Request));
    Request->Type = Order->Type;
    PUCHAR payload = Request->Payload.Bytes;
    if (Order->HeadBytes != 0) {
        RtlCopyMemory(payload, Order->Head, Order->HeadBytes);
    }
    if (Order->TailBytes != 0) {
        RtlCopyMemory(payload + Order->HeadBytes, Order->Tail, Order->TailBytes);
    }
}

NTSTATUS HandOver(ServiceChannel* Channel, ServiceOrder* Order) {
    const NTSTATUS status = Await(Channel, Order, &Channel->FetchEvent, kStepLimit);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PIRP irp = VrkFsSReqClaimFetch(Channel, Order->File, &Order->Connection);
    if (irp == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    Order->Deadline = Now() + kAnswersLimit;
    FillRequest(Order, VrkFsIoctlSystemBuffer<VrkFsServiceRequest>(irp));
    VrkFsSReqComplete(irp, STATUS_SUCCESS, sizeof(VrkFsServiceRequest));
    return STATUS_SUCCESS;
}

// ---- The answers. STATUS_INVALID_PARAMETER for one that makes no sense. ----

// A piece of no bytes is none: with those a service could hold the channel for ever.
NTSTATUS MovePiece(ServiceOrder* Order, PIRP Irp, ULONG Count) {
    if (Count > Order->Remaining || (Count == 0 && Order->Remaining != 0)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Count == 0) {
        return STATUS_SUCCESS;
    }
    PMDL mdl = Irp->MdlAddress;
    if (mdl == nullptr || MmGetMdlByteCount(mdl) < Count) {
        return STATUS_INVALID_PARAMETER;
    }
    PVOID data = MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority);
    if (data == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (Order->Type == VRKFS_SERVICE_READ) {
        RtlCopyMemory(Order->Target, data, Count);
        Order->Target += Count;
    } else {
        RtlCopyMemory(data, Order->Source, Count);
        Order->Source += Count;
    }
    Order->Remaining -= Count;
    return STATUS_SUCCESS;
}

// The built-in row stays, and so does the number of rows in use.
NTSTATUS ReplaceFileTypes(PIRP Irp, const VrkFsServiceResponse* Response) {
    constexpr ULONG kRowsOffset = offsetof(VrkFsServiceResponse, Payload.FileTypes.Rows);
    const ULONG length = IoGetCurrentIrpStackLocation(Irp)->Parameters.DeviceIoControl.InputBufferLength;
    const ULONG count = Response->Payload.FileTypes.Count;
    if (count > (length - kRowsOffset) / sizeof(FileType) || count > kMaxFileTypes - 1) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = STATUS_SUCCESS;
    for (ULONG row = 0; row < count && NT_SUCCESS(status); ++row) {
        status = VrkFsGlobUpdateFileType(pVrkFsGlobalData, &Response->Payload.FileTypes.Rows[row], row + 1);
    }
    return status;
}

NTSTATUS TakeHandle(const ServiceOrder* Order, ULONG Handle) {
    if (Handle == 0) {
        return STATUS_INVALID_PARAMETER;  // that is the one that says: none
    }
    *Order->Opened = {Handle, Order->Connection};
    return STATUS_SUCCESS;
}

NTSTATUS UseAnswer(ServiceOrder* Order, PIRP Irp, const VrkFsServiceResponse* Response) {
    if (Response->Type != Order->Type) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Response->Result != 0) {
        return STATUS_UNSUCCESSFUL;
    }
    switch (Order->Type) {
        case VRKFS_SERVICE_OPEN:
            return TakeHandle(Order, Response->Payload.ServiceHandle);
        case VRKFS_SERVICE_READ:
        case VRKFS_SERVICE_WRITE:
            return MovePiece(Order, Irp, Response->Payload.ByteCount);
        case VRKFS_SERVICE_UPDATE_PREFS:
            return ReplaceFileTypes(Irp, Response);
        case VRKFS_SERVICE_AVAILABLE_SPACE:
            RtlCopyMemory(Order->SpaceInfo, Response->Payload.SpaceInfo, VRKFS_PORT_SPACE_INFO_SIZE);
            return STATUS_SUCCESS;
        default:
            return STATUS_SUCCESS;
    }
}

// A service must hear of an answer that could not be used: its buffer does not hold what it asked for.
NTSTATUS TakeAnswer(ServiceChannel* Channel, ServiceOrder* Order) {
    const LONGLONG limit = std::min<LONGLONG>(kStepLimit, Order->Deadline - Now());
    const NTSTATUS status = Await(Channel, Order, &Channel->ResponseEvent, limit);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PIRP irp = VrkFsSReqClaimResponse(Channel);
    if (irp == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    const NTSTATUS used = UseAnswer(Order, irp, VrkFsIoctlSystemBuffer<const VrkFsServiceResponse>(irp));
    VrkFsSReqComplete(irp, used == STATUS_UNSUCCESSFUL ? STATUS_SUCCESS : used, 0);
    return NT_SUCCESS(used) ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

// ---- The exchange ----

NTSTATUS Exchange(ServiceChannel* Channel, ServiceOrder* Order) {
    NTSTATUS status = HandOver(Channel, Order);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    do {
        status = TakeAnswer(Channel, Order);
    } while (NT_SUCCESS(status) && Order->Remaining != 0);
    VrkFsSReqRefuseResponses(Channel);
    return status;
}

NTSTATUS Perform(ServiceChannel* Channel, ServiceOrder* Order) {
    if (VrkFsSReqConnectionOf(Channel) == 0) {
        return Unserved(Order->Type);
    }
    if (Order->File != nullptr && Order->File->Value == 0) {
        return STATUS_UNSUCCESSFUL;
    }
    EventLockGuard turn(&Channel->ExchangeLock);
    // Whoever had the channel before may have found the service silent.
    Order->Connection = VrkFsSReqConnectionOf(Channel);
    if (Order->Connection == 0) {
        return Unserved(Order->Type);
    }
    if (Order->File != nullptr && Order->File->Connection != Order->Connection) {
        return STATUS_UNSUCCESSFUL;
    }
    return Exchange(Channel, Order);
}

template <typename Payload>
ServiceOrder OrderOf(ULONG Type, const Payload* Record, const ServiceHandle* File) {
    static_assert(sizeof(Payload) <= VRKFS_SERVICE_PAYLOAD_SIZE);
    ServiceOrder order = {};
    order.Type = Type;
    order.Head = Record;
    order.HeadBytes = sizeof(Payload);
    order.File = File;
    return order;
}

}  // namespace

NTSTATUS VrkFsSReqOpen(ServiceChannel* Channel, WCHAR DriveLetter, PCUNICODE_STRING FullPath, ServiceHandle* Handle) {
    *Handle = {};
    const ULONG chars = FullPath->Length / sizeof(WCHAR);
    if (chars < kTypeFolderChars || chars >= VRKFS_SERVICE_PATH_CHARS) {
        return STATUS_UNSUCCESSFUL;
    }
    const FileType& builtIn = pVrkFsGlobalData->FileTypes[0];
    const std::array<WCHAR, 2 + kTypeFolderChars> head = {
        DriveLetter, VRKFS_W(':'), VRKFS_W('\\'), builtIn.Extension[0], builtIn.Extension[1], builtIn.Extension[2]};
    ServiceOrder order = OrderOf(VRKFS_SERVICE_OPEN, &head, nullptr);
    order.Tail = FullPath->Buffer + kTypeFolderChars;
    order.TailBytes = (chars - kTypeFolderChars) * sizeof(WCHAR);
    order.Opened = Handle;
    return Perform(Channel, &order);
}

NTSTATUS VrkFsSReqClean(ServiceChannel* Channel, ServiceHandle Handle, ULONG TypeCode, ULONG FrameIndex) {
    const VrkFsServiceClean clean = {Handle.Value, TypeCode, FrameIndex};
    ServiceOrder order = OrderOf(VRKFS_SERVICE_CLEAN, &clean, &Handle);
    return Perform(Channel, &order);
}

NTSTATUS VrkFsSReqClose(ServiceChannel* Channel, ServiceHandle Handle) {
    const VrkFsServiceClose close = {Handle.Value};
    ServiceOrder order = OrderOf(VRKFS_SERVICE_CLOSE, &close, &Handle);
    return Perform(Channel, &order);
}

NTSTATUS VrkFsSReqRead(ServiceChannel* Channel, ServiceHandle Handle, ULONG TypeCode, ULONG OffsetLow, ULONG OffsetHigh,
                       ULONG ByteCount, ULONG FrameIndex, PVOID Buffer) {
    const VrkFsServiceTransfer transfer = {Handle.Value, TypeCode, OffsetLow, OffsetHigh, ByteCount, FrameIndex};
    ServiceOrder order = OrderOf(VRKFS_SERVICE_READ, &transfer, &Handle);
    order.Target = static_cast<PUCHAR>(Buffer);
    order.Remaining = ByteCount;
    return Perform(Channel, &order);
}

NTSTATUS VrkFsSReqWrite(ServiceChannel* Channel, ServiceHandle Handle, ULONG TypeCode, ULONG OffsetLow,
                        ULONG OffsetHigh, ULONG ByteCount, ULONG FrameIndex, const VOID* Buffer) {
    const VrkFsServiceTransfer transfer = {Handle.Value, TypeCode, OffsetLow, OffsetHigh, ByteCount, FrameIndex};
    ServiceOrder order = OrderOf(VRKFS_SERVICE_WRITE, &transfer, &Handle);
    order.Source = static_cast<const UCHAR*>(Buffer);
    order.Remaining = ByteCount;
    return Perform(Channel, &order);
}

NTSTATUS VrkFsSReqUpdatePrefs(ServiceChannel* Channel, const VrkFsPreferences* Prefs) {
    ServiceOrder order = OrderOf(VRKFS_SERVICE_UPDATE_PREFS, Prefs, nullptr);
    return Perform(Channel, &order);
}

NTSTATUS VrkFsSReqGetAvailableSpace(ServiceChannel* Channel, const VrkFsPortSpaceQuery* Query, PUCHAR SpaceInfo) {
    ServiceOrder order = OrderOf(VRKFS_SERVICE_AVAILABLE_SPACE, Query, nullptr);
    order.SpaceInfo = SpaceInfo;
    return Perform(Channel, &order);
}

NTSTATUS VrkFsSReqCreateMediaFile(ServiceChannel* Channel, const VrkFsPortCreation* Creation) {
    ServiceOrder order = OrderOf(VRKFS_SERVICE_CREATE_MEDIA_FILE, Creation, nullptr);
    return Perform(Channel, &order);
}
