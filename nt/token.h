#pragma once

#include "nt/base.h"

// Addresses in 32-bit fields. Records shared with other drivers and with applications have 32-bit fields for what is
// a pointer on the 32-bit kernel. Here such a field holds a token: an entry of a checked table, good from its
// creation to its release. A wrong, stale or out-of-range token resolves to null, never to a wild pointer.

// A token for the address: never 0, except for a null address or a full table (65,535 at once). One address may have
// several tokens. Any thread, any IRQL.
ULONG NtTokenCreate(PVOID Address);

// The address, or null when the token is 0, wrong or released.
PVOID NtTokenResolve(ULONG Token);

// Ends the token. Of 0: nothing happens. Of a token that is not live: the verifier stops the process.
VOID NtTokenRelease(ULONG Token);
