#include "tool/service_child.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

extern char** environ;

namespace tool {
namespace {

constexpr std::chrono::seconds kLongestPause{60};
constexpr std::chrono::seconds kRuns{30};  // so long it has run well, and the next pause is short again
constexpr int kGraceMilliseconds = 5000;

std::string Ending(int status) {
    return WIFSIGNALED(status) ? "was ended by signal " + std::to_string(WTERMSIG(status))
                               : "ended with status " + std::to_string(WEXITSTATUS(status));
}

int WaitFor(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

// With no signal blocked or ignored, whatever the daemon does with its own.
int Spawn(std::vector<std::string> words, pid_t& child) {
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    posix_spawnattr_t attributes;
    if (const int error = ::posix_spawnattr_init(&attributes); error != 0) {
        return error;
    }
    sigset_t signals;
    sigfillset(&signals);
    ::posix_spawnattr_setsigdefault(&attributes, &signals);
    sigset_t blocked;
    sigemptyset(&blocked);
    ::posix_spawnattr_setsigmask(&attributes, &blocked);
    // In a group of its own: Ctrl-C on the daemon's terminal is for the daemon, which ends it in its turn.
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
    const int error = ::posix_spawn(&child, "/proc/self/exe", nullptr, &attributes, pointers.data(), environ);
    ::posix_spawnattr_destroy(&attributes);
    return error;
}

}  // namespace

ServiceChild::ServiceChild(std::filesystem::path socket, bool json, DaemonLog& log)
    : socket_(std::move(socket)),
      json_(json),
      log_(log),
      timer_(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
    Begin();
}

ServiceChild::~ServiceChild() {
    if (child_ > 0) {
        ::kill(child_, SIGTERM);
        struct pollfd wait {
            pidDescriptor_, POLLIN, 0
        };
        if (::poll(&wait, 1, kGraceMilliseconds) != 1) {
            ::kill(child_, SIGKILL);
        }
        (void)WaitFor(child_);
    }
    Close();
    ::close(timer_);
}

void ServiceChild::Close() {
    if (pidDescriptor_ >= 0) {
        ::close(pidDescriptor_);
    }
    pidDescriptor_ = -1;
    child_ = -1;
}

// It ends by itself when the daemon does, even if that is killed.
void ServiceChild::Begin() {
    std::vector<std::string> words{"vrkfs", "service", "--once", "--socket", socket_.string()};
    if (json_) {
        words.emplace_back("--json");
    }
    begun_ = std::chrono::steady_clock::now();
    pid_t child = -1;
    int error = Spawn(std::move(words), child);
    if (error == 0) {
        child_ = child;
        pidDescriptor_ = static_cast<int>(::syscall(SYS_pidfd_open, child, 0));
        if (pidDescriptor_ >= 0) {
            log_.Line("the frame service runs as process " + std::to_string(child));
            return;
        }
        error = errno;
        ::kill(child, SIGKILL);
        (void)WaitFor(child);
        Close();
    }
    log_.Line(std::string("the frame service cannot be started: ") + std::strerror(error));
    Rest();
}

void ServiceChild::Rest() {
    const itimerspec wake{{}, {pause_.count(), 0}};
    ::timerfd_settime(timer_, 0, &wake, nullptr);
    pause_ = std::min(pause_ * 2, kLongestPause);
}

void ServiceChild::Tend() {
    if (child_ < 0) {
        std::uint64_t times = 0;
        if (::read(timer_, &times, sizeof(times)) == sizeof(times)) {
            Begin();
        }
        return;
    }
    const int status = WaitFor(child_);
    if (std::chrono::steady_clock::now() - begun_ > kRuns) {
        pause_ = std::chrono::seconds{1};
    }
    log_.Line("the frame service " + Ending(status) + "; it starts again in " + std::to_string(pause_.count()) + " s");
    Close();
    Rest();
}

}  // namespace tool
