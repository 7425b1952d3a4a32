#include <memory>

#include "tool/advice.h"
#include "tool/cli/commands.h"
#include "tool/clip/report.h"
#include "tool/drive_file.h"

namespace tool {
namespace {

Result ShowClip(Session& session, const Output& output, const DrivePath& path) {
    const std::string what = "cannot read " + path.Display();
    std::unique_ptr<DriveFile> file;
    host::FileFacts facts;
    const host::Status status = OpenForReading(session.Process(), path, file, facts);
    if (!status.Ok()) {
        return DriverFailure(Operation::kRead, what, status);
    }
    if (facts.isDirectory) {
        return DriverFailure(Operation::kRead, what, host::status::kFileIsADirectory);
    }
    if (facts.size == 0) {
        return DriverFailure(Operation::kRead, what, host::status::kEndOfFile);
    }
    try {
        clip::ClipImageReader reader(file->Source(facts.size));
        if (const auto problem = reader.ReadHeader()) {
            return Failure{.what = path.Display() + ": " + problem->Line(), .advice = "it is no whole clip"};
        }
        std::string text = clip::InfoText(path.Display(), reader);
        text.erase(text.find_last_not_of('\n') + 1);
        Json fields = clip::InfoJson(path.Display(), reader);
        fields.erase("command");
        output.Report(text, fields);
    } catch (const DriveError& error) {
        return DriverFailure(Operation::kRead, error.what(), error.Status());
    }
    return std::nullopt;
}

}  // namespace

void AddInfo(CLI::App& app, CommonOptions& common) {
    auto typed = std::make_shared<std::string>();
    CLI::App* command =
        AddCommand(app, "info", "Say what a clip on a drive is: frames, standard, streams, sizes",
                   R"(It reads the clip's header through the drive, so it says what any program would see there.

  vrkfs info P:/RZV/NEWS/MONDAY/bars.rzv)");
    command->add_option("PATH", *typed, "P:/RZV/VOLUME/FOLDER/CLIP")->required();
    command->callback([typed, &common] {
        const Output output("info", common.json);
        Finish(RunOnPath(common, output, *typed,
                         [&](Session& session, const DrivePath& path) { return ShowClip(session, output, path); }));
    });
}

}  // namespace tool
