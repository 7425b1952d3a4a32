#include "tool/detach.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <optional>

#include "tool/interrupt.h"

namespace tool {
namespace {

constexpr int kReadyDescriptor = STDERR_FILENO + 1;

// What is left to the starter: the other's process, and how it ended if it did before it was ready.
struct Detached {
    pid_t process = -1;             // below 0: it could not be started, errno says why
    std::optional<int> waitStatus;  // of waitpid; none: it is ready
    bool stopped = false;           // the user asked to stop while it was starting, and it has ended
};

class Detachment {
  public:
    // In the one that goes on `detached` stays as it is and the result is true.
    [[nodiscard]] bool Divide(Detached& detached);
    // Said by that one.
    void Ready();

  private:
    int ready_ = -1;
};

void ReplaceByNothing(int descriptor) {
    const int nothing = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (nothing >= 0) {
        ::dup2(nothing, descriptor);
        ::close(nothing);
    }
}

// Whatever the starter had open (a pipe that somebody reads to its end, a lock) must not stay so for as long as a
// daemon lives.
int KeepOnly(int descriptor) {
    ::dup2(descriptor, kReadyDescriptor);
    ::fcntl(kReadyDescriptor, F_SETFD, FD_CLOEXEC);
    ::close_range(kReadyDescriptor + 1, ~0U, 0);
    InstallInterrupt();
    return kReadyDescriptor;
}

int Await(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

int StarterStatus(const Output& output, const Detached& detached, const Undertaking& undertaking) {
    if (detached.process < 0) {
        return output.Fail(
            {.what = "cannot start " + undertaking.what + ": " + std::strerror(errno), .advice = "end other programs"});
    }
    if (detached.stopped) {
        return output.Fail(StoppedFailure(undertaking.state));
    }
    if (detached.waitStatus && WIFEXITED(*detached.waitStatus)) {
        return WEXITSTATUS(*detached.waitStatus);  // it has said why
    }
    if (detached.waitStatus) {
        return output.Fail({.what = undertaking.what + " was ended by signal " +
                                    std::to_string(WTERMSIG(*detached.waitStatus)) + " while it started",
                            .advice = "see its log"});
    }
    return kDone;
}

bool Detachment::Divide(Detached& detached) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::setsid();
        ::signal(SIGHUP, SIG_IGN);
        ready_ = KeepOnly(ends[1]);
        if (::chdir("/") != 0) {
            // It only keeps a directory in use.
        }
        return true;
    }
    detached.process = child;
    const int error = errno;
    ::close(ends[1]);
    if (child > 0) {
        char byte = 0;
        if (!WaitReadable(ends[0])) {
            detached.stopped = true;
            ::kill(child, SIGTERM);
            detached.waitStatus = Await(child);
        } else if (::read(ends[0], &byte, 1) != 1) {
            detached.waitStatus = Await(child);
        }
    }
    ::close(ends[0]);
    errno = error;
    return false;
}

void Detachment::Ready() {
    ReplaceByNothing(STDIN_FILENO);
    ReplaceByNothing(STDOUT_FILENO);
    const char byte = 1;
    if (::write(ready_, &byte, 1) != 1) {
        // The starter has gone: nobody waits.
    }
    ::close(ready_);
}

}  // namespace

int RunDetached(const Output& output, DaemonLog& log, const std::filesystem::path& logFile,
                const Undertaking& undertaking, const std::function<int(const Ready& ready)>& serve) {
    Detachment detachment;
    Detached detached;
    std::cout.flush();
    if (!detachment.Divide(detached)) {
        return StarterStatus(output, detached, undertaking);
    }
    if (!log.MoveTo(logFile)) {
        return output.Fail(
            {.what = "'" + logFile.string() + "': " + std::strerror(errno), .advice = "give --log another file"});
    }
    return serve([&] {
        log.TakeStandardError();
        detachment.Ready();
    });
}

}  // namespace tool
