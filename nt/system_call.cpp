#include "nt/system_call.h"

#include <vector>

namespace nt {

namespace {

// The process is told that something of it has ended, if it waits for that.
void NoteEnd(PEPROCESS process) {
    if (!process->exiting.load(std::memory_order_seq_cst)) {
        return;
    }
    uint32_t* const word = &process->drainWord;
    LockWord(&process->requestLock.word);
    process->drainWord++;
    UnlockWord(&process->requestLock.word);
    FutexWake(word, 1);
}

}  // namespace

SystemCall::SystemCall(PEPROCESS process) : process_(process), before_(Self()->process), entered_(true) {
    process_->activeCalls.fetch_add(1, std::memory_order_seq_cst);
    Self()->process = process_;
    entered_ = !process_->exiting.load(std::memory_order_seq_cst);
}

SystemCall::~SystemCall() {
    PETHREAD const self = Self();
    self->process = before_;
    if (before_ == nullptr && (self->heldCount != 0 || self->criticalRegions != 0 || self->irql != PASSIVE_LEVEL)) {
        Violation("a system call of %s returned in %d critical regions at IRQL %u holding %s", process_->name,
                  self->criticalRegions, self->irql, DescribeHeld(self).c_str());
    }
    // The process may end as soon as the count is down, unless the lock is held over that.
    LockWord(&process_->requestLock.word);
    process_->activeCalls.fetch_sub(1, std::memory_order_seq_cst);
    const bool exiting = process_->exiting.load(std::memory_order_seq_cst);
    process_->drainWord++;
    uint32_t* const word = &process_->drainWord;
    UnlockWord(&process_->requestLock.word);
    if (exiting) {
        FutexWake(word, 1);
    }
}

SystemRequest::SystemRequest(PEPROCESS process, PIO_STATUS_BLOCK status, const Overlapped* overlapped, bool alwaysWaits)
    : call_(process),
      process_(process),
      status_(status != nullptr ? status : &ownStatus_),
      overlapped_(overlapped),
      alwaysWaits_(alwaysWaits) {}

SystemRequest::~SystemRequest() {
    if (record_ != nullptr) {
        FreeAttachedMdls(record_->irp);
        FreeIrp(record_);
    }
    LetGoOfFile();
}

void SystemRequest::LetGoOfFile() {
    if (file_ == nullptr) {
        return;
    }
    if (locked_) {
        UnlockFile(file_);
        locked_ = false;
    }
    ObfDereferenceObject(file_);
    file_ = nullptr;
}

NTSTATUS SystemRequest::TakeFile(Handle handle, ACCESS_MASK access, ACCESS_MASK anyOf) {
    if (!call_.Entered()) {
        return Answer(STATUS_PROCESS_IS_TERMINATING);
    }
    PVOID object = nullptr;
    const NTSTATUS status =
        ReferenceHandle(process_, HandleFromValue(handle), access, &g_fileType, process_->mode, &object, &granted_);
    if (!NT_SUCCESS(status)) {
        return Answer(status);
    }
    file_ = static_cast<PFILE_OBJECT>(object);
    if (IsUser() && anyOf != 0 && (granted_ & anyOf) == 0) {
        return Answer(STATUS_ACCESS_DENIED);
    }
    if (IsSynchronous(file_)) {
        if (overlapped_ != nullptr && !overlapped_->optional) {
            return Answer(STATUS_INVALID_PARAMETER);
        }
        overlapped_ = nullptr;
        LockFile(file_);
        locked_ = true;
    }
    // A request that may outlast the call wants a status block that does.
    return alwaysWaits_ || locked_ || status_ != &ownStatus_ ? STATUS_SUCCESS : Answer(STATUS_INVALID_PARAMETER);
}

NTSTATUS SystemRequest::Begin(UCHAR major, UCHAR minor) {
    record_ = NewIrp(file_->DeviceObject->StackSize, IrpKind::kSystem);
    if (record_ == nullptr) {
        return Answer(STATUS_INSUFFICIENT_RESOURCES);
    }
    PETHREAD const self = Self();
    record_->process = process_;
    record_->file = file_;
    record_->userStatus = status_;
    record_->overlapped = !alwaysWaits_ && !locked_;
    if (overlapped_ != nullptr) {
        record_->completion = *overlapped_;
    }
    PIRP const irp = record_->irp;
    irp->RequestorMode = process_->mode;
    irp->Flags = alwaysWaits_ ? IRP_SYNCHRONOUS_API : 0;
    irp->UserIosb = status_;
    irp->Tail.Overlay.Thread = self;
    irp->Tail.Overlay.OriginalFileObject = file_;
    stack_ = NextStack(record_, major, minor, file_);
    return STATUS_SUCCESS;
}

void SystemRequest::List() {
    WordGuard guard(process_->requestLock);
    InsertTailList(&process_->requests, &record_->irp->ThreadListEntry);
    process_->requestCount++;
}

// The request is over and this thread finishes it.
NTSTATUS SystemRequest::End() {
    {
        WordGuard guard(process_->requestLock);
        RemoveEntryList(&record_->irp->ThreadListEntry);
        process_->requestCount--;
    }
    const IO_STATUS_BLOCK result = record_->irp->IoStatus;
    const PKEVENT event = record_->completion.event;
    const bool overlapped = record_->overlapped;
    FreeIrp(record_);
    record_ = nullptr;
    *status_ = result;
    if (overlapped) {
        KeSetEvent(&file_->Event, 0, FALSE);
    }
    if (event != nullptr) {
        KeSetEvent(event, 0, FALSE);
    }
    LetGoOfFile();
    NoteEnd(process_);
    return result.Status;
}

NTSTATUS SystemRequest::Send() {
    PDEVICE_OBJECT const device = file_->DeviceObject;
    List();
    if (!record_->overlapped) {
        IssueAndWait(record_, device);
        return End();
    }
    KeClearEvent(&file_->Event);
    if (overlapped_ != nullptr && overlapped_->event != nullptr) {
        KeClearEvent(overlapped_->event);
    }
    if (IofCallDriver(device, record_->irp) == STATUS_PENDING) {
        // Whoever completes it finishes it, and lets go of the file; it may be gone already.
        record_ = nullptr;
        file_ = nullptr;
        return STATUS_PENDING;
    }
    CopyReply(record_);
    return End();
}

NTSTATUS SystemRequest::Answer(NTSTATUS status, ULONG_PTR information) {
    status_->Status = status;
    status_->Information = information;
    return status;
}

bool CancelRequests(PEPROCESS process, RequestFilter matches, const void* what) {
    std::vector<IrpRecord*> records;
    {
        WordGuard guard(process->requestLock);
        for (PLIST_ENTRY entry = process->requests.Flink; entry != &process->requests; entry = entry->Flink) {
            IrpRecord* const record = RecordOf(CONTAINING_RECORD(entry, IRP, ThreadListEntry));
            if (matches(*record, what)) {
                // The reference keeps the request's memory while it may complete beside this.
                record->references.fetch_add(1, std::memory_order_relaxed);
                records.push_back(record);
            }
        }
    }
    for (IrpRecord* const record : records) {
        IoCancelIrp(record->irp);
        DropIrp(record);
    }
    return !records.empty();
}

}  // namespace nt
