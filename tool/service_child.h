// The frame service as a child of the daemon: started again when it ends by itself, with growing pauses.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>

#include "tool/daemon_log.h"

namespace tool {

class ServiceChild {
  public:
    // Starts it on the daemon that listens at `socket`. The log must outlive it.
    ServiceChild(std::filesystem::path socket, bool json, DaemonLog& log);
    // Ends it, and waits until it has ended: with SIGTERM, after some seconds with SIGKILL.
    ~ServiceChild();
    ServiceChild(const ServiceChild&) = delete;
    ServiceChild& operator=(const ServiceChild&) = delete;

    // Readable when Tend has something to do.
    [[nodiscard]] int Descriptor() const { return child_ >= 0 ? pidDescriptor_ : timer_; }
    // It has ended, or the pause is over.
    void Tend();

  private:
    void Begin();
    void Rest();
    void Close();

    const std::filesystem::path socket_;
    const bool json_;
    DaemonLog& log_;
    pid_t child_ = -1;
    int pidDescriptor_ = -1;
    int timer_ = -1;
    std::chrono::steady_clock::time_point begun_;
    std::chrono::seconds pause_{1};
};

}  // namespace tool
