// What a daemon tells: a line for each event, on standard error or in a file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>

#include "tool/output.h"

namespace tool {

class DaemonLog {
  public:
    // Of the command that `output` speaks for.
    explicit DaemonLog(const Output& output) : command_(output.Command()), json_(output.IsJson()) {}
    DaemonLog(const DaemonLog&) = delete;
    DaemonLog& operator=(const DaemonLog&) = delete;

    ~DaemonLog();

    // From here on lines go to the end of the file, with their time before them. Past 8 MiB it becomes NAME.old and a
    // new one is begun. False, with errno set, when it cannot be written.
    [[nodiscard]] bool MoveTo(const std::filesystem::path& file);
    // Sends what anything else in this program writes to standard error there too.
    void TakeStandardError();

    // From any thread.
    void Line(const std::string& text);

  private:
    [[nodiscard]] bool OpenFile();

    const std::string command_;
    const bool json_;
    std::mutex lock_;             // guards the following
    std::filesystem::path file_;  // empty: standard error
    int descriptor_ = 2;
    bool tookStandardError_ = false;
    std::uint64_t bytes_ = 0;  // in the file
};

}  // namespace tool
