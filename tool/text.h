// Names, sizes and times as a person reads and types them.
//
// Names on the drive are 16-bit characters, any of them. They are shown as UTF-8; what UTF-8 cannot carry (half a
// surrogate pair), what would disturb a terminal (control characters) and what separates names is shown as its four
// hexadecimal digits in angle brackets, "<D800>", which no valid name can contain. So every name can be shown, no two
// names look alike, and what is shown can be typed back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tool {

[[nodiscard]] std::string DisplayName(std::u16string_view name);

// The same for running text: separators stay as they are.
[[nodiscard]] std::string DisplayText(std::u16string_view text);

// The name for what a person typed; nothing when it is not UTF-8.
[[nodiscard]] std::optional<std::u16string> ParseName(std::string_view typed);

// "1.9 GiB"; exact below 1 KiB.
[[nodiscard]] std::string FormatBytes(std::uint64_t bytes);

// "2G", "512M", "4096": bytes; nothing when it is no size or does not fit.
[[nodiscard]] std::optional<std::uint64_t> ParseBytes(std::string_view text);

// "812 MB/s"
[[nodiscard]] std::string FormatRate(std::uint64_t bytes, double seconds);

// From 100 ns since 1601: "2024-02-29 13:05:59", or with `iso` "2024-02-29T13:05:59Z"; "-" when it is no time.
[[nodiscard]] std::string FormatTime(std::int64_t time, bool iso = false);

// "2024-02-29", "2024-02-29 13:05:59" (or with a T, or with a Z behind it), "@1709211959" (seconds since 1970), "now":
// all UTC, as 100 ns since 1601; nothing when it is no such time.
[[nodiscard]] std::optional<std::int64_t> ParseTime(std::string_view text);

// Columns that UTF-8 text takes, one for each character.
[[nodiscard]] std::size_t DisplayWidth(std::string_view text);
[[nodiscard]] std::string PadRight(std::string_view text, std::size_t width);
[[nodiscard]] std::string PadLeft(std::string_view text, std::size_t width);

}  // namespace tool
