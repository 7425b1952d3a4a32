#pragma once

#include "nt.h"

// Values of the driver's service key. Base is the key's path, Subkey a key directly below it, Name a value of that;
// all three are zero-terminated. Keys are opened and never created: without the subkey every read and write fails with
// the status of the open. PASSIVE_LEVEL.

// Opens Subkey below Base for all access. The caller closes the key.
[[nodiscard]] NTSTATUS VrkFsRtlRegOpenKey(PCWSTR Base, PHANDLE Key, PCWSTR Subkey);

// The whole value with its data, in paged memory that the caller frees with VrkFsFreePool.
[[nodiscard]] NTSTATUS VrkFsRtlRegReadValueInfo(PCWSTR Base, PCWSTR Subkey, PCWSTR Name,
                                                PKEY_VALUE_FULL_INFORMATION* Info);

// The first four bytes of the data, whatever the value's type. Shorter data: STATUS_INFO_LENGTH_MISMATCH. Value is
// left alone on failure.
[[nodiscard]] NTSTATUS VrkFsRtlRegReadULONG(PCWSTR Base, PCWSTR Subkey, PCWSTR Name, PULONG Value);

// The data, whatever the value's type, up to its first NUL character or its end, as a terminated paged copy that the
// caller frees with VrkFsFreePool.
[[nodiscard]] NTSTATUS VrkFsRtlRegReadStringW(PCWSTR Base, PCWSTR Subkey, PCWSTR Name, PWSTR* String);

[[nodiscard]] NTSTATUS VrkFsRtlRegWriteData(PCWSTR Base, PCWSTR Subkey, PCWSTR Name, ULONG Type, const VOID* Data,
                                            ULONG Size);
[[nodiscard]] NTSTATUS VrkFsRtlRegWriteULONG(PCWSTR Base, PCWSTR Subkey, PCWSTR Name, ULONG Value);
[[nodiscard]] NTSTATUS VrkFsRtlRegWriteStringW(PCWSTR Base, PCWSTR Subkey, PCWSTR Name, PCWSTR String);
