#include "tool/foreground.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

extern char** environ;

namespace tool {
namespace {

sigset_t Termination() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    return signals;
}

// Signals of a program that waits for another one; as they were before when it goes out of scope. A request to end
// waits until it is asked for: a handler could come between the program's start and the moment its number is known.
class WaitingSignals {
  public:
    WaitingSignals() {
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        ::sigaction(SIGINT, &ignore, &interrupt_);
        ::sigaction(SIGQUIT, &ignore, &quit_);
        const sigset_t termination = Termination();
        ::pthread_sigmask(SIG_BLOCK, &termination, &mask_);
    }
    ~WaitingSignals() {
        ::pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
        ::sigaction(SIGINT, &interrupt_, nullptr);
        ::sigaction(SIGQUIT, &quit_, nullptr);
    }
    WaitingSignals(const WaitingSignals&) = delete;
    WaitingSignals& operator=(const WaitingSignals&) = delete;

  private:
    struct sigaction interrupt_ {};
    struct sigaction quit_ {};
    sigset_t mask_{};
};

// Until the child has ended, passes on to it what asks this program to end. Its number stays its own until it is waited
// for, so no signal can reach another process.
void PassOnUntilEnded(pid_t child) {
    const sigset_t termination = Termination();
    const int told = ::signalfd(-1, &termination, SFD_CLOEXEC | SFD_NONBLOCK);
    const int ended = static_cast<int>(::syscall(SYS_pidfd_open, child, 0));
    struct pollfd waits[2] = {{ended, POLLIN, 0}, {told, POLLIN, 0}};
    while (ended >= 0 && told >= 0) {
        const int ready = ::poll(waits, 2, -1);
        if ((ready < 0 && errno != EINTR) || (ready > 0 && waits[0].revents != 0)) {
            break;
        }
        signalfd_siginfo signal{};
        if (::read(told, &signal, sizeof(signal)) == sizeof(signal)) {
            ::kill(child, SIGTERM);
        }
    }
    for (const int descriptor : {told, ended}) {
        if (descriptor >= 0) {
            ::close(descriptor);
        }
    }
}

std::vector<std::string> MergedEnvironment(const ForegroundProgram& program) {
    std::vector<std::string> all;
    for (char** at = environ; *at != nullptr; ++at) {
        const std::string variable = *at;
        const std::string name = variable.substr(0, variable.find('='));
        const bool replaced =
            std::ranges::any_of(program.environment, [&](const auto& own) { return own.first == name; });
        if (!replaced) {
            all.push_back(variable);
        }
    }
    for (const auto& [name, value] : program.environment) {
        all.push_back(name);
        all.back().append("=").append(value);
    }
    return all;
}

std::vector<char*> Pointers(std::vector<std::string>& words) {
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// The program finds its signals as any program does, whatever this one ignores.
int Spawn(const ForegroundProgram& program, pid_t& child) {
    std::vector<std::string> words = program.words;
    std::vector<std::string> variables = MergedEnvironment(program);
    posix_spawnattr_t attributes;
    if (const int error = ::posix_spawnattr_init(&attributes); error != 0) {
        return error;
    }
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGPIPE}) {
        sigaddset(&signals, signal);
    }
    ::posix_spawnattr_setsigdefault(&attributes, &signals);
    sigset_t blocked;
    sigemptyset(&blocked);
    ::posix_spawnattr_setsigmask(&attributes, &blocked);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    const int error = ::posix_spawnp(&child, words.front().c_str(), nullptr, &attributes, Pointers(words).data(),
                                     Pointers(variables).data());
    ::posix_spawnattr_destroy(&attributes);
    return error;
}

}  // namespace

int RunInForeground(const ForegroundProgram& program, int& exitStatus) {
    const WaitingSignals signals;
    pid_t child = 0;
    if (const int error = Spawn(program, child); error != 0) {
        return error;
    }
    PassOnUntilEnded(child);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return 0;
}

}  // namespace tool
