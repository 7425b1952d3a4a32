// What a generated clip is made of. The whole recipe travels inside the clip's application block, so that any clip that
// the generator made can be checked later without knowing how it was asked for.
#pragma once

#include <vrkfs/media.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace clip {

enum class ClipKind : uint32_t {
    Bars = 1,    // pictures: colour bars, a moving mark, the frame number
    Tagged = 2,  // sectors that each say where they belong
};

struct ClipRecipe {
    ClipKind kind = ClipKind::Bars;
    uint32_t standard = VRKFS_LINE_STANDARD_525;  // 525 or 625
    uint32_t frames = 100;                        // up to kMaxFrames; with alpha at least 1
    bool alpha = false;
    bool interleave = false;  // order in which the clip is written; needs alpha
    uint32_t minSectors = 0;  // of one field, tagged clips only
    uint32_t maxSectors = 0;  // up to VRKFS_FIELD_MAX_SECTORS
    uint64_t seed = 1;        // bars: where the mark starts; tagged: lengths and bytes

    bool operator==(const ClipRecipe&) const = default;
};

// Six days of video; the body tables of a longer clip would be more than memory should hold at once.
inline constexpr uint32_t kMaxFrames = 1u << 24;

// Why the recipe cannot be made, as one line; empty when it can.
[[nodiscard]] std::string CheckRecipe(const ClipRecipe& recipe);

// "bars, 525 lines, 100 frames, alpha, interleaved, seed 1"
[[nodiscard]] std::string DescribeRecipe(const ClipRecipe& recipe);

[[nodiscard]] VideoParameters MakeParameters(const ClipRecipe& recipe, uint32_t stream);

using ApplicationBlock = std::array<std::byte, VRKFS_APPLICATION_BLOCK_SIZE>;

// The block holds two copies of the signature, so that damage to one is seen as damage and not as "not ours".
[[nodiscard]] ApplicationBlock SignClip(const ClipRecipe& recipe);

enum class SignatureState {
    None,     // no trace of the generator
    Intact,   // recipe is valid
    Newer,    // made by a later version of the generator
    Damaged,  // made by the generator, but no copy is usable
};

struct ClipSignature {
    SignatureState state = SignatureState::None;
    uint32_t version = 0;
    ClipRecipe recipe;
};

[[nodiscard]] ClipSignature ReadSignature(const ApplicationBlock& block);

}  // namespace clip
