// The service as a program beside a daemon: what it says, and how it comes, goes, and comes back.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

#include "link/connection.h"
#include "tests/mount/mount_fixture.h"
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
    // With the clip VOL/CLIPS/BARS.RZV.
    void MakeBars(const clip::ClipRecipe& recipe) {
        MakeStation(2, 16 << 20);
        Start();
        ASSERT_EQ(Format(u"VOL", {0, 1}), 0);
        (void)User().Close(
            Open(u"\\RZV\\VOL\\CLIPS", host::Disposition::kCreate, 1, host::option::kDirectoryFile).handle);
        {
            const host::ScopedHandle file(User(),
                                          Open(u"\\RZV\\VOL\\CLIPS\\BARS.RZV", host::Disposition::kCreate, 3).handle);
            ASSERT_TRUE(User().Write(file.Get(), clip::MakeClipImage(recipe), 0).status.Ok());
        }
        Stop();
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
    MakeBars(recipe);
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

// The frames and the command port as a shell's script finds them in the mounted drive.
class MountedService : public ServiceProgram {
  protected:
    void TearDown() override {
        daemon_.reset();
        (void)Sh("fusermount3 -u -z m");  // of a daemon that was killed
        ServiceProgram::TearDown();
    }
    // In the test's directory: with R for the clips' folder, F for the frames of its clip and D for the clip itself.
    Outcome Sh(const std::string& script) {
        const auto out = directory_.Path() / "said";
        Outcome outcome;
        outcome.status = tests::Await(StartShell(
            directory_.Path(), "R=m/P/RZV/VOL/CLIPS; D=$R/BARS.RZV; F=m/P/TGA/VOL/CLIPS/BARS.RZV; " + script, out));
        outcome.out = Contents(out);
        return outcome;
    }
    void Do(const std::string& script, const std::string& says = "") {
        const Outcome outcome = Sh(script);
        EXPECT_EQ(outcome.status, 0) << script;
        EXPECT_EQ(outcome.out, says) << script;
    }
    service::Bytes File(const char* name) {
        const std::string text = Contents(directory_.Path() / name);
        return {text.begin(), text.end()};
    }

    std::unique_ptr<Program> daemon_;
};

TEST_F(MountedService, FramesAndPortInAShell) {
    const clip::ClipRecipe recipe = BarsRecipe(525, true, 3);
    MakeBars(recipe);
    std::filesystem::create_directory(directory_.Path() / "m");
    daemon_ = Run("serve", {"--foreground", "--service", "--mount", (directory_.Path() / "m").string()});
    Await("the service", [&] { return Sh("cat $F/BARS.0001.TGA > frame && cp $D before").status == 0; });
    Do("ls m/P $F",
       "m/P:\nBMP\nRAW\nRZV\nTGA\nYUV\n\n" + Sh("echo $F:").out + "BARS.0000.TGA\nBARS.0001.TGA\nBARS.0002.TGA\n");
    const service::Frame frame = BarsFrame(recipe, 1);
    EXPECT_TRUE(File("frame") == FileOf(service::FileKind::kTga, frame));
    ExpectShows(File("frame"), service::FileKind::kTga, frame);

    // A picture put onto a frame in either way changes that frame, and put back, nothing at all.
    const std::string raw = "cd m/P/RAW/VOL/CLIPS/BARS.RZV && md5sum BARS.0000.RAW BARS.0002.RAW";
    const std::string others = Sh(raw).out;
    for (const char* put :
         {"cp other $F/BARS.0001.TGA",
          "cp other $F/new && cmp other $F/new && mv -f $F/new $F/BARS.0001.TGA && test ! -e $F/new"}) {
        Do(std::string("cp $F/BARS.0002.TGA other && ") + put + " && cmp other $F/BARS.0001.TGA && ! cmp -s before $D");
        Do(raw, others);
        Do("stat -c %s $F/BARS.0001.TGA; ls $F | wc -l", Sh("stat -c %s other").out + "3\n");
        Do("cp frame $F/BARS.0001.TGA && cmp before $D");
    }
    // What is no picture of this clip changes nothing.
    EXPECT_EQ(Sh("head -c 1658898 /dev/zero > none; cp none $F/BARS.0001.TGA").status, 1);
    Do("cmp before $D");

    // Two frames of 625 lines with alpha, in pieces; what came of it is seen at once, under every type.
    Do("{ printf '\\040\\004\\0\\0\\001\\0\\0\\0M\\0A\\0D\\0E\\0'; head -c 1016 /dev/zero;"
       "printf '\\001\\0\\0\\0\\161\\002\\0\\0\\002\\0\\0\\0\\001\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0'; } > command;"
       "dd if=command of=$R/___Port0___ bs=100 status=none; cat $R/MADE > made; ls m/P/TGA/VOL/CLIPS/MADE",
       "MADE.0000.TGA\nMADE.0001.TGA\n");
    const Outcome info = Sh(std::string(VRKFS_PROGRAM) + " clip info made");
    EXPECT_NE(info.out.find("frames       2, 25 per second"), std::string::npos) << info.out;
    // The free and all blocks of the volume.
    const Outcome space =
        Sh("exec 5<> $R/___Port0___; printf '\\010\\0\\0\\0\\004\\0\\0\\0' >&5; head -c 16 <&5 | od -An -td8");
    std::istringstream words(space.out);
    std::uint64_t free = 0;
    std::uint64_t total = 0;
    words >> free >> total;
    EXPECT_GT(total, 50000u) << space.out;
    EXPECT_LT(free, total - 10000) << space.out;
    EXPECT_EQ(daemon_->End(SIGTERM), 0);
    Do("ls m");
}

}  // namespace
}  // namespace tests
