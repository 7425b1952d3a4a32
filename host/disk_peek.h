// A look at what a disk holds, before anything of it is destroyed. It reads the image itself, past board and driver.
#pragma once

#include <string>

#include "host/station.h"

namespace host {

enum class DiskContent {
    kEmpty,    // the first mebibyte is all zero
    kVolume,   // it begins with a sound-looking volume record
    kForeign,  // it begins with something else
};

struct DiskFacts {
    DiskContent content = DiskContent::kEmpty;
    std::u16string volumeName;  // of kVolume
    std::string usedBy;         // not empty: the system itself uses the disk, and this says how
};

Problem PeekDisk(const DiskPlace& disk, DiskFacts& facts);

}  // namespace host
