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

// A station with a volume KEEP (disks 0 and 1) holding finished clips, a volume LONE (disk 4) and two more empty disks.
// Made once for a test program; each point works on a copy.
const std::filesystem::path& Template();
const Bytes& KeptClip();
// What the scenario records.
const Bytes& NewClip();

void CopyTemplate(const std::filesystem::path& to);

// Clips recorded, read and deleted, volumes made; or what is there renamed, moved, deleted, recorded in place and moved
// about on the disks; or a clip's frames read, written and imported through a service, and its port used.
enum class Life { kRecording, kChanges, kService };

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
    bool renamed = false;   // NAME.RZV has another name
    bool walked = false;    // WALK.RZV lies in another folder
    bool gone = false;      // GONE.RZV was deleted
    bool slid = false;      // a move onto its own blocks could neither end nor be taken back: SLIDE.RZV may be lost
    bool torn = false;      // a record was written in part: only folders that were not being changed must be right
    std::vector<std::string> failed;  // other steps that did not succeed
    std::vector<std::string> wrong;   // what must not happen: wrong bytes read, something left over at the end
};
Outcome Live(Life life, const std::filesystem::path& station, const Hooks& hooks);

// Starts the station with everything healthy and returns what is wrong with it: KEEP does not mount, the kept clip does
// not read back, a clip that was reported recorded does not, blocks are lost or the folder cannot be worked in. Empty:
// nothing.
std::vector<std::string> Inspect(Life life, const std::filesystem::path& station, const Outcome& before);

}  // namespace faults
