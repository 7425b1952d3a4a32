// A file descriptor that is closed when its owner goes: the kernel's, for everybody above.
#pragma once

#include "nt/descriptor.h"

namespace host {

using nt::Descriptor;

}  // namespace host
