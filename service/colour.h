// Between 8-bit 4:2:2 of ITU-R BT.601 (bytes U Y V Y, luma 16..235, chroma 16..240) and 8-bit full-range RGB (bytes B G
// R in memory, as picture files have them), in integers of 16 fraction bits, rounded to nearest.
//
// Chroma is not filtered: both pixels of a pair take the pair's chroma, and a pair's chroma is the mean of what its two
// pixels want. So a pair stands for itself, edges between pairs stay sharp, and what is changed in one pair changes
// nothing beside it. RGB cannot hold every 4:2:2 value nor the other way round, so writing back compares with what a
// read gives and leaves the bytes of every pixel pair alone that did not change.
#pragma once

#include <vrkfs/media.h>

#include <algorithm>
#include <cstdint>

namespace service {

inline constexpr std::uint32_t kWidth = VRKFS_VIDEO_WIDTH;
inline constexpr std::uint32_t kLineBytes = kWidth * 2;

namespace colour {

inline constexpr std::int32_t kHalf = 1 << 15;

// 255/219 for luma; chroma of 224 steps scaled by 255/112 of (1 - Kr) and the like, with Kr = 0.299 and Kb = 0.114.
inline constexpr std::int32_t kYScale = 76309;
inline constexpr std::int32_t kVToRed = 104597;
inline constexpr std::int32_t kUToGreen = 25675;
inline constexpr std::int32_t kVToGreen = 53279;
inline constexpr std::int32_t kUToBlue = 132201;

inline std::uint8_t Clamp(std::int32_t value) {
    return static_cast<std::uint8_t>(std::clamp(value, 0, 255));
}

struct Bgr {
    std::uint8_t b, g, r;
    bool operator==(const Bgr&) const = default;
};

// What a pair's chroma adds to each of its pixels.
struct Chroma {
    std::int32_t b, g, r;
    Chroma(std::uint8_t u, std::uint8_t v)
        : b(kUToBlue * (u - 128)), g(-kUToGreen * (u - 128) - kVToGreen * (v - 128)), r(kVToRed * (v - 128)) {}
};

inline Bgr ToBgr(std::uint8_t y, const Chroma& chroma) {
    const std::int32_t luma = kYScale * (y - 16) + kHalf;
    return {Clamp((luma + chroma.b) >> 16), Clamp((luma + chroma.g) >> 16), Clamp((luma + chroma.r) >> 16)};
}

// 219/255 of Kr, Kg, Kb, and 224/255 of the chroma weights.
inline std::uint8_t LumaOf(Bgr pixel) {
    return static_cast<std::uint8_t>(16 + ((16829 * pixel.r + 33039 * pixel.g + 6416 * pixel.b + kHalf) >> 16));
}
// Of two pixels' sums, hence the further bit.
inline std::uint8_t UOf(std::int32_t r, std::int32_t g, std::int32_t b) {
    return static_cast<std::uint8_t>(128 + ((-9714 * r - 19070 * g + 28784 * b + 2 * kHalf) >> 17));
}
inline std::uint8_t VOf(std::int32_t r, std::int32_t g, std::int32_t b) {
    return static_cast<std::uint8_t>(128 + ((28784 * r - 24103 * g - 4681 * b + 2 * kHalf) >> 17));
}

// A key's luma as opacity and back.
inline std::uint8_t AlphaOf(std::uint8_t y) {
    return Clamp((kYScale * (y - 16) + kHalf) >> 16);
}
inline std::uint8_t LumaOfAlpha(std::uint8_t alpha) {
    return static_cast<std::uint8_t>(16 + ((56284 * alpha + kHalf) >> 16));
}

}  // namespace colour

// One line of 720 pixels; `step` is the bytes of a pixel in the picture, 3 or 4, of which the fourth is left alone.
void LineToPicture(const std::uint8_t* line, std::uint8_t* pixels, std::uint32_t step);
// Changes the pairs of the line that the picture has otherwise.
void PictureToLine(const std::uint8_t* pixels, std::uint32_t step, std::uint8_t* line);

// The same for the line of a key and the fourth bytes of a picture's pixels. The key's chroma is left alone.
void KeyToPicture(const std::uint8_t* line, std::uint8_t* pixels);
void PictureToKey(const std::uint8_t* pixels, std::uint8_t* line);

}  // namespace service
