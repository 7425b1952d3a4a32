#include "nt/text.h"

#include <algorithm>

#include "nt/rtl.h"

namespace nt {
namespace {
constexpr char32_t kReplacement = 0xFFFD;

constexpr bool IsHighSurrogate(char32_t code) {
    return code >= 0xD800 && code < 0xDC00;
}
constexpr bool IsLowSurrogate(char32_t code) {
    return code >= 0xDC00 && code < 0xE000;
}

void AppendUtf8(std::string* text, char32_t code) {
    if (code < 0x80) {
        *text += static_cast<char>(code);
    } else if (code < 0x800) {
        *text += static_cast<char>(0xC0 | code >> 6);
        *text += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        *text += static_cast<char>(0xE0 | code >> 12);
        *text += static_cast<char>(0x80 | (code >> 6 & 0x3F));
        *text += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        *text += static_cast<char>(0xF0 | code >> 18);
        *text += static_cast<char>(0x80 | (code >> 12 & 0x3F));
        *text += static_cast<char>(0x80 | (code >> 6 & 0x3F));
        *text += static_cast<char>(0x80 | (code & 0x3F));
    }
}

// Encodes; returns whether every character could be carried.
bool Encode(std::u16string_view wide, std::string* text) {
    bool exact = true;
    for (SIZE_T i = 0; i < wide.size(); ++i) {
        char32_t code = wide[i];
        if (IsHighSurrogate(code) && i + 1 < wide.size() && IsLowSurrogate(wide[i + 1])) {
            code = 0x10000 + ((code - 0xD800) << 10) + (wide[++i] - 0xDC00);
        } else if (IsHighSurrogate(code) || IsLowSurrogate(code)) {
            code = kReplacement;
            exact = false;
        }
        AppendUtf8(text, code);
    }
    return exact;
}

// The length of the sequence that the lead byte opens, 0 for none.
SIZE_T SequenceLength(UCHAR lead) {
    if (lead < 0x80) {
        return 1;
    }
    if (lead < 0xC2 || lead > 0xF4) {
        return 0;
    }
    return lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
}

std::optional<char32_t> DecodeSequence(std::string_view sequence) {
    constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    const auto lead = static_cast<UCHAR>(sequence[0]);
    char32_t code = sequence.size() == 1 ? lead : lead & (0xFF >> (sequence.size() + 1));
    for (const char byte : sequence.substr(1)) {
        if ((static_cast<UCHAR>(byte) & 0xC0) != 0x80) {
            return std::nullopt;
        }
        code = code << 6 | (static_cast<UCHAR>(byte) & 0x3F);
    }
    if (code < kLeast[sequence.size()] || code > 0x10FFFF || IsHighSurrogate(code) || IsLowSurrogate(code)) {
        return std::nullopt;
    }
    return code;
}

int HexDigit(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    if (digit >= 'a' && digit <= 'f') {
        return digit - 'a' + 10;
    }
    return digit >= 'A' && digit <= 'F' ? digit - 'A' + 10 : -1;
}
}  // namespace

std::string Utf8FromWide(std::u16string_view wide) {
    std::string text;
    Encode(wide, &text);
    return text;
}

std::optional<std::string> Utf8FromWideExactly(std::u16string_view wide) {
    std::string text;
    if (!Encode(wide, &text)) {
        return std::nullopt;
    }
    return text;
}

std::optional<std::u16string> WideFromUtf8(std::string_view text) {
    std::u16string wide;
    while (!text.empty()) {
        const SIZE_T length = SequenceLength(static_cast<UCHAR>(text[0]));
        if (length == 0 || length > text.size()) {
            return std::nullopt;
        }
        const std::optional<char32_t> code = DecodeSequence(text.substr(0, length));
        if (!code) {
            return std::nullopt;
        }
        if (*code >= 0x10000) {
            wide += static_cast<char16_t>(0xD800 + ((*code - 0x10000) >> 10));
            wide += static_cast<char16_t>(0xDC00 + ((*code - 0x10000) & 0x3FF));
        } else {
            wide += static_cast<char16_t>(*code);
        }
        text.remove_prefix(length);
    }
    return wide;
}

std::u16string_view View(PCUNICODE_STRING string) {
    return {string->Buffer, string->Length / sizeof(WCHAR)};
}

UNICODE_STRING CountedString(std::u16string_view text) {
    UNICODE_STRING string;
    string.Length = static_cast<USHORT>(std::min<SIZE_T>(text.size(), UNICODE_STRING_MAX_CHARS) * sizeof(WCHAR));
    string.MaximumLength = string.Length;
    string.Buffer = const_cast<PWSTR>(text.data());
    return string;
}

bool EqualIgnoringCase(std::u16string_view left, std::u16string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](WCHAR first, WCHAR second) {
        return first == second || RtlUpcaseUnicodeChar(first) == RtlUpcaseUnicodeChar(second);
    });
}

std::u16string Upcased(std::u16string_view text) {
    std::u16string upcased(text);
    std::transform(upcased.begin(), upcased.end(), upcased.begin(), RtlUpcaseUnicodeChar);
    return upcased;
}

std::string HexFromBytes(const void* bytes, SIZE_T size) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(size * 2);
    for (SIZE_T i = 0; i < size; ++i) {
        const UCHAR byte = static_cast<const UCHAR*>(bytes)[i];
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

std::optional<std::string> BytesFromHex(std::string_view text) {
    if (text.size() % 2 != 0) {
        return std::nullopt;
    }
    std::string bytes;
    bytes.reserve(text.size() / 2);
    for (SIZE_T i = 0; i < text.size(); i += 2) {
        const int high = HexDigit(text[i]);
        const int low = HexDigit(text[i + 1]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        bytes += static_cast<char>(high << 4 | low);
    }
    return bytes;
}
}  // namespace nt
