// The `vrkfs clip` commands: exit statuses, one line for each failure, JSON, files that survive a failure, pipes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "tool/clip/commands.h"

namespace {

using testing::HasSubstr;

class ClipCommandTest : public testing::Test {
  protected:
    ClipCommandTest() {
        char name[] = "/tmp/vrkfs-clip-XXXXXX";
        folder_ = ::mkdtemp(name);
    }
    ~ClipCommandTest() override { std::filesystem::remove_all(folder_); }

    [[nodiscard]] std::string Path(const std::string& name) const { return folder_ + "/" + name; }

    struct Outcome {
        int status;
        std::string out;
        std::string err;
    };

    // `vrkfs clip ...`, split at spaces, with @ for the test's folder.
    Outcome Run(std::string line) const {
        for (size_t at = line.find('@'); at != std::string::npos; at = line.find('@')) {
            line.replace(at, 1, folder_);
        }
        CLI::App app;
        clip::AddClipCommands(app);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        int status = 0;
        try {
            app.parse("clip " + line);
        } catch (const CLI::RuntimeError& error) {
            status = error.get_exit_code();
        } catch (const CLI::ParseError&) {
            status = 2;
        }
        return {status, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
    }

    std::string folder_;
};

TEST_F(ClipCommandTest, ExitStatusAndLines) {
    struct Case {
        const char* line;
        int status;
        const char* out;
        const char* err;
    };
    const Case cases[] = {
        {"make @/a --frames 2", 0, "bars, 525 lines, 2 frames, seed 1: 1401704 bytes", ""},
        {"verify @/a", 0, "right: 2 frames, video, 2736 sectors, as made", ""},
        {"info @/a", 0, "video        1400832 bytes (0x156000) in 4 fields of 684 to 684 sectors", ""},
        {"make @/b --frames 9 --alpha --interleave --fields 0..4 --standard 625 --seed 77", 0, "seed 77", ""},
        {"verify @/b", 0, "right: 9 frames, video and alpha, interleaved", ""},
        {"info @/b", 0, "fields 0..4, seed 77", ""},
        {"make @/c --interleave", 2, "", "needs an alpha"},
        {"make @/c --fields 7", 2, "", "A..B"},
        {"make @/c --fields 7..", 2, "", "A..B"},
        {"make @/c --fields 1..2x", 2, "", "A..B"},
        {"make @/c --fields -1..2", 2, "", "A..B"},
        {"make @/c --fields 9..2", 2, "", "longest"},
        {"make @/c --standard 576", 2, "", "525 or 625"},
        {"make @/c --frames many", 2, "", ""},
        {"make", 2, "", ""},
        {"", 2, "", ""},
        {"verify @/c", 1, "", "No such file"},
        {"info @", 1, "", "Is a directory"},
        {"make @/none/c", 1, "", "cannot create"},
        {"make /dev/full --frames 1", 1, "", "No space left"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(std::string("vrkfs clip ") + test.line);
        const Outcome outcome = Run(test.line);
        EXPECT_EQ(outcome.status, test.status);
        EXPECT_THAT(outcome.out, HasSubstr(test.out));
        EXPECT_THAT(outcome.err, HasSubstr(test.err));
        EXPECT_TRUE(test.status == 0 || outcome.out.empty()) << outcome.out;
        EXPECT_LE(std::ranges::count(outcome.err, '\n'), 1);
    }
    EXPECT_FALSE(std::filesystem::exists(Path("c")) || std::filesystem::exists(Path("c.part")));
}

TEST_F(ClipCommandTest, JsonLines) {
    ASSERT_EQ(Run("make @/a --frames 5 --alpha --fields 3..8 --seed 18446744073709551615 --json").status, 0);
    const auto info = nlohmann::json::parse(Run("info --json @/a").out);
    EXPECT_EQ(info["bytes"], std::filesystem::file_size(Path("a")));
    EXPECT_EQ(info["frames"], 5);
    EXPECT_EQ(info["streams"].size(), 2u);
    EXPECT_EQ(info["made_by"]["seed"], 18446744073709551615ull);

    std::fstream file(Path("a"), std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(1424 + 16 + 5);
    file.put('?');
    file.close();
    const Outcome wrong = Run("verify --json @/a");
    EXPECT_EQ(wrong.status, 1);
    const auto verdict = nlohmann::json::parse(wrong.out);
    EXPECT_EQ(verdict["verdict"], "wrong");
    EXPECT_EQ(verdict["stream"], "video");
    EXPECT_EQ(verdict["frame"], 0);
    EXPECT_EQ(verdict["field"], 0);
    EXPECT_EQ(verdict["sector"], 0);
    EXPECT_EQ(verdict["offset"], 1424 + 16 + 5);
    EXPECT_EQ(nlohmann::json::parse(Run("verify --json @/none").err)["exit"], 1);
}

TEST_F(ClipCommandTest, AStoppedMakeLeavesTheOldClip) {
    ASSERT_EQ(Run("make @/a --frames 3 --fields 1..4").status, 0);
    std::ostringstream out;
    std::ostringstream err;
    const auto stop = [](uint64_t done, uint64_t) { return done < 2'000'000; };
    EXPECT_EQ(clip::ClipMake({Path("a"), {.frames = 20}}, out, err, stop), 1);
    EXPECT_THAT(err.str(), HasSubstr("as it was before"));
    EXPECT_THAT(Run("verify @/a").out, HasSubstr("right: 3 frames"));
    EXPECT_FALSE(std::filesystem::exists(Path("a.part")));

    ASSERT_EQ(Run("make @/a --frames 20").status, 0);
    EXPECT_EQ(clip::ClipVerify({Path("a")}, out, err, stop), 1);
    EXPECT_THAT(out.str(), HasSubstr("stopped before the end"));
}

TEST_F(ClipCommandTest, ThroughAPipe) {
    ASSERT_EQ(::mkfifo(Path("pipe").c_str(), 0600), 0);
    std::ostringstream out;
    std::ostringstream err;
    std::thread maker([&] {
        std::ostringstream made;
        std::ostringstream makeErr;
        EXPECT_EQ(clip::ClipMake({Path("pipe"), {.frames = 4, .alpha = true, .interleave = true}}, made, makeErr), 0);
    });
    EXPECT_EQ(clip::ClipVerify({Path("pipe")}, out, err), 0);
    maker.join();
    EXPECT_THAT(out.str(), HasSubstr("right: 4 frames"));
}

}  // namespace
