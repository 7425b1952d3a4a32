// The address of a socket file, however long its path is: what does not fit goes by way of the open directory.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <filesystem>

#include "host/descriptor.h"

namespace vlink {

using host::Descriptor;

class Address {
  public:
    // 0, or the error: the directory cannot be opened, or the file's own name is too long.
    int Set(const std::filesystem::path& socket);

    const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&address_); }
    static constexpr socklen_t kSize = sizeof(sockaddr_un);
    // The directory, open for reading.
    int Directory() const { return directory_.Get(); }

  private:
    Descriptor directory_;
    sockaddr_un address_{};
};

// A stream socket that is connected to it; -1 with errno set.
int ConnectTo(const Address& address);

}  // namespace vlink
