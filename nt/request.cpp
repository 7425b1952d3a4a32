#include "nt/file_object.h"
#include "nt/irp.h"

#include <cstdio>
#include <cstring>

// The way of a request: down through IofCallDriver, up through IofCompleteRequest.
//
// What happens at the top depends on who made it. A device control request of a driver is finished and freed by the
// completing thread. A system call's request that never was pending is finished by its issuer once the dispatch
// routine has returned; one that was pending is finished by the issuer who waits for it or, if overlapped, by the
// completing thread. Finishing drops the reference on the file object, and if that is the last one the close request
// goes to the reaper, because the completing driver may still hold its locks: the close runs beside it, on another
// thread, as it would on the real kernel.

namespace nt {

namespace {

std::atomic<uint64_t> g_sent{0};

// What a driver must find as it left it when its routine returns.
struct Balance {
    int criticalRegions;
    unsigned heldCount;
    KIRQL irql;

    explicit Balance(PETHREAD self)
        : criticalRegions(self->criticalRegions), heldCount(self->heldCount), irql(self->irql) {}

    void Check(PETHREAD self, const char* routine, const IO_STACK_LOCATION& stack) const {
        if (self->criticalRegions != criticalRegions || self->heldCount != heldCount || self->irql != irql) {
            Violation("%s for major 0x%02x returned in %d critical regions (entered in %d) at IRQL %u (%u), holding %s",
                      routine, stack.MajorFunction, self->criticalRegions, criticalRegions, self->irql, irql,
                      DescribeHeld(self).c_str());
        }
    }
};

// Checks what the dispatch routine said against what it did. The request itself may be gone.
NTSTATUS CheckOutcome(const CallFrame& frame, const IO_STACK_LOCATION& stack, NTSTATUS status) {
    const auto code = static_cast<unsigned>(status);
    const char* const driver = "dispatch routine";
    if (status == STATUS_PENDING) {
        if (!frame.markedPending) {
            Violation("%s for major 0x%02x minor 0x%02x returned STATUS_PENDING without IoMarkIrpPending", driver,
                      stack.MajorFunction, stack.MinorFunction);
        }
        return status;
    }
    if (frame.markedPending) {
        Violation("%s for major 0x%02x minor 0x%02x marked the request pending and returned 0x%08x", driver,
                  stack.MajorFunction, stack.MinorFunction, code);
        return STATUS_PENDING;
    }
    if (frame.completed) {
        if (frame.completedStatus != status) {
            Violation("%s for major 0x%02x minor 0x%02x completed with 0x%08x and returned 0x%08x", driver,
                      stack.MajorFunction, stack.MinorFunction, static_cast<unsigned>(frame.completedStatus), code);
        }
        return status;
    }
    const IrpRecord* const record = frame.record;
    const IrpPhase phase = record->phase.load(std::memory_order_acquire);
    if (record->serial.load(std::memory_order_relaxed) == frame.serial && phase == IrpPhase::kSent) {
        Violation("%s for major 0x%02x minor 0x%02x returned 0x%08x and never completed request %s", driver,
                  stack.MajorFunction, stack.MinorFunction, code, DescribeIrp(record).c_str());
        return STATUS_PENDING;
    }
    return status;
}

// The innermost dispatch routine of this thread that was given the live request.
CallFrame* FrameOf(PETHREAD self, PIRP irp) {
    for (CallFrame* frame = self->frame; frame != nullptr; frame = frame->up) {
        if (frame->irp == irp && frame->record->serial.load(std::memory_order_relaxed) == frame->serial) {
            return frame;
        }
    }
    return nullptr;
}

// What was done to the request below counts for a driver above that passed it on as it was.
void TellOuterFrame(const CallFrame& inner) {
    for (CallFrame* frame = inner.up; frame != nullptr; frame = frame->up) {
        if (frame->record == inner.record && frame->serial == inner.serial) {
            frame->markedPending |= inner.markedPending;
            frame->completed |= inner.completed;
            frame->completedStatus = inner.completedStatus;
            return;
        }
    }
}

// ---- up ----

bool CheckCompletion(PETHREAD self, const IrpRecord* record) {
    const PIRP irp = record->irp;
    if (record->phase.load(std::memory_order_acquire) != IrpPhase::kSent) {
        Violation("completion of request %s, which was sent to nobody", DescribeIrp(record).c_str());
        return false;
    }
    if (__atomic_load_n(&irp->CancelRoutine, __ATOMIC_ACQUIRE) != nullptr) {
        Violation("completion of request %s with its cancel routine still set", DescribeIrp(record).c_str());
    }
    if (irp->IoStatus.Status == STATUS_PENDING) {
        Violation("completion of request %s with STATUS_PENDING", DescribeIrp(record).c_str());
    }
    if (self->spinLockCount != 0) {
        Violation("completion of request %s with %s held", DescribeIrp(record).c_str(),
                  self->holdsCancelLock ? "the cancel lock" : "a spin lock");
    }
    return true;
}

bool WantsCall(const IO_STACK_LOCATION* stack, const IRP* irp) {
    if (stack->CompletionRoutine == nullptr) {
        return false;
    }
    const UCHAR wanted =
        static_cast<UCHAR>(NT_SUCCESS(irp->IoStatus.Status) ? SL_INVOKE_ON_SUCCESS : SL_INVOKE_ON_ERROR) |
        (irp->Cancel != FALSE ? SL_INVOKE_ON_CANCEL : 0);
    return (stack->Control & wanted) != 0;
}

// Runs the completion routines from the completing driver's level to the top. False: one of them took the request back.
bool Unwind(PETHREAD self, IrpRecord* record) {
    PIRP const irp = record->irp;
    while (irp->CurrentLocation <= irp->StackCount) {
        PIO_STACK_LOCATION const stack = irp->Tail.Overlay.CurrentStackLocation;
        irp->PendingReturned = (stack->Control & SL_PENDING_RETURNED) != 0;
        irp->CurrentLocation++;
        irp->Tail.Overlay.CurrentStackLocation++;
        const bool isTop = irp->CurrentLocation > irp->StackCount;
        if (WantsCall(stack, irp)) {
            PDEVICE_OBJECT const device = isTop ? nullptr : irp->Tail.Overlay.CurrentStackLocation->DeviceObject;
            const PDRIVER_OBJECT before = self->driver;
            self->driver = device != nullptr ? device->DriverObject : record->owner;
            // The routine may take the request back: to complete it later, or at the top to send or free it again.
            record->phase.store(isTop ? IrpPhase::kIdle : IrpPhase::kSent, std::memory_order_release);
            const NTSTATUS status = stack->CompletionRoutine(device, irp, stack->Context);
            self->driver = before;
            if (status == STATUS_MORE_PROCESSING_REQUIRED) {
                return false;
            }
            record->phase.store(IrpPhase::kCompleting, std::memory_order_release);
        } else if (irp->PendingReturned != FALSE && !isTop) {
            irp->Tail.Overlay.CurrentStackLocation->Control |= SL_PENDING_RETURNED;
        }
    }
    return true;
}

// A driver's device control request: reply, status block, event. As on the real kernel a request that failed in its
// dispatch routine leaves status block and event alone. The request goes before its maker is told.
void FinishDeviceControl(IrpRecord* record) {
    PIRP const irp = record->irp;
    CopyReply(record);
    const IO_STATUS_BLOCK result = irp->IoStatus;
    const bool report = irp->PendingReturned != FALSE || !NT_ERROR(result.Status);
    PIO_STATUS_BLOCK const userStatus = irp->UserIosb;
    PKEVENT const event = irp->UserEvent;
    FreeIrp(record);
    if (report) {
        *userStatus = result;
        if (event != nullptr) {
            KeSetEvent(event, 0, FALSE);
        }
    }
}

// An overlapped request is over. Its process may end only when this is through: `finishing` holds it.
void FinishOverlapped(IrpRecord* record) {
    PIRP const irp = record->irp;
    CopyReply(record);
    const IO_STATUS_BLOCK result = irp->IoStatus;
    const Overlapped completion = record->completion;
    PEPROCESS const process = record->process;
    PFILE_OBJECT const file = record->file;
    *record->userStatus = result;
    {
        WordGuard guard(process->requestLock);
        RemoveEntryList(&irp->ThreadListEntry);
        process->requestCount--;
        process->finishing++;
    }
    FreeIrp(record);
    KeSetEvent(&file->Event, 0, FALSE);
    ObDereferenceDeferred(file);
    if (completion.event != nullptr) {
        KeSetEvent(completion.event, 0, FALSE);
    }
    if (completion.routine != nullptr) {
        const DriverScope none(nullptr);
        completion.routine(completion.context, result);
    }
    LockWord(&process->requestLock.word);
    process->finishing--;
    process->drainWord++;
    uint32_t* const word = &process->drainWord;
    const bool exiting = process->exiting.load(std::memory_order_relaxed);
    UnlockWord(&process->requestLock.word);
    if (exiting) {
        FutexWake(word, 1);
    }
}

void Finish(IrpRecord* record) {
    PIRP const irp = record->irp;
    if (record->kind == IrpKind::kDriver) {
        Violation("request %s, made by IoAllocateIrp, completed to its top: no completion routine took it back",
                  DescribeIrp(record).c_str());
        return;
    }
    FreeAttachedMdls(irp);
    const bool pended = irp->PendingReturned != FALSE;
    const bool overlapped = record->overlapped;
    uint32_t* const doneWord = &record->doneWord;
    record->phase.store(IrpPhase::kDone, std::memory_order_release);
    if (record->kind == IrpKind::kDeviceControl) {
        FinishDeviceControl(record);
    } else if (pended && overlapped) {
        FinishOverlapped(record);
    } else if (pended) {
        // The issuer goes on, and the record with it, as soon as the word is set.
        __atomic_store_n(doneWord, 1, __ATOMIC_RELEASE);
        FutexWake(doneWord, 1);
    }
}

}  // namespace

void ResetIrpsSent() {
    g_sent = 0;
}

uint64_t IrpsSent() {
    return g_sent.load(std::memory_order_relaxed);
}

void CopyReply(IrpRecord* record) {
    PIRP const irp = record->irp;
    if ((irp->Flags & IRP_INPUT_OPERATION) == 0 || NT_ERROR(irp->IoStatus.Status) ||
        irp->AssociatedIrp.SystemBuffer == nullptr) {
        return;
    }
    const ULONG_PTR bytes = irp->IoStatus.Information;
    if (bytes > record->outputLength) {
        Violation("request %s returned %llu bytes to a buffer of %u", DescribeIrp(record).c_str(),
                  static_cast<unsigned long long>(bytes), record->outputLength);
        return;
    }
    if (!CopyToUser(irp->RequestorMode, irp->UserBuffer, irp->AssociatedIrp.SystemBuffer, bytes)) {
        irp->IoStatus.Status = STATUS_ACCESS_VIOLATION;
        irp->IoStatus.Information = 0;
    }
}

NTSTATUS IssueAndWait(IrpRecord* record, PDEVICE_OBJECT device) {
    PIRP const irp = record->irp;
    const NTSTATUS status = IofCallDriver(device, irp);
    const bool isOver = record->phase.load(std::memory_order_acquire) == IrpPhase::kDone && !irp->PendingReturned;
    if (status == STATUS_PENDING && !isOver) {
        PETHREAD const self = Self();
        self->NoteWait(irp, "the end of a request");
        while (__atomic_load_n(&record->doneWord, __ATOMIC_ACQUIRE) == 0) {
            FutexWait(&record->doneWord, 0, -1);
        }
        self->NoteWait(nullptr, nullptr);
    }
    CopyReply(record);
    return irp->IoStatus.Status;
}

}  // namespace nt

using nt::CallFrame;
using nt::IrpPhase;
using nt::IrpRecord;
using nt::Violation;

VOID IoMarkIrpPending(PIRP Irp) {
    IoGetCurrentIrpStackLocation(Irp)->Control |= SL_PENDING_RETURNED;
    if (CallFrame* const frame = nt::FrameOf(nt::Self(), Irp); frame != nullptr) {
        frame->markedPending = true;
    }
}

NTKERNELAPI NTSTATUS FASTCALL IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    PETHREAD const self = nt::Self();
    IrpRecord* const record = nt::CheckIrp(Irp, "sending of");
    if (record == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Irp->CurrentLocation <= 1) {
        Violation("request %s sent to more drivers than it has stack locations", nt::DescribeIrp(record).c_str());
        return STATUS_INVALID_PARAMETER;
    }
    Irp->CurrentLocation--;
    PIO_STACK_LOCATION const stack = --Irp->Tail.Overlay.CurrentStackLocation;
    stack->DeviceObject = DeviceObject;
    const IO_STACK_LOCATION asked = *stack;
    record->phase.store(IrpPhase::kSent, std::memory_order_release);
    nt::g_sent.fetch_add(1, std::memory_order_relaxed);

    CallFrame frame{self->frame, Irp,   record,        record->serial.load(std::memory_order_relaxed),
                    false,       false, STATUS_SUCCESS};
    const PDRIVER_OBJECT before = self->driver;
    const nt::Balance balance(self);
    self->frame = &frame;
    self->driver = DeviceObject->DriverObject;
    NTSTATUS status = DeviceObject->DriverObject->MajorFunction[asked.MajorFunction](DeviceObject, Irp);
    balance.Check(self, "dispatch routine", asked);
    status = nt::CheckOutcome(frame, asked, status);
    self->driver = before;
    self->frame = frame.up;
    nt::TellOuterFrame(frame);
    return status;
}

NTKERNELAPI VOID FASTCALL IofCompleteRequest(PIRP Irp, CCHAR) {
    PETHREAD const self = nt::Self();
    IrpRecord* const record = nt::CheckIrp(Irp, "completion of");
    if (record == nullptr || !nt::CheckCompletion(self, record)) {
        return;
    }
    IrpPhase expected = IrpPhase::kSent;
    if (!record->phase.compare_exchange_strong(expected, IrpPhase::kCompleting)) {
        Violation("request %p completed by two threads at once", static_cast<void*>(Irp));
        return;
    }
    if (CallFrame* const frame = nt::FrameOf(self, Irp); frame != nullptr) {
        frame->completed = true;
        frame->completedStatus = Irp->IoStatus.Status;
    }
    if (nt::Unwind(self, record)) {
        nt::Finish(record);
    }
}

NTKERNELAPI BOOLEAN NTAPI IoIsOperationSynchronous(PIRP Irp) {
    const PFILE_OBJECT file = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    const bool synchronous = (Irp->Flags & IRP_SYNCHRONOUS_API) != 0 || (file != nullptr && nt::IsSynchronous(file));
    return synchronous ? TRUE : FALSE;
}

// ---- cancel ----

NTKERNELAPI BOOLEAN NTAPI IoCancelIrp(PIRP Irp) {
    PETHREAD const self = nt::Self();
    KIRQL irql = PASSIVE_LEVEL;
    IoAcquireCancelSpinLock(&irql);
    Irp->Cancel = TRUE;
    const PDRIVER_CANCEL routine = IoSetCancelRoutine(Irp, nullptr);
    if (routine == nullptr) {
        IoReleaseCancelSpinLock(irql);
        return FALSE;
    }
    Irp->CancelIrql = irql;
    PDEVICE_OBJECT const device = IoGetCurrentIrpStackLocation(Irp)->DeviceObject;
    const PDRIVER_OBJECT before = self->driver;
    self->driver = device->DriverObject;
    routine(device, Irp);
    self->driver = before;
    if (self->holdsCancelLock) {
        Violation("cancel routine %p returned with the cancel lock held", reinterpret_cast<void*>(routine));
        IoReleaseCancelSpinLock(irql);
    }
    return TRUE;
}
