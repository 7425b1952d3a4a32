// What the mount would not do, for whoever looks after it: one line each, and not more of them than somebody could
// read.
#pragma once

#include <chrono>
#include <mutex>
#include <string>

#include "mount/errors.h"
#include "mount/mount.h"

namespace mount {

class Journal {
  public:
    explicit Journal(Log log) : log_(std::move(log)) {}

    // "P:/RZV/NEWS/MON/x: cannot write: STATUS_FILE_INVALID, what was written is no clip". Returns the errno.
    int Refused(Operation operation, const std::string& path, host::Status status);
    // The same for what this door refuses by itself.
    int Refused(Operation operation, const std::string& path, int error, const std::string& reason);
    void Line(const std::string& text);

  private:
    using Clock = std::chrono::steady_clock;

    const Log log_;
    std::mutex lock_;  // guards the following
    double credit_ = 50;
    Clock::time_point last_ = Clock::now();
    unsigned long left_ = 0;  // lines not told
};

}  // namespace mount
