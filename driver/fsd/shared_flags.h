// A word of flags whose bits change under different locks: every change is one atomic operation, so that no holder of
// one lock can undo what the holder of another is doing. A bit says nothing about memory beside it; its own lock does
// that.
#pragma once

#include "nt.h"

struct SharedFlags {
    ULONG Bits;

    operator ULONG() const { return __atomic_load_n(&Bits, __ATOMIC_RELAXED); }
    VOID operator|=(ULONG Set) { __atomic_fetch_or(&Bits, Set, __ATOMIC_RELAXED); }
    VOID operator&=(ULONG Kept) { __atomic_fetch_and(&Bits, Kept, __ATOMIC_RELAXED); }
};
static_assert(sizeof(SharedFlags) == sizeof(ULONG));
