// Windows bitmap files.
#pragma once

#include "service/picture_file.h"

namespace service {

std::size_t BmpHeaderSize(bool alpha);

// Appends a file that will have that size in the end.
void WriteBmp(const Picture& picture, std::size_t fileSize, Bytes& file);

// Plain pixels of 24 or 32 bits, from either end of the picture. `picture` may be null.
Outcome ReadBmp(ByteView file, std::uint32_t height, Picture* picture, std::size_t& end, std::string& problem);

}  // namespace service
