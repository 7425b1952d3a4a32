#include <memory>

#include "tool/advice.h"
#include "tool/cli/commands.h"
#include "tool/drive_file.h"
#include "tool/text.h"

namespace tool {
namespace {

struct MoveOptions {
    std::string from;
    std::string to;
};

const char* KindAt(std::size_t depth) {
    return depth == kVolumeLevel ? "volume" : depth == kFolderLevel ? "folder" : "clip";
}

// Where the thing goes: a bare name stays in its place, and a clip goes into a folder under its own name.
Result FindTarget(Session& session, const MoveOptions& options, const DrivePath& from, DrivePath& to) {
    std::string error;
    const auto typed = ParsePath(options.to, error);
    if (!typed) {
        return UsageFailure(error);
    }
    if (from.Depth() < kVolumeLevel || from.Depth() > kFileLevel) {
        return UsageFailure(from.Display() + " keeps its name", "volumes, folders and clips can be renamed");
    }
    if (options.to.find_first_of("/\\") == options.to.npos && !typed->drive && typed->names.size() == 1) {
        to = from.Sibling(typed->names.front());
        return std::nullopt;
    }
    if (Result failure = session.Resolve(*typed, to)) {
        return failure;
    }
    if (to.drive != from.drive) {
        return UsageFailure("drives " + std::string{from.drive} + ": and " + std::string{to.drive} + ": share nothing",
                            "copy it with vrkfs get and vrkfs put");
    }
    if (from.Depth() == kFileLevel && to.Depth() == kFolderLevel) {
        to = to.Child(from.names.back());
    }
    if (to.Depth() != from.Depth()) {
        return UsageFailure(to.Display() + " is no place for a " + KindAt(from.Depth()),
                            from.Depth() == kFileLevel ? "give P:/RZV/VOLUME/FOLDER, or .../FOLDER/NAME"
                                                       : "it keeps its place: give the new name alone");
    }
    return std::nullopt;
}

bool SamePlace(const DrivePath& left, const DrivePath& right) {
    return std::equal(left.names.begin(), left.names.end() - 1, right.names.begin(), right.names.end() - 1);
}

Result Move(Session& session, const Output& output, const MoveOptions& options, const DrivePath& from) {
    DrivePath to;
    if (Result failure = FindTarget(session, options, from, to)) {
        return failure;
    }
    if (to.IsReserved()) {
        return ReservedName("cannot move " + from.Display() + " to " + to.Display());
    }
    const std::u16string target = SamePlace(from, to) ? to.names.back() : to.Open();
    const host::Status status = RenameOnDrive(session.Process(), from, target);
    if (!status.Ok()) {
        return DriverFailure(Operation::kMove, "cannot move " + from.Display() + " to " + to.Display(), status);
    }
    output.Object({{"path", from.Display()}, {"now", to.Display()}});
    return std::nullopt;
}

struct TouchOptions {
    std::string path;
    std::string time = "now";
};

Result Touch(Session& session, const Output& output, const DrivePath& path, std::int64_t time) {
    const std::string what = "cannot set the time of " + path.Display();
    host::OpenRequest request;
    request.path = path.Open();
    // With a handle that can write: the record goes to the disk when such a handle closes.
    request.access = host::access::kWriteData | host::access::kWriteAttributes | host::access::kReadAttributes;
    request.options = host::option::kNonDirectoryFile;
    const host::OpenResult opened = session.Process().Create(request);
    if (!opened.status.Ok()) {
        return DriverFailure(Operation::kTouch, what, opened.status);
    }
    if (Result refused = session.NeedWritable(what)) {
        return refused;
    }
    host::ScopedHandle handle(session.Process(), opened.handle);
    host::Status status = host::SetLastWriteTime(session.Process(), opened.handle, time);
    handle.Reset();
    host::FileFacts facts;
    if (status.Ok()) {
        status = LookAt(session.Process(), path, facts);
    }
    if (!status.Ok()) {
        return DriverFailure(Operation::kTouch, what, status);
    }
    // What has no time that could be set lets this pass, and nobody is told of a record that could not be written.
    if (facts.lastWriteTime != time) {
        return Failure{.what = what + ": it did not change",
                       .advice = "only the time of a clip can be set; see vrkfs events for failures of disks"};
    }
    output.Object({{"path", path.Display()}, {"time", FormatTime(time, true)}});
    return std::nullopt;
}

void AddMv(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<MoveOptions>();
    CLI::App* command = AddCommand(
        app, "mv", "Rename a clip, folder or volume, or move a clip to another folder of its volume",
        R"(DST is a new name, a path, or for a clip a folder. What stands there already is never replaced. Nothing is copied, so
neither drive nor volume can change; folders and volumes keep their place, and nothing in them may be open.

  vrkfs mv P:/RZV/NEWS/MONDAY/opener.rzv closer.rzv
  vrkfs mv P:/RZV/NEWS/MONDAY/opener.rzv P:/RZV/NEWS/ARCHIVE
  vrkfs mv P:/RZV/NEWS/MONDAY TUESDAY
  vrkfs mv P:/RZV/NEWS SPORT)");
    command->add_option("SRC", options->from, "P:/RZV/VOLUME[/FOLDER[/CLIP]]")->required();
    command->add_option("DST", options->to, "a new name, a path, or a folder for a clip")->required();
    command->callback([options, &common] {
        const Output output("mv", common.json);
        Finish(RunOnPath(common, output, options->from, [&](Session& session, const DrivePath& path) {
            return Move(session, output, *options, path);
        }));
    });
}

void AddTouch(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<TouchOptions>();
    CLI::App* command = AddCommand(
        app, "touch", "Set the time of a clip",
        R"(TIME is UTC: 2024-02-29, "2024-02-29 13:05:59", @1709211959 (seconds since 1970) or now. The clip has to be there.

  vrkfs touch P:/RZV/NEWS/MONDAY/opener.rzv
  vrkfs touch -d 2024-02-29T13:05:59 P:/RZV/NEWS/MONDAY/opener.rzv)");
    command->add_option("PATH", options->path, "P:/RZV/VOLUME/FOLDER/CLIP")->required();
    command->add_option("-d,--date", options->time, "the time to set")->type_name("TIME")->capture_default_str();
    command->callback([options, &common] {
        const Output output("touch", common.json);
        const auto time = ParseTime(options->time);
        if (!time) {
            Finish(output.Fail(UsageFailure("'" + options->time + "' is no time",
                                            "give -d 2024-02-29T13:05:59, @SECONDS or now, in UTC")));
        }
        Finish(RunOnPath(common, output, options->path,
                         [&](Session& session, const DrivePath& path) { return Touch(session, output, path, *time); }));
    });
}

}  // namespace

void AddMoveAndTouch(CLI::App& app, CommonOptions& common) {
    AddMv(app, common);
    AddTouch(app, common);
}

}  // namespace tool
