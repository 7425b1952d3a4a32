#pragma once

#include "nt/internal.h"
#include "nt/system.h"

// Requests and descriptor lists as the I/O manager keeps them.
//
// Each has a record beside it that is never given back to the system, only reused: whoever has a record's address may
// look at it at any time and learn from phase and serial number whether it still means the request it meant. So a
// request that has been completed and freed on another thread can be told from one that was forgotten. The request
// itself goes and comes with the record while recycling is on; under the sanitizers and ordered failures each one is
// allocated anew.

namespace nt {

enum class IrpKind : uint8_t {
    kDriver,         // IoAllocateIrp: the driver frees it
    kDeviceControl,  // IoBuildDeviceIoControlRequest: freed at completion
    kSystem,         // the I/O manager's own and a process's calls; freed by the issuer, or at completion (overlapped)
};

enum class IrpPhase : uint32_t { kFree, kIdle, kSent, kCompleting, kDone };

inline constexpr CCHAR kRecycledStacks = 4;
inline constexpr ULONG kInlineBytes = kSanitized ? 0 : 256;

struct IrpRecord {
    PIRP irp;
    IrpRecord* nextFree;
    IrpRecord* nextAll;
    std::atomic<uint64_t> serial;  // counts the requests that this record has stood for
    std::atomic<IrpPhase> phase;
    std::atomic<uint32_t> references;  // one of the owner's, one per canceller at work
    IrpKind kind;
    PDRIVER_OBJECT owner;
    CCHAR stacks;  // that the memory at irp has room for
    bool lost;     // left at a shutdown beside somebody who may still use it: no longer listed

    // kSystem.
    PEPROCESS process;
    PFILE_OBJECT file;  // referenced; null for requests that hold none
    bool overlapped;    // whoever completes it finishes it; otherwise the issuer does
    uint32_t doneWord;
    Overlapped completion;
    PIO_STATUS_BLOCK userStatus;
    ULONG outputLength;  // room at UserBuffer for what is copied back
};

// Null when memory is short. Zeroed and initialised for `stacks` drivers.
IrpRecord* NewIrp(CCHAR stacks, IrpKind kind);
void FreeIrp(IrpRecord* record);  // drops the owner's reference
void DropIrp(IrpRecord* record);  // drops a canceller's
IrpRecord* RecordOf(PIRP irp);
// The record of a request that is live; null, after a violation that names the operation, otherwise.
IrpRecord* CheckIrp(PIRP irp, const char* operation);
std::string DescribeIrp(const IrpRecord* record);

// A system buffer of the request: in the request itself if it is small. Null when memory is short, or when more is
// asked for than a 32-bit kernel's pool ever had; freed with the request.
PVOID AllocateSystemBuffer(IrpRecord* record, ULONG bytes);
void FreeSystemBuffer(IrpRecord* record);

// Fills what lies beyond a buffered request's input: with 0xCD in debug builds, else zeros.
void FillBeyondInput(PVOID buffer, ULONG inputLength, ULONG length);

PIO_STACK_LOCATION NextStack(IrpRecord* record, UCHAR major, UCHAR minor, PFILE_OBJECT file);

// The buffers of a control request, attached as its code's transfer method says. STATUS_ACCESS_VIOLATION,
// STATUS_INSUFFICIENT_RESOURCES; what was attached goes with the request.
struct ControlBuffers {
    const void* input;
    ULONG inputLength;
    PVOID output;
    ULONG outputLength;
};
NTSTATUS AttachControlBuffers(IrpRecord* record, PIO_STACK_LOCATION stack, ULONG code, const ControlBuffers& buffers,
                              KPROCESSOR_MODE mode);

// Sends a request of kSystem and waits for its end. The record is the caller's to free; IoStatus is final.
NTSTATUS IssueAndWait(IrpRecord* record, PDEVICE_OBJECT device);
// Copies a buffered reply back to the requester; replaces the status when the address is bad.
void CopyReply(IrpRecord* record);
// The descriptor lists still attached to a request, and their pages.
void FreeAttachedMdls(PIRP irp);

struct MdlRecord {
    PMDL mdl;
    MdlRecord* nextFree;
    MdlRecord* nextAll;
    std::atomic<bool> live;
    PDRIVER_OBJECT owner;
    bool lost;  // as a request's
};
// Without the fault point.
PMDL NewMdl(PVOID address, ULONG length);

// A thread ends: the records it kept for reuse go back to everybody.
void GiveBackRecords(PETHREAD self);
void GiveBackMdlRecords(PETHREAD self);

void ForgetIrpOwner(PDRIVER_OBJECT driver);
void ForgetMdlOwner(PDRIVER_OBJECT driver);
uint64_t IrpsSent();
void ResetIrpsSent();
uint64_t LiveIrps();
uint64_t LiveMdls();

}  // namespace nt
