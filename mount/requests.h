// libfuse's requests in terms of the file system.
#pragma once

#include "mount/file_system.h"
#include "mount/fuse.h"

namespace mount {

// What stands behind a session.
struct RequestContext {
    FileSystem& files;
    const Options& options;
};

[[nodiscard]] const fuse_lowlevel_ops& Requests();

// The largest piece that the kernel reads or writes at once.
inline constexpr std::size_t kRequestBytes = 1 << 20;

}  // namespace mount
