#include "tool/interrupt.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace tool {
namespace {

std::atomic<bool> interrupted{false};
int wake = -1;  // becomes readable with the first signal, so that a wait cannot miss it

void Handle(int signal) {
    const int error = errno;
    if (interrupted.exchange(true)) {
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
    while (!Interrupted()) {
        struct pollfd waits[2] = {{descriptor, POLLIN, 0}, {wake, POLLIN, 0}};
        const int ready = ::poll(waits, wake >= 0 ? 2 : 1, -1);
        if (ready < 0 && errno != EINTR) {
            return true;  // the read will say what is wrong
        }
        if (ready > 0 && waits[0].revents != 0) {
            return !Interrupted();
        }
    }
    return false;
}

}  // namespace tool
