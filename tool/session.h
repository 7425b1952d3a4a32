// A command at work on a station: the machine it starts (later, the daemon it speaks to) and a process on it.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/machine.h"
#include "host/process.h"
#include "host/station.h"
#include "tool/output.h"
#include "tool/paths.h"

namespace tool {

// What every command takes.
struct CommonOptions {
    std::string station;    // -s; else the environment's VRKFS_STATION
    bool json = false;      // --json
    bool readOnly = false;  // --read-only, where a command takes it
    // What stands behind "--", word for word: the parser takes "[a,b]" for two words.
    std::vector<std::string> behindMark;
};

// The station's directory as the options or the environment name it.
[[nodiscard]] Result FindStation(const CommonOptions& options, std::string& directory);

class Session {
  public:
    // Null with `failure` filled when the station cannot be had.
    static std::unique_ptr<Session> Open(const CommonOptions& options, const std::string& command, Failure& failure);

    [[nodiscard]] host::Process& Process() { return *process_; }
    [[nodiscard]] const host::Station& Station() const { return *station_; }
    [[nodiscard]] const std::vector<host::CardFacts>& Cards() const { return machine_->Cards(); }

    // Finds the card of a path. A failure is a usage error when the path lacks a letter that it needs.
    [[nodiscard]] Result Resolve(const TypedPath& typed, DrivePath& path) const;

    // The card of that number, or the only one. Not naming one of several is a usage error.
    [[nodiscard]] Result ChooseCard(const std::optional<std::uint32_t>& number, host::CardFacts& card) const;

    [[nodiscard]] host::Machine& Machine() { return *machine_; }

    // Makes everything written so far durable.
    [[nodiscard]] Result Sync();

    // Stops the machine; everything is on the disks when it says nothing.
    [[nodiscard]] Result Close();

  private:
    Session() = default;

    std::unique_ptr<host::Station> station_;
    std::unique_ptr<host::Machine> machine_;
    std::unique_ptr<host::Process> process_;
};

// Opens a session, does the work in it, closes it, reports the first failure. Returns the exit status.
int RunOnStation(const CommonOptions& options, const Output& output, const std::function<Result(Session&)>& work);

// The same for a command on one path of the drive.
int RunOnPath(const CommonOptions& options, const Output& output, const std::string& path,
              const std::function<Result(Session&, const DrivePath&)>& work);

[[nodiscard]] Failure ProblemFailure(const host::Problem& problem);

}  // namespace tool
