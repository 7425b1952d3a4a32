#include "tool/door.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "link/connection.h"
#include "link/server.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

fs::path DoorDirectory() {
    return "/tmp/vrkfs-" + std::to_string(::geteuid());
}

// What stands in a directory that others may write to could be anybody's.
bool IsOwnDirectory(const fs::path& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == ::geteuid() &&
           (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

}  // namespace

fs::path DoorOf(const host::Station& station, bool readOnly) {
    struct stat status {};
    if (!readOnly || ::stat(station.Directory().c_str(), &status) != 0) {
        return vlink::SocketOf(station.Directory());
    }
    return DoorDirectory() / (std::to_string(status.st_dev) + "-" + std::to_string(status.st_ino));
}

host::Problem MakeDoorDirectory() {
    const fs::path directory = DoorDirectory();
    if (::mkdir(directory.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        return {"'" + directory.string() + "': " + std::strerror(errno), "check the directory's rights"};
    }
    if (!IsOwnDirectory(directory)) {
        return {"'" + directory.string() + "' is not this user's own directory",
                "remove it, or give --socket a path elsewhere"};
    }
    return {};
}

bool IsSameSocket(const fs::path& one, const fs::path& other) {
    struct stat first {};
    struct stat second {};
    return ::stat(one.c_str(), &first) == 0 && ::stat(other.c_str(), &second) == 0 && S_ISSOCK(first.st_mode) &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

std::unique_ptr<host::Access> FindDaemon(const host::Station& station, host::Problem& problem) {
    auto daemon = vlink::Connect(DoorOf(station, false), problem);
    if (!daemon && !problem && IsOwnDirectory(DoorDirectory())) {
        daemon = vlink::Connect(DoorOf(station, true), problem);
    }
    return daemon;
}

bool IsHeldByDaemon(const host::Station& station) {
    std::ifstream in(station.LockFile());
    std::string holder;
    std::getline(in, holder);
    return holder.starts_with("vrkfs serve ") || holder.starts_with("vrkfs mount ");
}

}  // namespace tool
