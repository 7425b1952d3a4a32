#include "nt/irp.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <vector>

// Requests: where their memory comes from.

namespace nt {

namespace {

constexpr ULONG kSystemBufferTag = 0x20206F49;  // "Io  "
constexpr unsigned kThreadKeeps = 8;
constexpr ULONG kSystemBufferLimit = 256 << 20;
constexpr unsigned char kBeyondInput = kFillMemory ? 0xCD : 0x00;

// Stands before the request in its memory.
struct alignas(16) IrpPrefix {
    IrpRecord* record;
    uint64_t magic;
};
constexpr uint64_t kMagic = 0x7473657571655249;

WordLock g_recordsLock;  // guards the shared free list and the list of all
IrpRecord* g_freeRecords = nullptr;
IrpRecord* g_allRecords = nullptr;
std::atomic<uint64_t> g_live{0};

// Under the sanitizers a freed request's memory may not be looked at; its address is looked up instead.
struct LiveTable {
    WordLock lock;
    std::unordered_map<PIRP, IrpRecord*> records;
};
LiveTable& Live() {
    static auto& table = *new LiveTable;
    return table;
}

size_t BytesFor(CCHAR stacks) {
    return sizeof(IrpPrefix) + sizeof(IRP) + static_cast<size_t>(stacks) * sizeof(IO_STACK_LOCATION) + kInlineBytes;
}

void* InlineBuffer(const IrpRecord* record) {
    return reinterpret_cast<char*>(record->irp) + IoSizeOfIrp(record->stacks);
}

bool AttachMemory(IrpRecord* record, CCHAR stacks) {
    void* const memory = std::malloc(BytesFor(stacks));
    if (memory == nullptr) {
        return false;
    }
    new (memory) IrpPrefix{record, kMagic};
    record->irp = reinterpret_cast<PIRP>(static_cast<char*>(memory) + sizeof(IrpPrefix));
    record->stacks = stacks;
    return true;
}

void DetachMemory(IrpRecord* record) {
    std::free(reinterpret_cast<char*>(record->irp) - sizeof(IrpPrefix));
    record->irp = nullptr;
    record->stacks = 0;
}

IrpRecord* TakeRecord() {
    PETHREAD const self = Self();
    if (IrpRecord* const record = self->freeIrps; record != nullptr) {
        self->freeIrps = record->nextFree;
        self->freeIrpCount--;
        return record;
    }
    WordGuard guard(g_recordsLock);
    if (IrpRecord* const record = g_freeRecords; record != nullptr) {
        g_freeRecords = record->nextFree;
        return record;
    }
    auto* const record = new IrpRecord{};
    record->nextAll = g_allRecords;
    g_allRecords = record;
    return record;
}

void KeepRecord(IrpRecord* record) {
    PETHREAD const self = Self();
    if (self->freeIrpCount < kThreadKeeps) {
        record->nextFree = self->freeIrps;
        self->freeIrps = record;
        self->freeIrpCount++;
        return;
    }
    WordGuard guard(g_recordsLock);
    record->nextFree = g_freeRecords;
    g_freeRecords = record;
}

void Release(IrpRecord* record) {
    const bool recycle = RecyclingAllowed() && record->stacks <= kRecycledStacks;
    if (kSanitized) {
        WordGuard guard(Live().lock);
        Live().records.erase(record->irp);
    }
    record->irp->Type = 0;
    record->phase.store(IrpPhase::kFree, std::memory_order_release);
    if (!recycle) {
        DetachMemory(record);
    }
    g_live.fetch_sub(1, std::memory_order_relaxed);
    KeepRecord(record);
}

void Prepare(PIRP irp, CCHAR stacks) {
    std::memset(static_cast<void*>(irp), 0, IoSizeOfIrp(stacks));
    irp->Type = IO_TYPE_IRP;
    irp->Size = IoSizeOfIrp(stacks);
    irp->StackCount = stacks;
    irp->CurrentLocation = static_cast<CHAR>(stacks + 1);
    irp->Tail.Overlay.CurrentStackLocation = reinterpret_cast<PIO_STACK_LOCATION>(irp + 1) + stacks;
    InitializeListHead(&irp->ThreadListEntry);
}

bool IsLeft(const IrpRecord* record) {
    return record->phase.load(std::memory_order_acquire) != IrpPhase::kFree && !record->lost;
}

}  // namespace

IrpRecord* NewIrp(CCHAR stacks, IrpKind kind) {
    IrpRecord* const record = TakeRecord();
    if (record->irp != nullptr && record->stacks < stacks) {
        DetachMemory(record);
    }
    if (record->irp == nullptr &&
        !AttachMemory(record, kSanitized || stacks > kRecycledStacks ? stacks : kRecycledStacks)) {
        KeepRecord(record);
        return nullptr;
    }
    Prepare(record->irp, stacks);
    record->serial.fetch_add(1, std::memory_order_relaxed);
    record->references.store(1, std::memory_order_relaxed);
    record->kind = kind;
    record->owner = CurrentDriver();
    record->lost = false;
    record->process = nullptr;
    record->file = nullptr;
    record->overlapped = false;
    record->doneWord = 0;
    record->completion = {};
    record->userStatus = nullptr;
    record->outputLength = 0;
    record->phase.store(IrpPhase::kIdle, std::memory_order_release);
    g_live.fetch_add(1, std::memory_order_relaxed);
    if (kSanitized) {
        WordGuard guard(Live().lock);
        Live().records[record->irp] = record;
    }
    return record;
}

void DropIrp(IrpRecord* record) {
    if (record->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        Release(record);
    }
}

void FreeIrp(IrpRecord* record) {
    FreeSystemBuffer(record);
    if (record->irp->Tail.Overlay.AuxiliaryBuffer != nullptr) {
        KernelFree(record->irp->Tail.Overlay.AuxiliaryBuffer);
        record->irp->Tail.Overlay.AuxiliaryBuffer = nullptr;
    }
    DropIrp(record);
}

IrpRecord* RecordOf(PIRP irp) {
    if (kSanitized) {
        WordGuard guard(Live().lock);
        const auto found = Live().records.find(irp);
        return found != Live().records.end() ? found->second : nullptr;
    }
    const auto* const prefix =
        reinterpret_cast<const IrpPrefix*>(reinterpret_cast<const char*>(irp) - sizeof(IrpPrefix));
    return prefix->magic == kMagic && prefix->record->irp == irp ? prefix->record : nullptr;
}

IrpRecord* CheckIrp(PIRP irp, const char* operation) {
    IrpRecord* const record = RecordOf(irp);
    const IrpPhase phase = record != nullptr ? record->phase.load(std::memory_order_acquire) : IrpPhase::kFree;
    if (phase == IrpPhase::kIdle || phase == IrpPhase::kSent) {
        return record;
    }
    Violation("%s request %p, which %s", operation, static_cast<void*>(irp),
              record == nullptr || phase == IrpPhase::kFree ? "does not exist or has been completed and freed"
                                                            : "has been completed already");
    return nullptr;
}

std::string DescribeIrp(const IrpRecord* record) {
    const PIRP irp = record->irp;
    char text[128];
    const bool sent = irp->CurrentLocation >= 1 && irp->CurrentLocation <= irp->StackCount;
    const PIO_STACK_LOCATION stack = sent ? IoGetCurrentIrpStackLocation(irp) : nullptr;
    std::snprintf(text, sizeof(text), "%p major 0x%02x minor 0x%02x%s", static_cast<void*>(irp),
                  sent ? stack->MajorFunction : 0xFF, sent ? stack->MinorFunction : 0xFF,
                  sent ? "" : " (with no driver)");
    return text;
}

PVOID AllocateSystemBuffer(IrpRecord* record, ULONG bytes) {
    PVOID buffer = nullptr;
    if (bytes <= kInlineBytes) {
        buffer = InlineBuffer(record);
    } else {
        buffer = bytes <= kSystemBufferLimit ? KernelAllocate(bytes, kSystemBufferTag) : nullptr;
        record->irp->Flags |= buffer != nullptr ? IRP_DEALLOCATE_BUFFER : 0;
    }
    record->irp->AssociatedIrp.SystemBuffer = buffer;
    return buffer;
}

void FreeSystemBuffer(IrpRecord* record) {
    PIRP const irp = record->irp;
    if ((irp->Flags & IRP_DEALLOCATE_BUFFER) != 0) {
        KernelFree(irp->AssociatedIrp.SystemBuffer);
        irp->Flags &= ~IRP_DEALLOCATE_BUFFER;
    }
    irp->AssociatedIrp.SystemBuffer = nullptr;
}

void FillBeyondInput(PVOID buffer, ULONG inputLength, ULONG length) {
    if (length > inputLength) {
        std::memset(static_cast<char*>(buffer) + inputLength, kBeyondInput, length - inputLength);
    }
}

PIO_STACK_LOCATION NextStack(IrpRecord* record, UCHAR major, UCHAR minor, PFILE_OBJECT file) {
    PIO_STACK_LOCATION const stack = IoGetNextIrpStackLocation(record->irp);
    stack->MajorFunction = major;
    stack->MinorFunction = minor;
    stack->FileObject = file;
    return stack;
}

void GiveBackRecords(PETHREAD self) {
    while (self->freeIrps != nullptr) {
        IrpRecord* const record = self->freeIrps;
        self->freeIrps = record->nextFree;
        WordGuard guard(g_recordsLock);
        record->nextFree = g_freeRecords;
        g_freeRecords = record;
    }
    self->freeIrpCount = 0;
    GiveBackMdlRecords(self);
}

void AddIrpLeaks(PDRIVER_OBJECT driver, LeakList& leaks) {
    WordGuard guard(g_recordsLock);
    for (const IrpRecord* record = g_allRecords; record != nullptr; record = record->nextAll) {
        if (IsLeft(record) && (driver == nullptr || record->owner == driver)) {
            leaks.push_back({"request", DescribeIrp(record), 1, 0});
        }
    }
}

void IrpShutdown(bool reclaim) {
    std::vector<IrpRecord*> left;
    {
        WordGuard guard(g_recordsLock);
        for (IrpRecord* record = g_allRecords; record != nullptr; record = record->nextAll) {
            if (IsLeft(record)) {
                record->lost = true;
                left.push_back(record);
            }
        }
    }
    if (reclaim) {
        std::for_each(left.begin(), left.end(), Release);
    }
}

void ForgetIrpOwner(PDRIVER_OBJECT driver) {
    WordGuard guard(g_recordsLock);
    for (IrpRecord* record = g_allRecords; record != nullptr; record = record->nextAll) {
        if (record->owner == driver) {
            record->owner = nullptr;
        }
    }
}

uint64_t LiveIrps() {
    return g_live.load(std::memory_order_relaxed);
}

}  // namespace nt

using nt::IrpKind;
using nt::IrpPhase;
using nt::IrpRecord;

NTKERNELAPI PIRP NTAPI IoAllocateIrp(CCHAR StackSize, BOOLEAN) {
    if (StackSize < 1 || nt::FaultPoint(nt::FaultKind::kIrp)) {
        return nullptr;
    }
    IrpRecord* const record = nt::NewIrp(StackSize, IrpKind::kDriver);
    return record != nullptr ? record->irp : nullptr;
}

NTKERNELAPI VOID NTAPI IoReuseIrp(PIRP Irp, NTSTATUS Status) {
    const IrpRecord* const record = nt::CheckIrp(Irp, "reuse of");
    if (record == nullptr) {
        return;
    }
    if (record->kind != IrpKind::kDriver || record->phase.load() != IrpPhase::kIdle) {
        nt::Violation("reuse of request %s", nt::DescribeIrp(record).c_str());
        return;
    }
    nt::Prepare(Irp, Irp->StackCount);
    Irp->IoStatus.Status = Status;
}

NTKERNELAPI VOID NTAPI IoFreeIrp(PIRP Irp) {
    IrpRecord* const record = nt::CheckIrp(Irp, "free of");
    if (record == nullptr) {
        return;
    }
    if (record->phase.load() == IrpPhase::kSent) {
        nt::Violation("free of request %s, which a driver still has", nt::DescribeIrp(record).c_str());
        return;
    }
    nt::FreeIrp(record);
}
