#include "tool/foreground.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

extern char** environ;

namespace tool {
namespace {

std::atomic<pid_t> foreground{0};
std::atomic<bool> toldToEnd{false};

void PassOn(int) {
    const int error = errno;
    toldToEnd = true;
    if (const pid_t child = foreground; child > 0) {
        ::kill(child, SIGTERM);
    }
    errno = error;
}

// Signals of a program that waits for another one; as they were before when it goes out of scope.
class WaitingSignals {
  public:
    WaitingSignals() {
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        struct sigaction pass {};
        pass.sa_handler = &PassOn;
        pass.sa_flags = SA_RESTART;
        ::sigaction(SIGINT, &ignore, &interrupt_);
        ::sigaction(SIGQUIT, &ignore, &quit_);
        ::sigaction(SIGTERM, &pass, &terminate_);
    }
    ~WaitingSignals() {
        ::sigaction(SIGINT, &interrupt_, nullptr);
        ::sigaction(SIGQUIT, &quit_, nullptr);
        ::sigaction(SIGTERM, &terminate_, nullptr);
    }
    WaitingSignals(const WaitingSignals&) = delete;
    WaitingSignals& operator=(const WaitingSignals&) = delete;

  private:
    struct sigaction interrupt_ {};
    struct sigaction quit_ {};
    struct sigaction terminate_ {};
};

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
    toldToEnd = false;
    pid_t child = 0;
    if (const int error = Spawn(program, child); error != 0) {
        return error;
    }
    foreground = child;
    if (toldToEnd) {  // while it was being started
        ::kill(child, SIGTERM);
    }
    // Its number stays its own until it is waited for for good, so no signal can reach another process.
    siginfo_t ended{};
    while (::waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
    }
    foreground = 0;
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return 0;
}

}  // namespace tool
