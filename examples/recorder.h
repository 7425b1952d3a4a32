// A recording application, on the client library alone.
#pragma once

#include <vrkfs/client.h>

#include <cstdint>
#include <functional>
#include <string>

#include "examples/pattern.h"

namespace examples {

enum class RecordStep : std::uint32_t {
    kOpened,       // the file stands, empty
    kVideoSpace,   // space is reserved ...
    kAlphaSpace,   // ... and for alpha too (with alpha only)
    kTableMade,    // body tables are there, without room
    kNodesAdded,   // they have their sections
    kAnnounced,    // players may follow from here on
    kField,        // a field is on its disk and its node published; once per field and stream
    kSettled,      // the clip is what was recorded, and the rest of the space is free again
    kTableLetGo,   // nobody changes the tables any more
    kTableStored,  // the disks have them
    kClosed,       // the clip's record has been sent after them: done
};

struct RecordOrder {
    std::u16string path;  // a new file, "P:\RZV\VOLUME\FOLDER\CLIP.RZV"
    std::uint32_t card = 0;
    std::uint32_t reservedFrames = 50;  // space is reserved for
    std::uint32_t frames = 50;          // and so many are recorded
    bool alpha = false;
    bool is625 = true;
    Pattern pattern;
    // Told of each step, with the fields recorded of each stream so far. False: the recorder stops there and then and
    // leaves everything as it is, as if its process had been killed; destroy the client.
    std::function<bool(RecordStep step, std::uint32_t fields)> watch;
};

// False if the watch stopped it. Throws std::runtime_error, with the step in its text, when a call fails; what was
// opened is closed then, and so the reserved space free again.
bool Record(VrkFsClient* client, const RecordOrder& order);

}  // namespace examples
