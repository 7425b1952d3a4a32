// Frames as files: what the registered types are, and their bytes. A frame file has the size of its type's row whatever
// the line standard, since a row has no place for two; what is shorter ends in zeros, which TGA readers do not look at,
// and which a BMP file's own header counts as part of it.
//
//   TGA  uncompressed true colour, 24 bits, or 32 with alpha, from the bottom up
//   BMP  24 bits with the 40-byte header, or 32 with the 108-byte one that has a mask for alpha, from the bottom up
//   YUV  the lines of the frame from the top, U Y V Y, and then those of the key if there is one
//   RAW  the fields' sectors as they lie on the disks: first and second, and then those of the key
#pragma once

#include <vrkfs/records.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "service/frame.h"

namespace service {

// The type codes of the rows.
enum class FileKind : std::uint32_t { kTga = 1, kBmp = 2, kYuv = 3, kRaw = 4 };

inline constexpr std::uint32_t kFileKinds = 4;
inline constexpr std::size_t kMaxFileBytes = 4 << 20;  // of a picture that is written back; ours stay far below

std::array<VrkFsFileType, kFileKinds> FileTypes();
std::size_t FileSize(FileKind kind, bool alpha);
// At its beginning, what says how the rest is to be read. 0 for YUV and RAW.
std::size_t HeaderSize(FileKind kind, bool alpha);

// The whole file of a frame. False with `problem` filled when its fields are no pictures, or longer than the file.
bool FrameToFile(FileKind kind, const Frame& frame, Bytes& file, std::string& problem, std::string& note);

enum class Outcome {
    kMore,     // the file is not whole yet
    kDone,     // what has been asked for
    kRefused,  // it never will be: `problem` says why
};

// Looks at the beginning of a file that is being written for a frame of that many lines; kDone: `end` is where the
// picture ends, and all of it is there.
Outcome CheckFile(FileKind kind, ByteView beginning, const Frame& frame, std::size_t& end, std::string& problem);
// What CheckFile thinks of the size that a picture's header tells.
bool IsWantedSize(std::int64_t width, std::int64_t height, std::uint32_t wantedHeight, std::string& problem);
// Changes a frame to what the file shows, as PictureToFrame does. The file is whole.
bool FileToFrame(FileKind kind, ByteView file, Frame& frame, std::string& problem);

}  // namespace service
