#include "examples/pattern.h"

#include <cstring>

namespace examples {
namespace {

constexpr char kMark[8] = {'R', 'E', 'C', 'O', 'R', 'D', 'E', 'D'};

std::uint64_t Mix(std::uint64_t value) {
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9u;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBu;
    return value ^ (value >> 31);
}

std::uint64_t FieldSeed(const Pattern& pattern, std::uint32_t stream, std::uint32_t field) {
    return Mix(pattern.seed ^ Mix((std::uint64_t{stream} << 32) + field + 1));
}

// Calls `visit(offset, word)` for each 8 bytes, until it says false.
template <typename Visit>
bool VisitWords(std::uint64_t seed, std::size_t bytes, Visit visit) {
    for (std::size_t at = 0; at + 8 <= bytes; at += 8) {
        if (!visit(at, (seed + at) * 0x9E3779B97F4A7C15u)) {
            return false;
        }
    }
    return true;
}

}  // namespace

std::uint32_t FieldSectors(const Pattern& pattern, std::uint32_t stream, std::uint32_t field) {
    const std::uint32_t range = pattern.maxSectors - pattern.minSectors + 1;
    return pattern.minSectors + static_cast<std::uint32_t>(FieldSeed(pattern, stream, field) % range);
}

void MakeField(const Pattern& pattern, std::uint32_t stream, std::uint32_t field, std::span<std::byte> content) {
    VisitWords(FieldSeed(pattern, stream, field), content.size(), [&](std::size_t at, std::uint64_t word) {
        std::memcpy(content.data() + at, &word, sizeof(word));
        return true;
    });
}

bool IsField(const Pattern& pattern, std::uint32_t stream, std::uint32_t field, std::span<const std::byte> content) {
    return content.size() == std::size_t{FieldSectors(pattern, stream, field)} * VRKFS_SECTOR_SIZE &&
           VisitWords(FieldSeed(pattern, stream, field), content.size(), [&](std::size_t at, std::uint64_t word) {
               return std::memcmp(content.data() + at, &word, sizeof(word)) == 0;
           });
}

RecordingNote MakeNote(const Pattern& pattern) {
    RecordingNote note{};
    std::memcpy(note.mark, kMark, sizeof(kMark));
    note.pattern = pattern;
    return note;
}

bool ReadNote(const RecordingNote& note, Pattern& pattern) {
    if (std::memcmp(note.mark, kMark, sizeof(kMark)) != 0 || note.pattern.maxSectors < note.pattern.minSectors ||
        note.pattern.maxSectors > VRKFS_FIELD_MAX_SECTORS) {
        return false;
    }
    pattern = note.pattern;
    return true;
}

}  // namespace examples
