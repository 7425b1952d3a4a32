#include "core/event_log.h"

#include <cstdarg>
#include <cstddef>

namespace {

// The largest entry that the system's log takes, and where in it the dump data lies.
constexpr ULONG kMaxEntryBytes = 152;
constexpr ULONG kDumpOffset = 40;
static_assert(offsetof(IO_ERROR_LOG_PACKET, DumpData) == kDumpOffset);
static_assert(offsetof(IO_ERROR_LOG_PACKET, ErrorCode) == 12 && offsetof(IO_ERROR_LOG_PACKET, FinalStatus) == 20);

// The fixed part's length counts the first word of the dump area and the record's alignment.
constexpr ULONG kFixedBytes = sizeof(IO_ERROR_LOG_PACKET);
static_assert(kFixedBytes == 48);
constexpr ULONG kStringsBehindDump = 44;

ULONG VrkFsGlobTextLength(PCSTR Text) {
    ULONG length = 0;
    while (Text[length] != 0) {
        ++length;
    }
    return length;
}

// Bytes that the strings take in the entry, their terminators included, or more than any entry has.
ULONG VrkFsGlobMeasureStrings(va_list Strings) {
    ULONG bytes = 0;
    while (bytes <= kMaxEntryBytes) {
        const auto* text = va_arg(Strings, PCSTR);
        if (text == nullptr) {
            break;
        }
        bytes += (VrkFsGlobTextLength(text) + 1) * sizeof(WCHAR);
    }
    return bytes;
}

// Widens the strings one behind the other and returns their number. The characters keep their values: no code page.
USHORT VrkFsGlobCopyStrings(PWCHAR Target, va_list Strings) {
    USHORT count = 0;
    for (const auto* text = va_arg(Strings, PCSTR); text != nullptr; text = va_arg(Strings, PCSTR)) {
        ++count;
        do {
            *Target++ = static_cast<UCHAR>(*text);
        } while (*text++ != 0);
    }
    return count;
}

}  // namespace

NTSTATUS VrkFsGlobLogEvent(PVOID IoObject, ULONG EventId, NTSTATUS FinalStatus, const VOID* DumpData, ULONG DumpSize,
                           ...) {
    va_list strings;
    va_start(strings, DumpSize);
    const ULONG stringBytes = VrkFsGlobMeasureStrings(strings);
    va_end(strings);
    if (stringBytes > kMaxEntryBytes || DumpSize > kMaxEntryBytes ||
        stringBytes + DumpSize + kFixedBytes > kMaxEntryBytes) {
        return STATUS_UNSUCCESSFUL;
    }

    const ULONG entryBytes = stringBytes + DumpSize + kFixedBytes;
    auto* entry = static_cast<PIO_ERROR_LOG_PACKET>(IoAllocateErrorLogEntry(IoObject, static_cast<UCHAR>(entryBytes)));
    if (entry == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    RtlZeroMemory(entry, entryBytes);
    entry->ErrorCode = static_cast<NTSTATUS>(EventId);
    entry->FinalStatus = FinalStatus;
    entry->DumpDataSize = static_cast<USHORT>(DumpSize);
    entry->StringOffset = static_cast<USHORT>(DumpSize + kStringsBehindDump);
    auto* bytes = reinterpret_cast<PUCHAR>(entry);
    if (DumpData != nullptr && DumpSize != 0) {
        RtlCopyMemory(bytes + kDumpOffset, DumpData, DumpSize);
    }
    va_start(strings, DumpSize);
    entry->NumberOfStrings = VrkFsGlobCopyStrings(reinterpret_cast<PWCHAR>(bytes + entry->StringOffset), strings);
    va_end(strings);
    IoWriteErrorLogEntry(entry);
    return STATUS_SUCCESS;
}
