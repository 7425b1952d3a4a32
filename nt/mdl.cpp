#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "nt/irp.h"

// Descriptor lists: allocation, locking, mapping. Pages are not really pinned, and system space is the one address
// space there is, so a mapping is the address itself; the flags and the order of the calls are kept as on the real
// kernel.

namespace nt {

namespace {

constexpr unsigned kThreadKeeps = 8;
constexpr uint64_t kMagic = 0x7473694C4C444D4E;

struct alignas(16) MdlPrefix {
    MdlRecord* record;
    uint64_t magic;
};

WordLock g_recordsLock;  // guards the shared free list and the list of all
MdlRecord* g_freeRecords = nullptr;
MdlRecord* g_allRecords = nullptr;
std::atomic<uint64_t> g_live{0};

// As for requests: under the sanitizers what is freed may not be looked at.
struct LiveTable {
    WordLock lock;
    std::unordered_map<PMDL, MdlRecord*> records;
};
LiveTable& Live() {
    static auto& table = *new LiveTable;
    return table;
}

MdlRecord* TakeRecord() {
    PETHREAD const self = Self();
    if (MdlRecord* const record = self->freeMdls; record != nullptr) {
        self->freeMdls = record->nextFree;
        self->freeMdlCount--;
        return record;
    }
    WordGuard guard(g_recordsLock);
    if (MdlRecord* const record = g_freeRecords; record != nullptr) {
        g_freeRecords = record->nextFree;
        return record;
    }
    auto* const record = new MdlRecord{};
    record->nextAll = g_allRecords;
    g_allRecords = record;
    return record;
}

void KeepRecord(MdlRecord* record) {
    PETHREAD const self = Self();
    if (self->freeMdlCount < kThreadKeeps) {
        record->nextFree = self->freeMdls;
        self->freeMdls = record;
        self->freeMdlCount++;
        return;
    }
    WordGuard guard(g_recordsLock);
    record->nextFree = g_freeRecords;
    g_freeRecords = record;
}

MdlRecord* RecordOfMdl(PMDL mdl) {
    if (kSanitized) {
        WordGuard guard(Live().lock);
        const auto found = Live().records.find(mdl);
        return found != Live().records.end() ? found->second : nullptr;
    }
    const auto* const prefix =
        reinterpret_cast<const MdlPrefix*>(reinterpret_cast<const char*>(mdl) - sizeof(MdlPrefix));
    return prefix->magic == kMagic && prefix->record->mdl == mdl && prefix->record->live.load() ? prefix->record
                                                                                                : nullptr;
}

// The record of a live list; null, after a violation that names the operation, otherwise.
MdlRecord* CheckMdl(PMDL mdl, const char* operation) {
    MdlRecord* const record = mdl != nullptr ? RecordOfMdl(mdl) : nullptr;
    if (record == nullptr) {
        Violation("%s descriptor list %p, which is not allocated", operation, static_cast<void*>(mdl));
    }
    return record;
}

bool AttachMemory(MdlRecord* record) {
    void* const memory = std::malloc(sizeof(MdlPrefix) + sizeof(MDL));
    if (memory == nullptr) {
        return false;
    }
    new (memory) MdlPrefix{record, kMagic};
    record->mdl = reinterpret_cast<PMDL>(static_cast<char*>(memory) + sizeof(MdlPrefix));
    return true;
}

void ReleaseMdl(MdlRecord* record) {
    if (kSanitized) {
        WordGuard guard(Live().lock);
        Live().records.erase(record->mdl);
    }
    record->live.store(false, std::memory_order_release);
    g_live.fetch_sub(1, std::memory_order_relaxed);
    if (!RecyclingAllowed()) {
        std::free(reinterpret_cast<char*>(record->mdl) - sizeof(MdlPrefix));
        record->mdl = nullptr;
    }
    KeepRecord(record);
}

// Locks without a look at the caller's mode.
void MarkLocked(PMDL mdl, LOCK_OPERATION operation) {
    mdl->MdlFlags = static_cast<CSHORT>(mdl->MdlFlags | MDL_PAGES_LOCKED);
    if (operation != IoReadAccess) {
        mdl->MdlFlags = static_cast<CSHORT>(mdl->MdlFlags | MDL_WRITE_OPERATION);
    }
    mdl->Process = CurrentProcess();
}

PVOID Map(PMDL mdl) {
    if ((mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) != 0) {
        Violation("descriptor list %p mapped a second time", static_cast<void*>(mdl));
        return mdl->MappedSystemVa;
    }
    if ((mdl->MdlFlags & MDL_PAGES_LOCKED) == 0) {
        Violation("descriptor list %p mapped while its pages are not locked", static_cast<void*>(mdl));
        return nullptr;
    }
    if (FaultPoint(FaultKind::kMapping)) {
        return nullptr;
    }
    mdl->MappedSystemVa = MmGetMdlVirtualAddress(mdl);
    mdl->MdlFlags = static_cast<CSHORT>(mdl->MdlFlags | MDL_MAPPED_TO_SYSTEM_VA);
    return mdl->MappedSystemVa;
}

bool IsLeft(const MdlRecord* record) {
    return record->live.load(std::memory_order_acquire) && !record->lost;
}

}  // namespace

PMDL NewMdl(PVOID address, ULONG length) {
    MdlRecord* const record = TakeRecord();
    if (record->mdl == nullptr && !AttachMemory(record)) {
        KeepRecord(record);
        return nullptr;
    }
    PMDL const mdl = record->mdl;
    const auto value = reinterpret_cast<uintptr_t>(address);
    *mdl = {};
    mdl->Size = sizeof(MDL);
    mdl->MdlFlags = MDL_ALLOCATED_FIXED_SIZE;
    mdl->StartVa = reinterpret_cast<PVOID>(value & ~static_cast<uintptr_t>(PAGE_SIZE - 1));
    mdl->ByteOffset = static_cast<ULONG>(value & (PAGE_SIZE - 1));
    mdl->ByteCount = length;
    record->owner = CurrentDriver();
    record->lost = false;
    record->live.store(true, std::memory_order_release);
    g_live.fetch_add(1, std::memory_order_relaxed);
    if (kSanitized) {
        WordGuard guard(Live().lock);
        Live().records[mdl] = record;
    }
    return mdl;
}

void FreeAttachedMdls(PIRP irp) {
    for (PMDL mdl = irp->MdlAddress; mdl != nullptr;) {
        PMDL const next = mdl->Next;
        if ((mdl->MdlFlags & MDL_PAGES_LOCKED) != 0) {
            MmUnlockPages(mdl);
        }
        IoFreeMdl(mdl);
        mdl = next;
    }
    irp->MdlAddress = nullptr;
}

void GiveBackMdlRecords(PETHREAD self) {
    while (self->freeMdls != nullptr) {
        MdlRecord* const record = self->freeMdls;
        self->freeMdls = record->nextFree;
        WordGuard guard(g_recordsLock);
        record->nextFree = g_freeRecords;
        g_freeRecords = record;
    }
    self->freeMdlCount = 0;
}

void AddMdlLeaks(PDRIVER_OBJECT driver, LeakList& leaks) {
    uint64_t count = 0;
    uint64_t locked = 0;
    {
        WordGuard guard(g_recordsLock);
        for (const MdlRecord* record = g_allRecords; record != nullptr; record = record->nextAll) {
            if (IsLeft(record) && (driver == nullptr || record->owner == driver)) {
                count++;
                locked += (record->mdl->MdlFlags & MDL_PAGES_LOCKED) != 0;
            }
        }
    }
    if (count != 0) {
        leaks.push_back({"descriptor list", std::to_string(locked) + " of them locked", count, 0});
    }
}

void MdlShutdown(bool reclaim) {
    std::vector<MdlRecord*> left;
    {
        WordGuard guard(g_recordsLock);
        for (MdlRecord* record = g_allRecords; record != nullptr; record = record->nextAll) {
            if (IsLeft(record)) {
                record->lost = true;
                left.push_back(record);
            }
        }
    }
    if (reclaim) {
        std::for_each(left.begin(), left.end(), ReleaseMdl);
    }
}

void ForgetMdlOwner(PDRIVER_OBJECT driver) {
    WordGuard guard(g_recordsLock);
    for (MdlRecord* record = g_allRecords; record != nullptr; record = record->nextAll) {
        if (record->owner == driver) {
            record->owner = nullptr;
        }
    }
}

uint64_t LiveMdls() {
    return g_live.load(std::memory_order_relaxed);
}

}  // namespace nt

using nt::CheckMdl;
using nt::Violation;

NTKERNELAPI PMDL NTAPI IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN, PIRP Irp) {
    if (nt::FaultPoint(nt::FaultKind::kMdl)) {
        return nullptr;
    }
    PMDL const mdl = nt::NewMdl(VirtualAddress, Length);
    if (mdl == nullptr || Irp == nullptr) {
        return mdl;
    }
    if (SecondaryBuffer == FALSE) {
        Irp->MdlAddress = mdl;
        return mdl;
    }
    PMDL* last = &Irp->MdlAddress;
    while (*last != nullptr) {
        last = &(*last)->Next;
    }
    *last = mdl;
    return mdl;
}

NTKERNELAPI VOID NTAPI IoFreeMdl(PMDL Mdl) {
    nt::MdlRecord* const record = CheckMdl(Mdl, "free of");
    if (record == nullptr) {
        return;
    }
    if ((Mdl->MdlFlags & MDL_PAGES_LOCKED) != 0) {
        Violation("free of descriptor list %p, whose pages are locked", static_cast<void*>(Mdl));
        return;
    }
    nt::ReleaseMdl(record);
}

NTSTATUS NtMmTryProbeAndLockPages(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode, LOCK_OPERATION Operation) {
    PMDL const mdl = MemoryDescriptorList;
    if (CheckMdl(mdl, "lock of") == nullptr) {
        return STATUS_ACCESS_VIOLATION;
    }
    if ((mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL)) != 0) {
        Violation("descriptor list %p locked a second time", static_cast<void*>(mdl));
        return STATUS_ACCESS_VIOLATION;
    }
    if (AccessMode != KernelMode &&
        !nt::ProbeRange(MmGetMdlVirtualAddress(mdl), mdl->ByteCount, Operation != IoReadAccess)) {
        return STATUS_ACCESS_VIOLATION;
    }
    nt::MarkLocked(mdl, Operation);
    return STATUS_SUCCESS;
}

NTKERNELAPI VOID NTAPI MmProbeAndLockPages(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                                           LOCK_OPERATION Operation) {
    if (!NT_SUCCESS(NtMmTryProbeAndLockPages(MemoryDescriptorList, AccessMode, Operation))) {
        Violation("the probe of %u bytes at %p raised an exception that nobody catches",
                  MemoryDescriptorList->ByteCount, MmGetMdlVirtualAddress(MemoryDescriptorList));
    }
}

NTKERNELAPI VOID NTAPI MmUnlockPages(PMDL MemoryDescriptorList) {
    PMDL const mdl = MemoryDescriptorList;
    if (CheckMdl(mdl, "unlock of") == nullptr) {
        return;
    }
    if ((mdl->MdlFlags & MDL_PAGES_LOCKED) == 0) {
        Violation("unlock of descriptor list %p, whose pages are not locked", static_cast<void*>(mdl));
        return;
    }
    // Unlocking takes the mapping down.
    mdl->MdlFlags =
        static_cast<CSHORT>(mdl->MdlFlags & ~(MDL_PAGES_LOCKED | MDL_MAPPED_TO_SYSTEM_VA | MDL_WRITE_OPERATION));
    mdl->MappedSystemVa = nullptr;
    mdl->Process = nullptr;
}

NTKERNELAPI PVOID NTAPI MmMapLockedPages(PMDL MemoryDescriptorList, KPROCESSOR_MODE) {
    if (CheckMdl(MemoryDescriptorList, "mapping of") == nullptr) {
        return nullptr;
    }
    if ((MemoryDescriptorList->MdlFlags & MDL_MAPPING_CAN_FAIL) == 0) {
        Violation("descriptor list %p mapped in a way that may not fail: without MDL_MAPPING_CAN_FAIL",
                  static_cast<void*>(MemoryDescriptorList));
    }
    return nt::Map(MemoryDescriptorList);
}

NTKERNELAPI PVOID NTAPI MmMapLockedPagesSpecifyCache(PMDLX MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                                                     MEMORY_CACHING_TYPE, PVOID, ULONG BugCheckOnFailure,
                                                     MM_PAGE_PRIORITY) {
    if (CheckMdl(MemoryDescriptorList, "mapping of") == nullptr) {
        return nullptr;
    }
    if (BugCheckOnFailure != FALSE && AccessMode == KernelMode) {
        Violation("descriptor list %p mapped in a way that may not fail: with BugCheckOnFailure",
                  static_cast<void*>(MemoryDescriptorList));
    }
    return nt::Map(MemoryDescriptorList);
}

NTKERNELAPI VOID NTAPI MmUnmapLockedPages(PVOID BaseAddress, PMDL MemoryDescriptorList) {
    PMDL const mdl = MemoryDescriptorList;
    if (CheckMdl(mdl, "unmapping of") == nullptr) {
        return;
    }
    if ((mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) == 0 || mdl->MappedSystemVa != BaseAddress) {
        Violation("descriptor list %p unmapped from %p, where it is not mapped", static_cast<void*>(mdl), BaseAddress);
        return;
    }
    mdl->MdlFlags = static_cast<CSHORT>(mdl->MdlFlags & ~MDL_MAPPED_TO_SYSTEM_VA);
    mdl->MappedSystemVa = nullptr;
}
