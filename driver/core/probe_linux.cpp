#include "core/probe.h"

NTSTATUS VrkFsProbeAndLockPages(PMDL Mdl, KPROCESSOR_MODE AccessMode, LOCK_OPERATION Operation) {
    return NtMmTryProbeAndLockPages(Mdl, AccessMode, Operation);
}
