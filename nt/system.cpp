#include "nt/system.h"

#include "nt/object_header.h"
#include "nt/station.h"
#include "nt/system_call.h"

// A process: its making and end, its handles, and cancel.

namespace nt {

namespace {

constexpr int64_t kCancelAgainNs = 10'000'000;

bool MatchesAll(const IrpRecord&, const void*) {
    return true;
}
bool MatchesStatus(const IrpRecord& record, const void* status) {
    return record.userStatus == status;
}
bool MatchesFile(const IrpRecord& record, const void* file) {
    return record.file == file;
}

// Cancels and awaits everything that the process has under way. A driver may hold a request back at first, or a call
// may make another request before it notices, so the cancel is repeated until all is quiet.
void Drain(PEPROCESS process) {
    for (;;) {
        CancelRequests(process, MatchesAll, nullptr);
        uint32_t seen = 0;
        {
            WordGuard guard(process->requestLock);
            if (process->requestCount == 0 && process->finishing == 0 && process->activeCalls.load() == 0) {
                return;
            }
            seen = process->drainWord;
        }
        FutexWait(&process->drainWord, seen, MonotonicNs() + kCancelAgainNs);
    }
}

NTSTATUS CheckOpen(const OpenParameters& p) {
    constexpr ULONG kSynchronous = FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT;
    constexpr ULONG kWithDirectory = FILE_DIRECTORY_FILE | kSynchronous | FILE_WRITE_THROUGH |
                                     FILE_COMPLETE_IF_OPLOCKED | FILE_DELETE_ON_CLOSE | FILE_OPEN_FOR_BACKUP_INTENT |
                                     FILE_OPEN_FOR_FREE_SPACE_QUERY | FILE_OPEN_BY_FILE_ID | FILE_OPEN_REPARSE_POINT;
    const bool directory = (p.options & FILE_DIRECTORY_FILE) != 0;
    const bool bad =
        (p.fileAttributes & ~FILE_ATTRIBUTE_VALID_FLAGS) != 0 || (p.shareAccess & ~FILE_SHARE_VALID_FLAGS) != 0 ||
        p.disposition > FILE_MAXIMUM_DISPOSITION || (p.options & ~FILE_VALID_OPTION_FLAGS) != 0 ||
        (p.options & kSynchronous) == kSynchronous ||
        ((p.options & kSynchronous) != 0 && (p.desiredAccess & SYNCHRONIZE) == 0) ||
        ((p.options & FILE_DELETE_ON_CLOSE) != 0 &&
         (p.desiredAccess & (DELETE | GENERIC_ALL | MAXIMUM_ALLOWED)) == 0) ||
        (directory && (p.options & FILE_NON_DIRECTORY_FILE) != 0) ||
        (directory && (p.options & ~kWithDirectory) != 0) ||
        (directory && p.disposition != FILE_CREATE && p.disposition != FILE_OPEN && p.disposition != FILE_OPEN_IF) ||
        ((p.options & FILE_NO_INTERMEDIATE_BUFFERING) != 0 && (p.desiredAccess & FILE_APPEND_DATA) != 0 &&
         (p.desiredAccess & FILE_WRITE_DATA) == 0);
    return bad ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
}

}  // namespace

Process::Process(const std::string& name, KPROCESSOR_MODE mode) : object_(NewProcess(name.c_str(), mode, false)) {}

Process::~Process() {
    Exit();
    ObfDereferenceObject(object_);
}

void Process::Exit() {
    if (object_->exiting.exchange(true, std::memory_order_seq_cst)) {
        return;
    }
    Drain(object_);
    {
        const AttachProcess attach(object_);
        CloseAllHandles(object_);
        UnmapViewsOfProcess(object_);
    }
    ReaperDrain();
    SignalHeader(&object_->header);
}

const char* Process::Name() const {
    return object_->name;
}

PEPROCESS Process::Object() const {
    return object_;
}

NTSTATUS Process::Open(const OpenParameters& parameters, Handle* handle, IO_STATUS_BLOCK* status) {
    const SystemCall call(object_);
    IO_STATUS_BLOCK ownStatus{};
    IO_STATUS_BLOCK& result = status != nullptr ? *status : ownStatus;
    result = {};
    *handle = 0;
    if (!call.Entered()) {
        return result.Status = STATUS_PROCESS_IS_TERMINATING;
    }
    if (object_->mode != KernelMode && !NT_SUCCESS(result.Status = CheckOpen(parameters))) {
        return result.Status;
    }
    OpenRequest request;
    PVOID related = nullptr;
    if (parameters.rootDirectory != 0) {
        result.Status = ReferenceHandle(object_, HandleFromValue(parameters.rootDirectory), 0, &g_fileType,
                                        object_->mode, &related, nullptr);
        if (!NT_SUCCESS(result.Status)) {
            return result.Status;
        }
    }
    request.name = parameters.name;
    request.related = static_cast<PFILE_OBJECT>(related);
    request.access = MapFileAccess(parameters.desiredAccess);
    request.fileAttributes = parameters.fileAttributes;
    request.share = parameters.shareAccess;
    request.disposition = parameters.disposition;
    request.options = parameters.options;
    request.ignoreCase = (parameters.attributes & OBJ_CASE_INSENSITIVE) != 0;
    request.mode = object_->mode;
    request.eaBuffer = parameters.eaBuffer;
    request.eaLength = parameters.eaLength;
    request.process = object_;
    PFILE_OBJECT file = nullptr;
    result.Status = OpenFile(request, &file, &result.Information);
    if (related != nullptr) {
        ObfDereferenceObject(related);
    }
    if (!NT_SUCCESS(result.Status)) {
        return result.Status;
    }
    HANDLE created = nullptr;
    const NTSTATUS handled = ObCreateHandle(file, request.access, 0, &created);
    if (NT_SUCCESS(handled)) {
        file->Flags |= FO_HANDLE_CREATED;
        *handle = HandleValue(created);
    } else {
        CleanupFileObject(file);
        result.Status = handled;
    }
    ObfDereferenceObject(file);
    return result.Status;
}

NTSTATUS Process::Close(Handle handle) {
    const SystemCall call(object_);
    return call.Entered() ? CloseHandle(object_, HandleFromValue(handle), object_->mode)
                          : STATUS_PROCESS_IS_TERMINATING;
}

NTSTATUS Process::Duplicate(Handle handle, Process& target, Handle* copy, ACCESS_MASK access) {
    const SystemCall call(object_);
    const SystemCall targetCall(target.object_);
    *copy = 0;
    if (!call.Entered() || !targetCall.Entered()) {
        return STATUS_PROCESS_IS_TERMINATING;
    }
    HANDLE created = nullptr;
    const NTSTATUS status = DuplicateHandle(object_, HandleFromValue(handle), target.object_, access, &created);
    *copy = HandleValue(created);
    return status;
}

NTSTATUS Process::CancelRequest(const IO_STATUS_BLOCK* status) {
    const SystemCall call(object_);
    return CancelRequests(object_, MatchesStatus, status) ? STATUS_SUCCESS : STATUS_NOT_FOUND;
}

NTSTATUS Process::CancelHandle(Handle handle) {
    const SystemCall call(object_);
    PVOID file = nullptr;
    const NTSTATUS status =
        ReferenceHandle(object_, HandleFromValue(handle), 0, &g_fileType, object_->mode, &file, nullptr);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const bool any = CancelRequests(object_, MatchesFile, file);
    ObfDereferenceObject(file);
    return any ? STATUS_SUCCESS : STATUS_NOT_FOUND;
}

NTSTATUS Process::WaitForFile(Handle handle, PLARGE_INTEGER timeout) {
    const SystemCall call(object_);
    PVOID file = nullptr;
    NTSTATUS status = call.Entered() ? ReferenceHandle(object_, HandleFromValue(handle), 0, &g_fileType, object_->mode,
                                                       &file, nullptr)
                                     : STATUS_PROCESS_IS_TERMINATING;
    if (NT_SUCCESS(status)) {
        status = KeWaitForSingleObject(&static_cast<PFILE_OBJECT>(file)->Event, UserRequest, UserMode, FALSE, timeout);
        ObfDereferenceObject(file);
    }
    return status;
}

size_t Process::HandleCount() const {
    return CountHandles(object_);
}

size_t Process::OutstandingRequests() const {
    WordGuard guard(object_->requestLock);
    return object_->requestCount;
}

ACCESS_MASK MapFileAccess(ACCESS_MASK access) {
    ACCESS_MASK mapped = access & 0x0FFFFFFF & ~MAXIMUM_ALLOWED;
    mapped |= (access & GENERIC_READ) != 0 ? FILE_GENERIC_READ : 0;
    mapped |= (access & GENERIC_WRITE) != 0 ? FILE_GENERIC_WRITE : 0;
    mapped |= (access & GENERIC_EXECUTE) != 0 ? FILE_GENERIC_EXECUTE : 0;
    mapped |= (access & (GENERIC_ALL | MAXIMUM_ALLOWED)) != 0 ? FILE_ALL_ACCESS : 0;
    return mapped;
}

}  // namespace nt
