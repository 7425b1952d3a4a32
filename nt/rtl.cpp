#include "nt/rtl.h"

#include <algorithm>

#include "nt/ex.h"

namespace {
#include "nt/upcase_table.inc"

constexpr ULONG kStringTag = 0x67727453;                       // "Strg"
constexpr USHORT kMaximumInitLength = 0xFFFE - sizeof(WCHAR);  // Bytes, so that the terminator still counts.

SIZE_T CharacterCount(PCUNICODE_STRING string) {
    return string->Length / sizeof(WCHAR);
}

void TerminateIfRoom(PUNICODE_STRING string) {
    if (string->Length + sizeof(WCHAR) <= string->MaximumLength) {
        string->Buffer[CharacterCount(string)] = UNICODE_NULL;
    }
}
}  // namespace

void RtlInitUnicodeString(PUNICODE_STRING destination, PCWSTR source) {
    *destination = {};
    if (source == nullptr) {
        return;
    }
    SIZE_T count = 0;
    while (count < kMaximumInitLength / sizeof(WCHAR) && source[count] != UNICODE_NULL) {
        ++count;
    }
    destination->Length = static_cast<USHORT>(count * sizeof(WCHAR));
    destination->MaximumLength = static_cast<USHORT>(destination->Length + sizeof(WCHAR));
    destination->Buffer = const_cast<PWSTR>(source);
}

void RtlCopyUnicodeString(PUNICODE_STRING destination, PCUNICODE_STRING source) {
    destination->Length = source == nullptr ? USHORT{0} : std::min(source->Length, destination->MaximumLength);
    if (destination->Length != 0) {
        std::memmove(destination->Buffer, source->Buffer, destination->Length);
    }
    TerminateIfRoom(destination);
}

NTSTATUS RtlAppendUnicodeStringToString(PUNICODE_STRING destination, PCUNICODE_STRING source) {
    if (source == nullptr || source->Length == 0) {
        return STATUS_SUCCESS;
    }
    if (ULONG{destination->Length} + source->Length > destination->MaximumLength) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    std::memmove(destination->Buffer + CharacterCount(destination), source->Buffer, source->Length);
    destination->Length = static_cast<USHORT>(destination->Length + source->Length);
    TerminateIfRoom(destination);
    return STATUS_SUCCESS;
}

NTSTATUS RtlAppendUnicodeToString(PUNICODE_STRING destination, PCWSTR source) {
    UNICODE_STRING string;
    RtlInitUnicodeString(&string, source);
    return RtlAppendUnicodeStringToString(destination, &string);
}

WCHAR RtlUpcaseUnicodeChar(WCHAR character) {
    const USHORT code = character;
    return static_cast<WCHAR>(code + kUpcaseDifference[kUpcaseRow[code >> 8]][code & 0xFF]);
}

LONG RtlCompareUnicodeString(PCUNICODE_STRING left, PCUNICODE_STRING right, BOOLEAN caseInsensitive) {
    const SIZE_T common = std::min(CharacterCount(left), CharacterCount(right));
    for (SIZE_T i = 0; i < common; ++i) {
        WCHAR first = left->Buffer[i];
        WCHAR second = right->Buffer[i];
        if (first != second && caseInsensitive) {
            first = RtlUpcaseUnicodeChar(first);
            second = RtlUpcaseUnicodeChar(second);
        }
        if (first != second) {
            return LONG{first} - LONG{second};
        }
    }
    return LONG{left->Length} - LONG{right->Length};
}

BOOLEAN RtlEqualUnicodeString(PCUNICODE_STRING left, PCUNICODE_STRING right, BOOLEAN caseInsensitive) {
    return left->Length == right->Length && RtlCompareUnicodeString(left, right, caseInsensitive) == 0 ? TRUE : FALSE;
}

NTSTATUS RtlUpcaseUnicodeString(PUNICODE_STRING destination, PCUNICODE_STRING source, BOOLEAN allocateDestination) {
    if (allocateDestination) {
        *destination = {};
        const SIZE_T size = std::max<SIZE_T>(source->Length, sizeof(WCHAR));
        auto* const buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, size, kStringTag));
        if (buffer == nullptr) {
            return STATUS_NO_MEMORY;
        }
        destination->Buffer = buffer;
        destination->MaximumLength = source->Length;
    } else if (source->Length > destination->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    destination->Length = source->Length;
    for (SIZE_T i = 0; i < CharacterCount(source); ++i) {
        destination->Buffer[i] = RtlUpcaseUnicodeChar(source->Buffer[i]);
    }
    return STATUS_SUCCESS;
}

void RtlFreeUnicodeString(PUNICODE_STRING string) {
    if (string->Buffer != nullptr) {
        ExFreePoolWithTag(string->Buffer, 0);
        *string = {};
    }
}

NTSTATUS RtlCreateSecurityDescriptor(PSECURITY_DESCRIPTOR securityDescriptor, ULONG revision) {
    if (revision != SECURITY_DESCRIPTOR_REVISION) {
        return STATUS_UNKNOWN_REVISION;
    }
    auto* const descriptor = static_cast<PISECURITY_DESCRIPTOR>(securityDescriptor);
    *descriptor = {};
    descriptor->Revision = SECURITY_DESCRIPTOR_REVISION;
    return STATUS_SUCCESS;
}

NTSTATUS RtlSetDaclSecurityDescriptor(PSECURITY_DESCRIPTOR securityDescriptor, BOOLEAN daclPresent, PACL dacl,
                                      BOOLEAN daclDefaulted) {
    auto* const descriptor = static_cast<PISECURITY_DESCRIPTOR>(securityDescriptor);
    if (descriptor->Revision != SECURITY_DESCRIPTOR_REVISION) {
        return STATUS_UNKNOWN_REVISION;
    }
    if ((descriptor->Control & SE_SELF_RELATIVE) != 0) {
        return STATUS_INVALID_SECURITY_DESCR;
    }
    USHORT control = descriptor->Control & ~(SE_DACL_PRESENT | SE_DACL_DEFAULTED);
    descriptor->Dacl = nullptr;
    if (daclPresent) {
        control |= SE_DACL_PRESENT | (daclDefaulted ? SE_DACL_DEFAULTED : 0);
        descriptor->Dacl = dacl;
    }
    descriptor->Control = control;
    return STATUS_SUCCESS;
}

void RtlTimeToTimeFields(PLARGE_INTEGER time, PTIME_FIELDS timeFields) {
    constexpr ULONGLONG kMillisecondsPerDay = 86'400'000;
    constexpr ULONG kDaysPer400Years = 146'097;
    constexpr ULONG kDaysPer100Years = 36'524;
    constexpr ULONG kDaysPer4Years = 1'461;

    const ULONGLONG milliseconds = static_cast<ULONGLONG>(time->QuadPart) / nt::kTicksPerMillisecond;
    const ULONGLONG days = milliseconds / kMillisecondsPerDay;
    const auto rest = static_cast<ULONG>(milliseconds % kMillisecondsPerDay);
    timeFields->Weekday = static_cast<CSHORT>((days + 1) % 7);  // 1601-01-01 was a Monday.
    timeFields->Hour = static_cast<CSHORT>(rest / 3'600'000);
    timeFields->Minute = static_cast<CSHORT>(rest / 60'000 % 60);
    timeFields->Second = static_cast<CSHORT>(rest / 1'000 % 60);
    timeFields->Milliseconds = static_cast<CSHORT>(rest % 1'000);

    // 1601 opens a cycle of 400 years, so that the leap day of every group is its last day.
    auto day = static_cast<ULONG>(days % kDaysPer400Years);
    const ULONG centuries = std::min<ULONG>(day / kDaysPer100Years, 3);
    day -= centuries * kDaysPer100Years;
    const ULONG fours = day / kDaysPer4Years;
    day -= fours * kDaysPer4Years;
    const ULONG single = std::min<ULONG>(day / 365, 3);
    day -= single * 365;
    const bool leap = single == 3 && (fours != 24 || centuries == 3);
    timeFields->Year =
        static_cast<CSHORT>(1601 + 400 * (days / kDaysPer400Years) + 100 * centuries + 4 * fours + single);

    const ULONG monthDays[12] = {31, leap ? 29U : 28U, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    ULONG month = 0;
    while (day >= monthDays[month]) {
        day -= monthDays[month++];
    }
    timeFields->Month = static_cast<CSHORT>(month + 1);
    timeFields->Day = static_cast<CSHORT>(day + 1);
}
