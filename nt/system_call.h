#pragma once

#include "nt/file_object.h"
#include "nt/irp.h"
#include "nt/system.h"

// What the calls of a process have in common: entering the kernel, taking the file object of a handle, and the way of
// a request from its making to its end. Used by the system_*.cpp files.

namespace nt {

// The calling thread is inside a call of the process while one is alive.
class SystemCall {
  public:
    explicit SystemCall(PEPROCESS process);
    ~SystemCall();
    SystemCall(const SystemCall&) = delete;
    SystemCall& operator=(const SystemCall&) = delete;
    // False: the process is going away; nothing may be done.
    bool Entered() const { return entered_; }

  private:
    PEPROCESS process_;
    PEPROCESS before_;
    bool entered_;
};

// One request of a process, from its making to its end, inside a call of that process. TakeFile, Begin, fill in, then
// Send; or let it go out of scope unsent.
class SystemRequest {
  public:
    // `alwaysWaits`: the call is synchronous whatever the handle.
    SystemRequest(PEPROCESS process, PIO_STATUS_BLOCK status, const Overlapped* overlapped, bool alwaysWaits);
    ~SystemRequest();
    SystemRequest(const SystemRequest&) = delete;
    SystemRequest& operator=(const SystemRequest&) = delete;

    // Takes the file object of the handle, which must grant `access` (one of the bits of `anyOf` is enough); waits for
    // its turn on a synchronous one. STATUS_PROCESS_IS_TERMINATING, STATUS_INVALID_HANDLE,
    // STATUS_OBJECT_TYPE_MISMATCH, STATUS_ACCESS_DENIED, STATUS_INVALID_PARAMETER (an Overlapped record for a
    // synchronous handle, unless it may be ignored).
    NTSTATUS TakeFile(Handle handle, ACCESS_MASK access, ACCESS_MASK anyOf = 0);
    // Makes the request for the file's device. STATUS_INSUFFICIENT_RESOURCES.
    NTSTATUS Begin(UCHAR major, UCHAR minor = 0);
    // Sends it, and waits for its end unless it is overlapped.
    NTSTATUS Send();
    // An answer without a request.
    NTSTATUS Answer(NTSTATUS status, ULONG_PTR information = 0);

    PFILE_OBJECT File() const { return file_; }
    ACCESS_MASK Granted() const { return granted_; }
    IrpRecord* Record() const { return record_; }
    PIRP Irp() const { return record_->irp; }
    PIO_STACK_LOCATION Stack() const { return stack_; }
    KPROCESSOR_MODE Mode() const { return process_->mode; }
    bool IsUser() const { return process_->mode != KernelMode; }

  private:
    void List();
    NTSTATUS End();
    void LetGoOfFile();

    const SystemCall call_;
    PEPROCESS process_;
    PIO_STATUS_BLOCK status_;
    const Overlapped* overlapped_;
    bool alwaysWaits_;
    bool locked_ = false;
    PFILE_OBJECT file_ = nullptr;
    ACCESS_MASK granted_ = 0;
    IrpRecord* record_ = nullptr;
    PIO_STACK_LOCATION stack_ = nullptr;
    IO_STATUS_BLOCK ownStatus_{};
};

// Cancels the process's outstanding requests that `matches`; true if there was one.
using RequestFilter = bool (*)(const IrpRecord& record, const void* what);
bool CancelRequests(PEPROCESS process, RequestFilter matches, const void* what);

// The least length of a listing's buffer, 0 for a class that lists nothing.
ULONG DirectoryLength(FILE_INFORMATION_CLASS informationClass);

ACCESS_MASK MapFileAccess(ACCESS_MASK access);

}  // namespace nt
