#include <algorithm>
#include <cstring>
#include <iostream>
#include <optional>

#include "tool/cli/commands.h"
#include "tool/clip/commands.h"
#include "tool/interrupt.h"

namespace tool {
namespace {

constexpr const char* kProgramHelp = R"(Clips on the disks of recording cards, through the cards' file system driver.

A station is a directory that stands for a machine with cards: each card a folder card0 ... card9, each disk of it an
image scsi0.img ... scsi15.img (or a link to a block device). Make one with create-station, a volume on it with format,
a folder with mkdir; then put clips there and get them back.
)";

constexpr const char* kProgramFooter =
    R"(Paths on a drive are P:/RZV/VOLUME/FOLDER/CLIP; / and \ mean the same, and the letter may be left out when the station
has one card. Card 0 has drive P:, card 1 Q:, and so on. RZV is the folder of the clips' type.

  vrkfs create-station /tmp/st                  a card with 4 disks of 2G, as sparse files
  export VRKFS_STATION=/tmp/st                  or give -s /tmp/st with each command
  vrkfs format --name NEWS --disks 0,1
  vrkfs mkdir P:/RZV/NEWS/MONDAY
  vrkfs clip make bars.rzv --frames 250 --alpha
  vrkfs put bars.rzv P:/RZV/NEWS/MONDAY
  vrkfs ls -l P:/RZV/NEWS/MONDAY
  vrkfs get P:/RZV/NEWS/MONDAY/bars.rzv back.rzv

vrkfs COMMAND --help says more about each command.

A station that a daemon serves (vrkfs serve) is reached through it without being asked for; else it is this command's
alone while it runs.

Exit status: 0 done; 1 it failed, and one line on standard error says what, on what, the driver's status by name and
what to do about it; 2 wrong usage; 3 somebody else uses the station.
Ctrl-C stops after the request in hand, cleans up and says what it left; a second one ends the program at once.
)";

constexpr const char* kCommandFooter =
    R"(Everywhere: -s DIR names the station (else the environment's VRKFS_STATION), or --socket PATH its daemon; --read-only
writes nothing; --json reports, errors and progress as one JSON object a line. Exit status: 0 done, 1 failed, 2 wrong
usage, 3 the station is in use.
)";

constexpr const char* kClipFooter = R"(These work on ordinary files and need no station.
)";

constexpr const char* kClipMakeFooter =
    R"(Without --fields each field is a picture: 8-bit 4:2:2 (U Y V Y) colour bars with a moving mark and the frame's number,
720 pixels by 243 or 288 lines. Every sector can be checked later: the clip carries its own recipe.

  vrkfs clip make bars.rzv --standard 625 --frames 250 --alpha
  vrkfs clip make odd.rzv --frames 500 --fields 0..40 --seed 7
  vrkfs clip make - --frames 50 | vrkfs put - P:/RZV/NEWS/MONDAY/test.rzv

Exit status: 0 done, 1 failed, 2 wrong usage.
)";

constexpr const char* kClipInfoFooter = R"(  vrkfs clip info bars.rzv
  vrkfs cat P:/RZV/NEWS/MONDAY/bars.rzv | vrkfs clip info -

Exit status: 0 done, 1 it is no clip or cannot be read, 2 wrong usage.
)";

constexpr const char* kClipVerifyFooter =
    R"(A clip from clip make is compared sector by sector with what was made; of any other clip the structure is checked.

  vrkfs clip verify back.rzv
  vrkfs cat P:/RZV/NEWS/MONDAY/bars.rzv | vrkfs clip verify -

Exit status: 0 right, 1 wrong or cannot be read, 2 wrong usage.
)";

// Asked for anywhere on the line, even on one that cannot be parsed.
bool AsksForJson(int count, char** arguments) {
    for (int index = 1; index < count && std::strcmp(arguments[index], "--") != 0; ++index) {
        if (std::strcmp(arguments[index], "--json") == 0) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> WordsBehindMark(int count, char** arguments) {
    char** const end = arguments + count;
    char** const mark = std::find_if(arguments, end, [](const char* word) { return std::strcmp(word, "--") == 0; });
    return mark == end ? std::vector<std::string>() : std::vector<std::string>(mark + 1, end);
}

// "clip make" when the line got as far as that.
std::string ChosenCommand(const CLI::App& app) {
    std::string name;
    for (const CLI::App* level = &app; !level->get_subcommands().empty();) {
        level = level->get_subcommands().front();
        name += (name.empty() ? "" : " ") + level->get_name();
    }
    return name;
}

int FailUsage(const CLI::App& app, bool json, const CLI::ParseError& error) {
    const std::string command = ChosenCommand(app);
    std::string what = error.what();
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError) &&
        what.find("subcommand") != what.npos) {
        const auto unknown = app.remaining(true);
        what = unknown.empty() ? "a command is wanted" : "there is no command '" + unknown.front() + "'";
    }
    const std::string help = "see: vrkfs" + (command.empty() ? "" : " " + command) + " --help";
    return Output(command, json).Fail(UsageFailure(what, help));
}

// Clip commands report progress to one bar, which starts with their first piece of work.
class ClipBar {
  public:
    explicit ClipBar(bool json) : output_("clip", json) {}
    bool Update(std::uint64_t done, std::uint64_t total) {
        if (!progress_) {
            progress_.emplace(output_);
        }
        return progress_->Update(done, total);
    }

  private:
    Output output_;
    std::optional<Progress> progress_;
};

void AddClip(CLI::App& app, ClipBar& bar) {
    clip::AddClipCommands(app, [&bar](std::uint64_t done, std::uint64_t total) { return bar.Update(done, total); });
    CLI::App* group = app.get_subcommand("clip");
    group->footer(kClipFooter);
    group->get_subcommand("make")->footer(kClipMakeFooter);
    group->get_subcommand("info")->footer(kClipInfoFooter);
    group->get_subcommand("verify")->footer(kClipVerifyFooter);
}

void AddCommands(CLI::App& app, CommonOptions& common, ClipBar& bar) {
    app.add_option("-s,--station", common.station, "the station's directory; else VRKFS_STATION")->type_name("DIR");
    app.add_option("--socket", common.socket, "the socket of the station's daemon; else, without -s, VRKFS_SOCKET")
        ->type_name("PATH");
    app.add_flag("--read-only", common.readOnly,
                 "write nothing whatever happens: images are opened for reading only, and several such commands can "
                 "share a station");
    app.add_flag("--json", common.json, "reports, errors and progress as one JSON object a line");
    app.fallthrough();
    app.require_subcommand(1);
    app.footer(kProgramFooter);

    AddCreateStation(app, common);
    AddFormat(app, common);
    AddVolumes(app, common);
    AddList(app, common);
    AddMakeAndRemove(app, common);
    AddPut(app, common);
    AddGetAndCat(app, common);
    AddInfo(app, common);
    AddMoveAndTouch(app, common);
    AddSpace(app, common);
    AddLabel(app, common);
    AddEntry(app, common);
    AddOwner(app, common);
    AddSettings(app, common);
    AddExclusive(app, common);
    AddMap(app, common);
    AddDefrag(app, common);
    AddEvents(app, common);
    AddServe(app, common);
    AddMount(app, common);
    AddService(app, common);
    AddWatch(app, common);
    AddClip(app, bar);
}

int Parse(CLI::App& app, bool json, int count, char** arguments) {
    try {
        app.parse(count, arguments);
        return kDone;
    } catch (const CLI::RuntimeError& finished) {
        return finished.get_exit_code();
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        return FailUsage(app, json, error);
    } catch (const std::bad_alloc&) {
        return Output(ChosenCommand(app), json).Fail({.what = "not enough memory", .advice = "end other programs"});
    } catch (const std::exception& error) {
        return Output(ChosenCommand(app), json).Fail({.what = error.what()});
    }
}

}  // namespace

CLI::App* AddCommand(CLI::App& app, const std::string& name, const std::string& help, const std::string& more) {
    CLI::App* command = app.add_subcommand(name, help);
    command->footer((more.empty() ? "" : more + "\n\n") + kCommandFooter);
    return command;
}

int RunProgram(int count, char** arguments) {
    OccupyStandardStreams();
    InstallInterrupt();
    const bool json = AsksForJson(count, arguments);
    CommonOptions common;
    common.behindMark = WordsBehindMark(count, arguments);
    ClipBar bar(json);
    CLI::App app(kProgramHelp, "vrkfs");
    AddCommands(app, common, bar);
    const int status = Parse(app, json, count, arguments);
    std::cout.flush();
    if (!std::cout && status == kDone) {
        return Output(ChosenCommand(app), json)
            .Fail({.what = "standard output cannot be written",
                   .advice = "the command was done: only its report is lost"});
    }
    return status;
}

}  // namespace tool
