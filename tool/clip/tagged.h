// Sectors that say where they belong. A sector that turns up in the wrong place, from another clip, or damaged, is
// told apart from the right one by looking at it alone.
#pragma once

#include <vrkfs/media.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace clip {

struct SectorTag {
    uint64_t seed = 0;
    uint32_t stream = 0;
    uint32_t field = 0;   // within its stream
    uint32_t sector = 0;  // within its field

    bool operator==(const SectorTag&) const = default;
};

// A seeded, even hash: the source of field lengths and filler.
[[nodiscard]] uint64_t MixTag(uint64_t seed, uint32_t stream, uint32_t field, uint32_t sector);

// Fills one sector of VRKFS_SECTOR_SIZE bytes.
void FillTaggedSector(const SectorTag& tag, std::span<std::byte, VRKFS_SECTOR_SIZE> sector);

// The tag of an intact tagged sector; nothing when the bytes are something else or damaged.
[[nodiscard]] std::optional<SectorTag> ReadTaggedSector(std::span<const std::byte, VRKFS_SECTOR_SIZE> sector);

}  // namespace clip
