#include "tool/text.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <limits>

namespace tool {
namespace {

constexpr std::u16string_view kNotInNames = u"\\/:*?\"<>|";

bool IsHigh(char32_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}

bool IsLow(char32_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

bool IsControl(char32_t character) {
    return character < 0x20 || (character >= 0x7F && character <= 0x9F) || character == 0x2028 || character == 0x2029;
}

void AppendUtf8(std::string& text, char32_t character) {
    if (character < 0x80) {
        text += static_cast<char>(character);
        return;
    }
    const int more = character < 0x800 ? 1 : character < 0x10000 ? 2 : 3;
    constexpr unsigned char kLead[] = {0, 0xC0, 0xE0, 0xF0};
    text += static_cast<char>(kLead[more] | (character >> (6 * more)));
    for (int shift = 6 * (more - 1); shift >= 0; shift -= 6) {
        text += static_cast<char>(0x80 | ((character >> shift) & 0x3F));
    }
}

void AppendEscape(std::string& text, char16_t unit) {
    char escape[8];
    std::snprintf(escape, sizeof(escape), "<%04X>", static_cast<unsigned>(unit));
    text += escape;
}

std::string Display(std::u16string_view name, std::u16string_view escaped) {
    std::string text;
    for (std::size_t at = 0; at < name.size(); ++at) {
        const char16_t unit = name[at];
        if (IsHigh(unit) && at + 1 < name.size() && IsLow(name[at + 1])) {
            AppendUtf8(text, 0x10000 + ((unit - 0xD800u) << 10) + (name[at + 1] - 0xDC00u));
            ++at;
        } else if (IsHigh(unit) || IsLow(unit) || IsControl(unit) || escaped.find(unit) != escaped.npos) {
            AppendEscape(text, unit);
        } else {
            AppendUtf8(text, unit);
        }
    }
    return text;
}

// The character at `at`, which moves past it; nothing when the bytes are not well-formed UTF-8.
std::optional<char32_t> NextCharacter(std::string_view text, std::size_t& at) {
    const auto byte = [&](std::size_t index) { return static_cast<unsigned char>(text[index]); };
    const unsigned char first = byte(at++);
    if (first < 0x80) {
        return first;
    }
    const int more = first >= 0xF0 ? 3 : first >= 0xE0 ? 2 : 1;
    if (first < 0xC2 || first > 0xF4 || text.size() - at < static_cast<std::size_t>(more)) {
        return std::nullopt;
    }
    char32_t character = first & (0x3Fu >> more);
    for (int index = 0; index < more; ++index, ++at) {
        if ((byte(at) & 0xC0) != 0x80) {
            return std::nullopt;
        }
        character = (character << 6) | (byte(at) & 0x3Fu);
    }
    constexpr char32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
    if (character < kSmallest[more] || character > 0x10FFFF || IsHigh(character) || IsLow(character)) {
        return std::nullopt;
    }
    return character;
}

// The character that an escape at `at` stands for, if one stands there.
std::optional<char16_t> EscapeAt(std::string_view text, std::size_t at) {
    constexpr std::size_t kLength = 6;  // <XXXX>
    if (text.size() - at < kLength || text[at] != '<' || text[at + 5] != '>') {
        return std::nullopt;
    }
    std::uint16_t unit = 0;
    const char* end = text.data() + at + 5;
    const auto parsed = std::from_chars(text.data() + at + 1, end, unit, 16);
    return parsed.ec == std::errc() && parsed.ptr == end ? std::optional<char16_t>(unit) : std::nullopt;
}

// As many digits, then one of the separators if there is any and the text goes on.
std::optional<int> TakeNumber(std::string_view& text, std::size_t digits, std::string_view separators) {
    int number = 0;
    if (text.size() < digits) {
        return std::nullopt;
    }
    for (const char digit : text.substr(0, digits)) {
        if (digit < '0' || digit > '9') {
            return std::nullopt;
        }
        number = number * 10 + (digit - '0');
    }
    text.remove_prefix(digits);
    if (!text.empty() && !separators.empty() && text != "Z") {
        if (separators.find(text.front()) == separators.npos) {
            return std::nullopt;
        }
        text.remove_prefix(1);
        if (text.empty()) {
            return std::nullopt;
        }
    }
    return number;
}

// Times of the drive begin in 1601; the first instant of all stands for "none".
std::optional<std::int64_t> FromUnixSeconds(std::int64_t second) {
    constexpr std::int64_t kPerSecond = 10'000'000;
    constexpr std::int64_t kEpoch = 11'644'473'600;  // 1970, in seconds from 1601
    constexpr std::int64_t kLast = std::numeric_limits<std::int64_t>::max() / kPerSecond - kEpoch;
    return second > -kEpoch && second <= kLast ? std::optional((second + kEpoch) * kPerSecond) : std::nullopt;
}

}  // namespace

std::string DisplayName(std::u16string_view name) {
    return Display(name, kNotInNames);
}

std::string DisplayText(std::u16string_view text) {
    return Display(text, {});
}

std::optional<std::u16string> ParseName(std::string_view typed) {
    std::u16string name;
    for (std::size_t at = 0; at < typed.size();) {
        if (const auto escaped = EscapeAt(typed, at)) {
            name += *escaped;
            at += 6;
            continue;
        }
        const auto character = NextCharacter(typed, at);
        if (!character) {
            return std::nullopt;
        }
        if (*character >= 0x10000) {
            name += static_cast<char16_t>(0xD800 + ((*character - 0x10000) >> 10));
            name += static_cast<char16_t>(0xDC00 + ((*character - 0x10000) & 0x3FF));
        } else {
            name += static_cast<char16_t>(*character);
        }
    }
    return name;
}

std::string FormatBytes(std::uint64_t bytes) {
    if (bytes < 1024) {
        return std::to_string(bytes) + " B";
    }
    constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    double value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    while (value >= 1023.95 && unit + 1 < std::size(kUnits)) {
        value /= 1024;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof(text), "%.1f %s", value, kUnits[unit]);
    return text;
}

std::optional<std::uint64_t> ParseBytes(std::string_view text) {
    std::uint64_t number = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
    const std::string_view suffix(parsed.ptr, static_cast<std::size_t>(text.data() + text.size() - parsed.ptr));
    constexpr std::string_view kSuffixes = "KMGT";
    if (parsed.ec != std::errc() || suffix.size() > 1) {
        return std::nullopt;
    }
    int shift = 0;
    if (!suffix.empty()) {
        const std::size_t place = kSuffixes.find(suffix[0] >= 'a' ? static_cast<char>(suffix[0] - 32) : suffix[0]);
        if (place == kSuffixes.npos) {
            return std::nullopt;
        }
        shift = 10 * (static_cast<int>(place) + 1);
    }
    if (number > (~std::uint64_t{0} >> 1) >> shift) {
        return std::nullopt;
    }
    return number << shift;
}

std::string FormatRate(std::uint64_t bytes, double seconds) {
    char text[48];
    std::snprintf(text, sizeof(text), "%.0f MB/s", seconds > 0 ? static_cast<double>(bytes) / seconds / 1e6 : 0.0);
    return text;
}

std::string FormatTime(std::int64_t time, bool iso) {
    using std::chrono::days;
    constexpr std::int64_t kPerSecond = 10'000'000;
    constexpr std::int64_t kPerDay = 86400 * kPerSecond;
    if (time <= 0) {
        return "-";
    }
    const std::chrono::sys_days start = std::chrono::year(1601) / 1 / 1;
    const std::chrono::year_month_day date = start + days(time / kPerDay);
    const auto second = static_cast<int>(time % kPerDay / kPerSecond);
    char text[48];
    std::snprintf(text, sizeof(text), "%04d-%02u-%02u%c%02d:%02d:%02d%s", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), iso ? 'T' : ' ',
                  second / 3600, second / 60 % 60, second % 60, iso ? "Z" : "");
    return text;
}

std::optional<std::int64_t> ParseTime(std::string_view text) {
    using namespace std::chrono;
    if (text == "now") {
        return FromUnixSeconds(duration_cast<seconds>(system_clock::now().time_since_epoch()).count());
    }
    if (text.starts_with('@')) {
        std::int64_t second = 0;
        const auto parsed = std::from_chars(text.data() + 1, text.data() + text.size(), second);
        const bool whole = parsed.ec == std::errc() && parsed.ptr == text.data() + text.size();
        return whole ? FromUnixSeconds(second) : std::nullopt;
    }
    const auto onYear = TakeNumber(text, 4, "-");
    const auto onMonth = TakeNumber(text, 2, "-");
    const auto onDay = TakeNumber(text, 2, " T");
    const bool hasTime = !text.empty() && text != "Z";
    const auto hour = hasTime ? TakeNumber(text, 2, ":") : 0;
    const auto minute = hasTime ? TakeNumber(text, 2, ":") : 0;
    const auto second = hasTime ? TakeNumber(text, 2, "") : 0;
    if (!onYear || !onMonth || !onDay || !hour || !minute || !second || (!text.empty() && text != "Z")) {
        return std::nullopt;
    }
    const year_month_day date{year(*onYear), month(static_cast<unsigned>(*onMonth)),
                              day(static_cast<unsigned>(*onDay))};
    if (!date.ok() || *hour > 23 || *minute > 59 || *second > 59) {
        return std::nullopt;
    }
    const std::int64_t days = sys_days(date).time_since_epoch().count();
    return FromUnixSeconds(days * 86400 + *hour * 3600 + *minute * 60 + *second);
}

std::size_t DisplayWidth(std::string_view text) {
    return static_cast<std::size_t>(
        std::ranges::count_if(text, [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0) != 0x80; }));
}

std::string PadRight(std::string_view text, std::size_t width) {
    const std::size_t has = DisplayWidth(text);
    return std::string(text) + std::string(width > has ? width - has : 0, ' ');
}

std::string PadLeft(std::string_view text, std::size_t width) {
    const std::size_t has = DisplayWidth(text);
    return std::string(width > has ? width - has : 0, ' ') + std::string(text);
}

}  // namespace tool
