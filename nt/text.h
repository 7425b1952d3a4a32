#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "nt/base.h"

// Text between the kernel's 16-bit characters and the UTF-8 of files and messages, inside the stand-in only.
namespace nt {
// Lone surrogates, which UTF-8 cannot carry, become U+FFFD: for messages.
std::string Utf8FromWide(std::u16string_view wide);

// Nothing when the text has a lone surrogate.
std::optional<std::string> Utf8FromWideExactly(std::u16string_view wide);

// Nothing when the bytes are not well-formed UTF-8.
std::optional<std::u16string> WideFromUtf8(std::string_view text);

std::u16string_view View(PCUNICODE_STRING string);

// A counted string over text that outlives it. At most 65534 bytes.
UNICODE_STRING CountedString(std::u16string_view text);

bool EqualIgnoringCase(std::u16string_view left, std::u16string_view right);

// For maps whose keys are names.
std::u16string Upcased(std::u16string_view text);

// "0a1bff" and back; decoding gives nothing for anything but pairs of hexadecimal digits.
std::string HexFromBytes(const void* bytes, SIZE_T size);
std::optional<std::string> BytesFromHex(std::string_view text);
}  // namespace nt
