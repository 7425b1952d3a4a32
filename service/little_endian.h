// Numbers in the headers of picture files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace service {

template <typename Number>
Number Load(const std::uint8_t* at) {
    Number number;
    std::memcpy(&number, at, sizeof(number));
    return number;
}

template <typename Number>
void Store(std::uint8_t* at, Number number) {
    std::memcpy(at, &number, sizeof(number));
}

}  // namespace service
