#include "service/service.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "tool/cli/commands.h"
#include "tool/door.h"
#include "tool/interrupt.h"

namespace tool {
namespace {

constexpr const char* kNoDaemon = "no daemon has the station";

// Where the station's daemon may listen.
Result FindDoors(const CommonOptions& common, std::vector<std::string>& doors) {
    const std::string socket = FindSocket(common);
    if (!socket.empty()) {
        doors = {socket};
        return std::nullopt;
    }
    std::string directory;
    if (Result none = FindStation(common, directory)) {
        return none;
    }
    host::Problem problem;
    const std::unique_ptr<host::Station> station = host::Station::Read(directory, problem);
    if (!station) {
        return ProblemFailure(problem);
    }
    doors = {DoorOf(*station, false).string(), DoorOf(*station, true).string()};
    return std::nullopt;
}

client::ClientPointer Connect(const std::vector<std::string>& doors, std::string& problem) {
    for (const std::string& door : doors) {
        VrkFsClient* client = nullptr;
        const VrkFsStatus status = VrkFsClientConnect(door.c_str(), &client);
        if (VRKFS_SUCCEEDED(status)) {
            return client::ClientPointer(client);
        }
        problem = status == VRKFS_STATUS_OBJECT_NAME_NOT_FOUND ? kNoDaemon : service::Failed(door.c_str(), status);
        if (status != VRKFS_STATUS_OBJECT_NAME_NOT_FOUND) {
            break;
        }
    }
    return nullptr;
}

// A descriptor that another thread makes readable.
class Bell {
  public:
    Bell() = default;
    Bell(const Bell&) = delete;
    Bell& operator=(const Bell&) = delete;
    ~Bell() { ::close(rung_); }
    [[nodiscard]] int Descriptor() const { return rung_; }
    void Ring() const {
        const std::uint64_t one = 1;
        if (::write(rung_, &one, sizeof(one)) < 0) {
            // It is rung once.
        }
    }

  private:
    const int rung_ = ::eventfd(0, EFD_CLOEXEC);
};

Failure Explain(const std::string& problem) {
    const bool none = problem == kNoDaemon;
    return {.what = problem,
            .advice = none ? "start one: vrkfs serve -s DIR" : "",
            .exit = problem.starts_with("another") ? kInUse : kFailed};
}

Result Serve(const Output& output, const std::vector<std::string>& doors, bool stay) {
    std::mutex lock;
    service::Service service({[&](std::string& problem) { return Connect(doors, problem); },
                              [&](const std::string& line) {
                                  const std::lock_guard hold(lock);
                                  output.Notice(line);
                              },
                              stay});
    const Bell ended;
    std::string problem;
    bool well = false;
    std::thread work([&] {
        well = service.Run(problem);
        ended.Ring();
    });
    (void)WaitReadable(ended.Descriptor());
    service.Stop();
    work.join();
    return well ? std::nullopt : Result(Explain(problem));
}

int RunService(const CommonOptions& common, bool stay) {
    const Output output("service", common.json);
    std::vector<std::string> doors;
    Result failure = FindDoors(common, doors);
    if (!failure) {
        failure = Serve(output, doors, stay);
    }
    return failure ? output.Fail(*failure) : kDone;
}

}  // namespace

void AddService(CLI::App& app, CommonOptions& common) {
    auto once = std::make_shared<bool>(false);
    CLI::App* command = AddCommand(
        app, "service", "Show the frames of every clip as pictures, and serve the command port",
        R"(Works beside the daemon of a station (vrkfs serve). While it runs, the drive has four folders more beside RZV: below
TGA, BMP, YUV and RAW every clip is a folder of its frames, one file each. A picture copied onto a frame of a clip (or
into the folder, and then renamed to the frame's name) changes that frame where it lies on the disks.

It stays in the foreground, logs to standard error, and waits for the daemon to come back when that goes; SIGTERM and
Ctrl-C end it.

  vrkfs serve -s /srv/studio --mount /mnt/studio
  vrkfs service -s /srv/studio &
  cp /mnt/studio/P/TGA/NEWS/MONDAY/bars.rzv/bars.0007.TGA .)");
    command->add_flag("--once", *once, "end when the daemon goes, instead of waiting for it to come back");
    command->callback([once, &common] { Finish(RunService(common, !*once)); });
}

}  // namespace tool
