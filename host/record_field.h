// Fields of the records that NT hands out as bytes.
#pragma once

#include <cstddef>
#include <cstring>
#include <span>

namespace host {

// The record is long enough for it.
template <typename Value>
Value FieldAt(std::span<const std::byte> record, std::size_t offset) {
    Value value{};
    std::memcpy(&value, record.data() + offset, sizeof(value));
    return value;
}

}  // namespace host
