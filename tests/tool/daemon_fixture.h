// A station with its daemon, both the test's own.
#pragma once

#include "tests/support/eventually.h"
#include "tests/tool/program_fixture.h"

namespace tests {

class DaemonTest : public ProgramTest {
  protected:
    ~DaemonTest() override { (void)StopDaemon(SIGKILL); }

    static bool HasEnded(pid_t child) {
        siginfo_t ended{};
        return ::waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT) != 0 || ended.si_pid != 0;
    }

    // In the foreground, as a child of the test; ready when this returns. Its log is in @/err-daemon.
    void StartDaemon(const std::string& options = "") {
        daemon_ = Start("serve --foreground --json " + options, "/dev/null", "-daemon");
        ASSERT_TRUE(Eventually([&] { return HasEnded(daemon_) || Contents(Path("out-daemon")).ends_with('\n'); }));
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
