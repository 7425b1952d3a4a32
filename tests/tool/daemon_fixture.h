// A station with its daemon, both the test's own.
#pragma once

#include <chrono>
#include <thread>

#include "tests/tool/program_fixture.h"

namespace tests {

class DaemonTest : public ProgramTest {
  protected:
    static constexpr std::chrono::seconds kLimit{60};  // generous: nothing is decided by it

    ~DaemonTest() override { (void)StopDaemon(SIGKILL); }

    template <typename Check>
    static bool Becomes(Check check) {
        const auto end = std::chrono::steady_clock::now() + kLimit;
        while (!check()) {
            if (std::chrono::steady_clock::now() > end) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }
    static bool HasEnded(pid_t child) {
        siginfo_t ended{};
        return ::waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT) != 0 || ended.si_pid != 0;
    }

    // In the foreground, as a child of the test; ready when this returns. Its log is in @/err-daemon.
    void StartDaemon(const std::string& options = "") {
        std::filesystem::remove(Path("out-daemon"));  // of an earlier one
        daemon_ = Start("serve --foreground --json " + options, "/dev/null", "-daemon");
        ASSERT_TRUE(Becomes([&] { return HasEnded(daemon_) || Contents(Path("out-daemon")).ends_with('\n'); }));
        ASSERT_FALSE(HasEnded(daemon_)) << DaemonLog();
    }
    // Its exit status, or the signal that ended it, below 0.
    int StopDaemon(int signal = SIGTERM) {
        if (daemon_ < 0) {
            return 0;
        }
        ::kill(daemon_, signal);
        return Await(std::exchange(daemon_, -1));
    }
    [[nodiscard]] std::string DaemonLog() const { return Contents(Path("err-daemon")); }
    [[nodiscard]] std::filesystem::path Socket() const { return Path(kStationName) / "socket"; }

    // Runs an example as a program; see Start.
    pid_t StartExample(const char* program, const std::string& line, const std::string& name) const {
        return Start(Socket().string() + " " + line, "/dev/null", name, program);
    }

    pid_t daemon_ = -1;
};

}  // namespace tests
