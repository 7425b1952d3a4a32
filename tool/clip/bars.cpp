#include "tool/clip/bars.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace clip {
namespace {

constexpr uint32_t kPixelBytes = 2;  // two bytes a pixel, chroma shared by a pair
constexpr uint32_t kLineBytes = VRKFS_VIDEO_WIDTH * kPixelBytes;

struct Colour {
    uint8_t y;
    uint8_t u;
    uint8_t v;
};

constexpr Colour kPeakWhite = {235, 128, 128};
constexpr Colour kBlack = {16, 128, 128};

// White, yellow, cyan, green, magenta, red, blue, black.
constexpr std::array<Colour, 8> kBars = {{{180, 128, 128},
                                          {162, 44, 142},
                                          {131, 156, 44},
                                          {112, 72, 58},
                                          {84, 184, 198},
                                          {65, 100, 212},
                                          {35, 212, 114},
                                          kBlack}};
constexpr uint32_t kBarWidth = VRKFS_VIDEO_WIDTH / kBars.size();
static_assert(kBarWidth * kBars.size() == VRKFS_VIDEO_WIDTH && kBarWidth % 2 == 0, "a bar is whole pixel pairs");

// The mark: pixels and field lines. It moves two pixel pairs a field.
constexpr uint32_t kMarkWidth = 32;
constexpr uint32_t kMarkLines = 24;
constexpr uint32_t kMarkStep = 4;
constexpr uint32_t kMarkTravel = VRKFS_VIDEO_WIDTH - kMarkWidth;

// Five columns by seven rows a digit, the leftmost column in bit 4.
constexpr uint32_t kGlyphColumns = 5;
constexpr uint32_t kGlyphRows = 7;
constexpr uint8_t kGlyphs[10][kGlyphRows] = {
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
    {0x0E, 0x11, 0x01, 0x06, 0x08, 0x10, 0x1F}, {0x0E, 0x11, 0x01, 0x06, 0x01, 0x11, 0x0E},
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}};

constexpr uint32_t kDotPixels = 8;  // a glyph's dot: 8 pixels by 4 field lines
constexpr uint32_t kDotLines = 4;
constexpr uint32_t kCellColumns = kGlyphColumns + 1;
constexpr uint32_t kMinDigits = 5;
constexpr uint32_t kMaxDigits = 10;
constexpr uint32_t kNumberLine = 32;  // first field line of the number's box

void PutPixels(std::byte* at, uint32_t pixels, Colour colour) {
    const std::byte pair[4] = {std::byte{colour.u}, std::byte{colour.y}, std::byte{colour.v}, std::byte{colour.y}};
    for (uint32_t pixel = 0; pixel < pixels; pixel += 2) {
        std::memcpy(at + pixel * kPixelBytes, pair, sizeof(pair));
    }
}

std::array<std::byte, kLineBytes> BarsLine() {
    std::array<std::byte, kLineBytes> line;
    for (uint32_t bar = 0; bar < kBars.size(); ++bar) {
        PutPixels(line.data() + bar * kBarWidth * kPixelBytes, kBarWidth, kBars[bar]);
    }
    return line;
}

std::array<std::byte, kLineBytes> RampLine() {
    std::array<std::byte, kLineBytes> line;
    for (uint32_t pixel = 0; pixel < VRKFS_VIDEO_WIDTH; pixel += 2) {
        const uint32_t luma = kBlack.y + pixel * (kPeakWhite.y - kBlack.y) / (VRKFS_VIDEO_WIDTH - 2);
        PutPixels(line.data() + pixel * kPixelBytes, 2, {static_cast<uint8_t>(luma), 128, 128});
    }
    return line;
}

std::vector<std::byte> RepeatLine(const std::array<std::byte, kLineBytes>& line, uint32_t lines, size_t bytes) {
    std::vector<std::byte> field(bytes);
    for (uint32_t at = 0; at < lines; ++at) {
        std::memcpy(field.data() + static_cast<size_t>(at) * kLineBytes, line.data(), kLineBytes);
    }
    return field;
}

// The part of the key that is wholly opaque: the middle third, below the number and above the mark.
void PutKeyBox(std::vector<std::byte>& field, uint32_t lines) {
    for (uint32_t line = lines * 3 / 8; line < lines * 5 / 8; ++line) {
        PutPixels(field.data() + static_cast<size_t>(line) * kLineBytes + kLineBytes / 3, VRKFS_VIDEO_WIDTH / 3,
                  kPeakWhite);
    }
}

std::span<const uint8_t> Digits(uint32_t number, std::array<uint8_t, kMaxDigits>& digits) {
    size_t first = kMaxDigits;
    while (number != 0 || kMaxDigits - first < kMinDigits) {
        digits[--first] = static_cast<uint8_t>(number % 10);
        number /= 10;
    }
    return std::span(digits).subspan(first);
}

constexpr uint32_t FieldLines(uint32_t standard) {
    return (standard == VRKFS_LINE_STANDARD_625 ? VRKFS_VIDEO_HEIGHT_625 : VRKFS_VIDEO_HEIGHT_525) /
           VRKFS_FIELDS_PER_FRAME;
}

}  // namespace

BarsPainter::BarsPainter(uint32_t standard, uint64_t seed) : lines_(FieldLines(standard)), seed_(seed) {
    const size_t bytes = static_cast<size_t>(FieldSectors(standard)) * VRKFS_SECTOR_SIZE;
    video_ = RepeatLine(BarsLine(), lines_, bytes);
    alpha_ = RepeatLine(RampLine(), lines_, bytes);
    PutKeyBox(alpha_, lines_);
}

uint32_t BarsPainter::FieldSectors(uint32_t standard) {
    return (FieldLines(standard) * kLineBytes + VRKFS_SECTOR_SIZE - 1) / VRKFS_SECTOR_SIZE;
}

void BarsPainter::Paint(uint32_t stream, uint32_t field, std::span<std::byte> out) const {
    const std::vector<std::byte>& base = stream == VRKFS_STREAM_ALPHA ? alpha_ : video_;
    std::memcpy(out.data(), base.data(), base.size());
    PaintMark(field, out);
    PaintNumber(field / VRKFS_FIELDS_PER_FRAME, out);
}

void BarsPainter::PaintMark(uint32_t field, std::span<std::byte> out) const {
    const uint64_t place = (seed_ % kMarkTravel * 2 + static_cast<uint64_t>(field) * kMarkStep) % kMarkTravel;
    const uint32_t pixel = static_cast<uint32_t>(place) & ~1u;
    std::byte* at = out.data() + static_cast<size_t>(lines_ * 3 / 4) * kLineBytes + pixel * kPixelBytes;
    for (uint32_t line = 0; line < kMarkLines; ++line, at += kLineBytes) {
        PutPixels(at, kMarkWidth, kPeakWhite);
    }
}

// White dots in a black box that is one dot larger on every side.
void BarsPainter::PaintNumber(uint32_t frame, std::span<std::byte> out) const {
    std::array<uint8_t, kMaxDigits> buffer;
    const std::span<const uint8_t> digits = Digits(frame, buffer);
    const uint32_t boxPixels = (static_cast<uint32_t>(digits.size()) * kCellColumns + 1) * kDotPixels;
    const uint32_t left = (VRKFS_VIDEO_WIDTH - boxPixels) / 2 & ~1u;
    std::array<std::byte, kLineBytes> line;
    std::byte* at = out.data() + static_cast<size_t>(kNumberLine) * kLineBytes + left * kPixelBytes;
    for (uint32_t row = 0; row < kGlyphRows + 2; ++row) {
        PutPixels(line.data(), boxPixels, kBlack);
        const bool hasDots = row >= 1 && row <= kGlyphRows;
        for (uint32_t column = 0; hasDots && column < digits.size() * kCellColumns; ++column) {
            const uint32_t bits = kGlyphs[digits[column / kCellColumns]][row - 1];
            const uint32_t inCell = column % kCellColumns;
            if (inCell < kGlyphColumns && ((bits >> (kGlyphColumns - 1 - inCell)) & 1) != 0) {
                PutPixels(line.data() + (column + 1) * kDotPixels * kPixelBytes, kDotPixels, kPeakWhite);
            }
        }
        for (uint32_t copy = 0; copy < kDotLines; ++copy, at += kLineBytes) {
            std::memcpy(at, line.data(), boxPixels * kPixelBytes);
        }
    }
}

}  // namespace clip
