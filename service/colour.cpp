#include "service/colour.h"

namespace service {
namespace {

using colour::Bgr;

Bgr PixelAt(const std::uint8_t* pixel) {
    return {pixel[0], pixel[1], pixel[2]};
}

void PutPixel(std::uint8_t* pixel, Bgr value) {
    pixel[0] = value.b;
    pixel[1] = value.g;
    pixel[2] = value.r;
}

template <std::uint32_t kStep>
void ToPicture(const std::uint8_t* line, std::uint8_t* pixels) {
    for (std::uint32_t pair = 0; pair < kWidth / 2; ++pair, line += 4, pixels += 2 * kStep) {
        const colour::Chroma chroma(line[0], line[2]);
        PutPixel(pixels, colour::ToBgr(line[1], chroma));
        PutPixel(pixels + kStep, colour::ToBgr(line[3], chroma));
    }
}

}  // namespace

void LineToPicture(const std::uint8_t* line, std::uint8_t* pixels, std::uint32_t step) {
    step == 3 ? ToPicture<3>(line, pixels) : ToPicture<4>(line, pixels);
}

void PictureToLine(const std::uint8_t* pixels, std::uint32_t step, std::uint8_t* line) {
    for (std::uint32_t pair = 0; pair < kWidth / 2; ++pair, line += 4, pixels += 2 * step) {
        const Bgr first = PixelAt(pixels);
        const Bgr second = PixelAt(pixels + step);
        const colour::Chroma chroma(line[0], line[2]);
        if (first == colour::ToBgr(line[1], chroma) && second == colour::ToBgr(line[3], chroma)) {
            continue;
        }
        const std::int32_t r = first.r + second.r;
        const std::int32_t g = first.g + second.g;
        const std::int32_t b = first.b + second.b;
        line[0] = colour::UOf(r, g, b);
        line[1] = colour::LumaOf(first);
        line[2] = colour::VOf(r, g, b);
        line[3] = colour::LumaOf(second);
    }
}

void KeyToPicture(const std::uint8_t* line, std::uint8_t* pixels) {
    for (std::uint32_t pixel = 0; pixel < kWidth; ++pixel) {
        pixels[4 * pixel + 3] = colour::AlphaOf(line[2 * pixel + 1]);
    }
}

void PictureToKey(const std::uint8_t* pixels, std::uint8_t* line) {
    for (std::uint32_t pixel = 0; pixel < kWidth; ++pixel) {
        const std::uint8_t alpha = pixels[4 * pixel + 3];
        std::uint8_t& luma = line[2 * pixel + 1];
        if (colour::AlphaOf(luma) != alpha) {
            luma = colour::LumaOfAlpha(alpha);
        }
    }
}

}  // namespace service
