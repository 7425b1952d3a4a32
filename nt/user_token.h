#pragma once

#include "nt/ps.h"

// Addresses of a program's own memory in the 32-bit fields of its requests (a transfer's buffer, a move's progress
// counter). On the 32-bit kernel such a field holds the address. Here it holds a token, good in one process only: a
// program can name its own memory and nothing else.

// For the host, on the process's behalf: the memory must stay until the process's requests are over. Never 0 unless the
// table is full. Any thread.
ULONG NtUserTokenCreate(PEPROCESS Process, PVOID Address, SIZE_T Bytes);
VOID NtUserTokenRelease(ULONG Token);

// For drivers, in the caller's process: the address, or null when the token is 0, wrong, another process's, or names
// less than Bytes bytes.
PVOID NtUserTokenResolve(ULONG Token, SIZE_T Bytes);
