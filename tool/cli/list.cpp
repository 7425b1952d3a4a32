#include <memory>

#include "tool/advice.h"
#include "tool/cli/commands.h"
#include "tool/text.h"

namespace tool {
namespace {

struct ListOptions {
    std::string path = "/";
    bool detailed = false;
};

// What an entry is follows from how deep it stands; a file into which nothing was recorded has no bytes.
const char* KindOf(std::size_t depth, bool isDirectory, std::uint64_t size) {
    switch (depth) {
        case kRootLevel:
            return "drive";
        case kTypeLevel:
            return "type";
        case kVolumeLevel:
            return "volume";
        case kFolderLevel:
            return "folder";
        case kFileLevel:
            return isDirectory || size > 0 ? "clip" : "empty";
        default:
            return "frame";
    }
}

// Reports what stands under `path`; `time` 100 ns since 1601.
void ReportEntry(const Output& output, const ListOptions& options, const DrivePath& path, bool isDirectory,
                 std::uint64_t size, std::int64_t time) {
    const std::string name = path.names.empty() ? path.Display() : DisplayName(path.names.back());
    const char* kind = KindOf(path.Depth(), isDirectory, size);
    std::string text = name;
    if (options.detailed) {
        text = PadLeft(isDirectory ? "-" : std::to_string(size), 14) + "  " + PadRight(FormatTime(time), 19) + "  " +
               PadRight(kind, 6) + "  " + name;
    }
    Json fields{{"path", path.Display()}, {"name", name}, {"kind", kind}};
    fields["bytes"] = isDirectory ? Json(nullptr) : Json(size);
    fields["time"] = time > 0 ? Json(FormatTime(time, true)) : Json(nullptr);
    output.Report(text, fields);
}

Result List(Session& session, const Output& output, const ListOptions& options, const DrivePath& path) {
    const std::string what = "cannot list " + path.Display();
    host::OpenRequest request;
    request.path = path.Open();
    const host::OpenResult opened = session.Process().Create(request);
    if (!opened.status.Ok()) {
        return DriverFailure(Operation::kList, what, opened.status);
    }
    const host::ScopedHandle handle(session.Process(), opened.handle);
    host::FileFacts facts;
    host::Status status = host::QueryFacts(session.Process(), opened.handle, facts);
    if (!status.Ok()) {
        return DriverFailure(Operation::kList, what, status);
    }
    if (!facts.isDirectory) {
        ReportEntry(output, options, path, false, facts.size, facts.lastWriteTime);
        return std::nullopt;
    }
    std::vector<host::DirectoryEntry> entries;
    status = host::ListDirectory(session.Process(), opened.handle, entries);
    if (!status.Ok()) {
        return DriverFailure(Operation::kList, what, status);
    }
    for (const host::DirectoryEntry& entry : entries) {
        ReportEntry(output, options, path.Child(entry.name), entry.IsDirectory(), entry.size, entry.lastWriteTime);
    }
    return std::nullopt;
}

}  // namespace

void AddList(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<ListOptions>();
    CLI::App* command = AddCommand(
        app, "ls", "List what a folder of a drive holds",
        R"(Entries come in the order in which they stand on the disk. -l shows bytes, time (UTC) and kind: type, volume, folder,
clip, or empty for a file into which nothing was recorded. Characters that a terminal or a path cannot carry are shown
as <XXXX>, their code in hexadecimal, and can be typed back like that.

  vrkfs ls                        what the drive holds, when there is one
  vrkfs ls P:/RZV                 its volumes
  vrkfs ls -l P:/RZV/NEWS/MONDAY  the clips of a folder)");
    command->add_option("PATH", options->path, "a folder or file on a drive")->capture_default_str();
    command->add_flag("-l", options->detailed, "size, time and kind too");
    command->callback([options, &common] {
        const Output output("ls", common.json);
        Finish(RunOnPath(common, output, options->path, [&](Session& session, const DrivePath& path) {
            return List(session, output, *options, path);
        }));
    });
}

}  // namespace tool
