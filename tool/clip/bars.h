// Test pictures: 75 % colour bars for video, a key ramp for alpha, both with a mark that moves from field to field and
// with the frame number. 8-bit 4:2:2, bytes in the order U Y V Y.
#pragma once

#include <vrkfs/media.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace clip {

class BarsPainter {
  public:
    // seed: where the mark starts.
    BarsPainter(uint32_t standard, uint64_t seed);

    // Lines of a field padded to whole sectors.
    [[nodiscard]] static uint32_t FieldSectors(uint32_t standard);

    // out is FieldSectors long; the bytes after the last line are zero.
    void Paint(uint32_t stream, uint32_t field, std::span<std::byte> out) const;

  private:
    void PaintMark(uint32_t field, std::span<std::byte> out) const;
    void PaintNumber(uint32_t frame, std::span<std::byte> out) const;

    uint32_t lines_;  // of one field
    uint64_t seed_;
    std::vector<std::byte> video_;  // fields without mark and number, prepared once: painting is mostly one copy
    std::vector<std::byte> alpha_;
};

}  // namespace clip
