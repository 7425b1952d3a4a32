// A client's end of the socket: a running station in another process, seen as if its driver ran in this one.
#pragma once

#include <filesystem>
#include <memory>

#include "host/access.h"

namespace vlink {

// Null when there is no daemon: with `problem` empty if nobody listens there, else filled. The processes that it gives
// have a connection each. When the daemon goes away every request under way and every later one ends with
// STATUS_PORT_DISCONNECTED, overlapped ones included.
std::unique_ptr<host::Access> Connect(const std::filesystem::path& socket, host::Problem& problem);

}  // namespace vlink
