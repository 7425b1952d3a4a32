// libfuse's requests in terms of the file system.
#pragma once

#include "mount/file_system.h"
#include "mount/fuse.h"

namespace mount {

// What stands behind a session.
struct RequestContext {
    FileSystem& files;
    const Options& options;
    mutable std::once_flag opened = {};  // with the first file the kernel has settled how it reads
};

[[nodiscard]] const fuse_lowlevel_ops& Requests();

// The largest piece that the kernel reads or writes at once.
inline constexpr std::size_t kRequestBytes = 1 << 20;

}  // namespace mount
