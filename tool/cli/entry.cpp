// What a volume keeps of one clip: its record, where its parts lie, and what applications keep with it.
#include <vrkfs/control.h>
#include <vrkfs/media.h>

#include <array>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>

#include "tool/advice.h"
#include "tool/card_control.h"
#include "tool/cli/commands.h"
#include "tool/drive_file.h"
#include "tool/file_placement.h"
#include "tool/text.h"

namespace tool {
namespace {

// The record's fields that are shown, by their place in it.
constexpr std::size_t kTime = 0x008;
constexpr std::size_t kVideoLength = 0x010;
constexpr std::size_t kKind = 0x020;
constexpr std::size_t kLineStandard = 0x024;
constexpr std::size_t kPlainBytes = 0x028;
constexpr std::size_t kFrames = 0x050;
constexpr std::size_t kAlphaLength = 0x064;
constexpr std::size_t kFlags = 0x074;
constexpr std::size_t kVideoFormat = 0x078;
constexpr std::size_t kAlphaFormat = 0x07C;
constexpr std::size_t kApplicationInfo = 0x100;
constexpr std::size_t kApplicationBytes = sizeof(VrkFsApplicationInfoRequest::ApplicationInfo);

using EntryBytes = std::array<std::byte, VRKFS_FILE_ENTRY_SIZE>;
using ApplicationInfo = std::array<std::byte, kApplicationBytes>;

template <typename Value>
Value At(const EntryBytes& entry, std::size_t offset) {
    Value value{};
    std::memcpy(&value, entry.data() + offset, sizeof(value));
    return value;
}

struct OpenClip {
    host::ScopedHandle handle;
    std::unique_ptr<CardControl> control;
};

// `change`: with a handle that can write, when which closes the record goes to the disk.
Result Open(Session& session, const DrivePath& path, bool change, const std::string& what, OpenClip& clip) {
    host::OpenRequest request;
    request.path = path.Open();
    request.access = host::access::kReadAttributes | (change ? host::access::kWriteData : 0);
    request.options = host::option::kNonDirectoryFile;
    const host::OpenResult opened = session.Process().Create(request);
    if (!opened.status.Ok()) {
        return DriverFailure(Operation::kRecord, what, opened.status);
    }
    clip.handle = host::ScopedHandle(session.Process(), opened.handle);
    clip.control = std::make_unique<CardControl>(session.Process(), path.card);
    return std::nullopt;
}

Result ReadEntry(const OpenClip& clip, const std::string& what, EntryBytes& entry) {
    const VrkFsHandleRequest request{clip.handle.Get()};
    const host::Status status = clip.control->Ask(IOCTL_VRKFS_GET_FILE_ENTRY, request, entry);
    return status.Ok() ? std::nullopt : Result(DriverFailure(Operation::kRecord, what, status));
}

std::string HexText(std::span<const std::byte> bytes) {
    std::string text;
    for (const std::byte byte : bytes) {
        char digits[4];
        std::snprintf(digits, sizeof(digits), "%02x", std::to_integer<unsigned>(byte));
        text += digits;
    }
    return text;
}

// ---- entry ----

struct FlagName {
    std::uint32_t flag;
    const char* name;
};

constexpr FlagName kFlagNames[] = {
    {VRKFS_FILE_HAS_ALPHA, "alpha"},
    {VRKFS_FILE_VIDEO_SDTI, "video format set"},
    {VRKFS_FILE_ALPHA_SDTI, "alpha format set"},
    {VRKFS_FILE_VIDEO_PENDING, "video space reserved"},
    {VRKFS_FILE_ALPHA_PENDING, "alpha space reserved"},
};

std::vector<std::string> FlagsOf(const EntryBytes& entry) {
    std::vector<std::string> names;
    for (const FlagName& flag : kFlagNames) {
        if ((At<std::uint32_t>(entry, kFlags) & flag.flag) != 0) {
            names.emplace_back(flag.name);
        }
    }
    return names;
}

std::string DescribeEntry(const DrivePath& path, const EntryBytes& entry, const FilePlacement& placement) {
    const bool media = At<std::uint32_t>(entry, kKind) == VRKFS_FILE_MEDIA;
    std::string flags;
    for (const std::string& flag : FlagsOf(entry)) {
        flags += (flags.empty() ? "" : ", ") + flag;
    }
    std::string text = path.Display() + "\n  time          " + FormatTime(At<std::int64_t>(entry, kTime)) +
                       "\n  kind          " + (media ? "media" : "plain") + "\n  flags         " +
                       (flags.empty() ? "none" : flags);
    if (media) {
        text += "\n  lines         " + std::to_string(At<std::uint32_t>(entry, kLineStandard)) + "\n  frames        " +
                std::to_string(At<std::uint32_t>(entry, kFrames)) + "\n  video length  " +
                std::to_string(At<std::uint64_t>(entry, kVideoLength)) + " blocks over all disks" +
                "\n  alpha length  " + std::to_string(At<std::uint64_t>(entry, kAlphaLength)) +
                " blocks over all disks" + "\n  formats       video " +
                std::to_string(At<std::uint32_t>(entry, kVideoFormat)) + ", alpha " +
                std::to_string(At<std::uint32_t>(entry, kAlphaFormat));
    } else {
        text += "\n  bytes         " + std::to_string(At<std::uint64_t>(entry, kPlainBytes));
    }
    for (std::size_t index = 0; index < kSegments; ++index) {
        const auto segment = static_cast<Segment>(index);
        const BlockRange& range = placement.Of(segment);
        text += "\n  " + PadRight(SegmentName(segment), 16) + "  ";
        text += range ? "blocks " + std::to_string(range.first) + " to " + std::to_string(range.End() - 1) +
                            (IsOnEveryDisk(segment) ? " of every disk" : " of the first disk")
                      : "none";
    }
    return text;
}

Json JsonOfEntry(const DrivePath& path, const EntryBytes& entry, const FilePlacement& placement) {
    const bool media = At<std::uint32_t>(entry, kKind) == VRKFS_FILE_MEDIA;
    Json fields{{"path", path.Display()},
                {"time", FormatTime(At<std::int64_t>(entry, kTime), true)},
                {"kind", media ? "media" : "plain"},
                {"flags", FlagsOf(entry)},
                {"line_standard", At<std::uint32_t>(entry, kLineStandard)},
                {"bytes", At<std::uint64_t>(entry, kPlainBytes)},
                {"frames", At<std::uint32_t>(entry, kFrames)},
                {"video_blocks", At<std::uint64_t>(entry, kVideoLength)},
                {"alpha_blocks", At<std::uint64_t>(entry, kAlphaLength)},
                {"video_format", At<std::uint32_t>(entry, kVideoFormat)},
                {"alpha_format", At<std::uint32_t>(entry, kAlphaFormat)}};
    constexpr const char* kKeys[kSegments] = {"record", "data", "body_table", "alpha_data", "alpha_body_table"};
    for (std::size_t index = 0; index < kSegments; ++index) {
        const BlockRange& range = placement.segments[index];
        fields[kKeys[index]] = range ? Json{{"first", range.first}, {"blocks", range.count}} : Json(nullptr);
    }
    fields["application_info"] = HexText(std::span(entry).subspan(kApplicationInfo, kApplicationBytes));
    return fields;
}

Result ShowEntry(Session& session, const Output& output, const DrivePath& path) {
    const std::string what = "cannot read the record of " + path.Display();
    OpenClip clip;
    EntryBytes entry{};
    Result failure = Open(session, path, false, what, clip);
    if (!failure) {
        failure = ReadEntry(clip, what, entry);
    }
    if (failure) {
        return failure;
    }
    FilePlacement placement;
    const host::Status status =
        ReadFilePlacement(session.Process(), clip.control->Handle(), clip.handle.Get(), placement);
    if (!status.Ok()) {
        return DriverFailure(Operation::kRecord, what, status);
    }
    output.Report(DescribeEntry(path, entry, placement), JsonOfEntry(path, entry, placement));
    return std::nullopt;
}

// ---- app-info ----

struct AppInfoOptions {
    std::string path;
    std::optional<std::string> file;
    std::optional<std::string> text;
};

// Lines of 16 bytes; what follows the last byte that is not zero is left out.
std::string DumpText(std::span<const std::byte> bytes) {
    while (!bytes.empty() && bytes.back() == std::byte{0}) {
        bytes = bytes.first(bytes.size() - 1);
    }
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); at += 16) {
        const auto line = bytes.subspan(at, std::min<std::size_t>(16, bytes.size() - at));
        char offset[24];
        std::snprintf(offset, sizeof(offset), "%03zx  ", at);
        std::string hex;
        std::string shown;
        for (const std::byte byte : line) {
            const char character = static_cast<char>(byte);
            hex += HexText(std::span(&byte, 1)) + " ";
            shown += character >= 0x20 && character < 0x7F ? character : '.';
        }
        text += (at == 0 ? "" : "\n") + std::string(offset) + PadRight(hex, 48) + " " + shown;
    }
    return text.empty() ? "nothing" : text;
}

// The new contents, zeroes behind them; what is wrong with them otherwise.
Result ReadContents(const AppInfoOptions& options, ApplicationInfo& info) {
    std::string bytes = options.text.value_or("");
    if (options.file) {
        const bool standard = *options.file == "-";
        std::ifstream file;
        if (!standard) {
            file.open(*options.file, std::ios::binary);
        }
        std::istream& in = standard ? std::cin : file;
        bytes.resize(kApplicationBytes + 1);
        in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        bytes.resize(static_cast<std::size_t>(in.gcount()));
        if (in.bad() || (!standard && !file.is_open())) {
            return Failure{.what = *options.file + " cannot be read", .advice = "check the name and your rights to it"};
        }
    }
    if (bytes.size() > kApplicationBytes) {
        const std::string what = (options.file ? *options.file : "the text") + " is longer than 256 bytes";
        return options.file ? Failure{.what = what, .advice = "a clip keeps no more", .state = "nothing was changed"}
                            : UsageFailure(what);
    }
    std::memcpy(info.data(), bytes.data(), bytes.size());
    return std::nullopt;
}

Result SetInfo(const OpenClip& clip, const std::string& what, const ApplicationInfo& info) {
    VrkFsApplicationInfoRequest request{};
    request.Handle = clip.handle.Get();
    std::memcpy(request.ApplicationInfo, info.data(), info.size());
    const host::Status status = clip.control->Send(IOCTL_VRKFS_SET_APP_FILE_ENTRY_INFO, request);
    return status.Ok() ? std::nullopt : Result(DriverFailure(Operation::kRecord, what, status));
}

// `contents`: what to set, or null to show what is there.
Result AppInfo(Session& session, const Output& output, const ApplicationInfo* contents, const DrivePath& path) {
    const std::string what = "cannot " + std::string(contents != nullptr ? "set" : "read") +
                             " the application information of " + path.Display();
    OpenClip clip;
    Result failure = contents != nullptr ? session.NeedWritable(what) : std::nullopt;
    if (!failure) {
        failure = Open(session, path, contents != nullptr, what, clip);
    }
    if (!failure && contents != nullptr) {
        failure = SetInfo(clip, what, *contents);
        if (!failure) {
            // The record is written when the file closes, where a failure is told to nobody: look again.
            clip = {};
            failure = Open(session, path, false, what, clip);
        }
    }
    EntryBytes entry{};
    if (!failure) {
        failure = ReadEntry(clip, what, entry);
    }
    if (failure) {
        return failure;
    }
    const auto info = std::span(entry).subspan(kApplicationInfo, kApplicationBytes);
    if (contents != nullptr && !std::ranges::equal(info, *contents)) {
        return Failure{.what = what + ": it is not what was set", .advice = "see vrkfs events, and check the disks"};
    }
    if (contents == nullptr) {
        output.Report(DumpText(info), {{"path", path.Display()}, {"hex", HexText(info)}});
    } else {
        output.Object({{"path", path.Display()}, {"hex", HexText(info)}});
    }
    return std::nullopt;
}

int RunAppInfo(const CommonOptions& common, const AppInfoOptions& options) {
    const Output output("app-info", common.json);
    const bool set = options.file || options.text;
    ApplicationInfo contents{};
    if (set) {
        if (const Result failure = ReadContents(options, contents)) {
            return output.Fail(*failure);
        }
    }
    return RunOnPath(common, output, options.path, [&](Session& session, const DrivePath& path) {
        return AppInfo(session, output, set ? &contents : nullptr, path);
    });
}

void AddAppInfo(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<AppInfoOptions>();
    CLI::App* command = AddCommand(
        app, "app-info", "Show or set what applications keep with a clip",
        R"(256 bytes of any content, part of the clip wherever it goes; what is set is filled up with zeroes. FILE may be - for
standard input.

  vrkfs app-info P:/RZV/NEWS/MONDAY/opener.rzv
  vrkfs app-info P:/RZV/NEWS/MONDAY/opener.rzv --text "take 3, good"
  vrkfs app-info P:/RZV/NEWS/MONDAY/opener.rzv --set notes.bin)");
    command->add_option("PATH", options->path, "P:/RZV/VOLUME/FOLDER/CLIP")->required();
    CLI::Option* file = command->add_option("--set", options->file, "the bytes to keep")->type_name("FILE");
    command->add_option("--text", options->text, "the text to keep, in UTF-8")->type_name("STR")->excludes(file);
    command->callback([options, &common] { Finish(RunAppInfo(common, *options)); });
}

}  // namespace

void AddEntry(CLI::App& app, CommonOptions& common) {
    auto typed = std::make_shared<std::string>();
    CLI::App* command = AddCommand(
        app, "entry", "Show the record that a volume keeps of a clip, and where its parts lie",
        R"(Blocks have 512 bytes and count per disk. Data lies at the same blocks of every disk of the volume; the record and the
body tables on the first disk only.

  vrkfs entry P:/RZV/NEWS/MONDAY/opener.rzv
  vrkfs entry P:/RZV/NEWS/MONDAY/opener.rzv --json | jq .data)");
    command->add_option("PATH", *typed, "P:/RZV/VOLUME/FOLDER/CLIP")->required();
    command->callback([typed, &common] {
        const Output output("entry", common.json);
        Finish(RunOnPath(common, output, *typed,
                         [&](Session& session, const DrivePath& path) { return ShowEntry(session, output, path); }));
    });
    AddAppInfo(app, common);
}

}  // namespace tool
