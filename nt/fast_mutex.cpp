#include "nt/internal.h"

// Fast mutexes: Count 1 is free, 0 held, below that held and wanted; who wants one sleeps on its event, which hands
// over one turn at a time.

namespace nt {

namespace {

void Own(PETHREAD self, PFAST_MUTEX mutex, KIRQL before) {
    mutex->Owner = self;
    mutex->OldIrql = before;
    self->irql = APC_LEVEL;
    PushHeld(self, mutex, LockKind::kFastMutex, true, mutex->LockClass);
}

bool CheckAcquire(PETHREAD self, PFAST_MUTEX mutex) {
    if (self->irql >= DISPATCH_LEVEL) {
        RefuseAtDispatch("acquiring a fast mutex");
        return false;
    }
    if (FindHeld(self, mutex) != nullptr) {
        Violation("fast mutex %p (%s) acquired by a thread that holds it", static_cast<void*>(mutex),
                  LockClassName(mutex->LockClass).c_str());
        return false;
    }
    return true;
}

}  // namespace

}  // namespace nt

[[gnu::noinline]] VOID ExInitializeFastMutex(PFAST_MUTEX FastMutex) {
    nt::RequireResident(FastMutex, "a fast mutex");
    *FastMutex = {};
    FastMutex->Count = 1;
    FastMutex->LockClass = nt::LockClassOf(nt::LockKind::kFastMutex, FastMutex, __builtin_return_address(0));
    KeInitializeEvent(&FastMutex->Event, SynchronizationEvent, FALSE);
}

NTKERNELAPI VOID FASTCALL ExAcquireFastMutex(PFAST_MUTEX FastMutex) {
    PETHREAD const self = nt::Self();
    if (!nt::CheckAcquire(self, FastMutex) || !nt::LockOrderCheck(self, FastMutex->LockClass, FastMutex)) {
        return;
    }
    const KIRQL before = self->irql;
    if (__atomic_sub_fetch(&FastMutex->Count, 1, __ATOMIC_ACQUIRE) != 0) {
        __atomic_add_fetch(&FastMutex->Contention, 1, __ATOMIC_RELAXED);
        KeWaitForSingleObject(&FastMutex->Event, Executive, KernelMode, FALSE, nullptr);
    }
    nt::Own(self, FastMutex, before);
}

NTKERNELAPI VOID FASTCALL ExReleaseFastMutex(PFAST_MUTEX FastMutex) {
    PETHREAD const self = nt::Self();
    nt::HeldLock* const held = nt::FindHeld(self, FastMutex);
    if (held == nullptr) {
        nt::Violation("fast mutex %p released by a thread that does not hold it", static_cast<void*>(FastMutex));
        return;
    }
    nt::PopHeld(self, held);
    const auto before = static_cast<KIRQL>(FastMutex->OldIrql);
    FastMutex->Owner = nullptr;
    // From here on the mutex is another's unless somebody already waits for this thread to set the event.
    if (__atomic_add_fetch(&FastMutex->Count, 1, __ATOMIC_RELEASE) <= 0) {
        KeSetEvent(&FastMutex->Event, EVENT_INCREMENT, FALSE);
    }
    self->irql = before;
}
