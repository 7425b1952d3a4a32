#include "nt/internal.h"

// IRQL, critical regions and spin locks. The IRQL is the thread's own account of what it may do; nothing is
// interrupted here, so it serves the checks only. A spin lock is a word lock, as a holder may lose its processor.

namespace nt {

namespace {

uint32_t* WordOf(PKSPIN_LOCK lock) {
    return reinterpret_cast<uint32_t*>(lock);
}

bool HoldsSpinLock(PETHREAD self, const void* lock) {
    for (unsigned i = 0; i < self->spinLockCount; i++) {
        if (self->spinLocks[i] == lock) {
            return true;
        }
    }
    return false;
}

KIRQL Acquire(PETHREAD self, PKSPIN_LOCK lock) {
    const KIRQL before = self->irql;
    if (HoldsSpinLock(self, lock) || self->spinLockCount == kMaximumSpinLocks) {
        Violation("spin lock %p acquired by a thread that holds %s", static_cast<void*>(lock),
                  self->spinLockCount == kMaximumSpinLocks ? "too many" : "it: it would spin for ever");
        return before;
    }
    self->irql = before > DISPATCH_LEVEL ? before : DISPATCH_LEVEL;
    LockWord(WordOf(lock));
    self->spinLocks[self->spinLockCount++] = lock;
    return before;
}

void Release(PETHREAD self, PKSPIN_LOCK lock, KIRQL newIrql) {
    if (!HoldsSpinLock(self, lock)) {
        Violation("spin lock %p released by a thread that does not hold it", static_cast<void*>(lock));
        return;
    }
    unsigned i = 0;
    while (self->spinLocks[i] != lock) {
        i++;
    }
    self->spinLocks[i] = self->spinLocks[--self->spinLockCount];
    UnlockWord(WordOf(lock));
    self->irql = newIrql;
}

KSPIN_LOCK g_cancelLock = 0;

}  // namespace

}  // namespace nt

NTKERNELAPI KIRQL NTAPI KeGetCurrentIrql(VOID) {
    return nt::Self()->irql;
}

NTKERNELAPI KIRQL FASTCALL KfRaiseIrql(KIRQL NewIrql) {
    PETHREAD const self = nt::Self();
    const KIRQL before = self->irql;
    if (NewIrql < before) {
        nt::Violation("IRQL raised from %u to %u", before, NewIrql);
    }
    self->irql = NewIrql;
    return before;
}

NTKERNELAPI VOID FASTCALL KfLowerIrql(KIRQL NewIrql) {
    PETHREAD const self = nt::Self();
    if (NewIrql > self->irql || (NewIrql < DISPATCH_LEVEL && self->spinLockCount != 0)) {
        nt::Violation("IRQL lowered from %u to %u with %u spin locks held", self->irql, NewIrql, self->spinLockCount);
    }
    self->irql = NewIrql;
}

// ---- critical regions ----

NTKERNELAPI VOID NTAPI KeEnterCriticalRegion(VOID) {
    nt::Self()->criticalRegions++;
}

NTKERNELAPI VOID NTAPI KeLeaveCriticalRegion(VOID) {
    PETHREAD const self = nt::Self();
    if (self->criticalRegions == 0) {
        nt::Violation("critical region left by a thread that is in none");
        return;
    }
    self->criticalRegions--;
}

NTKERNELAPI BOOLEAN NTAPI KeAreApcsDisabled(VOID) {
    const PETHREAD self = nt::Self();
    return self->criticalRegions != 0 || self->irql >= APC_LEVEL ? TRUE : FALSE;
}

// ---- spin locks ----

NTKERNELAPI VOID NTAPI KeInitializeSpinLock(PKSPIN_LOCK SpinLock) {
    nt::RequireResident(SpinLock, "a spin lock");
    *SpinLock = 0;
}

NTKERNELAPI KIRQL FASTCALL KfAcquireSpinLock(PKSPIN_LOCK SpinLock) {
    return nt::Acquire(nt::Self(), SpinLock);
}

NTKERNELAPI VOID FASTCALL KfReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) {
    nt::Release(nt::Self(), SpinLock, NewIrql);
}

NTKERNELAPI VOID NTAPI IoAcquireCancelSpinLock(PKIRQL Irql) {
    PETHREAD const self = nt::Self();
    if (self->holdsCancelLock) {
        nt::Violation("the cancel lock acquired by a thread that holds it");
        return;
    }
    *Irql = nt::Acquire(self, &nt::g_cancelLock);
    self->holdsCancelLock = true;
}

NTKERNELAPI VOID NTAPI IoReleaseCancelSpinLock(KIRQL Irql) {
    PETHREAD const self = nt::Self();
    if (!self->holdsCancelLock) {
        nt::Violation("the cancel lock released by a thread that does not hold it");
        return;
    }
    self->holdsCancelLock = false;
    nt::Release(self, &nt::g_cancelLock, Irql);
}
