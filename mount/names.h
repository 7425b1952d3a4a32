// Names between the drive, where they are 16-bit characters, and the file tree, where they are UTF-8.
//
// What UTF-8 or a path cannot carry (half a surrogate pair, a slash, a zero, and the names "." and "..") is shown as
// its four hexadecimal digits in angle brackets, "<D800>", which no valid name can contain; what is shown finds the
// name.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace mount {

[[nodiscard]] std::string TreeName(std::u16string_view name);

// Nothing when no drive can hold the name: it is not UTF-8, has more than 255 characters, or would be taken apart.
[[nodiscard]] std::optional<std::u16string> DriveName(std::string_view name);

// Has more characters than a name can have.
[[nodiscard]] bool IsTooLong(std::string_view name);

// The driver's command port has this name in every folder, in any case.
[[nodiscard]] bool IsPortName(std::u16string_view upcased);

// A name beside a clip's own that listings leave out by default: ".NAME.ENDING", then ".NAME.ENDING2" and so on, cut to
// what a name can hold.
inline constexpr unsigned kSideNames = 20;  // to try
[[nodiscard]] std::u16string SideName(std::u16string_view name, std::u16string_view ending, unsigned attempt);

}  // namespace mount
