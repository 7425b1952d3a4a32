#pragma once

#include <cstddef>
#include <cstdint>

#include "nt/access.h"
#include "nt/status.h"

// The kernel's basic types, counted strings, list links and small helpers, under the kernel's own names. Sizes
// are those of the 32-bit kernel wherever a record is seen from outside: LONG and ULONG have 32 bits, WCHAR 16.

#define IN
#define OUT
#define OPTIONAL
#define NTAPI
#define FASTCALL
#define NTKERNELAPI
#define CONST const
#define FORCEINLINE inline

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

// A wide literal of the driver: 16-bit characters in both homes.
#define VRKFS_W(x) u##x

using VOID = void;
using CHAR = char;
using CCHAR = char;
using CSHORT = int16_t;
using SHORT = int16_t;
using LONG = int32_t;
using UCHAR = uint8_t;
using USHORT = uint16_t;
using ULONG = uint32_t;
using LONGLONG = int64_t;
using ULONGLONG = uint64_t;
using LONG64 = int64_t;
using ULONG64 = uint64_t;
using BOOLEAN = UCHAR;
using LOGICAL = ULONG;
using WCHAR = char16_t;
using SIZE_T = size_t;
using LONG_PTR = intptr_t;
using ULONG_PTR = uintptr_t;

using PVOID = void*;
using PVOID64 = void*;
using HANDLE = void*;
using PHANDLE = HANDLE*;
using PCHAR = CHAR*;
using PUCHAR = UCHAR*;
using PCUCHAR = const UCHAR*;
using PSHORT = SHORT*;
using PUSHORT = USHORT*;
using PLONG = LONG*;
using PULONG = ULONG*;
using PLONGLONG = LONGLONG*;
using PULONGLONG = ULONGLONG*;
using PBOOLEAN = BOOLEAN*;
using PSIZE_T = SIZE_T*;
using PULONG_PTR = ULONG_PTR*;
using PWCHAR = WCHAR*;
using PWCH = WCHAR*;
using PWSTR = WCHAR*;
using PCWSTR = const WCHAR*;
using PCWCH = const WCHAR*;
using PSTR = CHAR*;
using PCSTR = const CHAR*;
using PCSZ = const CHAR*;
using PNTSTATUS = NTSTATUS*;
using PSECURITY_DESCRIPTOR = void*;

using KIRQL = UCHAR;
using PKIRQL = KIRQL*;
using KPRIORITY = LONG;
using KAFFINITY = ULONG_PTR;
using KPROCESSOR_MODE = CCHAR;

typedef enum _MODE { KernelMode, UserMode, MaximumMode } MODE;

inline constexpr WCHAR UNICODE_NULL = 0;
inline constexpr CHAR ANSI_NULL = 0;
inline constexpr USHORT UNICODE_STRING_MAX_BYTES = 65534;
inline constexpr USHORT UNICODE_STRING_MAX_CHARS = 32767;

#define UNREFERENCED_PARAMETER(P) static_cast<void>(P)
#define FIELD_OFFSET(type, field) static_cast<LONG>(offsetof(type, field))
#define UFIELD_OFFSET(type, field) static_cast<ULONG>(offsetof(type, field))
#define RTL_NUMBER_OF(array) (sizeof(array) / sizeof((array)[0]))
#define CONTAINING_RECORD(address, type, field) \
    reinterpret_cast<type*>(reinterpret_cast<ULONG_PTR>(address) - offsetof(type, field))

typedef union _LARGE_INTEGER {
    __extension__ struct {
        ULONG LowPart;
        LONG HighPart;
    };
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;
static_assert(sizeof(LARGE_INTEGER) == 8);

typedef union _ULARGE_INTEGER {
    __extension__ struct {
        ULONG LowPart;
        ULONG HighPart;
    };
    struct {
        ULONG LowPart;
        ULONG HighPart;
    } u;
    ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;
static_assert(sizeof(ULARGE_INTEGER) == 8);

typedef struct _GUID {
    ULONG Data1;
    USHORT Data2;
    USHORT Data3;
    UCHAR Data4[8];
} GUID;

// A counted wide string: Length and MaximumLength in bytes, without and with room for a terminator. It need not be
// terminated, and the NUL is an ordinary character.
typedef struct _UNICODE_STRING {
    USHORT Length;
    USHORT MaximumLength;
    PWSTR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
using PCUNICODE_STRING = const UNICODE_STRING*;

typedef struct _STRING {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
} STRING, *PSTRING;
using ANSI_STRING = STRING;
using PANSI_STRING = STRING*;
using PCSTRING = const STRING*;

typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;

inline void InitializeObjectAttributes(POBJECT_ATTRIBUTES attributes, PUNICODE_STRING name, ULONG flags,
                                       HANDLE rootDirectory, PSECURITY_DESCRIPTOR securityDescriptor) {
    *attributes = {};
    attributes->Length = sizeof(OBJECT_ATTRIBUTES);
    attributes->RootDirectory = rootDirectory;
    attributes->ObjectName = name;
    attributes->Attributes = flags;
    attributes->SecurityDescriptor = securityDescriptor;
}

// Doubly linked lists: a head that links to itself is empty.
typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY* Flink;
    struct _LIST_ENTRY* Blink;
} LIST_ENTRY, *PLIST_ENTRY;

inline void InitializeListHead(PLIST_ENTRY head) {
    head->Flink = head->Blink = head;
}

inline BOOLEAN IsListEmpty(const LIST_ENTRY* head) {
    return head->Flink == head ? TRUE : FALSE;
}

// Returns whether the list is empty afterwards. The entry keeps its links, as on the real kernel.
inline BOOLEAN RemoveEntryList(PLIST_ENTRY entry) {
    PLIST_ENTRY const next = entry->Flink;
    PLIST_ENTRY const previous = entry->Blink;
    next->Blink = previous;
    previous->Flink = next;
    return next == previous ? TRUE : FALSE;
}

inline PLIST_ENTRY RemoveHeadList(PLIST_ENTRY head) {
    PLIST_ENTRY const entry = head->Flink;
    RemoveEntryList(entry);
    return entry;
}

inline PLIST_ENTRY RemoveTailList(PLIST_ENTRY head) {
    PLIST_ENTRY const entry = head->Blink;
    RemoveEntryList(entry);
    return entry;
}

inline void InsertHeadList(PLIST_ENTRY head, PLIST_ENTRY entry) {
    PLIST_ENTRY const first = head->Flink;
    entry->Flink = first;
    entry->Blink = head;
    first->Blink = entry;
    head->Flink = entry;
}

inline void InsertTailList(PLIST_ENTRY head, PLIST_ENTRY entry) {
    PLIST_ENTRY const last = head->Blink;
    entry->Flink = head;
    entry->Blink = last;
    last->Flink = entry;
    head->Blink = entry;
}

namespace nt {
// System time counts 100-ns units since 1601-01-01 UTC.
inline constexpr LONGLONG kTicksPerMicrosecond = 10;
inline constexpr LONGLONG kTicksPerMillisecond = 10'000;
inline constexpr LONGLONG kTicksPerSecond = 10'000'000;
inline constexpr LONGLONG kTicksFrom1601To1970 = 116'444'736'000'000'000;
}  // namespace nt
