// The service as a program beside a daemon: what it says, and how it comes, goes, and comes back.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <functional>
#include <thread>

#include "link/connection.h"
#include "tests/service/frames.h"
#include "tool/clip/writer.h"

namespace tests {
namespace {

// Runs until it is waited for; killed if nobody does.
class Program {
  public:
    Program(const std::vector<std::string>& words, const std::filesystem::path& errors) : errors_(errors) {
        std::vector<char*> arguments{const_cast<char*>(VRKFS_PROGRAM)};
        for (const std::string& word : words) {
            arguments.push_back(const_cast<char*>(word.c_str()));
        }
        arguments.push_back(nullptr);
        std::filesystem::remove(errors);  // what it reads is never another program's
        process_ = ::fork();
        if (process_ == 0) {
            const int file = ::open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            ::dup2(file, STDOUT_FILENO);
            ::dup2(file, STDERR_FILENO);
            ::execv(VRKFS_PROGRAM, arguments.data());
            ::_exit(98);
        }
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program() {
        if (process_ > 0) {
            (void)End(SIGKILL);
        }
    }
    // Its exit status; a signal's number below 0. Once: a number below 1 would name other processes than this one.
    int End(int signal = 0) {
        if (process_ <= 0) {
            ADD_FAILURE() << "there is no such program any more";
            return -1;
        }
        if (signal != 0) {
            ::kill(process_, signal);
        }
        int status = 0;
        while (::waitpid(process_, &status, 0) < 0 && errno == EINTR) {
        }
        process_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    std::string Said() const {
        std::ifstream in(errors_);
        return {std::istreambuf_iterator<char>(in), {}};
    }

  private:
    std::filesystem::path errors_;
    pid_t process_ = -1;
};

class ServiceProgram : public MachineTest {
  protected:
    std::unique_ptr<Program> Run(const std::string& command, const std::vector<std::string>& more = {}) {
        std::vector<std::string> words{command, "-s", StationPath().string()};
        words.insert(words.end(), more.begin(), more.end());
        return std::make_unique<Program>(words, directory_.Path() / command);
    }
    void Await(const char* what, const std::function<bool()>& seen) const {
        for (int round = 0; !seen(); ++round) {
            ASSERT_LT(round, 3000) << what << "; the service: " << std::ifstream(directory_.Path() / "service").rdbuf();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    std::unique_ptr<Program> Serve() {
        auto daemon = Run("serve", {"--foreground"});
        Await("the daemon", [&] {
            host::Problem problem;
            return vlink::Connect(StationPath() / "socket", problem) != nullptr;
        });
        return daemon;
    }
    // Frame 1 as a TGA file, as another program sees it; empty while there is none.
    service::Bytes ReadFrame() {
        host::Problem problem;
        const auto station = vlink::Connect(StationPath() / "socket", problem);
        const auto process = station ? station->NewProcess(problem) : nullptr;
        if (!process) {
            return {};
        }
        host::OpenRequest request;
        request.path = u"P:\\TGA\\VOL\\CLIPS\\BARS.RZV\\BARS.0001.TGA";
        const host::ScopedHandle file(*process, process->Create(request).handle);
        service::Bytes bytes(service::FileSize(service::FileKind::kTga, false));
        const auto read =
            file ? process->Read(file.Get(), std::as_writable_bytes(std::span(bytes)), 0) : host::IoResult{};
        return read.information == bytes.size() ? bytes : service::Bytes{};
    }
};

TEST_F(ServiceProgram, ComesAndGoesBesideADaemon) {
    const clip::ClipRecipe recipe = BarsRecipe(525, false, 2);
    MakeStation(2, 16 << 20);
    Start();
    ASSERT_EQ(Format(u"VOL", {0, 1}), 0);
    (void)User().Close(Open(u"\\RZV\\VOL\\CLIPS", host::Disposition::kCreate, 1, host::option::kDirectoryFile).handle);
    {
        const host::ScopedHandle file(User(),
                                      Open(u"\\RZV\\VOL\\CLIPS\\BARS.RZV", host::Disposition::kCreate, 3).handle);
        ASSERT_TRUE(User().Write(file.Get(), clip::MakeClipImage(recipe), 0).status.Ok());
    }
    Stop();
    const service::Bytes expected = FileOf(service::FileKind::kTga, BarsFrame(recipe, 1));
    const auto seen = [&] { return ReadFrame() == expected; };

    auto service = Run("service");
    EXPECT_EQ(service->End(), 1);
    EXPECT_EQ(service->Said(), "vrkfs service: no daemon has the station; start one: vrkfs serve -s DIR\n");

    auto daemon = Serve();
    service = Run("service");
    Await("a picture", seen);
    EXPECT_EQ(service->Said(), "vrkfs service: serving 1 card\n");
    Program second({"service", "-s", StationPath().string()}, directory_.Path() / "second");
    EXPECT_EQ(second.End(), 3);
    EXPECT_EQ(second.Said(), "vrkfs service: another service is there\n");
    EXPECT_TRUE(seen());

    EXPECT_EQ(service->End(SIGKILL), -SIGKILL);
    service = Run("service");
    Await("its successor", [&] { return service->Said() == "vrkfs service: serving 1 card\n"; });
    EXPECT_TRUE(seen());

    EXPECT_EQ(daemon->End(SIGTERM), 0);
    Await("that it sees the daemon go",
          [&] { return service->Said().find("the station has gone") != std::string::npos; });
    daemon = Serve();
    Await("a picture from the next daemon", seen);
    EXPECT_EQ(service->End(SIGTERM), 0);
    EXPECT_TRUE(ReadFrame().empty());

    service = Run("service", {"--once"});
    Await("a picture once more", seen);
    EXPECT_EQ(daemon->End(SIGTERM), 0);
    EXPECT_EQ(service->End(), 1);
}

}  // namespace
}  // namespace tests
