// What the examples record, in place of a camera: fields of varying length whose content a player can check, and the
// note by which a recording tells its players what to expect.
#pragma once

#include <vrkfs/client.h>

#include <cstddef>
#include <cstdint>
#include <span>

namespace examples {

struct Pattern {
    std::uint64_t seed = 1;
    std::uint32_t minSectors = 700;  // of a field
    std::uint32_t maxSectors = 810;  // not 0; 810 sectors hold a field of 288 lines
};

std::uint32_t FieldSectors(const Pattern& pattern, std::uint32_t stream, std::uint32_t field);
// Fills whole sectors.
void MakeField(const Pattern& pattern, std::uint32_t stream, std::uint32_t field, std::span<std::byte> content);
bool IsField(const Pattern& pattern, std::uint32_t stream, std::uint32_t field, std::span<const std::byte> content);

// Kept as the file's application information, which every program sees at once. A recorder writes it when the body
// tables stand, so it also says that there is something to follow.
struct RecordingNote {
    char mark[8];
    Pattern pattern;
    std::uint8_t rest[VRKFS_APPLICATION_INFO_SIZE - 8 - sizeof(Pattern)];
};
static_assert(sizeof(RecordingNote) == VRKFS_APPLICATION_INFO_SIZE);

RecordingNote MakeNote(const Pattern& pattern);
// False for a file that these examples did not record, or whose tables do not stand yet.
bool ReadNote(const RecordingNote& note, Pattern& pattern);

}  // namespace examples
