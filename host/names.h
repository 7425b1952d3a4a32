// Names as the driver compares them.
#pragma once

#include <string>
#include <string_view>

namespace host {

// Two names are one to the driver when this makes them equal: for keys of maps.
std::u16string UpcaseName(std::u16string_view name);

}  // namespace host
