// A playback application, on the client library alone: it follows a clip's placed nodes and reads the fields itself,
// also while the clip is still being recorded, and checks them.
#pragma once

#include <vrkfs/client.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace examples {

struct PlayOrder {
    std::u16string path;
    std::uint32_t card = 0;
    // How long it waits for the file, for its tables, and for each next field.
    std::chrono::milliseconds patience{10'000};
    // Told after each field, with the fields read of each stream so far.
    std::function<void(std::uint32_t fields)> watch;
};

struct PlayReport {
    std::uint32_t fields = 0;      // read of each stream
    std::uint32_t liveFields = 0;  // of these, while the clip was still being recorded
    std::uint32_t wrongFields = 0;
    bool ended = false;  // the clip has so many; else the player's patience did
};

// Throws std::runtime_error, with the step in its text, when a call fails.
PlayReport Play(VrkFsClient* client, const PlayOrder& order);

}  // namespace examples
