#include <unistd.h>

#include <memory>
#include <system_error>

#include "tool/advice.h"
#include "tool/cli/commands.h"
#include "tool/clip/files.h"
#include "tool/clip_put.h"
#include "tool/clip_transfer.h"
#include "tool/interrupt.h"
#include "tool/text.h"

namespace tool {
namespace {

constexpr const char* kStandardStream = "-";

struct PutOptions {
    std::string local;
    std::string path;
    bool replace = false;

    [[nodiscard]] std::string LocalName() const { return local == kStandardStream ? "standard input" : local; }
};

// The clip's place on the drive: under its own name where only a folder is given.
Result FindPlace(const PutOptions& options, DrivePath& path) {
    if (path.Depth() == kFolderLevel && options.local != kStandardStream) {
        const std::string_view local = options.local;
        const auto name = ParseName(local.substr(local.find_last_of('/') + 1));
        if (!name) {
            return UsageFailure("the name of " + options.local + " is not UTF-8", "name the clip in PATH");
        }
        path = path.Child(*name);
    }
    if (path.Depth() != kFileLevel) {
        return UsageFailure(path.Display() + " is no place for a clip", "give P:/RZV/VOLUME/FOLDER/CLIP");
    }
    return std::nullopt;
}

// `written`: seconds until the drive had it all; `durable`: until the images had it for good.
void ReportPut(const Output& output, const DrivePath& path, const clip::ClipLayout& layout, bool replaced,
               double written, double durable) {
    const std::uint64_t bytes = layout.TotalBytes();
    char taken[64];
    std::snprintf(taken, sizeof(taken), "%.2f s", written);
    std::string text = path.Display() + ": " + std::to_string(layout.frames) + " frames, " +
                       (layout.hasAlpha ? "video and alpha, " : "video, ") + FormatBytes(bytes) + ", " + taken +
                       (replaced ? ", replaced" : ", " + FormatRate(bytes, written));
    if (durable - written >= 0.1) {
        std::snprintf(taken, sizeof(taken), ", durable after %.2f s", durable);
        text += taken;
    }
    output.Report(text, {{"path", path.Display()},
                         {"bytes", bytes},
                         {"frames", layout.frames},
                         {"alpha", layout.hasAlpha},
                         {"replaced", replaced},
                         {"seconds", written},
                         {"durable_seconds", durable}});
}

Result Put(Session& session, const Output& output, const PutOptions& options, ClipTransfer& transfer, DrivePath path) {
    if (Result misplaced = FindPlace(options, path)) {
        return misplaced;
    }
    if (path.IsReserved()) {
        return ReservedName("cannot make " + path.Display());
    }
    host::FileFacts facts;
    const host::Status status = LookAt(session.Process(), path, facts);
    if (status.Ok() && (facts.isDirectory || !options.replace)) {
        return DriverFailure(Operation::kPut, "cannot put " + path.Display(),
                             facts.isDirectory ? host::status::kFileIsADirectory : host::status::kObjectNameCollision);
    }
    ClipPut put(session, output, options.LocalName());
    const Progress clock(output);
    if (Result failure = status.Ok() ? put.Replace(transfer, path) : put.PutNew(transfer, path)) {
        return failure;
    }
    const double written = clock.Seconds();
    if (Result failure = session.Sync()) {
        return failure;
    }
    ReportPut(output, path, transfer.Layout(), status.Ok(), written, clock.Seconds());
    return std::nullopt;
}

// Opens the clip and reads its header before the station is touched.
int RunPut(const CommonOptions& common, const PutOptions& options) {
    const Output output("put", common.json);
    if (options.local == kStandardStream && ::isatty(STDIN_FILENO) != 0) {
        return output.Fail(UsageFailure("a clip does not come from a terminal", "redirect standard input"));
    }
    try {
        clip::ClipInput input(options.local);
        ClipTransfer transfer(input.Source());
        if (const auto problem = transfer.ReadHeader()) {
            return output.Fail({.what = options.LocalName() + ": " + problem->Line(),
                                .advice = "only whole clips can be put: see vrkfs clip info",
                                .state = "nothing was changed"});
        }
        return RunOnPath(common, output, options.path, [&](Session& session, const DrivePath& path) {
            return Put(session, output, options, transfer, path);
        });
    } catch (const std::system_error& error) {
        return output.Fail(Interrupted() ? StoppedFailure("nothing was changed")
                                         : Failure{.what = error.what(), .state = "nothing was changed"});
    }
}

}  // namespace

void AddPut(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<PutOptions>();
    CLI::App* command = AddCommand(
        app, "put", "Write a clip to a drive",
        R"(LOCAL is a clip as a file; - is standard input. It is checked as it passes, and what is no whole clip leaves nothing on
the drive. With a folder as PATH the clip keeps its name. A clip that is there already is replaced with --replace only:
the new one is first written beside it, as NAME.new, and read back; then the old one becomes NAME.old, the new one takes
its name, and the old one is deleted. Whenever that ends early, a whole clip is there under one of these names.

  vrkfs put bars.rzv P:/RZV/NEWS/MONDAY
  vrkfs put bars.rzv P:/RZV/NEWS/MONDAY/opener.rzv --replace
  vrkfs clip make - --frames 50 | vrkfs put - P:/RZV/NEWS/MONDAY/test.rzv)");
    command->add_option("LOCAL", options->local, "the clip to put; - for standard input")->required();
    command->add_option("PATH", options->path, "P:/RZV/VOLUME/FOLDER/CLIP, or the folder")->required();
    command->add_flag("--replace", options->replace, "replace a clip that is there already");
    command->callback([options, &common] { Finish(RunPut(common, *options)); });
}

}  // namespace tool
