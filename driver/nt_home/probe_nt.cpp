#include "core/probe.h"

extern "C" NTSTATUS __cdecl VrkFsGuardedProbe(PMDL Mdl, ULONG AccessMode, ULONG Operation);

NTSTATUS VrkFsProbeAndLockPages(PMDL Mdl, KPROCESSOR_MODE AccessMode, LOCK_OPERATION Operation) {
    return VrkFsGuardedProbe(Mdl, static_cast<ULONG>(AccessMode), static_cast<ULONG>(Operation));
}
