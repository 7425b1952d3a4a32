#include "nt/errlog.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "nt/descriptor.h"
#include "nt/durable_file.h"
#include "nt/io.h"
#include "nt/object_internal.h"
#include "nt/rtl.h"
#include "nt/station.h"
#include "nt/station_internal.h"
#include "nt/text.h"

// The log is a text file of one JSON object a line. "packet" is the entry, byte for byte; "when" and "event" say the
// same for people who look into the file. A line that a crash has torn is closed by the next writer and skipped by
// readers.

namespace {

using Json = nlohmann::ordered_json;

constexpr ULONG kEntryTag = 0x674C7245;  // "ErLg"
constexpr ULONG kFixedPart = sizeof(IO_ERROR_LOG_PACKET);
constexpr ULONG kDumpOffset = offsetof(IO_ERROR_LOG_PACKET, DumpData);
constexpr off_t kFileLimit = 8 << 20;    // Bytes; then the file becomes the old one and a new one begins.
constexpr SIZE_T kReadLimit = 64 << 20;  // Bytes.
constexpr SIZE_T kLineLimit = 4096;      // Bytes; an entry's line has less than 1000.
constexpr const char* kOldSuffix = ".old";

struct EntryHeader {
    PVOID ioObject;  // Referenced.
    ULONG size;      // Bytes of the packet, which follows.
    ULONG reserved;
};
static_assert(sizeof(EntryHeader) % alignof(IO_ERROR_LOG_PACKET) == 0);

struct EventLog {
    std::mutex mutex;
    std::string file;  // Empty: entries are dropped.
};
EventLog g_log;

EntryHeader* HeaderOf(PVOID packet) {
    return static_cast<EntryHeader*>(packet) - 1;
}

void FreeEntry(EntryHeader* header) {
    ObDereferenceObject(header->ioObject);
    ExFreePoolWithTag(header, kEntryTag);
}

// The strings of a packet, or nothing when they do not lie inside it.
std::optional<std::vector<std::u16string>> StringsOf(const UCHAR* packet, SIZE_T size) {
    IO_ERROR_LOG_PACKET fixed;
    std::memcpy(&fixed, packet, kFixedPart);
    std::vector<std::u16string> strings(fixed.NumberOfStrings <= size ? fixed.NumberOfStrings : 0);
    if (strings.size() != fixed.NumberOfStrings) {
        return std::nullopt;
    }
    SIZE_T offset = fixed.StringOffset;
    for (std::u16string& string : strings) {
        while (true) {
            WCHAR character;
            if (offset < kDumpOffset || offset + sizeof(character) > size) {
                return std::nullopt;
            }
            std::memcpy(&character, packet + offset, sizeof(character));
            offset += sizeof(character);
            if (character == UNICODE_NULL) {
                break;
            }
            string += character;
        }
    }
    return strings;
}

bool IsWellFormed(const UCHAR* packet, SIZE_T size) {
    if (size < kFixedPart || size > ERROR_LOG_MAXIMUM_SIZE) {
        return false;
    }
    IO_ERROR_LOG_PACKET fixed;
    std::memcpy(&fixed, packet, kFixedPart);
    return kDumpOffset + fixed.DumpDataSize <= size && StringsOf(packet, size).has_value();
}

std::string LastComponent(PCUNICODE_STRING path) {
    const std::u16string_view name = nt::View(path);
    return nt::Utf8FromWide(name.substr(name.rfind(u'\\') + 1));
}

std::string TimeText(LONGLONG time) {
    LARGE_INTEGER systemTime;
    systemTime.QuadPart = time;
    TIME_FIELDS fields;
    RtlTimeToTimeFields(&systemTime, &fields);
    char text[64];
    std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", fields.Year, fields.Month, fields.Day,
                  fields.Hour, fields.Minute, fields.Second, fields.Milliseconds);
    return text;
}

std::string FormatEntry(const EntryHeader& header, const IO_ERROR_LOG_PACKET* packet) {
    std::string source;
    std::string device;
    if (*static_cast<const CSHORT*>(header.ioObject) == IO_TYPE_DRIVER) {
        source = LastComponent(&static_cast<PDRIVER_OBJECT>(header.ioObject)->DriverName);
    } else {
        source = LastComponent(&static_cast<PDEVICE_OBJECT>(header.ioObject)->DriverObject->DriverName);
        device = nt::Utf8FromWide(nt::ObNameOf(header.ioObject));
    }
    char event[16];
    std::snprintf(event, sizeof(event), "0x%08X", static_cast<ULONG>(packet->ErrorCode));
    const LONGLONG time = nt::ClockNow();
    const Json line = {{"time", time},     {"when", TimeText(time)}, {"source", source},
                       {"device", device}, {"event", event},         {"packet", nt::HexFromBytes(packet, header.size)}};
    return line.dump() + "\n";
}

bool EndsInLine(int file, off_t size) {
    char last = '\n';
    return size == 0 || (pread(file, &last, 1, size - 1) == 1 && last == '\n');
}

// Opens the log for appending; a log that has grown long becomes the old one first. Nothing where there is no file to
// write to: losing an entry must not disturb anybody.
nt::Descriptor OpenForAppend(const std::string& path, off_t* size) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        nt::Descriptor file(
            open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644));
        struct stat status;
        if (!file || fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
            return {};
        }
        *size = status.st_size;
        if (*size < kFileLimit || rename(path.c_str(), (path + kOldSuffix).c_str()) != 0) {
            return file;
        }
    }
    return {};
}

void Append(const std::string& line) {
    const std::lock_guard lock(g_log.mutex);
    if (g_log.file.empty()) {
        return;
    }
    off_t size = 0;
    const nt::Descriptor file = OpenForAppend(g_log.file, &size);
    if (file) {
        nt::WriteWhole(file.Get(), EndsInLine(file.Get(), size) ? line : "\n" + line);
    }
}

std::string StringMember(const Json& json, const char* name) {
    const auto member = json.find(name);
    return member != json.end() && member->is_string() ? member->get<std::string>() : std::string();
}

std::optional<nt::EventLogEntry> ParseEntry(std::string_view line) {
    if (line.size() > kLineLimit) {
        return std::nullopt;
    }
    const Json json = Json::parse(line.begin(), line.end(), nullptr, false);
    if (!json.is_object() || !json.contains("time") || !json["time"].is_number_integer()) {
        return std::nullopt;
    }
    const std::optional<std::string> packet = nt::BytesFromHex(StringMember(json, "packet"));
    if (!packet || !IsWellFormed(reinterpret_cast<const UCHAR*>(packet->data()), packet->size())) {
        return std::nullopt;
    }
    nt::EventLogEntry entry;
    entry.time = json["time"].get<LONGLONG>();
    entry.source = StringMember(json, "source");
    entry.device = StringMember(json, "device");
    entry.packet.assign(packet->begin(), packet->end());
    IO_ERROR_LOG_PACKET fixed;
    std::memcpy(&fixed, packet->data(), kFixedPart);
    entry.eventId = static_cast<uint32_t>(fixed.ErrorCode);
    entry.finalStatus = static_cast<uint32_t>(fixed.FinalStatus);
    entry.strings = *StringsOf(entry.packet.data(), entry.packet.size());
    entry.dumpData.assign(entry.packet.begin() + kDumpOffset, entry.packet.begin() + kDumpOffset + fixed.DumpDataSize);
    return entry;
}

void ReadLogFile(const std::string& path, nt::EventLogContents* contents) {
    std::string text;
    bool exists = false;
    if (std::string error = nt::ReadSmallFile(path, kReadLimit, &text, &exists); !error.empty()) {
        contents->error = std::move(error);
        return;
    }
    for (SIZE_T start = 0; start < text.size();) {
        const SIZE_T end = text.find('\n', start);
        const bool torn = end == std::string::npos;
        const std::string_view line = std::string_view(text).substr(start, torn ? end : end - start);
        if (std::optional<nt::EventLogEntry> entry = ParseEntry(line)) {
            contents->entries.push_back(*std::move(entry));
        } else if (!torn && !line.empty()) {
            ++contents->damagedRecords;
        }
        start = torn ? text.size() : end + 1;
    }
}

void DetachEventLog(nt::LeakList& /*leaks*/) {
    const std::lock_guard lock(g_log.mutex);
    g_log.file.clear();
}

[[maybe_unused]] const bool kAdded =
    nt::AddKernelPart({.name = "event log", .boot = [] {}, .shutdown = DetachEventLog});

}  // namespace

PVOID IoAllocateErrorLogEntry(PVOID ioObject, UCHAR entrySize) {
    const CSHORT type = *static_cast<const CSHORT*>(ioObject);
    if (type != IO_TYPE_DRIVER && type != IO_TYPE_DEVICE) {
        nt::Violation("IoAllocateErrorLogEntry: the object is neither a driver nor a device");
        return nullptr;
    }
    if (entrySize < kFixedPart || entrySize > ERROR_LOG_MAXIMUM_SIZE || nt::FaultPoint(nt::FaultKind::kErrorLog)) {
        return nullptr;
    }
    const nt::FaultExempt exempt;
    const SIZE_T size = sizeof(EntryHeader) + entrySize;
    auto* const header = static_cast<EntryHeader*>(ExAllocatePoolWithTag(NonPagedPool, size, kEntryTag));
    if (header == nullptr) {
        return nullptr;
    }
    RtlZeroMemory(header, size);
    header->ioObject = ioObject;
    header->size = entrySize;
    ObReferenceObject(ioObject);
    return header + 1;
}

void IoWriteErrorLogEntry(PVOID entry) {
    EntryHeader* const header = HeaderOf(entry);
    if (IsWellFormed(static_cast<const UCHAR*>(entry), header->size)) {
        Append(FormatEntry(*header, static_cast<PIO_ERROR_LOG_PACKET>(entry)));
    } else {
        nt::Violation("IoWriteErrorLogEntry: dump data or strings do not lie inside the entry of %u bytes",
                      header->size);
    }
    FreeEntry(header);
}

void IoFreeErrorLogEntry(PVOID entry) {
    FreeEntry(HeaderOf(entry));
}

namespace nt {

std::string AttachEventLog(const std::string& file, bool readOnly) {
    struct stat status;
    if (!file.empty() && stat(file.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        return file + " is not a file";
    }
    const std::lock_guard lock(g_log.mutex);
    g_log.file = readOnly ? std::string() : file;
    return {};
}

EventLogContents ReadEventLog(const std::string& path) {
    EventLogContents contents;
    ReadLogFile(path + kOldSuffix, &contents);
    if (contents.error.empty()) {
        ReadLogFile(path, &contents);
    }
    return contents;
}

}  // namespace nt
