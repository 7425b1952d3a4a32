// The daemon's end of the socket: every connection is a user process of the machine, with its own handles, pending
// requests and identity; when it goes away, everything of it is cancelled, cleaned up and closed.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "host/machine.h"

namespace vlink {

// Told of clients that come, go, or are dropped, and why: one line each. From several threads.
using Log = std::function<void(const std::string& line)>;

// Where a station's daemon listens unless told otherwise.
std::filesystem::path SocketOf(const std::filesystem::path& station);

class Server {
  public:
    // Listens; a socket file that nobody listens on is replaced. Only this program's user may connect (mode 0600, and
    // the peer's credentials). Null with `problem` filled when it cannot.
    static std::unique_ptr<Server> Start(host::Machine& machine, const std::filesystem::path& socket, Log log,
                                         host::Problem& problem);
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
