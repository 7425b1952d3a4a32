// libfuse's requests in terms of the file system.
#pragma once

#include <memory>
#include <mutex>
#include <unordered_map>

#include "mount/file_system.h"
#include "mount/fuse.h"

namespace mount {

struct OpenFolder;

// The folders that programs have open. The kernel need not release them when the mount ends.
class OpenFolders {
  public:
    OpenFolders();
    ~OpenFolders();
    OpenFolders(const OpenFolders&) = delete;
    OpenFolders& operator=(const OpenFolders&) = delete;

    OpenFolder& Add(std::unique_ptr<OpenFolder> folder);
    void Release(OpenFolder& folder);

  private:
    std::mutex lock_;
    std::unordered_map<const OpenFolder*, std::unique_ptr<OpenFolder>> folders_;
};

// What stands behind a session.
struct RequestContext {
    FileSystem& files;
    const Options& options;
    std::once_flag opened = {};  // with the first file the kernel has settled how it reads
    OpenFolders folders = {};
};

[[nodiscard]] const fuse_lowlevel_ops& Requests();

// The largest piece that the kernel reads or writes at once.
inline constexpr std::size_t kRequestBytes = 1 << 20;

}  // namespace mount
