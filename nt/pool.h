#pragma once

#include "nt/internal.h"

// A pool block's header, for the pool itself and the lookaside lists, which keep blocks.

namespace nt {

inline constexpr uint32_t kPoolMagic = 0x6C6F6F50;  // "Pool"

// Stands right before the memory that the caller gets.
struct alignas(16) PoolBlock {
    PoolBlock* next;  // in its bucket (its lock); of a kept block, on the lookaside list
    PoolBlock* previous;
    size_t size;
    PDRIVER_OBJECT owner;
    ULONG tag;
    uint32_t magic;
    std::atomic<uint32_t> pins;
    bool paged;
    std::atomic<bool> cached;  // kept by a lookaside list
    PoolBlock* nextKept;       // there, that list's lock
};
static_assert(sizeof(PoolBlock) % 16 == 0);

inline bool IsPagedType(POOL_TYPE type) {
    return (type & 1) != 0;
}

// Where in what kind of block an address lies. False: in none.
struct PoolPlace {
    ULONG tag = 0;
    size_t size = 0;
    size_t offset = 0;
    bool operator==(const PoolPlace&) const = default;
};
bool PlaceInPool(const void* address, PoolPlace* place);

// The pool check of a call at too high an IRQL.
void CheckPoolCall(POOL_TYPE type, const char* operation);
PoolBlock* NewPoolBlock(SIZE_T bytes, ULONG tag, bool paged, PDRIVER_OBJECT owner);
// Off the tables already.
void FreePoolBlock(PoolBlock* block);
// What the driver left belongs to nobody from now on.
void ForgetPoolOwner(PDRIVER_OBJECT driver);
void AddPoolStatistics(Statistics& statistics);

}  // namespace nt
