#include "link/address.h"

#include <fcntl.h>

#include <cerrno>
#include <string>

namespace vlink {

int Address::Set(const std::filesystem::path& socket) {
    const std::filesystem::path parent = socket.has_parent_path() ? socket.parent_path() : ".";
    directory_ = Descriptor(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory_) {
        return errno;
    }
    std::string path = socket.string();
    if (path.size() >= sizeof(address_.sun_path)) {
        path = "/proc/self/fd/" + std::to_string(directory_.Get()) + "/" + socket.filename().string();
    }
    if (!socket.has_filename() || path.size() >= sizeof(address_.sun_path)) {
        return ENAMETOOLONG;
    }
    address_.sun_family = AF_UNIX;
    path.copy(address_.sun_path, sizeof(address_.sun_path) - 1);
    return 0;
}

int ConnectTo(const Address& address) {
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket) {
        return -1;
    }
    while (connect(socket.Get(), address.Get(), Address::kSize) != 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return socket.Release();
}

}  // namespace vlink
