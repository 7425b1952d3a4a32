// What an application does, one step a function. A step that fails is told by its result and leaves no handle behind.
#pragma once

#include <vrkfs/control.h>

#include <cstdint>
#include <string>
#include <vector>

#include "host/machine.h"

namespace faults {

using Bytes = std::vector<std::byte>;

// Paths begin below the drive: "\\RZV\\VOL\\FOLDER\\FILE".
host::OpenResult OpenPath(host::Process& user, const std::u16string& path, host::Disposition disposition,
                          std::uint32_t access, std::uint32_t options = 0,
                          std::uint32_t shareAccess = host::share::kAll);
host::Status MakeFolder(host::Process& user, const std::u16string& path);
// A volume of `count` disks from `first` on.
host::Status Format(host::Process& user, const std::u16string& name, std::uint32_t first, std::uint32_t count);
host::Status PutClip(host::Process& user, const std::u16string& path, const Bytes& image);
host::Status GetClip(host::Process& user, const std::u16string& path, Bytes& image);
host::Status DeleteFile(host::Process& user, const std::u16string& path);
bool Listed(host::Process& user, const std::u16string& folder, const std::u16string& name);
// Free blocks of a volume, by one of its folders.
std::uint64_t FreeBlocks(host::Process& user, const std::u16string& folder);
// To a new name in the same place, or to a whole path.
host::Status RenameTo(host::Process& user, const std::u16string& path, const std::u16string& target);
// VRKFS_SEGMENT_..., by so many blocks.
bool MoveSegment(host::Process& user, const std::u16string& path, std::uint32_t segment, std::int64_t step);
// A recording in place by an application of its own, settled at half of the space taken for it.
bool RecordInPlace(host::Machine& machine, const std::u16string& path);
// Attaches the video table of a clip, as a player does.
bool LookAtTable(host::Process& user, const std::u16string& path);

}  // namespace faults
