// Probing a caller's buffer: the one place where the driver survives an exception.
#pragma once

#include "nt.h"

// Locks the pages that Mdl describes. Success, or the status of the exception that the probe raised; then nothing is
// locked and the MDL may be freed. IRQL below DISPATCH_LEVEL, in the context of the process that owns the pages.
[[nodiscard]] NTSTATUS VrkFsProbeAndLockPages(PMDL Mdl, KPROCESSOR_MODE AccessMode, LOCK_OPERATION Operation);
