#include "tool/daemon_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tool/text.h"

namespace tool {
namespace {

constexpr std::uint64_t kLargest = 8 << 20;

std::string TimeNow() {
    return FormatTime(ParseTime("now").value_or(0), true);
}

}  // namespace

DaemonLog::~DaemonLog() {
    if (!file_.empty()) {
        ::close(descriptor_);
    }
}

bool DaemonLog::OpenFile() {
    const int opened = ::open(file_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0644);
    struct stat status {};
    if (opened < 0 || ::fstat(opened, &status) != 0) {
        return false;
    }
    if (descriptor_ > STDERR_FILENO) {
        ::close(descriptor_);
    }
    descriptor_ = opened;
    bytes_ = static_cast<std::uint64_t>(status.st_size);
    if (tookStandardError_) {
        ::dup2(descriptor_, STDERR_FILENO);
    }
    return true;
}

bool DaemonLog::MoveTo(const std::filesystem::path& file) {
    const std::lock_guard hold(lock_);
    file_ = file;
    if (OpenFile()) {
        return true;
    }
    file_.clear();
    return false;
}

void DaemonLog::TakeStandardError() {
    const std::lock_guard hold(lock_);
    tookStandardError_ = true;
    ::dup2(descriptor_, STDERR_FILENO);
}

void DaemonLog::Line(const std::string& text) {
    const std::lock_guard hold(lock_);
    if (!file_.empty() && bytes_ > kLargest) {
        std::error_code ignored;
        std::filesystem::rename(file_, file_.string() + ".old", ignored);
        (void)OpenFile();  // else the old one goes on
    }
    std::string line;
    if (json_) {
        line = Dump({{"command", command_}, {"time", TimeNow()}, {"event", text}});
    } else {
        line = (file_.empty() ? "vrkfs " + command_ + ": " : TimeNow() + " ") + Failure{.what = text}.Line();
    }
    line += '\n';
    // In one piece, so that lines of several writers do not mix.
    const ssize_t written = ::write(descriptor_, line.data(), line.size());
    bytes_ += written > 0 ? static_cast<std::uint64_t>(written) : 0;
}

}  // namespace tool
