#include "tool/notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace tool {

void NotifyManager(const std::string& text) {
    const char* variable = std::getenv("NOTIFY_SOCKET");
    const std::string name = variable != nullptr ? variable : "";
    struct sockaddr_un address {};
    if ((!name.starts_with('/') && !name.starts_with('@')) || name.size() >= sizeof(address.sun_path)) {
        return;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    socklen_t length = sizeof(address);
    if (name.starts_with('@')) {  // a name that is no file: it begins with a zero and has no other end than its length
        address.sun_path[0] = '\0';
        length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    }
    const int manager = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (manager >= 0) {
        (void)::sendto(manager, text.data(), text.size(), MSG_NOSIGNAL,
                       reinterpret_cast<const struct sockaddr*>(&address), length);
        ::close(manager);
    }
}

}  // namespace tool
