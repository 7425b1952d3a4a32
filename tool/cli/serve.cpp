#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <memory>

#include "tool/cli/commands.h"
#include "tool/daemon.h"
#include "tool/detach.h"
#include "tool/door.h"
#include "tool/interrupt.h"
#include "tool/mount_options.h"
#include "tool/notify.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

struct ServeOptions {
    bool foreground = false;
    bool service = false;
    std::string log;
    std::vector<std::string> places;
    MountArguments arguments;
};

// Everything by its whole path: a daemon works in the root directory.
Result ReadOptions(const CommonOptions& common, const ServeOptions& options, DaemonOptions& daemon, fs::path& log) {
    std::string directory;
    if (Result none = FindStation(common, directory)) {
        return none;
    }
    host::Problem problem;
    const auto station = host::Station::Read(directory, problem);
    if (!station) {
        return ProblemFailure(problem);
    }
    daemon.station = station->Directory();
    daemon.readOnly = common.readOnly;
    daemon.service = options.service;
    daemon.json = common.json && options.foreground;
    const std::string socket = FindSocket(common);
    daemon.socket = socket.empty() ? fs::path() : fs::absolute(socket);
    for (const std::string& place : options.places) {
        if (Result wrong =
                ReadMountArguments(options.arguments, place, common.readOnly, daemon.mounts.emplace_back())) {
            return wrong;
        }
    }
    if (!options.log.empty()) {
        log = fs::absolute(options.log);
    } else if (common.readOnly) {
        log = DoorOf(*station, true).string() + ".log";
        problem = MakeDoorDirectory();
    } else {
        log = station->Directory() / "daemon.log";
    }
    return problem ? Result(ProblemFailure(problem)) : std::nullopt;
}

void ReportServing(const Output& output, const DaemonOptions& daemon, const fs::path& socket, pid_t process) {
    std::string text = daemon.station.string() + ": served at " + socket.string();
    Json mounts = Json::array();
    for (const mount::Options& mount : daemon.mounts) {
        text += ", mounted at " + mount.mountpoint.string();
        mounts.push_back(mount.mountpoint.string());
    }
    output.Report(text + ", by process " + std::to_string(process), {{"station", daemon.station.string()},
                                                                     {"socket", socket.string()},
                                                                     {"mounts", mounts},
                                                                     {"read_only", daemon.readOnly},
                                                                     {"process", process}});
    std::cout.flush();
}

// From the start to the end of the daemon.
int Serve(const Output& output, const DaemonOptions& options, DaemonLog& log, const Ready& ready) {
    host::Problem problem;
    auto daemon = Daemon::Start(options, log, problem);
    if (!daemon) {
        return output.Fail(ProblemFailure(problem));
    }
    const fs::path socket = daemon->Socket();
    ReportServing(output, options, socket, ::getpid());
    if (ready) {
        ready();
    }
    log.Line("serving " + options.station.string() + " at " + socket.string() +
             (options.readOnly ? ", for reading only" : ""));
    NotifyManager("READY=1");
    daemon->Run();
    NotifyManager("STOPPING=1");
    log.Line("stopping");
    const std::vector<std::string> left = daemon->Stop();
    for (const std::string& line : left) {
        log.Line("left over: " + line);
    }
    log.Line(left.empty() ? "stopped: everything is on the disks" : "stopped, not cleanly");
    return left.empty() ? kDone : kFailed;
}

int RunServe(const CommonOptions& common, const ServeOptions& options) {
    const Output output("serve", common.json);
    DaemonOptions daemon;
    fs::path logFile;
    if (const Result wrong = ReadOptions(common, options, daemon, logFile)) {
        return output.Fail(*wrong);
    }
    DaemonLog log(output);
    const auto serve = [&](const Ready& ready) { return Serve(output, daemon, log, ready); };
    return options.foreground ? serve({})
                              : RunDetached(output, log, logFile, {"the daemon", "the station is not served"}, serve);
}

}  // namespace

void AddServe(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<ServeOptions>();
    CLI::App* command = AddCommand(
        app, "serve", "Run a station as a daemon that other programs reach over its socket",
        std::string(
            R"(Every vrkfs command, and every program with the client library, finds the daemon of a station by itself: at DIR/socket,
or where --socket says (then DIR/socket leads there). Each connection is a user process of its own: when its program
ends, its requests are cancelled and its files closed. Only the user who started the daemon may connect.

It goes to the background when the station is ready, and logs to DIR/daemon.log; with --foreground it stays, and logs to
standard error, as service managers like it (readiness is told to NOTIFY_SOCKET). SIGTERM and Ctrl-C stop it cleanly:
mounts are taken away, clients dropped, the station shut down, the images synced; a second one ends it at once. With
--read-only nothing is written into the station, socket and log included: they stand in /tmp/vrkfs-UID then.

--mount PLACE mounts the drives as vrkfs mount does. )") +
            kMountOptionsHelp + R"(

  vrkfs serve -s /srv/studio
  vrkfs serve -s /srv/studio --mount /mnt/studio --service
  vrkfs serve -s /srv/studio --mount /mnt/studio --read-only
  vrkfs serve -s /srv/studio --json | jq .process        what to kill (SIGTERM) to stop it)");
    command->add_option("--mount", options->places, "mount the drives there; may be given again")->type_name("PLACE");
    AddMountArguments(*command, options->arguments);
    command->add_flag("--service", options->service,
                      "run the frame service too (see vrkfs service), again whenever it ends");
    command->add_flag("--foreground", options->foreground, "stay in the foreground and log to standard error");
    command->add_option("--log", options->log, "the file to log to from the background")->type_name("FILE");
    command->callback([options, &common] { Finish(RunServe(common, *options)); });
}

}  // namespace tool
