#include "tool/interrupt.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <vector>

namespace tool {
namespace {

std::atomic<bool> interrupted{false};
int wake = -1;  // becomes readable with the first signal, so that a wait cannot miss it

void Handle(int signal) {
    const int error = errno;
    // The end of a terminal may be told twice.
    if (interrupted.exchange(true) && signal != SIGHUP) {
        ::signal(signal, SIG_DFL);
        ::raise(signal);
    }
    const std::uint64_t one = 1;
    if (wake >= 0 && ::write(wake, &one, sizeof(one)) < 0) {
        // The flag stands; only a wait in progress is not cut short.
    }
    errno = error;
}

}  // namespace

void InstallInterrupt() {
    wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    struct sigaction action {};
    action.sa_handler = &Handle;
    action.sa_flags = SA_RESTART;  // requests in hand on any thread are not disturbed
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    struct sigaction hangup {};
    ::sigaction(SIGHUP, nullptr, &hangup);
    if (hangup.sa_handler != SIG_IGN) {
        ::sigaction(SIGHUP, &action, nullptr);
    }
    // Whoever started this program may have left them blocked (some test and service runners do): they would be lost.
    sigset_t wanted;
    sigemptyset(&wanted);
    sigaddset(&wanted, SIGINT);
    sigaddset(&wanted, SIGTERM);
    ::pthread_sigmask(SIG_UNBLOCK, &wanted, nullptr);
    ::signal(SIGPIPE, SIG_IGN);  // a reader that goes away is a failed write, not the end of the program
}

void OccupyStandardStreams() {
    // The lowest free descriptor is the one that is closed; it is opened for the direction in which it is not used.
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (::fcntl(descriptor, F_GETFD) < 0 &&
            ::open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY) != descriptor) {
            ::_exit(1);
        }
    }
}

bool Interrupted() {
    return interrupted;
}

bool WaitReadable(int descriptor) {
    return WaitReadable(std::span(&descriptor, 1)).has_value();
}

std::optional<std::size_t> WaitReadable(std::span<const int> descriptors) {
    std::vector<struct pollfd> waits;
    for (const int descriptor : descriptors) {
        waits.push_back({descriptor, POLLIN, 0});
    }
    waits.push_back({wake, POLLIN, 0});  // one below 0 is passed over
    while (!Interrupted()) {
        const int ready = ::poll(waits.data(), waits.size(), -1);
        if (ready < 0 && errno != EINTR) {
            return 0;  // the read will say what is wrong
        }
        const auto first = std::find_if(waits.begin(), waits.end() - 1, [](const auto& wait) { return wait.revents; });
        if (ready > 0 && first != waits.end() - 1) {
            return Interrupted() ? std::nullopt : std::optional<std::size_t>(first - waits.begin());
        }
    }
    return std::nullopt;
}

bool Pause(std::chrono::milliseconds time) {
    struct pollfd wait {
        wake, POLLIN, 0
    };
    while (!Interrupted() && ::poll(&wait, 1, static_cast<int>(time.count())) < 0 && errno == EINTR) {
    }
    return !Interrupted();
}

}  // namespace tool
