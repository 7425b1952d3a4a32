#include "tool/daemon.h"

#include <sys/resource.h>

#include <chrono>
#include <system_error>
#include <thread>

#include "tool/door.h"
#include "tool/interrupt.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

// How long whoever has the station may take to be done with it.
constexpr std::chrono::seconds kPatience{2};
constexpr std::chrono::milliseconds kGlance{20};

// Programs begin with a thousand descriptors, for those that still use select. Clients, and the memory that is on its
// way to them, can want more.
void TakeDescriptors() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        (void)setrlimit(RLIMIT_NOFILE, &limit);
    }
}

}  // namespace

std::unique_ptr<Daemon> Daemon::Start(const DaemonOptions& options, DaemonLog& log, host::Problem& problem) {
    TakeDescriptors();
    std::unique_ptr<Daemon> daemon(new Daemon(options, log));
    daemon->station_ = host::Station::Read(options.station, problem);
    if (!problem) {
        problem = daemon->StartMachine(options);
    }
    if (!problem) {
        problem = daemon->Listen(options);
    }
    if (!problem) {
        problem = daemon->MountAll(options.mounts);
    }
    return problem ? nullptr : std::move(daemon);
}

Daemon::~Daemon() {
    for (const std::string& line : Stop()) {
        log_.Line("left over: " + line);
    }
}

// A daemon that stops has the station for a moment still, and so has a short command; a daemon that answers keeps it.
host::Problem Daemon::StartMachine(const DaemonOptions& options) {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    const host::MachineOptions machine{.program = "vrkfs serve", .readOnly = options.readOnly};
    while (true) {
        host::Problem problem;
        machine_ = host::Machine::Start(station_->Directory(), machine, problem);
        if (machine_ || !problem.inUse || Interrupted() || std::chrono::steady_clock::now() > end) {
            return problem;
        }
        host::Problem unheard;
        if (FindDaemon(*station_, unheard)) {
            return problem;
        }
        std::this_thread::sleep_for(kGlance);
    }
}

// The station is locked by now, so whatever stands at its door is left from a daemon that was killed. Read-only ones
// share the lock: the first has the door.
host::Problem Daemon::Listen(const DaemonOptions& options) {
    const fs::path door = DoorOf(*station_, options.readOnly);
    if (options.readOnly) {
        if (host::Problem problem = MakeDoorDirectory()) {
            return problem;
        }
        host::Problem unheard;
        if (FindDaemon(*station_, unheard)) {
            return {"another daemon serves the station for reading", "use that one, or end it", true};
        }
    }
    std::error_code error;
    if (fs::is_symlink(door, error)) {
        fs::remove(door, error);
    }
    host::Problem problem;
    socket_ = options.socket.empty() ? door : options.socket;
    server_ = vlink::Server::Start(
        *machine_, socket_, [this](const std::string& line) { log_.Line(line); }, problem);
    if (!problem && socket_ != door) {
        fs::remove(door, error);
        fs::create_symlink(socket_, door, error);
        if (error) {
            return {"'" + door.string() + "': " + error.message(), "check the directory's rights"};
        }
        link_ = door;
    }
    return problem;
}

host::Problem Daemon::MountAll(const std::vector<mount::Options>& mounts) {
    for (const mount::Options& options : mounts) {
        host::Problem problem;
        auto mounted = mount::Mount::Start(
            *machine_, options, [this](const std::string& line) { log_.Line(line); }, problem);
        if (!mounted) {
            return problem;
        }
        log_.Line("mounted at " + options.mountpoint.string());
        mounts_.push_back({options.mountpoint, std::move(mounted)});
    }
    return {};
}

void Daemon::Run() {
    if (withService_) {  // not before: standard error is the log's by now
        service_ = std::make_unique<ServiceChild>(socket_, json_, log_);
    }
    while (true) {
        std::vector<int> ends;
        for (const MountedDrive& drive : mounts_) {
            ends.push_back(drive.mount->EndedDescriptor());
        }
        if (service_) {
            ends.push_back(service_->Descriptor());
        }
        const auto ended = WaitReadable(ends);
        if (!ended) {
            return;
        }
        if (*ended == mounts_.size()) {
            service_->Tend();
            continue;
        }
        log_.Line("the mount at " + mounts_[*ended].place.string() + " was taken away");
        mounts_.erase(mounts_.begin() + static_cast<std::ptrdiff_t>(*ended));
    }
}

std::vector<std::string> Daemon::Stop() {
    mounts_.clear();  // with the service still there to hear of the files that close now
    service_.reset();
    if (!link_.empty()) {
        std::error_code ignored;
        fs::remove(link_, ignored);
        link_.clear();
    }
    server_.reset();
    std::vector<std::string> left;
    if (machine_) {
        left = machine_->Stop();
        machine_.reset();
    }
    return left;
}

}  // namespace tool
