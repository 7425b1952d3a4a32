#include "tool/clip/tagged.h"

#include <cstring>
#include <type_traits>

#include "tool/clip/crc32.h"

namespace clip {
namespace {

constexpr uint64_t kTagMagic = 0x4741544B5256A55Aull;
constexpr size_t kFillerWords = 59;

// As it lies on the disk.
struct TaggedSector {
    uint64_t magic;
    uint64_t seed;
    uint32_t stream;
    uint32_t field;
    uint32_t sector;
    uint32_t reserved;
    uint64_t filler[kFillerWords];
    uint32_t zero;
    uint32_t crc;  // of everything before it
};
static_assert(sizeof(TaggedSector) == VRKFS_SECTOR_SIZE && offsetof(TaggedSector, crc) == VRKFS_SECTOR_SIZE - 4);
static_assert(std::has_unique_object_representations_v<TaggedSector>);

// The finishing step of a well-known 64-bit mixer: every input bit reaches every output bit.
constexpr uint64_t Mix(uint64_t value) {
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9ull;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBull;
    return value ^ (value >> 31);
}

constexpr uint64_t kStep = 0x9E3779B97F4A7C15ull;

uint32_t SectorCrc(const TaggedSector& sector) {
    return Crc32(std::as_bytes(std::span(&sector, 1)).first(offsetof(TaggedSector, crc)));
}

}  // namespace

uint64_t MixTag(uint64_t seed, uint32_t stream, uint32_t field, uint32_t sector) {
    const uint64_t place = (static_cast<uint64_t>(field) << 32) | (static_cast<uint64_t>(stream) << 31) | sector;
    return Mix(Mix(seed + kStep) ^ Mix(place + kStep));
}

void FillTaggedSector(const SectorTag& tag, std::span<std::byte, VRKFS_SECTOR_SIZE> sector) {
    TaggedSector record;
    record.magic = kTagMagic;
    record.seed = tag.seed;
    record.stream = tag.stream;
    record.field = tag.field;
    record.sector = tag.sector;
    record.reserved = 0;
    uint64_t state = MixTag(tag.seed, tag.stream, tag.field, tag.sector);
    for (uint64_t& word : record.filler) {
        state += kStep;
        word = Mix(state);
    }
    record.zero = 0;
    record.crc = SectorCrc(record);
    std::memcpy(sector.data(), &record, sizeof(record));
}

std::optional<SectorTag> ReadTaggedSector(std::span<const std::byte, VRKFS_SECTOR_SIZE> sector) {
    TaggedSector record;
    std::memcpy(&record, sector.data(), sizeof(record));
    if (record.magic != kTagMagic || record.crc != SectorCrc(record)) {
        return std::nullopt;
    }
    return SectorTag{record.seed, record.stream, record.field, record.sector};
}

}  // namespace clip
