// Conveniences over the process interface, the same for every kind of process.
#include <algorithm>
#include <array>
#include <cstring>

#include "host/process.h"
#include "host/record_field.h"

namespace host {
namespace {

constexpr std::uint32_t kFileDirectoryInformation = 1;
constexpr std::uint32_t kFileBasicInformation = 4;
constexpr std::uint32_t kFileRenameInformation = 10;
constexpr std::uint32_t kFileDispositionInformation = 13;
constexpr std::uint32_t kFileNetworkOpenInformation = 34;

// The fixed part of one FILE_DIRECTORY_INFORMATION.
constexpr std::size_t kEntryFixed = 64;
constexpr std::size_t kNextOffset = 0;
constexpr std::size_t kFileIndex = 4;
constexpr std::size_t kLastWriteTime = 24;
constexpr std::size_t kEndOfFile = 40;
constexpr std::size_t kAttributes = 56;
constexpr std::size_t kNameLength = 60;

// FILE_NETWORK_OPEN_INFORMATION: what QueryFacts wants, in one query.
constexpr std::size_t kNetworkOpenBytes = 56;
constexpr std::size_t kNetworkOpenLastWriteTime = 16;
constexpr std::size_t kNetworkOpenEndOfFile = 40;
constexpr std::size_t kNetworkOpenAttributes = 48;
constexpr std::uint32_t kAttributeDirectory = 0x10;

// FILE_BASIC_INFORMATION and FILE_RENAME_INFORMATION.
constexpr std::size_t kBasicBytes = 40;
constexpr std::size_t kBasicLastWriteTime = 16;
constexpr std::size_t kRenameFixed = 12;
constexpr std::size_t kRenameSmallest = 16;
constexpr std::size_t kRenameNameLength = 8;

// Appends the entries of one filled buffer; false when it does not hold together.
bool ParseEntries(std::span<const std::byte> bytes, std::vector<DirectoryEntry>& entries) {
    std::size_t place = 0;
    while (true) {
        if (bytes.size() < kEntryFixed || place > bytes.size() - kEntryFixed) {
            return false;
        }
        const auto entry = bytes.subspan(place);
        const auto nameBytes = FieldAt<std::uint32_t>(entry, kNameLength);
        if (nameBytes > entry.size() - kEntryFixed) {
            return false;
        }
        DirectoryEntry& found = entries.emplace_back();
        found.index = FieldAt<std::uint32_t>(entry, kFileIndex);
        found.lastWriteTime = FieldAt<std::int64_t>(entry, kLastWriteTime);
        found.size = FieldAt<std::uint64_t>(entry, kEndOfFile);
        found.attributes = FieldAt<std::uint32_t>(entry, kAttributes);
        found.name.resize(nameBytes / sizeof(char16_t));
        std::memcpy(found.name.data(), entry.data() + kEntryFixed, found.name.size() * sizeof(char16_t));

        const auto next = FieldAt<std::uint32_t>(entry, kNextOffset);
        if (next == 0) {
            return true;
        }
        place += next;
    }
}

}  // namespace

Status ListDirectory(Process& process, Handle directory, std::vector<DirectoryEntry>& entries,
                     const std::u16string& pattern) {
    std::vector<std::byte> buffer(64 << 10);
    Process::DirectoryQuery query;
    query.informationClass = kFileDirectoryInformation;
    query.pattern = pattern;
    query.restart = true;
    while (true) {
        const IoResult result = process.QueryDirectory(directory, query, buffer);
        if (result.status == status::kNoMoreFiles || result.status == status::kNoSuchFile) {
            return status::kSuccess;
        }
        if (!result.status.Ok()) {
            return result.status;
        }
        if (!ParseEntries(std::span(buffer).first(result.information), entries)) {
            return status::kUnsuccessful;
        }
        query.restart = false;
    }
}

Status QueryFacts(Process& process, Handle handle, FileFacts& facts) {
    std::array<std::byte, kNetworkOpenBytes> record{};
    const IoResult result = process.QueryInformation(handle, kFileNetworkOpenInformation, record);
    if (result.status.Ok()) {
        facts.size = FieldAt<std::uint64_t>(record, kNetworkOpenEndOfFile);
        facts.lastWriteTime = FieldAt<std::int64_t>(record, kNetworkOpenLastWriteTime);
        facts.isDirectory = (FieldAt<std::uint32_t>(record, kNetworkOpenAttributes) & kAttributeDirectory) != 0;
    }
    return result.status;
}

Status SetDeleteOnCleanup(Process& process, Handle handle, bool deleteIt) {
    const std::array<std::byte, 1> disposition{std::byte{deleteIt}};
    return process.SetInformation(handle, kFileDispositionInformation, disposition).status;
}

Status Rename(Process& process, Handle handle, const std::u16string& target) {
    const bool isPath = target.size() > 2 && target[1] == u':' && target[2] == u'\\';
    const std::u16string name = isPath ? u"\\DosDevices\\" + target : target;
    const auto bytes = static_cast<std::uint32_t>(name.size() * sizeof(char16_t));
    std::vector<std::byte> record(std::max(kRenameFixed + bytes, kRenameSmallest));
    std::memcpy(record.data() + kRenameNameLength, &bytes, sizeof(bytes));
    std::memcpy(record.data() + kRenameFixed, name.data(), bytes);
    return process.SetInformation(handle, kFileRenameInformation, record).status;
}

Status SetLastWriteTime(Process& process, Handle handle, std::int64_t time) {
    std::array<std::byte, kBasicBytes> basic{};
    std::memcpy(basic.data() + kBasicLastWriteTime, &time, sizeof(time));
    return process.SetInformation(handle, kFileBasicInformation, basic).status;
}

}  // namespace host
