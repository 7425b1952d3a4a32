// A machine with cards: boots the kernel, plugs one board per card of the station, loads the driver, gives user
// processes, and at the end sends the shutdown request and unloads. One machine at a time in a process; it can be
// started again.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/access.h"

namespace board {
class Board;
}

namespace host {

struct MachineOptions {
    std::string program = "vrkfs";  // named to whoever finds the station in use
    bool readOnly = false;          // images opened for reading, nothing written, whatever happens
    bool writeThrough = false;      // images opened so that what is acknowledged is durable
    bool manualClock = false;       // time moves when the test says (nt/kernel.h)
};

class Machine final : public Access {
  public:
    // Locks the station and starts it. Null with `problem` filled when anything fails; nothing is left over then.
    static std::unique_ptr<Machine> Start(const std::filesystem::path& station, const MachineOptions& options,
                                          Problem& problem);
    ~Machine() override;  // Stop(), its report printed to standard error if it is not clean

    // Every process must be gone. Sends the shutdown request, unloads, unplugs, syncs the images, and returns what the
    // verifier found left over (empty: nothing).
    std::vector<std::string> Stop();

    std::unique_ptr<Process> NewProcess();
    std::unique_ptr<Process> NewProcess(Problem&) override { return NewProcess(); }
    const std::vector<CardFacts>& Cards() const override;
    bool ReadOnly() const override;
    Problem SyncImages() override;
    Problem ReleaseDisks(std::uint32_t card) override;
    Problem TakeDisks(std::uint32_t card) override;

    board::Board* BoardOf(std::uint32_t card);  // null when there is no such card

  private:
    struct Parts;
    explicit Machine(std::unique_ptr<Parts> parts);
    std::unique_ptr<Parts> parts_;
};

}  // namespace host
