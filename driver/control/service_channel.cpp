// The channel's record: its slots and who claims what is in them, and the connections.
#include "control/service_channel.h"

#include "control/ioctl.h"
#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/guards.h"

namespace {

struct CancelLockGuard {
    CancelLockGuard() { IoAcquireCancelSpinLock(&Irql); }
    ~CancelLockGuard() { IoReleaseCancelSpinLock(Irql); }
    CancelLockGuard(const CancelLockGuard&) = delete;
    CancelLockGuard& operator=(const CancelLockGuard&) = delete;

    KIRQL Irql;
};

// All of these: the cancel lock is held.

NTSTATUS Post(PIRP* Slot, PKEVENT Event, PIRP Irp) {
    if (Irp->Cancel) {
        return STATUS_CANCELLED;
    }
    if (*Slot != nullptr) {
        return STATUS_DEVICE_BUSY;
    }
    IoMarkIrpPending(Irp);
    static_cast<void>(IoSetCancelRoutine(Irp, VrkFsSReqCancel));
    *Slot = Irp;
    KeSetEvent(Event, IO_NO_INCREMENT, FALSE);
    return STATUS_PENDING;
}

PIRP Take(PIRP* Slot) {
    PIRP irp = *Slot;
    *Slot = nullptr;
    if (irp != nullptr) {
        static_cast<void>(IoSetCancelRoutine(irp, nullptr));
    }
    return irp;
}

// What nobody has claimed; null if there is none.
PIRP TakeUnclaimed(PIRP* Slot, PKEVENT Event) {
    return KeResetEvent(Event) != 0 ? Take(Slot) : nullptr;
}

// Undoes the waiting for what is in the slot. Its cancel routine may have run since, and has left it to the waiter
// then, who has to complete it: it is returned.
PIRP PutBack(PIRP* Slot, PKEVENT Event) {
    if (*Slot == nullptr || (*Slot)->Cancel) {
        return Take(Slot);
    }
    KeSetEvent(Event, IO_NO_INCREMENT, FALSE);
    return nullptr;
}

// An answer to nothing may be anybody's: that is how a service ends what the one before it owes.
bool IsWanted(const ServiceChannel* Channel, PIRP Response) {
    return Channel->ResponseWanted &&
           (IoGetCurrentProcess() == Channel->Answerer ||
            VrkFsIoctlSystemBuffer<const VrkFsServiceResponse>(Response)->Type == VRKFS_SERVICE_NOTHING);
}

VOID CompleteCancelled(PIRP Irp) {
    if (Irp != nullptr) {
        VrkFsSReqComplete(Irp, STATUS_CANCELLED, 0);
    }
}

}  // namespace

NTSTATUS VrkFsSReqInitialize(ServiceChannel* Channel) {
    RtlZeroMemory(Channel, sizeof(*Channel));
    KeInitializeEvent(&Channel->FetchEvent, SynchronizationEvent, FALSE);
    KeInitializeEvent(&Channel->ResponseEvent, SynchronizationEvent, FALSE);
    KeInitializeEvent(&Channel->ExchangeLock, SynchronizationEvent, TRUE);
    return VrkFsSReqStartWorker(&Channel->Worker);
}

VOID VrkFsSReqCleanup(ServiceChannel* Channel) {
    VrkFsSReqStopWorker(&Channel->Worker);
    PIRP fetch = nullptr;
    PIRP response = nullptr;
    {
        CancelLockGuard lock;
        fetch = TakeUnclaimed(&Channel->FetchIrp, &Channel->FetchEvent);
        response = TakeUnclaimed(&Channel->ResponseIrp, &Channel->ResponseEvent);
    }
    CompleteCancelled(fetch);
    CompleteCancelled(response);
}

VOID VrkFsSReqServiceConnect(ServiceChannel* Channel, BOOLEAN Anew) {
    CancelLockGuard lock;
    if (Anew || !Channel->ServiceConnected) {
        ++Channel->Connection;
    }
    if (Channel->Connection == 0) {
        ++Channel->Connection;
    }
    Channel->ServiceConnected = TRUE;
}

VOID VrkFsSReqServiceDisconnect(ServiceChannel* Channel) {
    CancelLockGuard lock;
    Channel->ServiceConnected = FALSE;
}

NTSTATUS VrkFsSReqRequestArrival(ServiceChannel* Channel, PIRP Irp) {
    CancelLockGuard lock;
    const NTSTATUS status = Post(&Channel->FetchIrp, &Channel->FetchEvent, Irp);
    if (status == STATUS_PENDING) {
        Channel->FetchProcess = IoGetCurrentProcess();
    }
    return status;
}

NTSTATUS VrkFsSReqResponseArrival(ServiceChannel* Channel, PIRP Irp) {
    CancelLockGuard lock;
    return IsWanted(Channel, Irp) ? Post(&Channel->ResponseIrp, &Channel->ResponseEvent, Irp) : STATUS_CANCELLED;
}

VOID NTAPI VrkFsSReqCancel(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    ServiceChannel* channel = &VrkFsDiskExtOfDevice(VrkFsCardOfDevice(DeviceObject)->DiskDevice)->ServiceChannel;
    PIRP unclaimed = nullptr;
    if (channel->FetchIrp == Irp) {
        unclaimed = TakeUnclaimed(&channel->FetchIrp, &channel->FetchEvent);
    } else if (channel->ResponseIrp == Irp) {
        unclaimed = TakeUnclaimed(&channel->ResponseIrp, &channel->ResponseEvent);
    }
    IoReleaseCancelSpinLock(Irp->CancelIrql);
    CompleteCancelled(unclaimed);
}

ULONG VrkFsSReqConnectionOf(ServiceChannel* Channel) {
    CancelLockGuard lock;
    return Channel->ServiceConnected ? Channel->Connection : 0;
}

BOOLEAN VrkFsSReqIsCurrent(ServiceChannel* Channel, ServiceHandle Handle) {
    CancelLockGuard lock;
    return Handle.Connection == Channel->Connection;
}

VOID VrkFsSReqServiceLost(ServiceChannel* Channel, ULONG Connection) {
    CancelLockGuard lock;
    if (Channel->Connection == Connection) {
        Channel->ServiceConnected = FALSE;
    }
}

NTSTATUS VrkFsSReqAwait(ServiceChannel* Channel, PKEVENT Event, LONGLONG Limit) {
    if (Limit <= 0) {
        return STATUS_TIMEOUT;
    }
    PVOID events[] = {&Channel->Worker.StopEvent, Event};
    LARGE_INTEGER timeout;
    timeout.QuadPart = -Limit;
    switch (KeWaitForMultipleObjects(2, events, WaitAny, Executive, KernelMode, FALSE, &timeout, nullptr)) {
        case STATUS_WAIT_0 + 1:
            return STATUS_SUCCESS;
        case STATUS_TIMEOUT:
            return STATUS_TIMEOUT;
        default:
            return STATUS_CANCELLED;
    }
}

PIRP VrkFsSReqClaimFetch(ServiceChannel* Channel, const ServiceHandle* File, PULONG Connection) {
    PIRP cancelled = nullptr;
    {
        CancelLockGuard lock;
        if (Channel->ServiceConnected && (File == nullptr || File->Connection == Channel->Connection)) {
            *Connection = Channel->Connection;
            PIRP irp = Take(&Channel->FetchIrp);
            Channel->ResponseWanted = irp != nullptr;
            Channel->Answerer = Channel->FetchProcess;
            return irp;
        }
        cancelled = PutBack(&Channel->FetchIrp, &Channel->FetchEvent);
    }
    CompleteCancelled(cancelled);
    return nullptr;
}

PIRP VrkFsSReqClaimResponse(ServiceChannel* Channel) {
    CancelLockGuard lock;
    return Take(&Channel->ResponseIrp);
}

VOID VrkFsSReqRefuseResponses(ServiceChannel* Channel) {
    PIRP late = nullptr;
    {
        CancelLockGuard lock;
        Channel->ResponseWanted = FALSE;
        late = TakeUnclaimed(&Channel->ResponseIrp, &Channel->ResponseEvent);
    }
    CompleteCancelled(late);
}

VOID VrkFsSReqComplete(PIRP Irp, NTSTATUS Status, ULONG_PTR Information) {
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = Information;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
}
