#pragma once

#include "nt.h"

// Strings of the driver: counted UTF-16 strings (lengths in bytes) that are kept zero-terminated, and names as they lie
// on disk, in fields of a fixed number of characters that may lack their terminator.

inline constexpr ULONG kNameFieldChars = 256;     // a 512-byte name field of a record
inline constexpr ULONG kIntegerStringBytes = 11;  // ten digits and a zero byte

// A terminated paged copy of Source in Target. Too long to be terminated, or no memory: STATUS_INSUFFICIENT_RESOURCES
// and an empty Target. Freed with VrkFsRtlFreeUnicodeString.
[[nodiscard]] NTSTATUS VrkFsRtlCopyUnicodeString(PUNICODE_STRING Target, PCUNICODE_STRING Source);

// Frees the buffer, if any, and clears the string; harmless when called again.
VOID VrkFsRtlFreeUnicodeString(PUNICODE_STRING String);

// An empty paged string with room for Bytes bytes, terminator included. No memory: STATUS_UNSUCCESSFUL, String cleared.
[[nodiscard]] NTSTATUS VrkFsRtlAllocateUnicodeString(PUNICODE_STRING String, USHORT Bytes);

// TRUE only if both are present and equal character for character, case included.
[[nodiscard]] BOOLEAN VrkFsRtlCompareString(PCWSTR First, PCWSTR Second);

// Value as decimal digits without leading zeros and a zero byte, into at least kIntegerStringBytes bytes.
VOID VrkFsRtlIntegerToString(ULONG Value, PCHAR Buffer);

// Characters before the first NUL, at most MaxChars.
[[nodiscard]] ULONG VrkFsRtlBoundedLength(const WCHAR* Text, ULONG MaxChars);

// The name in a field of MaxChars characters (at most 32767) as a counted string over the field itself: no copy, and it
// ends at the field's end where the terminator is missing. Not to be written through.
[[nodiscard]] UNICODE_STRING VrkFsRtlBoundedString(const WCHAR* Text, ULONG MaxChars);

// Writes an 8-bit text into a field of MaxChars characters: cut to fit, always terminated, the rest zeroed.
VOID VrkFsRtlWidenText(PCSTR Text, PWCHAR Field, ULONG MaxChars);
