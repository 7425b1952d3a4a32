#pragma once

#include "nt/base.h"

// The registry, as far as a driver reads and writes its service key. Names are compared without regard to case. What
// is set is on the disk when the call returns. Without a station (nt/station.h) the registry starts empty at boot and
// lives in memory.

inline constexpr ULONG REG_NONE = 0;
inline constexpr ULONG REG_SZ = 1;
inline constexpr ULONG REG_EXPAND_SZ = 2;
inline constexpr ULONG REG_BINARY = 3;
inline constexpr ULONG REG_DWORD = 4;
inline constexpr ULONG REG_DWORD_BIG_ENDIAN = 5;
inline constexpr ULONG REG_LINK = 6;
inline constexpr ULONG REG_MULTI_SZ = 7;
inline constexpr ULONG REG_QWORD = 11;

typedef enum _KEY_VALUE_INFORMATION_CLASS {
    KeyValueBasicInformation,
    KeyValueFullInformation,
    KeyValuePartialInformation
} KEY_VALUE_INFORMATION_CLASS;

typedef struct _KEY_VALUE_FULL_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG DataOffset;  // From the start of this record.
    ULONG DataLength;
    ULONG NameLength;
    WCHAR Name[1];  // Not terminated; the data follow, 4-aligned.
} KEY_VALUE_FULL_INFORMATION, *PKEY_VALUE_FULL_INFORMATION;
static_assert(offsetof(KEY_VALUE_FULL_INFORMATION, Name) == 20 && sizeof(KEY_VALUE_FULL_INFORMATION) == 24);

typedef struct _KEY_VALUE_PARTIAL_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG DataLength;
    UCHAR Data[1];
} KEY_VALUE_PARTIAL_INFORMATION, *PKEY_VALUE_PARTIAL_INFORMATION;
static_assert(offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data) == 12 && sizeof(KEY_VALUE_PARTIAL_INFORMATION) == 16);

// The key of an absolute path ("\Registry\Machine\...") or below RootDirectory. STATUS_OBJECT_NAME_NOT_FOUND,
// STATUS_OBJECT_PATH_NOT_FOUND (not below \Registry), STATUS_OBJECT_PATH_SYNTAX_BAD, STATUS_OBJECT_NAME_INVALID.
NTKERNELAPI NTSTATUS NTAPI ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes);

// Full or partial information. *ResultLength is what all of it needs. STATUS_BUFFER_TOO_SMALL when not even the fixed
// part fits (nothing is stored); STATUS_BUFFER_OVERFLOW when something is cut; STATUS_OBJECT_NAME_NOT_FOUND;
// STATUS_ACCESS_DENIED on a handle without KEY_QUERY_VALUE.
NTKERNELAPI NTSTATUS NTAPI ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                                           KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                                           PVOID KeyValueInformation, ULONG Length, PULONG ResultLength);

// Sets the value. A failure leaves it as it was: STATUS_MEDIA_WRITE_PROTECTED (read-only station),
// STATUS_REGISTRY_IO_FAILED, STATUS_INSUFFICIENT_RESOURCES (over 1 MiB), STATUS_OBJECT_NAME_INVALID,
// STATUS_ACCESS_DENIED on a handle without KEY_SET_VALUE.
NTKERNELAPI NTSTATUS NTAPI ZwSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG TitleIndex, ULONG Type,
                                         PVOID Data, ULONG DataSize);
