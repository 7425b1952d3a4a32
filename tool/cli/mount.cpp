#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <memory>

#include "mount/mount.h"
#include "tool/cli/commands.h"
#include "tool/daemon_log.h"
#include "tool/detach.h"
#include "tool/door.h"
#include "tool/interrupt.h"
#include "tool/mount_options.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

struct MountCommand {
    std::string place;
    MountArguments arguments;
    bool foreground = false;
    std::string log;
};

// Everything by its whole path: in the background the mount works in the root directory.
Result ReadOptions(CommonOptions& common, const MountCommand& command, mount::Options& options) {
    if (Result wrong = ReadMountArguments(command.arguments, command.place, common.readOnly, options)) {
        return wrong;
    }
    common.onlyReads = options.readOnly;  // a daemon that has the station goes on writing for others
    if (const std::string socket = FindSocket(common); !socket.empty()) {
        common.socket = fs::absolute(socket);
    }
    std::string directory;
    if (Result none = FindStation(common, directory); !none) {
        common.station = fs::absolute(directory);
    } else if (common.socket.empty()) {
        return none;
    }
    return std::nullopt;
}

// Where a mount in the background logs to: into the station, unless nothing is written there.
Result FindLog(const CommonOptions& common, const MountCommand& command, bool readOnly, fs::path& log) {
    if (!command.log.empty()) {
        log = fs::absolute(command.log);
        return std::nullopt;
    }
    if (common.station.empty()) {
        return UsageFailure("a mount in the background needs a log", "give --log FILE, or --foreground");
    }
    host::Problem problem;
    const auto station = host::Station::Read(common.station, problem);
    if (!station) {
        return ProblemFailure(problem);
    }
    if (readOnly) {
        log = DoorOf(*station, true).string() + ".mount.log";
        problem = MakeDoorDirectory();
        return problem ? Result(ProblemFailure(problem)) : std::nullopt;
    }
    log = station->Directory() / "mount.log";
    return std::nullopt;
}

// From the start of the mount to its end.
int Serve(const Output& output, const CommonOptions& common, const mount::Options& options, DaemonLog& log,
          const Ready& ready) {
    Failure failure;
    const std::unique_ptr<Session> session = Session::Open(common, output.Command(), failure);
    if (!session) {
        return output.Fail(failure);
    }
    host::Problem problem;
    auto mounted = mount::Mount::Start(
        session->Access(), options, [&log](const std::string& line) { log.Line(line); }, problem);
    if (!mounted) {
        (void)session->Close();
        return output.Fail(ProblemFailure(problem));
    }
    const std::string place = options.mountpoint.string();
    output.Report("mounted at " + place + ", by process " + std::to_string(::getpid()),
                  {{"mountpoint", place}, {"read_only", options.readOnly}, {"process", ::getpid()}});
    std::cout.flush();
    if (ready) {
        ready();
        log.Line("mounted at " + place);
    }
    const bool taken = WaitReadable(mounted->EndedDescriptor());
    log.Line(taken ? "the mount at " + place + " was taken away, or the daemon is gone" : "stopping");
    mounted.reset();
    const Result unclean = session->Close();
    return unclean ? output.Fail(*unclean) : kDone;
}

int RunMount(CommonOptions common, const MountCommand& command) {
    const Output output("mount", common.json);
    mount::Options options;
    if (const Result wrong = ReadOptions(common, command, options)) {
        return output.Fail(*wrong);
    }
    DaemonLog log(output);
    const auto serve = [&](const Ready& ready) { return Serve(output, common, options, log, ready); };
    if (command.foreground) {
        return serve({});
    }
    fs::path logFile;
    if (const Result wrong = FindLog(common, command, options.readOnly, logFile)) {
        return output.Fail(*wrong);
    }
    return RunDetached(output, log, logFile, {"the mount", "nothing is mounted"}, serve);
}

}  // namespace

void AddMount(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<MountCommand>();
    CLI::App* command = AddCommand(
        app, "mount", "Mount the drives in the file tree, for ordinary programs",
        std::string(
            R"(PLACE is an empty directory. It gets a directory for each drive (PLACE/P/RZV/VOLUME/FOLDER/CLIP), or with --drive that
drive's root itself (PLACE/RZV/...). Clips are read as any file, and copied there as a whole: what is closed before all
of a clip has been written is deleted again, and a clip that it was to replace stays. Nothing else can be changed in a
clip but its time and its extended attribute user.vrkfs.appinfo. Names are found in any case.

It goes to the background when it stands, and logs what it refuses and why to DIR/mount.log; with --foreground it stays,
and logs to standard error. umount PLACE (or fusermount3 -u PLACE), SIGTERM and Ctrl-C take it away. A daemon that has
the station is used; other commands reach the station beside a mount only through one (vrkfs serve --mount PLACE). With
-o ro nothing is changed through this mount, whatever others do; --read-only demands that nobody can change anything.

)") + kMountOptionsHelp +
            R"(

  vrkfs mount -s /srv/studio /mnt/studio
  vrkfs mount -s /srv/studio --read-only --drive P /mnt/p
  vrkfs mount -s /srv/studio -o uid=1000,gid=1000,allow_other /mnt/studio)");
    command->add_option("PLACE", options->place, "the directory to mount on")->required();
    AddMountArguments(*command, options->arguments);
    command->add_flag("--foreground", options->foreground, "stay in the foreground and log to standard error");
    command->add_option("--log", options->log, "the file to log to from the background")->type_name("FILE");
    command->callback([options, &common] { Finish(RunMount(common, *options)); });
}

}  // namespace tool
