#include "mount/names.h"

#include <cstdint>
#include <cstdio>

namespace mount {
namespace {

constexpr std::size_t kMaxNameCharacters = 255;
constexpr std::size_t kEscapeLength = 6;  // <D800>

bool IsHighHalf(char16_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}

bool IsLowHalf(char16_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

void AppendEscape(std::string& text, char16_t unit) {
    char digits[8];
    std::snprintf(digits, sizeof(digits), "<%04X>", static_cast<unsigned>(unit));
    text += digits;
}

void AppendUtf8(std::string& text, std::uint32_t point) {
    const auto tail = [&](unsigned shift) { text += static_cast<char>(0x80 | ((point >> shift) & 0x3F)); };
    if (point < 0x80) {
        text += static_cast<char>(point);
    } else if (point < 0x800) {
        text += static_cast<char>(0xC0 | (point >> 6));
        tail(0);
    } else if (point < 0x10000) {
        text += static_cast<char>(0xE0 | (point >> 12));
        tail(6);
        tail(0);
    } else {
        text += static_cast<char>(0xF0 | (point >> 18));
        tail(12);
        tail(6);
        tail(0);
    }
}

void AppendWide(std::u16string& name, std::uint32_t point) {
    if (point < 0x10000) {
        name += static_cast<char16_t>(point);
    } else {
        name += static_cast<char16_t>(0xD800 + ((point - 0x10000) >> 10));
        name += static_cast<char16_t>(0xDC00 + ((point - 0x10000) & 0x3FF));
    }
}

// The bytes that a sequence has by its first byte; 0: none begins so.
unsigned SequenceLength(std::uint8_t first) {
    return first < 0x80 ? 1 : first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : first < 0xF5 ? 4 : 0;
}

// Takes one character off the front of the text; nothing when it is not well formed.
std::optional<std::uint32_t> TakePoint(std::string_view& text) {
    static constexpr std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    const auto first = static_cast<std::uint8_t>(text.front());
    const unsigned length = SequenceLength(first);
    if (length == 0 || text.size() < length) {
        return std::nullopt;
    }
    std::uint32_t point = length == 1 ? first : first & (0x7Fu >> length);
    for (unsigned index = 1; index < length; ++index) {
        const auto byte = static_cast<std::uint8_t>(text[index]);
        if ((byte & 0xC0) != 0x80) {
            return std::nullopt;
        }
        point = point << 6 | (byte & 0x3F);
    }
    const bool half = point >= 0xD800 && point <= 0xDFFF;
    if (point < kSmallest[length] || point > 0x10FFFF || half) {
        return std::nullopt;
    }
    text.remove_prefix(length);
    return point;
}

// Takes an escape off the front of the text.
std::optional<char16_t> TakeEscape(std::string_view& text) {
    if (text.size() < kEscapeLength || text[0] != '<' || text[kEscapeLength - 1] != '>') {
        return std::nullopt;
    }
    std::uint32_t value = 0;
    for (const char digit : text.substr(1, 4)) {
        const bool isLetter = digit >= 'A' && digit <= 'F';
        if (!isLetter && (digit < '0' || digit > '9')) {
            return std::nullopt;
        }
        value = value << 4 | static_cast<std::uint32_t>(isLetter ? digit - 'A' + 10 : digit - '0');
    }
    text.remove_prefix(kEscapeLength);
    return static_cast<char16_t>(value);
}

}  // namespace

std::string TreeName(std::u16string_view name) {
    std::string text;
    if (name == u"." || name == u"..") {
        AppendEscape(text, u'.');
        name.remove_prefix(1);
    }
    for (std::size_t index = 0; index < name.size(); ++index) {
        const char16_t unit = name[index];
        if (IsHighHalf(unit) && index + 1 < name.size() && IsLowHalf(name[index + 1])) {
            AppendUtf8(text, 0x10000 + ((unit - 0xD800u) << 10) + (name[++index] - 0xDC00u));
        } else if (IsHighHalf(unit) || IsLowHalf(unit) || unit == u'/' || unit == 0) {
            AppendEscape(text, unit);
        } else {
            AppendUtf8(text, unit);
        }
    }
    return text;
}

std::optional<std::u16string> DriveName(std::string_view name) {
    std::u16string wide;
    while (!name.empty()) {
        if (const auto unit = TakeEscape(name)) {
            wide += *unit;
            continue;
        }
        const auto point = TakePoint(name);
        if (!point) {
            return std::nullopt;
        }
        AppendWide(wide, *point);
    }
    const bool divided = wide.find_first_of(std::u16string_view(u"\\\0", 2)) != wide.npos;
    return wide.empty() || wide.size() > kMaxNameCharacters || divided ? std::nullopt : std::optional(wide);
}

bool IsTooLong(std::string_view name) {
    std::size_t characters = 0;
    for (const char byte : name) {
        const auto first = static_cast<std::uint8_t>(byte);
        characters += (first & 0xC0) == 0x80 ? 0 : first < 0xF0 ? 1 : 2;
    }
    return characters > kMaxNameCharacters;
}

bool IsPortName(std::u16string_view upcased) {
    return upcased == u"___PORT0___";
}

std::u16string SideName(std::u16string_view name, std::u16string_view ending, unsigned attempt) {
    std::u16string tail = u"." + std::u16string(ending);
    if (attempt > 0) {
        for (const char digit : std::to_string(attempt + 1)) {
            tail += static_cast<char16_t>(digit);
        }
    }
    return u"." + std::u16string(name.substr(0, kMaxNameCharacters - 1 - tail.size())) + tail;
}

}  // namespace mount
