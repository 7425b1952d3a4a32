#include <cstring>

#include "nt/pool.h"

// Lookaside lists. Entries are pool blocks; a freed one may be kept, up to the list's depth, still a block of the pool
// but marked as kept. Nothing is kept while recycling is off, so that the sanitizers and ordered failures see every
// allocation.

namespace nt {

namespace {

constexpr ULONG kSignature = 0x6B6F6F4C;  // "Look"

WordLock g_listLock;  // guards the list of all lookaside lists
LIST_ENTRY g_lists = {&g_lists, &g_lists};

uint32_t* WordOf(PGENERAL_LOOKASIDE list) {
    return reinterpret_cast<uint32_t*>(&list->Lock);
}

bool CheckList(PGENERAL_LOOKASIDE list, const char* operation) {
    if (list->Signature != kSignature) {
        Violation("%s lookaside list %p, which is not initialised", operation, static_cast<void*>(list));
        return false;
    }
    return true;
}

void Initialize(PGENERAL_LOOKASIDE list, PALLOCATE_FUNCTION allocate, PFREE_FUNCTION free, POOL_TYPE type, SIZE_T size,
                ULONG tag, USHORT depth) {
    RequireResident(list, "a lookaside list");
    *list = {};
    list->Depth = depth;
    list->Type = type;
    list->Tag = tag;
    list->Size = static_cast<ULONG>(size);
    list->Allocate = allocate;
    list->Free = free;
    list->Owner = CurrentDriver();
    list->Signature = kSignature;
    PinPoolBlock(list);
    WordGuard guard(g_listLock);
    InsertTailList(&g_lists, &list->ListEntry);
}

PoolBlock* TakeKept(PGENERAL_LOOKASIDE list) {
    LockWord(WordOf(list));
    auto* const block = static_cast<PoolBlock*>(list->FirstFree);
    if (block != nullptr) {
        list->FirstFree = block->nextKept;
        list->KeptEntries--;
        list->AllocateHits++;
        block->cached.store(false, std::memory_order_relaxed);
    }
    UnlockWord(WordOf(list));
    return block;
}

PVOID Allocate(PGENERAL_LOOKASIDE list) {
    CheckPoolCall(list->Type, "allocating from a lookaside list");
    if (!CheckList(list, "allocation from") || FaultPoint(FaultKind::kPool)) {
        return nullptr;
    }
    __atomic_add_fetch(&list->TotalAllocates, 1, __ATOMIC_RELAXED);
    if (list->Allocate != nullptr) {
        return list->Allocate(list->Type, list->Size, list->Tag);
    }
    PoolBlock* block = RecyclingAllowed() ? TakeKept(list) : nullptr;
    if (block == nullptr) {
        block = NewPoolBlock(list->Size, list->Tag, IsPagedType(list->Type), static_cast<PDRIVER_OBJECT>(list->Owner));
    } else if (kFillMemory) {
        std::memset(static_cast<void*>(block + 1), 0xCD, block->size);
    }
    return block != nullptr ? block + 1 : nullptr;
}

// False when the entry cannot be kept. The check for a second free and the marking are one step, under the list's lock.
bool Keep(PGENERAL_LOOKASIDE list, PoolBlock* block) {
    bool kept = false;
    LockWord(WordOf(list));
    if (list->KeptEntries < list->Depth) {
        block->cached.store(true, std::memory_order_relaxed);
        block->nextKept = static_cast<PoolBlock*>(list->FirstFree);
        list->FirstFree = block;
        list->KeptEntries++;
        kept = true;
    }
    UnlockWord(WordOf(list));
    return kept;
}

// The block behind an entry that comes back; null: refused.
PoolBlock* CheckEntry(PGENERAL_LOOKASIDE list, PVOID entry) {
    PoolBlock* const block = static_cast<PoolBlock*>(entry) - 1;
    if (entry == nullptr || reinterpret_cast<uintptr_t>(entry) % alignof(PoolBlock) != 0 ||
        block->magic != kPoolMagic || block->tag != list->Tag || block->size != list->Size) {
        Violation("%p freed to lookaside list %s is no entry of it", entry, QuotedTag(list->Tag).c_str());
        return nullptr;
    }
    if (block->cached.load(std::memory_order_relaxed)) {
        Violation("%p freed to lookaside list %s twice", entry, QuotedTag(list->Tag).c_str());
        return nullptr;
    }
    if (block->pins.load(std::memory_order_relaxed) != 0) {
        Violation("%p freed to lookaside list %s with a live resource or queued work item inside", entry,
                  QuotedTag(list->Tag).c_str());
        return nullptr;
    }
    return block;
}

void Free(PGENERAL_LOOKASIDE list, PVOID entry) {
    CheckPoolCall(list->Type, "freeing to a lookaside list");
    if (!CheckList(list, "free to")) {
        return;
    }
    if (list->Free != nullptr) {
        list->Free(entry);
        return;
    }
    PoolBlock* const block = CheckEntry(list, entry);
    if (block != nullptr && !(RecyclingAllowed() && Keep(list, block))) {
        ExFreePool(entry);
    }
}

void Delete(PGENERAL_LOOKASIDE list) {
    if (!CheckList(list, "delete of")) {
        return;
    }
    {
        WordGuard guard(g_listLock);
        RemoveEntryList(&list->ListEntry);
    }
    for (PoolBlock* block = TakeKept(list); block != nullptr; block = TakeKept(list)) {
        ExFreePool(block + 1);
    }
    UnpinPoolBlock(FindPoolBlock(list));
    list->Signature = 0;
}

}  // namespace

void AddLookasideLeaks(PDRIVER_OBJECT driver, LeakList& leaks) {
    WordGuard guard(g_listLock);
    for (PLIST_ENTRY entry = g_lists.Flink; entry != &g_lists; entry = entry->Flink) {
        const auto* const list = CONTAINING_RECORD(entry, GENERAL_LOOKASIDE, ListEntry);
        if (driver == nullptr || list->Owner == driver) {
            leaks.push_back({"lookaside list", QuotedTag(list->Tag), 1, 0});
        }
    }
}

void LookasideShutdown() {
    WordGuard guard(g_listLock);
    InitializeListHead(&g_lists);
}

}  // namespace nt

// The calls of the two kinds of list are one, but for the names and the pool.
#define NT_LOOKASIDE_CALLS(Kind, LIST, Pool)                                                                     \
    NTKERNELAPI VOID NTAPI ExInitialize##Kind##LookasideList(LIST Lookaside, PALLOCATE_FUNCTION Allocate,        \
                                                             PFREE_FUNCTION Free, ULONG, SIZE_T Size, ULONG Tag, \
                                                             USHORT Depth) {                                     \
        nt::Initialize(&Lookaside->L, Allocate, Free, Pool, Size, Tag, Depth);                                   \
    }                                                                                                            \
    NTKERNELAPI VOID NTAPI ExDelete##Kind##LookasideList(LIST Lookaside) {                                       \
        nt::Delete(&Lookaside->L);                                                                               \
    }                                                                                                            \
    PVOID ExAllocateFrom##Kind##LookasideList(LIST Lookaside) {                                                  \
        return nt::Allocate(&Lookaside->L);                                                                      \
    }                                                                                                            \
    VOID ExFreeTo##Kind##LookasideList(LIST Lookaside, PVOID Entry) {                                            \
        nt::Free(&Lookaside->L, Entry);                                                                          \
    }

NT_LOOKASIDE_CALLS(Paged, PPAGED_LOOKASIDE_LIST, PagedPool)
NT_LOOKASIDE_CALLS(NPaged, PNPAGED_LOOKASIDE_LIST, NonPagedPool)
