// The kernel's interface in the NT home: its own headers, and the few things that the stand-in adds to them.
#pragma once
#pragma GCC system_header

#include <cstddef>
#include <cstdint>

#include <ntifs.h>

#include <ntdddisk.h>

// Wide literals: WCHAR is char16_t on Linux and wchar_t here.
#define VRKFS_W(x) L##x

// A 32-bit field of a request that holds an address or an object holds just that where a pointer has 32 bits.
static_assert(sizeof(PVOID) == sizeof(ULONG));
inline ULONG NtTokenCreate(PVOID Pointer) {
    return reinterpret_cast<ULONG>(Pointer);
}
inline PVOID NtTokenResolve(ULONG Token) {
    return reinterpret_cast<PVOID>(Token);
}
inline VOID NtTokenRelease(ULONG) {}
// An address in the memory of the calling process; what it is worth comes out when its pages are locked.
inline PVOID NtUserTokenResolve(ULONG Token, SIZE_T) {
    return reinterpret_cast<PVOID>(Token);
}
