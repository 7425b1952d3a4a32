// What a door needs of a running station, whether the driver runs in this program (Machine) or in a daemon that is
// reached over its socket (link/). Calls may be made from several threads.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "host/process.h"
#include "host/station.h"

namespace host {

// What a card offers once the driver has started.
struct CardFacts {
    std::uint32_t index = 0;
    char driveLetter = 0;
};

class Access {
  public:
    Access() = default;
    Access(const Access&) = delete;
    Access& operator=(const Access&) = delete;
    virtual ~Access() = default;

    // A user process of its own; it must be gone before this object is. Null with `problem` filled when there can be
    // none (a daemon that went away).
    virtual std::unique_ptr<Process> NewProcess(Problem& problem) = 0;

    virtual const std::vector<CardFacts>& Cards() const = 0;
    virtual bool ReadOnly() const = 0;  // nothing can be written, whatever is asked

    // Makes everything acknowledged so far durable.
    virtual Problem SyncImages() = 0;

    // For raw work on a card's disks, which a process must have locked the file system for: syncs and closes the
    // images, so that until TakeDisks every request to the card's disks fails; a problem says that something may be
    // lost. A daemon takes the disks back itself when whoever had them released goes away.
    virtual Problem ReleaseDisks(std::uint32_t card) = 0;
    // Opens what the station's directory holds for the card now. Disks that cannot be opened are left out and named.
    virtual Problem TakeDisks(std::uint32_t card) = 0;
};

}  // namespace host
