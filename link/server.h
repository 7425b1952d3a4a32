// The daemon's end of the socket: every connection is a user process of the machine, with its own handles, pending
// requests and identity; when it goes away, everything of it is cancelled, cleaned up and closed.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "host/machine.h"

namespace vlink {

// Told of each program that comes, of those that go without a goodbye, and of every client that is refused or dropped,
// and why: one line each. From several threads.
using Log = std::function<void(const std::string& line)>;

// Where a station's daemon listens unless told otherwise.
std::filesystem::path SocketOf(const std::filesystem::path& station);

// What one client may take of the daemon. The defaults are far beyond what programs do.
struct Limits {
    std::uint32_t connections = 256;
    std::uint32_t threads = 64;                  // of one connection: requests that keep one waiting
    std::uint32_t requests = 1024;               // of one connection: overlapped, under way
    std::size_t heldBytes = 64 << 20;            // of one connection: data of those
    std::size_t sharedBytes = 2ull << 30;        // of one connection: memory that both ends map
    std::size_t unreadBytes = 32 << 20;          // of one connection: answers that it does not read
    std::chrono::milliseconds patience{30'000};  // with a client that reads none of its answers, or says no hello
};

class Server {
  public:
    // Listens; a socket file that nobody listens on is replaced. Only this program's user, and root, may connect (mode
    // 0600, and the peer's credentials). Null with `problem` filled when it cannot.
    static std::unique_ptr<Server> Start(host::Machine& machine, const std::filesystem::path& socket, Log log,
                                         host::Problem& problem, const Limits& limits = {});
    // Stops listening, removes the socket file, drops every client and waits until each is gone from the machine.
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

  private:
    struct Parts;
    explicit Server(std::unique_ptr<Parts> parts);
    std::unique_ptr<Parts> parts_;
};

}  // namespace vlink
