// The service as a program beside a daemon: what it says, and how it comes, goes, and comes back.
#include <gtest/gtest.h>

#include <sstream>

#include "link/connection.h"
#include "tests/service/frames.h"
#include "tests/tool/daemon_fixture.h"

namespace tests {
namespace {

class ServiceProgram : public DaemonTest {
  protected:
    ~ServiceProgram() override { (void)StopService(SIGKILL); }

    // With the clip VOL/CLIPS/BARS.RZV, as `vrkfs clip make` makes it by these options.
    void MakeBars(const std::string& options) {
        MakeStation("--disks 2 --size 16M");
        for (const std::string& line :
             {std::string("format --name VOL --disks 0,1"), std::string("mkdir P:/RZV/VOL/CLIPS"),
              "clip make @/bars --standard 525 --seed 17 " + options,
              std::string("put @/bars P:/RZV/VOL/CLIPS/BARS.RZV")}) {
            ASSERT_EQ(Run(line).status, 0) << line;
        }
    }
    void StartService(const std::string& options = "") {
        service_ = Start("service " + options, "/dev/null", "-service");
    }
    // Its exit status, or the signal that ended it, below 0; signal 0: it ends by itself.
    int StopService(int signal) {
        if (service_ < 0) {
            return 0;
        }
        ::kill(service_, signal);
        return Await(std::exchange(service_, -1));
    }
    [[nodiscard]] std::string Said() const { return Contents(Path("err-service")); }
    // Frame 1 as a TGA file, as another program sees it; empty while there is none.
    [[nodiscard]] service::Bytes ReadFrame() const {
        host::Problem problem;
        const auto station = vlink::Connect(Socket(), problem);
        const auto process = station ? station->NewProcess(problem) : nullptr;
        if (!process) {
            return {};
        }
        const host::ScopedHandle file(
            *process, process->Create({.path = u"P:\\TGA\\VOL\\CLIPS\\BARS.RZV\\BARS.0001.TGA"}).handle);
        service::Bytes bytes(service::FileSize(service::FileKind::kTga, false));
        const auto read =
            file ? process->Read(file.Get(), std::as_writable_bytes(std::span(bytes)), 0) : host::IoResult{};
        return read.information == bytes.size() ? bytes : service::Bytes{};
    }

    pid_t service_ = -1;
};

TEST_F(ServiceProgram, ComesAndGoesBesideADaemon) {
    const std::string serving = "vrkfs service: serving 1 card\n";
    MakeBars("--frames 2");
    const service::Bytes expected = FileOf(service::FileKind::kTga, BarsFrame(BarsRecipe(525, false, 2), 1));
    const auto seen = [&] { return ReadFrame() == expected; };
    ExpectFailure(Run("service"), 1, "vrkfs service: no daemon has the station; start one: vrkfs serve -s DIR\n");

    StartDaemon();
    StartService();
    ASSERT_TRUE(Eventually(seen)) << Said();
    EXPECT_EQ(Said(), serving);
    ExpectFailure(Run("service"), 3, "vrkfs service: another service is there\n");
    EXPECT_TRUE(seen());

    EXPECT_EQ(StopService(SIGKILL), -SIGKILL);
    StartService();
    ASSERT_TRUE(Eventually([&] { return Said() == serving; })) << Said();
    EXPECT_TRUE(seen());

    EXPECT_EQ(StopDaemon(), 0);
    ASSERT_TRUE(Eventually([&] { return Said().find("the station has gone") != std::string::npos; })) << Said();
    StartDaemon();
    ASSERT_TRUE(Eventually(seen)) << Said();
    EXPECT_EQ(StopService(SIGTERM), 0);
    EXPECT_TRUE(ReadFrame().empty());

    StartService("--once");
    ASSERT_TRUE(Eventually(seen)) << Said();
    EXPECT_EQ(StopDaemon(), 0);
    EXPECT_EQ(StopService(0), 1);
}

// The frames and the command port as a shell's script finds them in the mounted drive.
class MountedService : public ServiceProgram {
  protected:
    void TearDown() override {
        (void)StopDaemon(SIGKILL);
        (void)Sh("fusermount3 -u -z m");
    }
    // In the test's directory: with R for the clips' folder, F for the frames of its clip and D for the clip itself.
    Outcome Sh(const std::string& script) const {
        std::ofstream(Path("script")) << "cd " << Path("").string() << "\nR=m/P/RZV/VOL/CLIPS; D=$R/BARS.RZV; "
                                      << "F=m/P/TGA/VOL/CLIPS/BARS.RZV\n"
                                      << script;
        return Finish(Start("@/script", "/dev/null", "-script", "/bin/sh"), "-script");
    }
    void Do(const std::string& script, const std::string& says = "") const {
        const Outcome outcome = Sh(script);
        EXPECT_EQ(outcome.status, 0) << script << "\n" << outcome.err;
        EXPECT_EQ(outcome.out, says) << script;
    }
    [[nodiscard]] service::Bytes File(const char* name) const {
        const std::string text = Contents(Path(name));
        return {text.begin(), text.end()};
    }
};

TEST_F(MountedService, FramesAndPortInAShell) {
    MakeBars("--frames 3 --alpha");
    std::filesystem::create_directory(Path("m"));
    StartDaemon("--service --mount @/m");
    ASSERT_TRUE(Eventually([&] { return Sh("cat $F/BARS.0001.TGA > frame && cp $D before").status == 0; }));
    Do("ls m/P $F",
       "m/P:\nBMP\nRAW\nRZV\nTGA\nYUV\n\n" + Sh("echo $F:").out + "BARS.0000.TGA\nBARS.0001.TGA\nBARS.0002.TGA\n");
    const service::Frame frame = BarsFrame(BarsRecipe(525, true, 3), 1);
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
    const Outcome info = Run("clip info @/made");
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
    EXPECT_EQ(StopDaemon(), 0);
    Do("ls m");
}

}  // namespace
}  // namespace tests
