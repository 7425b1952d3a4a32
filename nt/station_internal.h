#pragma once

#include <string>

// The families that keep part of a station in files; nt/station.h joins them. Each call replaces what the family had,
// or returns what is wrong and leaves it.
namespace nt {

std::string AttachRegistry(const std::string& file, bool readOnly);
std::string AttachSystemRoot(const std::string& directory, bool readOnly);
std::string AttachEventLog(const std::string& file, bool readOnly);

}  // namespace nt
