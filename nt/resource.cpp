#include <cstdio>

#include "nt/internal.h"

// Executive resources.
//
// Ownership is handed over: a release that lets waiters in counts them in before it drops the record's lock, and sets
// their words afterwards. So a waiter that runs finds itself owner, the releaser does not touch the record again, and
// nobody can barge in between. Who holds a resource is on the holder's own list (thread record), so recursion and
// "is it mine" need no search of owners in the record.

// One thread's wait, on its stack.
struct NtResourceWaiter {
    NtResourceWaiter* next;
    PETHREAD thread;
    uint32_t word;
};

namespace nt {

namespace {

constexpr ULONG kSignature = 0x73655245;  // "ERes"
constexpr ULONG kDeadSignature = 0x64655245;

WordLock g_listLock;  // guards the list of all resources
LIST_ENTRY g_resources = {&g_resources, &g_resources};

void Append(NtResourceWaiter** list, NtResourceWaiter* waiter) {
    waiter->next = nullptr;
    while (*list != nullptr) {
        list = &(*list)->next;
    }
    *list = waiter;
}

void WakeAll(NtResourceWaiter* waiter) {
    while (waiter != nullptr) {
        NtResourceWaiter* const next = waiter->next;  // the waiter's stack goes on once its word is set
        uint32_t* const word = &waiter->word;
        __atomic_store_n(word, 1, __ATOMIC_RELEASE);
        FutexWake(word, 1);
        waiter = next;
    }
}

// All waiting sharers come in. Record locked.
NtResourceWaiter* GrantShared(PERESOURCE resource) {
    NtResourceWaiter* const granted = resource->SharedWaiters;
    resource->ActiveCount += static_cast<LONG>(resource->NumberOfSharedWaiters);
    resource->SharedWaiters = nullptr;
    __atomic_store_n(&resource->NumberOfSharedWaiters, 0, __ATOMIC_RELAXED);
    return granted;
}

// The first waiting exclusive comes in. Record locked.
NtResourceWaiter* GrantExclusive(PERESOURCE resource) {
    NtResourceWaiter* const granted = resource->ExclusiveWaiters;
    resource->ExclusiveWaiters = granted->next;
    __atomic_sub_fetch(&resource->NumberOfExclusiveWaiters, 1, __ATOMIC_RELAXED);
    granted->next = nullptr;
    resource->ActiveCount = 1;
    resource->Flag |= ResourceOwnedExclusive;
    resource->OwnerThread = granted->thread;
    return granted;
}

void SleepFor(PERESOURCE resource, NtResourceWaiter* waiter, const char* what) {
    PETHREAD const self = Self();
    self->NoteWait(resource, what);
    while (__atomic_load_n(&waiter->word, __ATOMIC_ACQUIRE) == 0) {
        FutexWait(&waiter->word, 0, -1);
    }
    self->NoteWait(nullptr, nullptr);
}

std::string Describe(PERESOURCE resource) {
    std::string where;
    IsInPagedPool(resource, &where);
    char address[32];
    std::snprintf(address, sizeof(address), "resource %p", static_cast<void*>(resource));
    return address + (" (" + LockClassName(resource->LockClass)) + (where.empty() ? ")" : ", in " + where + ")");
}

bool HoldsMutex(PETHREAD self) {
    for (unsigned i = 0; i < self->heldCount; i++) {
        if (self->held[i].kind == LockKind::kMutex) {
            return true;
        }
    }
    return false;
}

// What the real kernel wants of a thread that acquires. False: refused.
bool CheckAcquire(PETHREAD self, PERESOURCE resource) {
    if (resource->Signature != kSignature) {
        Violation("acquire of %p, which is no initialised resource", static_cast<void*>(resource));
        return false;
    }
    if (self->irql >= DISPATCH_LEVEL) {
        RefuseAtDispatch("acquiring a resource");
        return false;
    }
    if (self->process != nullptr && self->criticalRegions == 0 && self->irql < APC_LEVEL && !HoldsMutex(self)) {
        Violation("%s acquired outside a critical region", Describe(resource).c_str());
        return false;
    }
    return true;
}

// Another acquire of an owner. Its count protects the record from going away; the lock orders the count with others'.
bool Recurse(PERESOURCE resource, HeldLock* held, bool exclusive, bool wait) {
    if (exclusive && !held->exclusive) {
        if (wait) {
            Violation("%s wanted exclusively by a thread that shares it: it would wait for itself",
                      Describe(resource).c_str());
        }
        return false;
    }
    LockWord(&resource->Lock);
    resource->ActiveCount++;
    UnlockWord(&resource->Lock);
    held->count++;
    return true;
}

// Takes the resource unless somebody is in the way: any owner for an exclusive acquire, an exclusive owner or waiter
// for a shared one. Record locked.
bool Take(PERESOURCE resource, bool exclusive, PETHREAD self) {
    const bool admitsSharers =
        (resource->Flag & ResourceOwnedExclusive) == 0 && resource->NumberOfExclusiveWaiters == 0;
    if (resource->ActiveCount != 0 && (exclusive || !admitsSharers)) {
        return false;
    }
    resource->ActiveCount++;
    if (exclusive) {
        resource->Flag |= ResourceOwnedExclusive;
        resource->OwnerThread = self;
    }
    return true;
}

// Waits until a release hands the resource over. Unlocks the record.
void AwaitTurn(PERESOURCE resource, bool exclusive, PETHREAD self) {
    NtResourceWaiter waiter{nullptr, self, 0};
    Append(exclusive ? &resource->ExclusiveWaiters : &resource->SharedWaiters, &waiter);
    __atomic_add_fetch(exclusive ? &resource->NumberOfExclusiveWaiters : &resource->NumberOfSharedWaiters, 1,
                       __ATOMIC_RELAXED);
    resource->ContentionCount++;
    UnlockWord(&resource->Lock);
    SleepFor(resource, &waiter, exclusive ? "a resource, exclusively" : "a resource, shared");
}

bool Acquire(PERESOURCE resource, bool exclusive, bool wait) {
    PETHREAD const self = Self();
    if (!CheckAcquire(self, resource)) {
        return false;
    }
    if (HeldLock* const held = FindHeld(self, resource); held != nullptr) {
        return Recurse(resource, held, exclusive, wait);
    }
    if (wait && !LockOrderCheck(self, resource->LockClass, resource)) {
        return false;
    }
    LockWord(&resource->Lock);
    if (Take(resource, exclusive, self)) {
        UnlockWord(&resource->Lock);
    } else if (wait) {
        AwaitTurn(resource, exclusive, self);
    } else {
        UnlockWord(&resource->Lock);
        return false;
    }
    PushHeld(self, resource, LockKind::kResource, exclusive, resource->LockClass);
    return true;
}

// Record locked, a last shared or exclusive acquire has gone: who comes in? After exclusive the sharers first, after
// shared the exclusive waiter first.
NtResourceWaiter* HandOver(PERESOURCE resource, bool wasExclusive) {
    if (wasExclusive) {
        resource->Flag &= static_cast<USHORT>(~ResourceOwnedExclusive);
        resource->OwnerThread = nullptr;
        if (resource->SharedWaiters != nullptr) {
            return GrantShared(resource);
        }
    }
    if (resource->ExclusiveWaiters != nullptr) {
        return GrantExclusive(resource);
    }
    return resource->SharedWaiters != nullptr ? GrantShared(resource) : nullptr;
}

}  // namespace

void AddResourceLeaks(PDRIVER_OBJECT driver, LeakList& leaks) {
    WordGuard guard(g_listLock);
    for (PLIST_ENTRY entry = g_resources.Flink; entry != &g_resources; entry = entry->Flink) {
        PERESOURCE const resource = CONTAINING_RECORD(entry, ERESOURCE, SystemResourcesList);
        if (driver == nullptr || resource->CreatorDriver == driver) {
            leaks.push_back({"resource", Describe(resource), 1, 0});
        }
    }
}

void ResourcesShutdown() {
    WordGuard guard(g_listLock);
    InitializeListHead(&g_resources);
}

}  // namespace nt

using nt::HeldLock;
using nt::LockKind;
using nt::Self;
using nt::Violation;

[[gnu::noinline]] NTKERNELAPI NTSTATUS NTAPI ExInitializeResourceLite(PERESOURCE Resource) {
    const void* const site = __builtin_return_address(0);
    nt::RequireResident(Resource, "a resource");
    *Resource = {};
    Resource->Signature = nt::kSignature;
    Resource->LockClass = nt::LockClassOf(LockKind::kResource, Resource, site);
    Resource->CreatorDriver = nt::CurrentDriver();
    if (!nt::IsOnOwnStack(Self(), Resource)) {
        nt::PinPoolBlock(Resource);
    }
    nt::WordGuard guard(nt::g_listLock);
    InsertTailList(&nt::g_resources, &Resource->SystemResourcesList);
    return STATUS_SUCCESS;
}

NTKERNELAPI NTSTATUS NTAPI ExDeleteResourceLite(PERESOURCE Resource) {
    if (Resource->Signature != nt::kSignature) {
        Violation("delete of %p, which is no initialised resource", static_cast<void*>(Resource));
        return STATUS_SUCCESS;
    }
    // The lock also waits for a releaser that has just let its last waiter in.
    nt::LockWord(&Resource->Lock);
    const LONG active = Resource->ActiveCount;
    const ULONG waiting = Resource->NumberOfSharedWaiters + Resource->NumberOfExclusiveWaiters;
    nt::UnlockWord(&Resource->Lock);
    if (active != 0 || waiting != 0) {
        Violation("%s deleted while it is acquired %d times and %u threads wait for it", nt::Describe(Resource).c_str(),
                  active, waiting);
    }
    {
        nt::WordGuard guard(nt::g_listLock);
        RemoveEntryList(&Resource->SystemResourcesList);
    }
    nt::UnpinPoolBlock(nt::FindPoolBlock(Resource));
    Resource->Signature = nt::kDeadSignature;
    return STATUS_SUCCESS;
}

NTKERNELAPI BOOLEAN NTAPI ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait) {
    return nt::Acquire(Resource, true, Wait != FALSE) ? TRUE : FALSE;
}

NTKERNELAPI BOOLEAN NTAPI ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait) {
    return nt::Acquire(Resource, false, Wait != FALSE) ? TRUE : FALSE;
}

NTKERNELAPI VOID FASTCALL ExReleaseResourceLite(PERESOURCE Resource) {
    PETHREAD const self = Self();
    HeldLock* const held = nt::FindHeld(self, Resource);
    if (held == nullptr) {
        Violation("resource %p released by a thread that does not hold it", static_cast<void*>(Resource));
        return;
    }
    const bool exclusive = held->exclusive;
    if (--held->count == 0) {
        nt::PopHeld(self, held);
    }
    nt::LockWord(&Resource->Lock);
    NtResourceWaiter* const granted = --Resource->ActiveCount == 0 ? nt::HandOver(Resource, exclusive) : nullptr;
    nt::UnlockWord(&Resource->Lock);
    nt::WakeAll(granted);
}

NTKERNELAPI VOID NTAPI ExConvertExclusiveToSharedLite(PERESOURCE Resource) {
    HeldLock* const held = nt::FindHeld(Self(), Resource);
    if (held == nullptr || !held->exclusive) {
        Violation("resource %p converted by a thread that does not hold it exclusively", static_cast<void*>(Resource));
        return;
    }
    held->exclusive = false;
    nt::LockWord(&Resource->Lock);
    Resource->Flag &= static_cast<USHORT>(~ResourceOwnedExclusive);
    Resource->OwnerThread = nullptr;
    NtResourceWaiter* const granted = nt::GrantShared(Resource);
    nt::UnlockWord(&Resource->Lock);
    nt::WakeAll(granted);
}

NTKERNELAPI BOOLEAN NTAPI ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource) {
    const HeldLock* const held = nt::FindHeld(Self(), Resource);
    return held != nullptr && held->exclusive ? TRUE : FALSE;
}

NTKERNELAPI ULONG NTAPI ExIsResourceAcquiredSharedLite(PERESOURCE Resource) {
    const HeldLock* const held = nt::FindHeld(Self(), Resource);
    return held != nullptr ? held->count : 0;
}

NTKERNELAPI ULONG NTAPI ExGetExclusiveWaiterCount(PERESOURCE Resource) {
    return __atomic_load_n(&Resource->NumberOfExclusiveWaiters, __ATOMIC_RELAXED);
}

NTKERNELAPI ULONG NTAPI ExGetSharedWaiterCount(PERESOURCE Resource) {
    return __atomic_load_n(&Resource->NumberOfSharedWaiters, __ATOMIC_RELAXED);
}
