#include "host/names.h"

#include "nt/text.h"

namespace host {

std::u16string UpcaseName(std::u16string_view name) {
    return nt::Upcased(name);
}

}  // namespace host
