// What the server's poll thread looks out for on a connection. From any thread.
#pragma once

#include <cstdint>
#include <mutex>

namespace vlink {

class Watch {
  public:
    // Events come with `key`. Nothing is looked out for at first.
    Watch(int epoll, int socket, std::uint64_t key);
    ~Watch() { End(); }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    // EPOLLIN, EPOLLOUT, EPOLLRDHUP. Hang-ups are told in any case.
    void Set(std::uint32_t on, std::uint32_t off);
    void End();

  private:
    const int epoll_;
    const int socket_;
    const std::uint64_t key_;
    std::mutex lock_;  // guards what follows
    std::uint32_t events_ = 0;
    bool ended_ = false;
};

}  // namespace vlink
