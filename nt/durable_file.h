#pragma once

#include <string>
#include <string_view>

// Small files of a station, read whole and replaced whole.
namespace nt {

// Reads a regular file of at most `limit` bytes. Returns what is wrong, or an empty string; a file that does not exist
// is nothing wrong, and is told by `exists`.
std::string ReadSmallFile(const std::string& path, size_t limit, std::string* text, bool* exists);

// Puts the text in the place of the file, so that after a crash or a power cut either the old or the new contents are
// there, whole: writes beside it, syncs, renames, syncs the directory. A link keeps its place: what it leads to is
// replaced. Returns what went wrong, or an empty string; the old contents are still there then, unless it was the last
// sync that failed.
std::string ReplaceFile(const std::string& path, std::string_view text);

}  // namespace nt
