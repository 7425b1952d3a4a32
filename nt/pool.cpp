#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "nt/pool.h"

// Pool. Every block is known by its address, so that a free of anything else is caught, and by its extent, so that a
// record embedded in paged pool is found by the record's own address.
//
// Blocks of up to a page stand in a hash table by the page they begin in; an address inside one is found in its own
// page's bucket or the one before. Longer blocks are few and stand in a sorted map.

namespace nt {

namespace {

constexpr uint32_t kBuckets = 1 << 14;
constexpr uint32_t kLocks = 256;
constexpr uintptr_t kPageShift = 12;
constexpr size_t kSmall = 4096;
constexpr uint64_t kGuard = 0x5DCC5DCC5DCC5DCC;
constexpr size_t kGuardBytes = kSanitized ? 0 : sizeof(kGuard);
constexpr unsigned char kFreshByte = 0xCD;
constexpr unsigned char kFreedByte = 0xDD;

PoolBlock* g_buckets[kBuckets];
WordLock g_bucketLocks[kLocks];
WordLock g_largeLock;
std::atomic<uint64_t> g_blocks{0};
std::atomic<uint64_t> g_bytes{0};
std::atomic<uint64_t> g_allocations{0};

std::map<uintptr_t, PoolBlock*>& Large() {
    static std::map<uintptr_t, PoolBlock*>& large = *new std::map<uintptr_t, PoolBlock*>;
    return large;
}

uint32_t BucketOfPage(uintptr_t page) {
    return static_cast<uint32_t>((page * 0x9E3779B97F4A7C15) >> 32) % kBuckets;
}

WordLock& LockOfBucket(uint32_t bucket) {
    return g_bucketLocks[bucket % kLocks];
}

uintptr_t AddressOf(const PoolBlock* block) {
    return reinterpret_cast<uintptr_t>(block + 1);
}

bool Contains(const PoolBlock* block, uintptr_t address) {
    // A block of no bytes still has an address.
    return address - AddressOf(block) < (block->size != 0 ? block->size : 1);
}

void Insert(PoolBlock* block) {
    if (block->size > kSmall) {
        WordGuard guard(g_largeLock);
        Large().emplace(AddressOf(block), block);
        return;
    }
    const uint32_t bucket = BucketOfPage(AddressOf(block) >> kPageShift);
    WordGuard guard(LockOfBucket(bucket));
    block->previous = nullptr;
    block->next = g_buckets[bucket];
    if (block->next != nullptr) {
        block->next->previous = block;
    }
    g_buckets[bucket] = block;
}

void Unlink(PoolBlock* block, uint32_t bucket) {
    (block->previous != nullptr ? block->previous->next : g_buckets[bucket]) = block->next;
    if (block->next != nullptr) {
        block->next->previous = block->previous;
    }
}

// Takes the block that begins at the address out of the tables; null if there is none.
PoolBlock* Remove(uintptr_t address) {
    const uint32_t bucket = BucketOfPage(address >> kPageShift);
    {
        WordGuard guard(LockOfBucket(bucket));
        for (PoolBlock* block = g_buckets[bucket]; block != nullptr; block = block->next) {
            if (AddressOf(block) == address) {
                Unlink(block, bucket);
                return block;
            }
        }
    }
    WordGuard guard(g_largeLock);
    const auto found = Large().find(address);
    if (found == Large().end()) {
        return nullptr;
    }
    PoolBlock* const block = found->second;
    Large().erase(found);
    return block;
}

PoolBlock* FindInPage(uintptr_t page, uintptr_t address) {
    const uint32_t bucket = BucketOfPage(page);
    WordGuard guard(LockOfBucket(bucket));
    for (PoolBlock* block = g_buckets[bucket]; block != nullptr; block = block->next) {
        if (Contains(block, address)) {
            return block;
        }
    }
    return nullptr;
}

template <class Visitor>
void ForEachBlock(Visitor visit) {
    for (uint32_t bucket = 0; bucket < kBuckets; bucket++) {
        WordGuard guard(LockOfBucket(bucket));
        for (PoolBlock* block = g_buckets[bucket]; block != nullptr;) {
            PoolBlock* const next = block->next;
            visit(block);
            block = next;
        }
    }
    WordGuard guard(g_largeLock);
    for (const auto& [address, block] : Large()) {
        visit(block);
    }
}

bool GuardIsWhole(const PoolBlock* block) {
    return kGuardBytes == 0 ||
           std::memcmp(reinterpret_cast<const char*>(block + 1) + block->size, &kGuard, kGuardBytes) == 0;
}

std::string DescribeBlock(const PoolBlock* block) {
    char size[48];
    std::snprintf(size, sizeof(size), " of %zu bytes at %p", block->size, static_cast<const void*>(block + 1));
    return QuotedTag(block->tag) + size;
}

// What was left at a shutdown beside a thread that may still touch it.
PoolBlock* g_graveyard = nullptr;

void Free(PVOID address, const ULONG* tag) {
    if (address == nullptr) {
        Violation("free of a null pointer");
        return;
    }
    PoolBlock* const block = Remove(reinterpret_cast<uintptr_t>(address));
    if (block == nullptr) {
        Violation("free of %p, which is no allocated pool block", address);
        return;
    }
    if (block->paged) {
        CheckPoolCall(PagedPool, "freeing paged pool");
    }
    if (tag != nullptr && *tag != 0 && *tag != block->tag) {
        Violation("free of pool %s with the tag '%s'", DescribeBlock(block).c_str(), TagText(*tag).c_str());
    }
    if (!GuardIsWhole(block)) {
        Violation("pool %s was written beyond its end", DescribeBlock(block).c_str());
    }
    const bool cached = block->cached.load(std::memory_order_relaxed);
    if (cached || block->pins.load(std::memory_order_relaxed) != 0) {
        Violation(
            "free of pool %s %s", DescribeBlock(block).c_str(),
            cached ? "that a lookaside list keeps" : "with a live resource, lookaside list or queued work item inside");
        Insert(block);
        return;
    }
    FreePoolBlock(block);
}

}  // namespace

PoolBlock* NewPoolBlock(SIZE_T bytes, ULONG tag, bool paged, PDRIVER_OBJECT owner) {
    if (bytes > SIZE_MAX / 2) {
        return nullptr;
    }
    void* const memory = std::malloc(sizeof(PoolBlock) + bytes + kGuardBytes);
    if (memory == nullptr) {
        return nullptr;
    }
    auto* const block = new (memory) PoolBlock{};
    block->size = bytes;
    block->tag = tag;
    block->paged = paged;
    block->owner = owner;
    block->magic = kPoolMagic;
    if (kFillMemory) {
        std::memset(static_cast<void*>(block + 1), kFreshByte, bytes);
    }
    if (kGuardBytes != 0) {
        std::memcpy(reinterpret_cast<char*>(block + 1) + bytes, &kGuard, kGuardBytes);
    }
    g_blocks.fetch_add(1, std::memory_order_relaxed);
    g_bytes.fetch_add(bytes, std::memory_order_relaxed);
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    Insert(block);
    return block;
}

void FreePoolBlock(PoolBlock* block) {
    g_blocks.fetch_sub(1, std::memory_order_relaxed);
    g_bytes.fetch_sub(block->size, std::memory_order_relaxed);
    block->magic = 0;
    if (kFillMemory && !kSanitized) {
        std::memset(static_cast<void*>(block + 1), kFreedByte, block->size);
    }
    block->~PoolBlock();
    std::free(block);
}

void CheckPoolCall(POOL_TYPE type, const char* operation) {
    const PETHREAD self = Self();
    if (self->holdsCancelLock || (self->irql >= DISPATCH_LEVEL && IsPagedType(type))) {
        RefuseAtDispatch(operation);
    }
}

PoolBlock* FindPoolBlock(const void* pointer) {
    const auto address = reinterpret_cast<uintptr_t>(pointer);
    const uintptr_t page = address >> kPageShift;
    for (const uintptr_t p : {page, page - 1}) {
        if (PoolBlock* const block = FindInPage(p, address); block != nullptr) {
            return block;
        }
    }
    WordGuard guard(g_largeLock);
    auto after = Large().upper_bound(address);
    if (after == Large().begin()) {
        return nullptr;
    }
    --after;
    return Contains(after->second, address) ? after->second : nullptr;
}

PoolBlock* PinPoolBlock(const void* address) {
    PoolBlock* const block = FindPoolBlock(address);
    if (block != nullptr) {
        block->pins.fetch_add(1, std::memory_order_relaxed);
    }
    return block;
}

void UnpinPoolBlock(PoolBlock* block) {
    if (block != nullptr) {
        block->pins.fetch_sub(1, std::memory_order_relaxed);
    }
}

bool PlaceInPool(const void* address, PoolPlace* place) {
    const PoolBlock* const block = FindPoolBlock(address);
    if (block == nullptr) {
        return false;
    }
    *place = {block->tag, block->size, static_cast<size_t>(reinterpret_cast<uintptr_t>(address) - AddressOf(block))};
    return true;
}

bool IsInPagedPool(const void* address, std::string* describe) {
    const PoolBlock* const block = FindPoolBlock(address);
    if (block == nullptr) {
        return false;
    }
    if (describe != nullptr) {
        *describe = std::string(block->paged ? "paged" : "non-paged") + " pool " + DescribeBlock(block);
    }
    return block->paged;
}

bool RequireResident(const void* address, const char* what) {
    if (IsOnOwnStack(Self(), address) || !IsInPagedPool(address)) {
        return true;
    }
    std::string where;
    (void)IsInPagedPool(address, &where);
    Violation("%s at %p lies in %s", what, address, where.c_str());
    return false;
}

PVOID KernelAllocate(SIZE_T bytes, ULONG tag) {
    PoolBlock* const block = NewPoolBlock(bytes, tag, false, nullptr);
    return block != nullptr ? block + 1 : nullptr;
}

void KernelFree(PVOID memory) {
    Free(memory, nullptr);
}

void AddPoolLeaks(PDRIVER_OBJECT driver, LeakList& leaks) {
    std::map<std::pair<ULONG, bool>, Leak> byTag;
    ForEachBlock([&](const PoolBlock* block) {
        if (block->cached || (driver != nullptr && block->owner != driver)) {
            return;
        }
        Leak& leak = byTag[{block->tag, block->paged}];
        if (leak.what.empty()) {
            leak = {block->paged ? "paged pool" : "non-paged pool", TagText(block->tag), 0, 0};
        }
        leak.count++;
        leak.bytes += block->size;
    });
    for (auto& [tag, leak] : byTag) {
        leaks.push_back(std::move(leak));
    }
}

void PoolShutdown(bool reclaim) {
    ForEachBlock([reclaim](PoolBlock* block) {
        if (reclaim) {
            FreePoolBlock(block);
            return;
        }
        g_blocks.fetch_sub(1, std::memory_order_relaxed);
        g_bytes.fetch_sub(block->size, std::memory_order_relaxed);
        block->next = g_graveyard;
        g_graveyard = block;
    });
    std::memset(g_buckets, 0, sizeof(g_buckets));
    Large().clear();
    g_allocations = 0;
}

void ForgetPoolOwner(PDRIVER_OBJECT driver) {
    ForEachBlock([driver](PoolBlock* block) {
        if (block->owner == driver) {
            block->owner = nullptr;
        }
    });
}

void AddPoolStatistics(Statistics& statistics) {
    statistics.poolBlocks = g_blocks.load(std::memory_order_relaxed);
    statistics.poolBytes = g_bytes.load(std::memory_order_relaxed);
    statistics.poolAllocations = g_allocations.load(std::memory_order_relaxed);
}

}  // namespace nt

NTKERNELAPI PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
    nt::CheckPoolCall(PoolType, "allocating pool");
    if (nt::FaultPoint(nt::FaultKind::kPool)) {
        return nullptr;
    }
    nt::PoolBlock* const block = nt::NewPoolBlock(NumberOfBytes, Tag, nt::IsPagedType(PoolType), nt::CurrentDriver());
    return block != nullptr ? block + 1 : nullptr;
}

NTKERNELAPI VOID NTAPI ExFreePool(PVOID P) {
    nt::CheckPoolCall(NonPagedPool, "freeing pool");
    nt::Free(P, nullptr);
}

NTKERNELAPI VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag) {
    nt::CheckPoolCall(NonPagedPool, "freeing pool");
    nt::Free(P, Tag != 0 ? &Tag : nullptr);  // tag 0 asks for no check
}
