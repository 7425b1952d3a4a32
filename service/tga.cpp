#include "service/tga.h"

#include <algorithm>
#include <cstring>

#include "service/little_endian.h"

namespace service {
namespace {

// Where things are in the header.
constexpr std::size_t kIdLength = 0;
constexpr std::size_t kMapType = 1;
constexpr std::size_t kImageType = 2;
constexpr std::size_t kWidthAt = 12;
constexpr std::size_t kHeightAt = 14;
constexpr std::size_t kDepth = 16;
constexpr std::size_t kDescriptor = 17;

constexpr std::uint8_t kTrueColour = 2;
constexpr std::uint8_t kRunLength = 8;  // added to the type
constexpr std::uint8_t kAlphaBits = 0x0F;
constexpr std::uint8_t kFromRight = 0x10;
constexpr std::uint8_t kFromTop = 0x20;

constexpr std::uint8_t kRun = 0x80;  // in a packet's head; the rest is its pixels less one

struct Layout {
    std::uint32_t step;  // bytes of a pixel in the file
    bool alpha;
    bool fromTop;
    bool runLength;
    std::size_t pixelsAt;
};

Outcome ReadHeader(ByteView file, std::uint32_t height, Layout& layout, std::string& problem) {
    if (file.size() < kTgaHeaderSize) {
        return Outcome::kMore;
    }
    const std::uint8_t type = file[kImageType];
    const std::uint8_t depth = file[kDepth];
    const std::uint8_t descriptor = file[kDescriptor];
    if (file[kMapType] != 0 || (type & ~kRunLength) != kTrueColour || (depth != 24 && depth != 32) ||
        (descriptor & kFromRight) != 0) {
        problem = "it is no TGA file of 24 or 32 bits of true colour";
        return Outcome::kRefused;
    }
    if (!IsWantedSize(Load<std::uint16_t>(&file[kWidthAt]), Load<std::uint16_t>(&file[kHeightAt]), height, problem)) {
        return Outcome::kRefused;
    }
    layout = {depth / 8u, depth == 32 && (descriptor & kAlphaBits) == 8, (descriptor & kFromTop) != 0,
              (type & kRunLength) != 0, kTgaHeaderSize + file[kIdLength]};
    return Outcome::kDone;
}

// Takes pixels in the order of the file.
class Sink {
  public:
    Sink(Picture* picture, const Layout& layout) : picture_(picture), layout_(layout) {}
    void Put(std::size_t index, const std::uint8_t* pixel) {
        if (picture_ != nullptr) {
            const auto row = static_cast<std::uint32_t>(index / kWidth);
            std::uint8_t* const place =
                picture_->Row(layout_.fromTop ? row : picture_->height - 1 - row) + index % kWidth * picture_->step;
            std::memcpy(place, pixel, picture_->step);
        }
    }

  private:
    Picture* picture_;
    const Layout& layout_;
};

bool UnpackRuns(ByteView file, const Layout& layout, std::size_t pixels, Sink& sink, std::size_t& at) {
    for (std::size_t index = 0; index < pixels;) {
        if (at >= file.size()) {
            return false;
        }
        const std::uint8_t head = file[at++];
        const bool run = (head & kRun) != 0;
        const std::size_t count = std::min<std::size_t>((head & ~kRun) + 1u, pixels - index);
        if (file.size() - at < (run ? 1 : count) * layout.step) {
            return false;
        }
        for (std::size_t each = 0; each < count; ++each) {
            sink.Put(index++, &file[at + (run ? 0 : each * layout.step)]);
        }
        at += (run ? 1 : count) * layout.step;
    }
    return true;
}

}  // namespace

void WriteTga(const Picture& picture, Bytes& file) {
    std::uint8_t header[kTgaHeaderSize] = {};
    header[kImageType] = kTrueColour;
    Store(&header[kWidthAt], static_cast<std::uint16_t>(kWidth));
    Store(&header[kHeightAt], static_cast<std::uint16_t>(picture.height));
    header[kDepth] = static_cast<std::uint8_t>(picture.step * 8);
    header[kDescriptor] = picture.step == 4 ? 8 : 0;
    file.insert(file.end(), std::begin(header), std::end(header));
    for (std::uint32_t row = picture.height; row-- > 0;) {
        file.insert(file.end(), picture.Row(row), picture.Row(row) + picture.RowBytes());
    }
}

Outcome ReadTga(ByteView file, std::uint32_t height, Picture* picture, std::size_t& end, std::string& problem) {
    Layout layout;
    const Outcome read = ReadHeader(file, height, layout, problem);
    if (read != Outcome::kDone) {
        return read;
    }
    if (picture != nullptr) {
        *picture = Picture(height, layout.alpha ? 4 : 3);
    }
    const std::size_t pixels = std::size_t{height} * kWidth;
    Sink sink(picture, layout);
    end = layout.pixelsAt;
    if (layout.runLength) {
        return UnpackRuns(file, layout, pixels, sink, end) ? Outcome::kDone : Outcome::kMore;
    }
    end += pixels * layout.step;
    if (file.size() < end) {
        return Outcome::kMore;
    }
    for (std::size_t index = 0; picture != nullptr && index < pixels; ++index) {
        sink.Put(index, &file[layout.pixelsAt + index * layout.step]);
    }
    return Outcome::kDone;
}

}  // namespace service
