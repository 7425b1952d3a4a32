// The drive in the file tree: a FUSE mount over the process interface of a running station.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "host/access.h"

namespace mount {

// One line for each thing that the drive would not do and why. From several threads.
using Log = std::function<void(const std::string& line)>;

struct Options {
    std::filesystem::path mountpoint;
    std::optional<char> drive;  // that drive's root is the mount's root; else one directory per card by its letter
    bool readOnly = false;      // refused at this door too; what else is read only the station says
    uid_t owner = 0;
    gid_t group = 0;
    mode_t fileMode = 0644;
    mode_t folderMode = 0755;
    bool allowOther = false;
    unsigned threads = 6;
};

class Mount {
  public:
    // Mounted when it returns. Null with `problem` filled when it cannot be. The access must outlive the mount.
    static std::unique_ptr<Mount> Start(host::Access& access, const Options& options, Log log, host::Problem& problem);
    // Unmounts (lazily when something on it is still open) and ends its threads.
    ~Mount();
    Mount(const Mount&) = delete;
    Mount& operator=(const Mount&) = delete;

    // Readable (poll) when the mount has ended from outside, for example by umount.
    int EndedDescriptor() const;

  private:
    struct Parts;
    explicit Mount(std::unique_ptr<Parts> parts);
    std::unique_ptr<Parts> parts_;
};

}  // namespace mount
