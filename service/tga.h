// Truevision TGA files of true colour.
#pragma once

#include "service/picture_file.h"

namespace service {

inline constexpr std::size_t kTgaHeaderSize = 18;

// Appends the file.
void WriteTga(const Picture& picture, Bytes& file);

// True colour of 24 or 32 bits, plain or run-length encoded, from either end of the picture. `picture` may be null.
Outcome ReadTga(ByteView file, std::uint32_t height, Picture* picture, std::size_t& end, std::string& problem);

}  // namespace service
