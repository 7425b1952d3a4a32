#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "nt/io.h"

// What a user process asks of the kernel: the calls behind an application's file functions. host/ builds on this and
// nothing above it sees it.
//
// Calls may be made from any thread; for the length of a call the thread belongs to the process. Buffers of a user
// process are checked before they are touched: a bad address gives a status (STATUS_ACCESS_VIOLATION here, or what the
// driver says of buffers it probes itself), never a fault. A kernel-mode process is trusted: its buffers, lengths and
// information classes reach the driver as they are.

namespace nt {

// A handle: a multiple of 4, never 0, good in its process only.
using Handle = uint32_t;

// How an overlapped request says that it is over. Until then status block, buffers and this record's targets must
// live. `routine` runs on the thread that completes the request, in no process and with driver locks possibly held:
// it may signal or queue, it must not call into the kernel.
struct Overlapped {
    void (*routine)(void* context, const IO_STATUS_BLOCK& status) = nullptr;
    void* context = nullptr;
    PKEVENT event = nullptr;  // reset when the request starts, set when it is over
    bool optional = false;    // a synchronous handle, which takes none, ignores the record
};

// Requests on a handle opened with FILE_SYNCHRONOUS_IO_NONALERT wait for their end, one at a time per file object, and
// take no Overlapped record (unless it is optional). On other handles (overlapped ones) a request that needs an
// Overlapped record may return STATUS_PENDING: then the routine is called, and the event set, exactly once, possibly
// before the call has returned. (A last handle's close waits for the requests in progress on a synchronous file object,
// a watch included.) Any other status is final: the status block is filled and the routine is not called (the event is
// set). Without an Overlapped record (never without a status block) the end of a pending request on an overlapped
// handle can be awaited with WaitForFile.
//
// Byte offsets: null means the file object's current byte offset (synchronous handles only).

struct OpenParameters {
    std::u16string_view name;  // "\DosDevices\P:\RZV\VOL1", "\Device\Vrk0"; relative to rootDirectory if that is given
    Handle rootDirectory = 0;  // an open folder, or 0
    ACCESS_MASK desiredAccess = FILE_GENERIC_READ;
    ULONG fileAttributes = FILE_ATTRIBUTE_NORMAL;
    ULONG shareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    ULONG disposition = FILE_OPEN;
    ULONG options = FILE_SYNCHRONOUS_IO_NONALERT;
    ULONG attributes = 0x40;  // OBJ_CASE_INSENSITIVE
    const void* eaBuffer = nullptr;
    ULONG eaLength = 0;
};

class Process {
  public:
    // `mode` KernelMode makes a trusted caller, for tests of the driver's own checks.
    explicit Process(const std::string& name, KPROCESSOR_MODE mode = UserMode);

    // Ends the process, in the kernel's order: its requests are cancelled and awaited; then its handles are closed
    // in ascending order, each with cleanup and, with the last reference, close.
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    // The same, earlier. Calls afterwards fail with STATUS_PROCESS_IS_TERMINATING.
    void Exit();

    const char* Name() const;
    PEPROCESS Object() const;

    // Links are resolved, then the longest device name that is a prefix of the path (at a backslash or the end) gets
    // the rest as the file name. STATUS_OBJECT_NAME_NOT_FOUND, STATUS_OBJECT_PATH_NOT_FOUND,
    // STATUS_OBJECT_PATH_SYNTAX_BAD, STATUS_INVALID_PARAMETER, or the driver's answer; `status->Information` says what
    // was done (FILE_OPENED, ...).
    NTSTATUS Open(const OpenParameters& parameters, Handle* handle, IO_STATUS_BLOCK* status = nullptr);
    NTSTATUS Close(Handle handle);
    // `access` 0 keeps the source's.
    NTSTATUS Duplicate(Handle handle, Process& target, Handle* copy, ACCESS_MASK access = 0);

    NTSTATUS Read(Handle handle, IO_STATUS_BLOCK* status, void* buffer, ULONG length,
                  const LONGLONG* byteOffset = nullptr, const Overlapped* overlapped = nullptr);
    NTSTATUS Write(Handle handle, IO_STATUS_BLOCK* status, const void* buffer, ULONG length,
                   const LONGLONG* byteOffset = nullptr, const Overlapped* overlapped = nullptr);
    NTSTATUS Flush(Handle handle, IO_STATUS_BLOCK* status);

    // These four wait, whatever the handle. Lengths below the class's record: STATUS_INFO_LENGTH_MISMATCH; a class the
    // kernel does not know: STATUS_INVALID_INFO_CLASS (user processes). Positions of synchronous handles, access, mode
    // and alignment are answered without the driver. A rename to a full path (or with a root directory) opens
    // the target's parent first: STATUS_NOT_SAME_DEVICE, or that open's failure.
    NTSTATUS QueryInformation(Handle handle, IO_STATUS_BLOCK* status, void* buffer, ULONG length,
                              FILE_INFORMATION_CLASS informationClass);
    NTSTATUS SetInformation(Handle handle, IO_STATUS_BLOCK* status, const void* buffer, ULONG length,
                            FILE_INFORMATION_CLASS informationClass);
    NTSTATUS QueryVolumeInformation(Handle handle, IO_STATUS_BLOCK* status, void* buffer, ULONG length,
                                    FS_INFORMATION_CLASS informationClass);
    NTSTATUS SetVolumeInformation(Handle handle, IO_STATUS_BLOCK* status, const void* buffer, ULONG length,
                                  FS_INFORMATION_CLASS informationClass);

    struct DirectoryQuery {
        FILE_INFORMATION_CLASS informationClass = FileBothDirectoryInformation;
        bool restart = false;
        bool singleEntry = false;
        const ULONG* fileIndex = nullptr;         // given: continue behind this index
        const std::u16string* pattern = nullptr;  // null: no name in the request
    };
    NTSTATUS QueryDirectory(Handle handle, IO_STATUS_BLOCK* status, void* buffer, ULONG length,
                            const DirectoryQuery& query, const Overlapped* overlapped = nullptr);

    // On a synchronous handle this waits for a change, a cancel or the end of the process.
    NTSTATUS NotifyChangeDirectory(Handle handle, IO_STATUS_BLOCK* status, void* buffer, ULONG length,
                                   ULONG completionFilter, bool watchTree, const Overlapped* overlapped = nullptr);

    // Buffered codes: one system buffer of the greater length; it holds the input, and beyond it zeros, or 0xCD in
    // debug builds. Direct codes: the input in a system buffer, the output buffer locked and described by the
    // request's list. Neither: both addresses as they are.
    NTSTATUS DeviceControl(Handle handle, IO_STATUS_BLOCK* status, ULONG code, const void* input, ULONG inputLength,
                           void* output, ULONG outputLength, const Overlapped* overlapped = nullptr);
    NTSTATUS FsControl(Handle handle, IO_STATUS_BLOCK* status, ULONG code, const void* input, ULONG inputLength,
                       void* output, ULONG outputLength, const Overlapped* overlapped = nullptr);

    // Cancels what is outstanding: one request, named by its status block, or all of a handle's. Asks only: each
    // request still completes in its own time, as cancelled or otherwise. STATUS_NOT_FOUND when there was none.
    NTSTATUS CancelRequest(const IO_STATUS_BLOCK* status);
    NTSTATUS CancelHandle(Handle handle);

    // Waits until a request on the handle is over (the file object's event). `timeout` as in KeWaitForSingleObject.
    NTSTATUS WaitForFile(Handle handle, PLARGE_INTEGER timeout = nullptr);

    size_t HandleCount() const;
    size_t OutstandingRequests() const;

  private:
    PEPROCESS object_;
};

}  // namespace nt
