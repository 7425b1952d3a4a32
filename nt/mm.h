#pragma once

#include "nt/ps.h"

// Memory descriptor lists. A descriptor list describes a caller's buffer; probing checks it and "locks" its pages,
// mapping gives its address in system space, which here is the address itself. Made and freed by IoAllocateMdl and
// IoFreeMdl (nt/io.h); freeing one whose pages are locked is a fault.

typedef struct _MDL {
    struct _MDL* Next;
    CSHORT Size;
    CSHORT MdlFlags;
    PEPROCESS Process;
    PVOID MappedSystemVa;
    PVOID StartVa;
    ULONG ByteCount;
    ULONG ByteOffset;
} MDL, *PMDL;
using PMDLX = PMDL;

inline constexpr CSHORT MDL_MAPPED_TO_SYSTEM_VA = 0x0001;
inline constexpr CSHORT MDL_PAGES_LOCKED = 0x0002;
inline constexpr CSHORT MDL_SOURCE_IS_NONPAGED_POOL = 0x0004;
inline constexpr CSHORT MDL_ALLOCATED_FIXED_SIZE = 0x0008;
inline constexpr CSHORT MDL_PARTIAL = 0x0010;
inline constexpr CSHORT MDL_PARTIAL_HAS_BEEN_MAPPED = 0x0020;
inline constexpr CSHORT MDL_IO_PAGE_READ = 0x0040;
inline constexpr CSHORT MDL_WRITE_OPERATION = 0x0080;
inline constexpr CSHORT MDL_PARENT_MAPPED_SYSTEM_VA = 0x0100;
inline constexpr CSHORT MDL_MAPPING_CAN_FAIL = 0x2000;

typedef enum _LOCK_OPERATION { IoReadAccess, IoWriteAccess, IoModifyAccess } LOCK_OPERATION;

typedef enum _MEMORY_CACHING_TYPE {
    MmNonCached,
    MmCached,
    MmWriteCombined,
    MmMaximumCacheType = 6
} MEMORY_CACHING_TYPE;

typedef enum _MM_PAGE_PRIORITY { LowPagePriority, NormalPagePriority = 16, HighPagePriority = 32 } MM_PAGE_PRIORITY;

inline constexpr ULONG PAGE_SIZE = 4096;
inline constexpr ULONG PAGE_SHIFT = 12;

// Checks that the whole range may be read (IoReadAccess) or written (the others) by a caller of that mode and locks
// its pages. On the real kernel a bad address raises an exception; here an exception that nobody catches stops the
// process, so a driver probes a user's buffer through its one function made for that.
NTKERNELAPI VOID NTAPI MmProbeAndLockPages(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                                           LOCK_OPERATION Operation);

// The same without the exception: STATUS_SUCCESS, or STATUS_ACCESS_VIOLATION with nothing locked. This is what
// catching the exception comes to; it exists in this home only.
NTSTATUS NtMmTryProbeAndLockPages(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode, LOCK_OPERATION Operation);

NTKERNELAPI VOID NTAPI MmUnlockPages(PMDL MemoryDescriptorList);

// Mapping can fail on the real kernel, which then stops the machine unless the caller asked for null instead. So the
// verifier accepts only the forms that can fail: MmMapLockedPagesSpecifyCache with BugCheckOnFailure FALSE,
// MmGetSystemAddressForMdlSafe, or MmMapLockedPages on a list with MDL_MAPPING_CAN_FAIL set. Null when it fails.
NTKERNELAPI PVOID NTAPI MmMapLockedPages(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode);
NTKERNELAPI PVOID NTAPI MmMapLockedPagesSpecifyCache(PMDLX MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                                                     MEMORY_CACHING_TYPE CacheType, PVOID BaseAddress,
                                                     ULONG BugCheckOnFailure, MM_PAGE_PRIORITY Priority);
NTKERNELAPI VOID NTAPI MmUnmapLockedPages(PVOID BaseAddress, PMDL MemoryDescriptorList);

inline PVOID MmGetSystemAddressForMdlSafe(PMDL Mdl, MM_PAGE_PRIORITY Priority) {
    if ((Mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) != 0) {
        return Mdl->MappedSystemVa;
    }
    return MmMapLockedPagesSpecifyCache(Mdl, KernelMode, MmCached, nullptr, FALSE, Priority);
}

inline ULONG MmGetMdlByteCount(const MDL* Mdl) {
    return Mdl->ByteCount;
}
inline ULONG MmGetMdlByteOffset(const MDL* Mdl) {
    return Mdl->ByteOffset;
}
inline PVOID MmGetMdlVirtualAddress(const MDL* Mdl) {
    return static_cast<PUCHAR>(Mdl->StartVa) + Mdl->ByteOffset;
}
