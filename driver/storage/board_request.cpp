#include <algorithm>

#include "core/guards.h"
#include "core/pool.h"
#include "storage/hw_context.h"
#include "storage/hw_request.h"

// Three ways of one request. The common one, without a time-out, is built by the system, with its event and outcome on
// the sender's stack, because the sender stays until the board has answered. With a time-out the sender may leave
// first, so everything that the board's completion touches is in an HwRequest. And when the system has no memory to
// build a request, the card's spare HwRequest carries it, so that what must not fail (releases, cleanups) still reaches
// the disk. Only a claim of the SCSI path never travels that way: it may wait for another thread to give the path back,
// and that thread may need the spare request for it.

namespace {

constinit LONG volatile LostRequests = 0;

PUCHAR BufferOf(HwRequest* Request) {
    return reinterpret_cast<PUCHAR>(Request + 1);
}

NTSTATUS NTAPI RequestCompleted(PDEVICE_OBJECT, PIRP Irp, PVOID Context) {
    HwRequest* request = static_cast<HwRequest*>(Context);
    request->Outcome = Irp->IoStatus;
    KeSetEvent(&request->Completed, IO_NO_INCREMENT, FALSE);
    VrkFsHwReleaseRequest(request);
    return STATUS_MORE_PROCESSING_REQUIRED;  // the request block is ours, not the system's
}

NTSTATUS NTAPI BoundedRequestCompleted(PDEVICE_OBJECT Device, PIRP Irp, PVOID Context) {
    const NTSTATUS status = RequestCompleted(Device, Irp, Context);
    InterlockedDecrement(&LostRequests);
    return status;
}

// Gives the request to the board, with a reference for its completion.
NTSTATUS Send(HwContext* Hw, HwRequest* Request, ULONG ControlCode, const VOID* InBuffer, ULONG InLength,
              ULONG OutLength, PIO_COMPLETION_ROUTINE Completion) {
    PIRP irp = Request->Irp;
    KeClearEvent(&Request->Completed);
    InterlockedIncrement(&Request->References);
    IoReuseIrp(irp, STATUS_SUCCESS);
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    irp->AssociatedIrp.SystemBuffer = Request->BufferBytes != 0 ? BufferOf(Request) : nullptr;
    if (InLength != 0) {
        RtlCopyMemory(BufferOf(Request), InBuffer, InLength);
    }
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = IRP_MJ_DEVICE_CONTROL;
    next->Parameters.DeviceIoControl.IoControlCode = ControlCode;
    next->Parameters.DeviceIoControl.InputBufferLength = InLength;
    next->Parameters.DeviceIoControl.OutputBufferLength = OutLength;
    IoSetCompletionRoutine(irp, Completion, Request, TRUE, TRUE, TRUE);
    return IofCallDriver(Hw->BoardDevice, irp);
}

// What the system would have copied back for a request of its own.
VOID CopyOutput(HwRequest* Request, NTSTATUS Status, PVOID OutBuffer, ULONG OutLength) {
    if (NT_ERROR(Status) || OutLength == 0) {
        return;
    }
    const ULONG bytes = static_cast<ULONG>(std::min<ULONG_PTR>(Request->Outcome.Information, OutLength));
    RtlCopyMemory(OutBuffer, BufferOf(Request), bytes);
}

NTSTATUS SendBounded(HwContext* Hw, ULONG ControlCode, const VOID* InBuffer, ULONG InLength, PVOID OutBuffer,
                     ULONG OutLength, const LARGE_INTEGER* Timeout) {
    HwRequest* request = VrkFsHwCreateRequest(Hw, std::max(InLength, OutLength));
    if (request == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    InterlockedIncrement(&LostRequests);
    NTSTATUS status = Send(Hw, request, ControlCode, InBuffer, InLength, OutLength, BoundedRequestCompleted);
    if (status == STATUS_PENDING) {
        LARGE_INTEGER timeout = *Timeout;
        status = KeWaitForSingleObject(&request->Completed, Executive, KernelMode, FALSE, &timeout);
        if (status == STATUS_TIMEOUT) {
            // The board may answer this at once, late or never. Nobody waits for that.
            IoCancelIrp(request->Irp);
        } else {
            status = request->Outcome.Status;
            CopyOutput(request, status, OutBuffer, OutLength);
        }
    } else {
        CopyOutput(request, status, OutBuffer, OutLength);
    }
    VrkFsHwReleaseRequest(request);
    return status;
}

NTSTATUS SendSpare(HwContext* Hw, ULONG ControlCode, const VOID* InBuffer, ULONG InLength, PVOID OutBuffer,
                   ULONG OutLength) {
    if ((Hw->Flags & kHwSpareRequest) == 0 || ControlCode == IOCTL_VRK_SCSI_ACQUIRE) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    HwRequest* request = Hw->SpareRequest;
    if (std::max(InLength, OutLength) > request->BufferBytes) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    EventLockGuard lock(&Hw->SpareLock);
    NTSTATUS status = Send(Hw, request, ControlCode, InBuffer, InLength, OutLength, RequestCompleted);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&request->Completed, Executive, KernelMode, FALSE, nullptr);
        status = request->Outcome.Status;
    }
    CopyOutput(request, status, OutBuffer, OutLength);
    return status;
}

}  // namespace

HwRequest* VrkFsHwCreateRequest(HwContext* Hw, ULONG BufferBytes) {
    const SIZE_T bytes = sizeof(HwRequest) + BufferBytes;
    HwRequest* request = static_cast<HwRequest*>(VrkFsAllocatePool(NonPagedPool, bytes));
    if (request == nullptr) {
        return nullptr;
    }
    RtlZeroMemory(request, bytes);
    request->Irp = IoAllocateIrp(Hw->BoardDevice->StackSize, FALSE);
    if (request->Irp == nullptr) {
        VrkFsFreePool(request);
        return nullptr;
    }
    KeInitializeEvent(&request->Completed, NotificationEvent, FALSE);
    request->References = 1;
    request->BufferBytes = BufferBytes;
    return request;
}

VOID VrkFsHwReleaseRequest(HwRequest* Request) {
    if (InterlockedDecrement(&Request->References) == 0) {
        IoFreeIrp(Request->Irp);
        VrkFsFreePool(Request);
    }
}

LONG VrkFsHwLostRequests() {
    return InterlockedCompareExchange(&LostRequests, 0, 0);
}

NTSTATUS VrkFsHwDevIOCTL(HwContext* Hw, ULONG ControlCode, PVOID InBuffer, ULONG InLength, PVOID OutBuffer,
                         ULONG OutLength, const LARGE_INTEGER* Timeout) {
    if (Timeout != nullptr) {
        return SendBounded(Hw, ControlCode, InBuffer, InLength, OutBuffer, OutLength, Timeout);
    }
    KEVENT completed;
    IO_STATUS_BLOCK outcome;
    KeInitializeEvent(&completed, NotificationEvent, FALSE);
    PIRP irp = IoBuildDeviceIoControlRequest(ControlCode, Hw->BoardDevice, InBuffer, InLength, OutBuffer, OutLength,
                                             FALSE, &completed, &outcome);
    if (irp == nullptr) {
        return SendSpare(Hw, ControlCode, InBuffer, InLength, OutBuffer, OutLength);
    }
    const NTSTATUS status = IofCallDriver(Hw->BoardDevice, irp);
    if (status != STATUS_PENDING) {
        return status;
    }
    KeWaitForSingleObject(&completed, Executive, KernelMode, FALSE, nullptr);
    return outcome.Status;
}
