// Runs the real `vrkfs` program on a station of its own.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/machine_fixture.h"

namespace tests {

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;

    // The one JSON object a line of `out`.
    [[nodiscard]] std::vector<nlohmann::json> Objects() const {
        std::vector<nlohmann::json> objects;
        std::istringstream lines(out);
        for (std::string line; std::getline(lines, line);) {
            objects.push_back(nlohmann::json::parse(line, nullptr, false));
            EXPECT_TRUE(objects.back().is_object()) << line;
        }
        return objects;
    }
};

class ProgramTest : public testing::Test {
  public:
    static std::string Contents(const std::filesystem::path& path) {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    static void WriteAt(const std::filesystem::path& path, std::uint64_t offset, const std::string& bytes) {
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(offset));
        file << bytes;
        ASSERT_TRUE(file.flush());
    }

  protected:
    static constexpr const char* kStationName = "station";

    [[nodiscard]] std::filesystem::path Path(const std::string& name) const { return directory_.Path() / name; }
    [[nodiscard]] std::filesystem::path Image(std::uint32_t disk, std::uint32_t card = 0) const {
        return Path(kStationName) / ("card" + std::to_string(card)) / ("scsi" + std::to_string(disk) + ".img");
    }

    // A station that the program finds by itself.
    void MakeStation(const std::string& layout = "--disks 4 --size 16M") {
        ASSERT_EQ(Run("create-station @/station " + layout).status, 0);
    }
    // With volumes ONE (disk 0) and TWO (disks 1, 2), a folder A in each, and the clip @/clip.
    void MakeVolumes() {
        MakeStation();
        for (const char* line : {"format --name ONE --disks 0", "format --name TWO --disks 1,2", "mkdir P:/RZV/ONE/A",
                                 "mkdir P:/RZV/TWO/A", "clip make @/clip --frames 9 --alpha --fields 0..40 --seed 5"}) {
            ASSERT_EQ(Run(line).status, 0) << line;
        }
    }

    // "ls -l P:/", split at spaces, with @ for the test's directory and | for a space inside a word. Standard input is
    // the file `input`, else /dev/null.
    Outcome Run(const std::string& line, const std::string& input = "/dev/null") const {
        return Finish(Start(line, input));
    }

    // The same in two steps, for what happens meanwhile. Programs at the same time want names for what they write.
    pid_t Start(const std::string& line, const std::string& input, const std::string& name = "",
                const char* program = VRKFS_PROGRAM) const {
        std::filesystem::remove(Path("out" + name));  // what is read is never another program's
        std::filesystem::remove(Path("err" + name));
        const pid_t child = Forked(::fork());
        if (child == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // nothing outlives a test program that crashed
            Redirect(input, O_RDONLY, STDIN_FILENO);
            Redirect(Path("out" + name), O_WRONLY | O_CREAT | O_TRUNC, STDOUT_FILENO);
            Redirect(Path("err" + name), O_WRONLY | O_CREAT | O_TRUNC, STDERR_FILENO);
            Execute(line, program);
        }
        return child;
    }
    // A signal to process -1 would reach every other one, and a wait any other child.
    static pid_t Forked(pid_t process) {
        if (process < 0) {
            std::abort();
        }
        return process;
    }
    Outcome Finish(pid_t child, const std::string& name = "") const {
        return {Await(child), Contents(Path("out" + name)), Contents(Path("err" + name))};
    }

    // On a terminal, where `typed` waits to be read; everything it shows is in `out`.
    Outcome RunOnTerminal(const std::string& line, const std::string& typed) const {
        int terminal = -1;
        const pid_t child = Forked(::forkpty(&terminal, nullptr, nullptr, nullptr));
        if (child == 0) {
            Execute(line, VRKFS_PROGRAM);
        }
        EXPECT_EQ(::write(terminal, typed.data(), typed.size()), static_cast<ssize_t>(typed.size()));
        Outcome outcome;
        char piece[4096];
        for (ssize_t got; (got = ::read(terminal, piece, sizeof(piece))) > 0;) {
            outcome.out.append(piece, static_cast<std::size_t>(got));
        }
        outcome.status = Await(child);
        ::close(terminal);
        return outcome;
    }

    // A failure: that status, nothing reported, one line that holds `text`.
    static void ExpectFailure(const Outcome& outcome, int status, const std::string& text) {
        EXPECT_EQ(outcome.status, status) << outcome.err;
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(std::ranges::count(outcome.err, '\n'), 1) << outcome.err;
        EXPECT_NE(outcome.err.find(text), std::string::npos) << outcome.err << "lacks: " << text;
    }

    // A command and, if it is to fail, what its one line says.
    struct Step {
        const char* line;
        const char* says;
    };
    static void Expect(const Outcome& outcome, const char* says) {
        if (says != nullptr) {
            ExpectFailure(outcome, 1, says);
        } else {
            EXPECT_EQ(outcome.status, 0) << outcome.err;
        }
    }

    TemporaryDirectory directory_;
    bool noStation_ = false;  // the environment names none

    // The exit status, or the number of the signal that ended it, below 0.
    static int Await(pid_t child) {
        int status = 0;
        while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

  private:
    static void Redirect(const std::filesystem::path& path, int flags, int descriptor) {
        const int opened = ::open(path.c_str(), flags, 0600);
        if (opened < 0 || ::dup2(opened, descriptor) < 0) {
            ::_exit(99);
        }
        ::close(opened);
    }

    [[noreturn]] void Execute(const std::string& line, const char* program) const {
        std::vector<std::string> words{program};
        std::istringstream split(line);
        for (std::string word; split >> word;) {
            for (std::size_t at = word.find('@'); at != std::string::npos; at = word.find('@')) {
                word.replace(at, 1, directory_.Path().string());
            }
            std::ranges::replace(word, '|', ' ');
            words.push_back(word == "''" ? "" : word);
        }
        std::vector<char*> arguments;
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        noStation_ ? ::unsetenv("VRKFS_STATION") : ::setenv("VRKFS_STATION", Path(kStationName).c_str(), 1);
        ::signal(SIGPIPE, SIG_DFL);
        ::execv(program, arguments.data());
        ::_exit(98);
    }
};

}  // namespace tests
