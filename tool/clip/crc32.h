// CRC-32 (reflected, polynomial 0xEDB88320), eight bytes a step.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace clip {

namespace detail {

using Crc32Tables = std::array<std::array<uint32_t, 256>, 8>;

constexpr Crc32Tables MakeCrc32Tables() {
    Crc32Tables tables{};
    for (uint32_t byte = 0; byte < 256; ++byte) {
        uint32_t value = byte;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value >> 1) ^ ((value & 1) != 0 ? 0xEDB88320u : 0u);
        }
        tables[0][byte] = value;
    }
    for (size_t step = 1; step < tables.size(); ++step) {
        for (size_t byte = 0; byte < 256; ++byte) {
            const uint32_t before = tables[step - 1][byte];
            tables[step][byte] = (before >> 8) ^ tables[0][before & 0xFF];
        }
    }
    return tables;
}

inline constexpr Crc32Tables kCrc32Tables = MakeCrc32Tables();

}  // namespace detail

[[nodiscard]] inline uint32_t Crc32(std::span<const std::byte> bytes) {
    static_assert(std::endian::native == std::endian::little);
    const auto& tables = detail::kCrc32Tables;
    uint32_t crc = ~0u;
    size_t at = 0;
    for (; bytes.size() - at >= 8; at += 8) {
        uint32_t low;
        uint32_t high;
        std::memcpy(&low, bytes.data() + at, 4);
        std::memcpy(&high, bytes.data() + at + 4, 4);
        low ^= crc;
        crc = tables[7][low & 0xFF] ^ tables[6][(low >> 8) & 0xFF] ^ tables[5][(low >> 16) & 0xFF] ^
              tables[4][low >> 24] ^ tables[3][high & 0xFF] ^ tables[2][(high >> 8) & 0xFF] ^
              tables[1][(high >> 16) & 0xFF] ^ tables[0][high >> 24];
    }
    for (; at < bytes.size(); ++at) {
        crc = (crc >> 8) ^ tables[0][(crc ^ std::to_integer<uint32_t>(bytes[at])) & 0xFF];
    }
    return ~crc;
}

}  // namespace clip
