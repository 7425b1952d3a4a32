#pragma once

#include "nt/base.h"

// Sections: shared memory known by name, in \BaseNamedObjects of the kernel's namespace. The memory is an anonymous
// file sealed against resizing, so whoever holds its descriptor can read and write it but not take it away.

typedef enum _SECTION_INHERIT { ViewShare = 1, ViewUnmap = 2 } SECTION_INHERIT;

inline HANDLE NtCurrentProcess() {
    return reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1));
}
inline HANDLE ZwCurrentProcess() {
    return NtCurrentProcess();
}

// A zeroed section of MaximumSize bytes (rounded up to whole pages when mapped), without a file: committed
// (SEC_COMMIT), read-write or read-only. With OBJ_OPENIF an existing section of the name is opened, as it is:
// STATUS_OBJECT_NAME_EXISTS, a success; without: STATUS_OBJECT_NAME_COLLISION. Size 0: STATUS_INVALID_PARAMETER_4.
// STATUS_OBJECT_PATH_NOT_FOUND for a name outside \BaseNamedObjects, STATUS_OBJECT_NAME_INVALID,
// STATUS_INSUFFICIENT_RESOURCES, STATUS_NOT_IMPLEMENTED (backed by a file, other attributes).
NTKERNELAPI NTSTATUS NTAPI ZwCreateSection(PHANDLE SectionHandle, ACCESS_MASK DesiredAccess,
                                           POBJECT_ATTRIBUTES ObjectAttributes, PLARGE_INTEGER MaximumSize,
                                           ULONG SectionPageProtection, ULONG AllocationAttributes, HANDLE FileHandle);

// STATUS_OBJECT_NAME_NOT_FOUND, and the statuses of a bad name.
NTKERNELAPI NTSTATUS NTAPI ZwOpenSection(PHANDLE SectionHandle, ACCESS_MASK DesiredAccess,
                                         POBJECT_ATTRIBUTES ObjectAttributes);

// Maps from SectionOffset (a multiple of 64 KiB; null: 0) at an address of the kernel's choosing (*BaseAddress must be
// null). *ViewSize 0 means the rest of the section; it comes back in whole pages. The view belongs to the current
// process, which is the only one that can be named, and keeps the section alive. STATUS_ACCESS_DENIED when the handle
// does not grant the mapping, STATUS_INVALID_VIEW_SIZE, STATUS_INVALID_PARAMETER, STATUS_NO_MEMORY.
NTKERNELAPI NTSTATUS NTAPI ZwMapViewOfSection(HANDLE SectionHandle, HANDLE ProcessHandle, PVOID* BaseAddress,
                                              ULONG_PTR ZeroBits, SIZE_T CommitSize, PLARGE_INTEGER SectionOffset,
                                              PSIZE_T ViewSize, SECTION_INHERIT InheritDisposition,
                                              ULONG AllocationType, ULONG Protect);

// STATUS_NOT_MAPPED_VIEW when the current process has no view there.
NTKERNELAPI NTSTATUS NTAPI ZwUnmapViewOfSection(HANDLE ProcessHandle, PVOID BaseAddress);
