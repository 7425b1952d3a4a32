// Fields that are JPEG images. What is in them comes from a disk: it is decoded only as far as it is as wide as a line
// and no higher than a field, in a bounded number of scans, and whatever the library finds wrong ends the decoding and
// nothing else. Samples are full range, as a JPEG image's are.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "service/colour.h"

namespace service {

// Rows of 720 pixels: B G R, or grey for a key.
struct JpegImage {
    std::uint32_t height = 0;  // rows that it has itself; those below are black
    std::uint32_t channels = 3;
    bool damaged = false;
    std::vector<std::uint8_t> pixels;

    std::uint8_t* Row(std::uint32_t line) { return pixels.data() + std::size_t{line} * kWidth * channels; }
    const std::uint8_t* Row(std::uint32_t line) const { return pixels.data() + std::size_t{line} * kWidth * channels; }
};

bool IsJpeg(std::span<const std::uint8_t> field);

// Gives `lines` rows; an image of fewer leaves the last ones black. False with `why` filled when it cannot be
// shown; also filled when it is damaged, but something can be.
bool DecodeJpeg(std::span<const std::uint8_t> field, std::uint32_t lines, std::uint32_t channels, JpegImage& image,
                std::string& why);

// Fills the place, its rest with zeros, with the image in the best quality that fits. False if none does; the place is
// then as it was.
bool EncodeJpeg(const JpegImage& image, std::vector<std::uint8_t>& place);

}  // namespace service
