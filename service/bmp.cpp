#include "service/bmp.h"

#include <cstring>

#include "service/little_endian.h"

namespace service {
namespace {

// Where things are: the file's header of 14 bytes, then the bitmap's.
constexpr std::size_t kFileSizeAt = 2;
constexpr std::size_t kPixelsAt = 10;
constexpr std::size_t kHeaderSizeAt = 14;
constexpr std::size_t kWidthAt = 18;
constexpr std::size_t kHeightAt = 22;  // negative: from the top
constexpr std::size_t kPlanesAt = 26;
constexpr std::size_t kDepthAt = 28;
constexpr std::size_t kCompressionAt = 30;
constexpr std::size_t kImageSizeAt = 34;
constexpr std::size_t kResolutionAt = 38;  // across and down, pixels a metre
constexpr std::size_t kMasksAt = 54;       // red, green, blue, and alpha in headers of that length

constexpr std::uint32_t kFileHeader = 14;
constexpr std::uint32_t kPlainHeader = 40;
constexpr std::uint32_t kAlphaMaskHeader = 56;  // from this length on there is a mask for alpha
constexpr std::uint32_t kFullHeader = 108;
constexpr std::uint32_t kMaxPixelsAt = 64 << 10;

constexpr std::uint32_t kPlain = 0;
constexpr std::uint32_t kMasked = 3;
constexpr std::uint32_t kMasks[4] = {0x00FF0000, 0x0000FF00, 0x000000FF, 0xFF000000};
constexpr std::size_t kColourMaskBytes = 3 * sizeof(std::uint32_t);
constexpr std::size_t kColourSpaceAt = kMasksAt + sizeof(kMasks);
constexpr std::uint32_t kStandardRgb = 0x73524742;  // "sRGB"
constexpr std::int32_t kResolution = 2835;          // 72 dots an inch

struct Layout {
    std::uint32_t step = 3;
    bool alpha = false;
    bool fromTop = false;
    std::size_t pixelsAt = 0;
};

bool ReadPixelFormat(ByteView file, std::uint32_t headerSize, Layout& layout) {
    const auto depth = Load<std::uint16_t>(&file[kDepthAt]);
    const auto compression = Load<std::uint32_t>(&file[kCompressionAt]);
    layout.step = depth / 8;
    if (depth == 24 || (depth == 32 && compression == kPlain)) {
        return compression == kPlain;
    }
    layout.alpha = headerSize >= kAlphaMaskHeader && std::memcmp(&file[kMasksAt], kMasks, sizeof(kMasks)) == 0;
    return depth == 32 && compression == kMasked && std::memcmp(&file[kMasksAt], kMasks, kColourMaskBytes) == 0;
}

Outcome ReadHeader(ByteView file, std::uint32_t height, Layout& layout, std::string& problem) {
    if (file.size() < kFileHeader + kPlainHeader + sizeof(kMasks)) {
        return Outcome::kMore;
    }
    const auto headerSize = Load<std::uint32_t>(&file[kHeaderSizeAt]);
    const auto pixelsAt = Load<std::uint32_t>(&file[kPixelsAt]);
    if (file[0] != 'B' || file[1] != 'M' || headerSize < kPlainHeader || pixelsAt > kMaxPixelsAt ||
        pixelsAt < kFileHeader + std::uint64_t{headerSize} || Load<std::uint16_t>(&file[kPlanesAt]) != 1 ||
        !ReadPixelFormat(file, headerSize, layout)) {
        problem = "it is no BMP file of 24 or 32 plain bits a pixel";
        return Outcome::kRefused;
    }
    const std::int64_t rows = Load<std::int32_t>(&file[kHeightAt]);
    if (!IsWantedSize(Load<std::int32_t>(&file[kWidthAt]), rows < 0 ? -rows : rows, height, problem)) {
        return Outcome::kRefused;
    }
    layout.fromTop = rows < 0;
    layout.pixelsAt = pixelsAt;
    return Outcome::kDone;
}

}  // namespace

std::size_t BmpHeaderSize(bool alpha) {
    return kFileHeader + (alpha ? kFullHeader : kPlainHeader);
}

void WriteBmp(const Picture& picture, std::size_t fileSize, Bytes& file) {
    const bool alpha = picture.step == 4;
    std::uint8_t header[kFileHeader + kFullHeader] = {'B', 'M'};
    Store(&header[kFileSizeAt], static_cast<std::uint32_t>(fileSize));
    Store(&header[kPixelsAt], static_cast<std::uint32_t>(BmpHeaderSize(alpha)));
    Store(&header[kHeaderSizeAt], alpha ? kFullHeader : kPlainHeader);
    Store(&header[kWidthAt], static_cast<std::int32_t>(kWidth));
    Store(&header[kHeightAt], static_cast<std::int32_t>(picture.height));
    Store(&header[kPlanesAt], std::uint16_t{1});
    Store(&header[kDepthAt], static_cast<std::uint16_t>(picture.step * 8));
    Store(&header[kCompressionAt], alpha ? kMasked : kPlain);
    Store(&header[kImageSizeAt], static_cast<std::uint32_t>(picture.pixels.size()));
    Store(&header[kResolutionAt], kResolution);
    Store(&header[kResolutionAt + sizeof(kResolution)], kResolution);
    if (alpha) {
        std::memcpy(&header[kMasksAt], kMasks, sizeof(kMasks));
        Store(&header[kColourSpaceAt], kStandardRgb);
    }
    file.insert(file.end(), header, header + BmpHeaderSize(alpha));
    for (std::uint32_t row = picture.height; row-- > 0;) {  // whole words in both depths
        file.insert(file.end(), picture.Row(row), picture.Row(row) + picture.RowBytes());
    }
}

Outcome ReadBmp(ByteView file, std::uint32_t height, Picture* picture, std::size_t& end, std::string& problem) {
    Layout layout;
    const Outcome read = ReadHeader(file, height, layout, problem);
    if (read != Outcome::kDone) {
        return read;
    }
    const std::size_t rowBytes = std::size_t{kWidth} * layout.step;
    end = layout.pixelsAt + height * rowBytes;
    if (file.size() < end) {
        return Outcome::kMore;
    }
    if (picture == nullptr) {
        return Outcome::kDone;
    }
    *picture = Picture(height, layout.alpha ? 4 : 3);
    for (std::uint32_t row = 0; row < height; ++row) {
        const std::uint8_t* from = &file[layout.pixelsAt + row * rowBytes];
        std::uint8_t* to = picture->Row(layout.fromTop ? row : height - 1 - row);
        for (std::uint32_t pixel = 0; pixel < kWidth; ++pixel, from += layout.step, to += picture->step) {
            std::memcpy(to, from, picture->step);
        }
    }
    return Outcome::kDone;
}

}  // namespace service
