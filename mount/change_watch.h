// Hears of what others change on a drive. The driver reports that a name somewhere on it has come, gone or changed, not
// which, and does not say who changed it; so what is known of the drive's folders is read again, a while after the
// first report and not so often that it would show.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "mount/file_system.h"

namespace mount {

class ChangeWatch {
  public:
    // The process is this watch's own. Listening when it returns, unless something keeps the drive locked just now.
    // `lost` is told once if the station goes away.
    ChangeWatch(FileSystem& files, Drive& drive, std::unique_ptr<host::Process> process, std::function<void()> lost);
    ~ChangeWatch();
    ChangeWatch(const ChangeWatch&) = delete;
    ChangeWatch& operator=(const ChangeWatch&) = delete;

  private:
    [[nodiscard]] bool Listen();
    [[nodiscard]] bool Ask();
    void Run();
    [[nodiscard]] bool ReadAgain();
    bool Wait(Clock::duration time);

    FileSystem& files_;
    Drive& drive_;
    std::unique_ptr<host::Process> process_;
    const std::function<void()> lost_;
    host::ScopedHandle root_;
    std::thread thread_;
    std::mutex lock_;  // guards the following
    std::condition_variable woken_;
    bool stop_ = false;
    bool asked_ = false;     // a request is under way
    bool reported_ = false;  // it came back with a change
};

}  // namespace mount
