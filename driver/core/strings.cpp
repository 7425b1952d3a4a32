#include "core/strings.h"

#include <algorithm>

#include "core/pool.h"

namespace {
// A counted string's capacity has 16 bits and includes the terminator.
constexpr ULONG kMaxCopiedBytes = 0xFFFE - sizeof(WCHAR);
}  // namespace

NTSTATUS VrkFsRtlCopyUnicodeString(PUNICODE_STRING Target, PCUNICODE_STRING Source) {
    *Target = UNICODE_STRING{};
    if (Source->Length > kMaxCopiedBytes) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const USHORT capacity = static_cast<USHORT>(Source->Length + sizeof(WCHAR));
    Target->Buffer = static_cast<PWSTR>(VrkFsAllocatePool(PagedPool, capacity));
    if (Target->Buffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Target->MaximumLength = capacity;
    RtlCopyUnicodeString(Target, Source);
    // An odd length has half a character more than characters; the terminator goes behind the whole ones.
    Target->Buffer[Target->Length / sizeof(WCHAR)] = 0;
    return STATUS_SUCCESS;
}

VOID VrkFsRtlFreeUnicodeString(PUNICODE_STRING String) {
    VrkFsFreePool(String->Buffer);
    *String = UNICODE_STRING{};
}

NTSTATUS VrkFsRtlAllocateUnicodeString(PUNICODE_STRING String, USHORT Bytes) {
    *String = UNICODE_STRING{};
    String->Buffer = static_cast<PWSTR>(VrkFsAllocatePool(PagedPool, Bytes));
    if (String->Buffer == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    RtlZeroMemory(String->Buffer, Bytes);
    String->MaximumLength = Bytes;
    return STATUS_SUCCESS;
}

BOOLEAN VrkFsRtlCompareString(PCWSTR First, PCWSTR Second) {
    if (First == nullptr || Second == nullptr) {
        return FALSE;
    }
    while (*First == *Second) {
        if (*First == 0) {
            return TRUE;
        }
        ++First;
        ++Second;
    }
    return FALSE;
}

VOID VrkFsRtlIntegerToString(ULONG Value, PCHAR Buffer) {
    ULONG digits = 1;
    for (ULONG rest = Value; rest >= 10; rest /= 10) {
        ++digits;
    }
    Buffer[digits] = '\0';
    for (; digits != 0; --digits, Value /= 10) {
        Buffer[digits - 1] = static_cast<CHAR>('0' + Value % 10);
    }
}

ULONG VrkFsRtlBoundedLength(const WCHAR* Text, ULONG MaxChars) {
    ULONG length = 0;
    while (length < MaxChars && Text[length] != 0) {
        ++length;
    }
    return length;
}

UNICODE_STRING VrkFsRtlBoundedString(const WCHAR* Text, ULONG MaxChars) {
    UNICODE_STRING string{};
    string.Buffer = const_cast<PWSTR>(Text);
    string.Length = static_cast<USHORT>(VrkFsRtlBoundedLength(Text, MaxChars) * sizeof(WCHAR));
    string.MaximumLength = string.Length;
    return string;
}

VOID VrkFsRtlWidenText(PCSTR Text, PWCHAR Field, ULONG MaxChars) {
    RtlZeroMemory(Field, MaxChars * sizeof(WCHAR));
    for (ULONG i = 0; i + 1 < MaxChars && Text[i] != '\0'; ++i) {
        Field[i] = static_cast<UCHAR>(Text[i]);
    }
}
