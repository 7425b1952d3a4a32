#include "link/watch.h"

#include <sys/epoll.h>

#include <cerrno>
#include <system_error>

namespace vlink {

Watch::Watch(int epoll, int socket, std::uint64_t key) : epoll_(epoll), socket_(socket), key_(key) {
    epoll_event event{0, {.u64 = key_}};
    if (epoll_ctl(epoll_, EPOLL_CTL_ADD, socket_, &event) != 0) {
        throw std::system_error(errno, std::generic_category());
    }
}

void Watch::Set(std::uint32_t on, std::uint32_t off) {
    const std::lock_guard hold(lock_);
    const std::uint32_t wanted = (events_ | on) & ~off;
    if (wanted == events_ || ended_) {
        return;
    }
    events_ = wanted;
    epoll_event event{events_, {.u64 = key_}};
    (void)epoll_ctl(epoll_, EPOLL_CTL_MOD, socket_, &event);  // of what is there: it cannot fail
}

void Watch::End() {
    const std::lock_guard hold(lock_);
    if (!ended_) {
        ended_ = true;
        (void)epoll_ctl(epoll_, EPOLL_CTL_DEL, socket_, nullptr);
    }
}

}  // namespace vlink
