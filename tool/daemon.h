// A station that is served: the machine, the socket that other programs reach it by, and the drives mounted in the file
// tree.
#pragma once

#include <filesystem>
#include <memory>
#include <vector>

#include "host/machine.h"
#include "host/station.h"
#include "link/server.h"
#include "mount/mount.h"
#include "tool/daemon_log.h"
#include "tool/service_child.h"

namespace tool {

struct DaemonOptions {
    std::filesystem::path station;
    std::filesystem::path socket;  // absolute; empty: the station's own door
    bool readOnly = false;
    std::vector<mount::Options> mounts;
    bool service = false;  // with the frame service as a child
    bool json = false;     // how the child logs
};

class Daemon {
  public:
    // Locks and starts the station, listens, mounts. Null with `problem` filled when any of it fails; nothing is left
    // over then. The log must outlive it.
    static std::unique_ptr<Daemon> Start(const DaemonOptions& options, DaemonLog& log, host::Problem& problem);
    // Stop(), if that has not been called.
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    [[nodiscard]] const std::filesystem::path& Socket() const { return socket_; }

    // Serves until the user asks to stop. A mount that somebody takes away is let go of; the frame service is started
    // again when it ends.
    void Run();

    // Unmounts, drops the clients, shuts the station down, syncs the images, removes the socket. Returns what was left
    // over (nothing: a clean stop).
    std::vector<std::string> Stop();

  private:
    struct MountedDrive {
        std::filesystem::path place;
        std::unique_ptr<mount::Mount> mount;
    };

    Daemon(const DaemonOptions& options, DaemonLog& log)
        : log_(log), withService_(options.service), json_(options.json) {}
    host::Problem StartMachine(const DaemonOptions& options);
    host::Problem Listen(const DaemonOptions& options);
    host::Problem MountAll(const std::vector<mount::Options>& mounts);

    DaemonLog& log_;
    const bool withService_;
    const bool json_;
    std::unique_ptr<host::Station> station_;
    std::unique_ptr<host::Machine> machine_;
    std::filesystem::path socket_;
    std::filesystem::path link_;  // the door, when the socket is elsewhere; empty: none was made
    std::unique_ptr<vlink::Server> server_;
    std::vector<MountedDrive> mounts_;
    std::unique_ptr<ServiceChild> service_;
};

}  // namespace tool
