// A command at work on a station: the daemon that serves it, or else the machine that is started here; and a process on
// it.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/access.h"
#include "host/machine.h"
#include "host/process.h"
#include "host/station.h"
#include "tool/output.h"
#include "tool/paths.h"

namespace tool {

// What every command takes.
struct CommonOptions {
    std::string station;     // -s; else the environment's VRKFS_STATION
    std::string socket;      // --socket; else, without -s, the environment's VRKFS_SOCKET
    bool json = false;       // --json
    bool readOnly = false;   // --read-only: nothing can be written, whoever asks
    bool onlyReads = false;  // the command itself: a machine of its own need not be able to write
    // What stands behind "--", word for word: the parser takes "[a,b]" for two words.
    std::vector<std::string> behindMark;
};

// The station's directory as the options or the environment name it.
[[nodiscard]] Result FindStation(const CommonOptions& options, std::string& directory);

// The socket that the options or the environment name; empty when the station's own is meant.
[[nodiscard]] std::string FindSocket(const CommonOptions& options);

class Session {
  public:
    // Whether the command has a use for a machine of its own.
    enum class Means { kAny, kDaemonOnly };

    // Null with `failure` filled when the station cannot be had.
    static std::unique_ptr<Session> Open(const CommonOptions& options, const std::string& command, Failure& failure,
                                         Means means = Means::kAny);

    [[nodiscard]] host::Process& Process() { return *process_; }
    [[nodiscard]] host::Access& Access() { return *access_; }
    [[nodiscard]] const std::vector<host::CardFacts>& Cards() const { return access_->Cards(); }
    // The station's directory as it lies there; null when only the daemon's socket was named.
    [[nodiscard]] const host::Station* Station() const { return station_.get(); }
    // For a command that has to have it.
    [[nodiscard]] Result NeedStation() const;

    // Finds the card of a path. A failure is a usage error when the path lacks a letter that it needs.
    [[nodiscard]] Result Resolve(const TypedPath& typed, DrivePath& path) const;

    // The card of that number, or the only one. Not naming one of several is a usage error.
    [[nodiscard]] Result ChooseCard(const std::optional<std::uint32_t>& number, host::CardFacts& card) const;

    // Makes everything written so far durable.
    [[nodiscard]] Result Sync();

    // For what would be done without the driver noticing that nothing can be written.
    [[nodiscard]] Result NeedWritable(const std::string& what) const;
    // The failure of something that wants to write, with the reason where nothing can be written.
    [[nodiscard]] Failure Explained(Failure failure) const;

    // Stops the machine, if it was started here; everything is on the disks when it says nothing.
    [[nodiscard]] Result Close();

  private:
    Session() = default;
    [[nodiscard]] Result OpenSocket(const CommonOptions& options, const std::string& socket);
    [[nodiscard]] Result OpenStation(const CommonOptions& options, const std::string& command, Means means);
    [[nodiscard]] Result TryStation(const CommonOptions& options, const std::string& command, Means means);

    std::unique_ptr<host::Station> station_;
    std::unique_ptr<host::Access> access_;
    host::Machine* machine_ = nullptr;  // what `access_` is when it was started here
    std::unique_ptr<host::Process> process_;
};

// Opens a session, does the work in it, closes it, reports the first failure. Returns the exit status.
int RunOnStation(const CommonOptions& options, const Output& output, const std::function<Result(Session&)>& work,
                 Session::Means means = Session::Means::kAny);

// The same for a command on one path of the drive.
int RunOnPath(const CommonOptions& options, const Output& output, const std::string& path,
              const std::function<Result(Session&, const DrivePath&)>& work,
              Session::Means means = Session::Means::kAny);

[[nodiscard]] Failure ProblemFailure(const host::Problem& problem);

}  // namespace tool
