// One frame of a clip: its fields as they lie on the disks, and the picture that they make.
//
// Weaving. The first field of 625 lines has the even lines of the frame, counted from 0 at the top; the first field of
// 525 lines has the odd ones, since its raster starts with a line of the second field (625: lines 23 and 336 come on
// top, 525: lines 283 and 21).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "service/colour.h"

namespace service {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

inline constexpr std::uint32_t kFields = VRKFS_FIELDS_PER_FRAME;
inline constexpr std::uint32_t kMaxHeight = VRKFS_VIDEO_HEIGHT_625;

struct Frame {
    std::uint32_t standard = VRKFS_LINE_STANDARD_525;
    bool alpha = false;
    Bytes fields[2][kFields];  // by stream (alpha's are empty without alpha) and field; whole sectors

    std::uint32_t Height() const {
        return standard == VRKFS_LINE_STANDARD_625 ? VRKFS_VIDEO_HEIGHT_625 : VRKFS_VIDEO_HEIGHT_525;
    }
    std::uint32_t FieldLines() const { return Height() / kFields; }
    std::uint32_t Streams() const { return alpha ? 2 : 1; }
    // The frame's line that a field's line is.
    std::uint32_t LineOf(std::uint32_t field, std::uint32_t line) const {
        return line * kFields + (standard == VRKFS_LINE_STANDARD_625 ? field : 1 - field);
    }
    std::uint32_t PictureBytes() const { return FieldLines() * kLineBytes; }  // of an uncompressed field
};

// Rows from the top, 720 pixels each, bytes B G R or B G R A.
struct Picture {
    std::uint32_t height = 0;
    std::uint32_t step = 3;  // bytes of a pixel; 4: with alpha
    Bytes pixels;

    Picture() = default;
    Picture(std::uint32_t rows, std::uint32_t bytesOfPixel)
        : height(rows), step(bytesOfPixel), pixels(std::size_t{rows} * kWidth * bytesOfPixel) {}
    std::size_t RowBytes() const { return std::size_t{kWidth} * step; }
    std::uint8_t* Row(std::uint32_t row) { return pixels.data() + row * RowBytes(); }
    const std::uint8_t* Row(std::uint32_t row) const { return pixels.data() + row * RowBytes(); }
};

enum class FieldContent { kLines, kJpeg, kUnknown };

// By what is in it: a JPEG image begins with its mark; lines are at least as long as the standard's.
FieldContent ContentOf(const Frame& frame, std::uint32_t stream, std::uint32_t field);

// False with `problem` filled when a field is no picture. `note` is filled when one is damaged but can be shown. The
// picture has alpha when the frame has.
bool FrameToPicture(const Frame& frame, Picture& picture, std::string& problem, std::string& note);

// Changes the fields where the picture differs from what FrameToPicture makes of them; lines that do not differ keep
// their bytes, a JPEG image in which something differs is made anew, as good as fits where it is, and stays as high as
// it is. A picture without alpha leaves the frame's alone. False with `problem` filled when it does not fit; the frame
// is then half changed.
bool PictureToFrame(const Picture& picture, Frame& frame, std::string& problem);

// The fields' lines one upon the other in the order of the picture, video first, then alpha: 4:2:2 as it is. A JPEG
// field's are made from its picture.
bool FrameToLines(const Frame& frame, Bytes& lines, std::string& problem, std::string& note);
bool LinesToFrame(ByteView lines, Frame& frame, std::string& problem);

}  // namespace service
