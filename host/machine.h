// A machine with cards: boots the kernel, plugs one board per card of the station, loads the driver, gives user
// processes, and at the end sends the shutdown request and unloads. One machine at a time in a process; it can be
// started again.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/process.h"
#include "host/station.h"

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

// What a card offers once the driver has started.
struct CardFacts {
    std::uint32_t index = 0;
    char driveLetter = 0;
};

class Machine {
  public:
    // Locks the station and starts it. Null with `problem` filled when anything fails; nothing is left over then.
    static std::unique_ptr<Machine> Start(const std::filesystem::path& station, const MachineOptions& options,
                                          Problem& problem);
    ~Machine();  // Stop(), its report printed to standard error if it is not clean

    // Every process must be gone. Sends the shutdown request, unloads, unplugs, syncs the images, and returns what the
    // verifier found left over (empty: nothing).
    std::vector<std::string> Stop();

    std::unique_ptr<Process> NewProcess();
    const std::vector<CardFacts>& Cards() const;
    board::Board* BoardOf(std::uint32_t card);  // null when there is no such card
    // Makes everything acknowledged so far durable.
    Problem SyncImages();

    // For raw work on a card's disks, which a process must have locked the file system for: syncs and closes the
    // images, so that until TakeDisks every request to the card's disks fails; a problem says that something may be
    // lost.
    Problem ReleaseDisks(std::uint32_t card);
    // Opens what the station's directory holds for the card now. Disks that cannot be opened are left out and named.
    Problem TakeDisks(std::uint32_t card);

  private:
    struct Parts;
    explicit Machine(std::unique_ptr<Parts> parts);
    std::unique_ptr<Parts> parts_;
};

}  // namespace host
