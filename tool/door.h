// Where a station's daemon is found, and how it is reached.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "host/access.h"
#include "host/station.h"

namespace tool {

// Where a station's daemon listens, or has a link to where it does. One that serves for reading only writes nothing
// into the station, so it has its place in a directory of this user's, by the station directory's identity.
[[nodiscard]] std::filesystem::path DoorOf(const host::Station& station, bool readOnly);

// Makes the directory that a read-only door stands in. It must be this user's alone.
[[nodiscard]] host::Problem MakeDoorDirectory();

// Whether both lead to the same socket.
[[nodiscard]] bool IsSameSocket(const std::filesystem::path& one, const std::filesystem::path& other);

// The station through its daemon, whichever door it has; null when there is none, with `problem` filled when there is
// one that cannot be had.
[[nodiscard]] std::unique_ptr<host::Access> FindDaemon(const host::Station& station, host::Problem& problem);

// Whether a program that comes and goes (a daemon, a mount) has the station by what it wrote into the lock's file.
[[nodiscard]] bool IsHeldByDaemon(const host::Station& station);

}  // namespace tool
