// One life of a station, from start-up to unload, in which any step may fail; and the look at the station afterwards,
// on a healthy machine, which must find what was finished before.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "host/machine.h"

namespace faults {

using Bytes = std::vector<std::byte>;

// A station with a volume KEEP (disks 0 and 1) holding a finished clip P:\RZV\KEEP\CLIPS\KEEP.RZV, and two more empty
// disks. Made once for a test program; each point works on a copy.
const std::filesystem::path& Template();
const Bytes& KeptClip();
// What the scenario records.
const Bytes& NewClip();

void CopyTemplate(const std::filesystem::path& to);

// Called when the machine runs, before the first request; and before it is stopped.
struct Hooks {
    std::function<void(host::Machine&)> started;
    std::function<void(host::Machine&)> ending;
};

// How far one life got. A failed step is no fault of the scenario: it goes on with what still makes sense.
struct Outcome {
    bool started = false;
    bool recorded = false;  // NEW.RZV was written whole and its handle closed
    bool deleted = false;   // OLD.RZV was deleted and its handle closed
    bool torn = false;      // a record was written in part: only folders that were not being changed must be right
    std::vector<std::string> wrong;  // what must not happen: wrong bytes read, something left over at the end
};
Outcome Live(const std::filesystem::path& station, const Hooks& hooks);

// Starts the station with everything healthy and returns what is wrong with it: KEEP does not mount, the kept clip does
// not read back, a clip that was reported recorded does not, blocks are lost or the folder cannot be worked in. Empty:
// nothing.
std::vector<std::string> Inspect(const std::filesystem::path& station, const Outcome& before);

}  // namespace faults
