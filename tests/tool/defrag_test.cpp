// Volumes filled with clips of odd sizes and thinned at random: their free space is gathered, and every clip is whole
// after that and after whatever cut it short.
#include "tool/defrag.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <random>

#include "tests/support/machine_fixture.h"
#include "tests/tool/program_fixture.h"
#include "tool/clip/verifier.h"
#include "tool/clip/writer.h"
#include "tool/drive_file.h"
#include "tool/text.h"

namespace {

using testing::HasSubstr;
using tool::Defragmenter;
using tool::DrivePath;

constexpr std::uint32_t kFileBlocks = 3;  // record and table of a short recording

class Defrag : public tests::MachineTest {
  protected:
    // A volume that is full but for some blocks, and then loses about half of its clips.
    void MakeThinVolume(const std::vector<std::uint32_t>& disks, unsigned seed) {
        MakeStation(2, 6 << 20);
        Start();
        ASSERT_EQ(Format(u"THIN", disks), 0);
        random_.seed(seed);
        for (const char16_t* folder : {u"A", u"B"}) {
            const host::ScopedHandle made(User(), Create(volume_.Child(folder), host::option::kDirectoryFile));
            ASSERT_TRUE(made);
        }
        while (Put(clips_.size() % 2 == 0 ? u"A" : u"B")) {
        }
        ASSERT_GT(clips_.size(), 20u);
        std::ranges::shuffle(clips_, random_);
        for (std::size_t left = clips_.size() / 2; left > 0; --left) {
            ASSERT_TRUE(tool::Delete(User(), clips_.back(), false).Ok());
            clips_.pop_back();
        }
    }

    void ExpectEveryClip(const std::string& when) {
        SCOPED_TRACE(when);
        for (const DrivePath& path : clips_) {
            std::unique_ptr<tool::DriveFile> file;
            host::FileFacts facts;
            const host::Status status = tool::OpenForReading(User(), path, file, facts);
            ASSERT_TRUE(status.Ok()) << path.Display() << ": " << host::StatusName(status);
            const clip::ClipVerdict verdict = clip::ClipVerifier(file->Source(facts.size)).Run();
            EXPECT_TRUE(verdict.Right() && verdict.compared)
                << path.Display() << ": " << (verdict.problem ? verdict.problem->Line() : "");
        }
    }

    // Carries out the plan; stops when that many pieces have moved.
    host::Status Run(Defragmenter& worker, std::size_t most = ~std::size_t{0}) {
        std::uint64_t before = 0;
        return worker.Run({
            .progress =
                [&](std::uint64_t done, std::uint64_t total) {
                    EXPECT_TRUE((before <= done || Board().PowerIsCut()) && done <= total);
                    before = done;
                    return worker.Moves() + 1 < most;
                },
            .moved = [](const Defragmenter::Move&) {},
        });
    }

    // All of it, to a volume whose free space is one piece that a recorder is given.
    void Finish() {
        Defragmenter worker(User(), volume_);
        ASSERT_TRUE(worker.Survey().Ok());
        EXPECT_TRUE(Run(worker).Ok());
        EXPECT_TRUE(worker.Plan().after.IsGathered());
        EXPECT_TRUE(CanRecord(worker.Plan().after.largest.count - kFileBlocks));
    }

    // Whether a recorder is given that much in one piece.
    bool CanRecord(std::uint32_t blocks) {
        const DrivePath path = volume_.Child(u"A").Child(u"probe");
        host::ScopedHandle file(User(), Create(path, 0));
        const host::ScopedHandle handle(User(), OpenControl().handle);
        VrkFsVideoSpace space{};
        space.Handle = file.Get();
        space.BodyTableBlocksWanted = 1;
        space.DataBlocksWanted = blocks;
        const auto record = tests::WritableBytesOf(space);
        EXPECT_TRUE(User().DeviceControl(handle.Get(), IOCTL_VRKFS_ALLOCATE_VIDEO_SPACE, record, record).status.Ok());
        file.Reset();
        EXPECT_TRUE(tool::Delete(User(), path, false).Ok());
        return space.Result == VRKFS_RESULT_DONE;
    }

    const DrivePath volume_{'P', 0, {u"RZV", u"THIN"}};
    std::vector<DrivePath> clips_;
    std::mt19937 random_;

  private:
    host::Handle Create(const DrivePath& path, std::uint32_t options) {
        return User()
            .Create({.path = path.Open(),
                     .access = host::access::kReadData | host::access::kWriteData | host::access::kDelete,
                     .disposition = host::Disposition::kCreate,
                     .options = options})
            .handle;
    }

    // False when the volume has no room for it.
    bool Put(const char16_t* folder) {
        const auto image = clip::MakeClipImage({.kind = clip::ClipKind::Tagged,
                                                .frames = 1 + static_cast<std::uint32_t>(random_() % 30),
                                                .alpha = random_() % 3 == 0,
                                                .minSectors = 0,
                                                .maxSectors = 1 + static_cast<std::uint32_t>(random_() % 16),
                                                .seed = random_()});
        const std::u16string name = *tool::ParseName("clip" + std::to_string(clips_.size()));
        const DrivePath path = volume_.Child(folder).Child(name);
        tool::DriveFile file(User(), path, Create(path, 0));
        try {
            file.Write(0, image);
        } catch (const tool::DriveError&) {
            EXPECT_TRUE(file.Close().Ok());
            EXPECT_TRUE(tool::Delete(User(), path, false).Ok());
            return false;
        }
        EXPECT_TRUE(file.Close().Ok());
        clips_.push_back(path);
        return true;
    }
};

using Disks = std::vector<std::uint32_t>;

class DefragOnDisks : public Defrag, public testing::WithParamInterface<Disks> {};

TEST_P(DefragOnDisks, GathersTheFreeSpaceAndKeepsEveryClip) {
    ASSERT_NO_FATAL_FAILURE(MakeThinVolume(GetParam(), 1));
    Defragmenter worker(User(), volume_);
    ASSERT_TRUE(worker.Survey().Ok());
    const tool::FreeSpace before = worker.Plan().before;
    const std::uint64_t freeBefore = worker.Placement().freeBlocks;
    EXPECT_EQ(freeBefore, before.blocks * GetParam().size());
    EXPECT_GT(before.runs, 5u);
    EXPECT_FALSE(CanRecord(before.largest.count + 1));
    EXPECT_TRUE(Run(worker).Ok());
    EXPECT_TRUE(worker.Plan().after.IsGathered());

    for (const char* when : {"at once", "after a restart"}) {
        SCOPED_TRACE(when);
        ExpectEveryClip(when);
        Defragmenter again(User(), volume_);
        ASSERT_TRUE(again.Survey().Ok());
        EXPECT_EQ(again.Placement().freeBlocks, freeBefore);
        EXPECT_TRUE(again.Plan().before.IsGathered() && again.Plan().moves.empty());
        EXPECT_TRUE(CanRecord(again.Plan().before.largest.count - kFileBlocks));
        Restart();
    }
}

INSTANTIATE_TEST_SUITE_P(, DefragOnDisks, testing::Values(Disks{0}, Disks{0, 1}, Disks{1, 0}));

TEST_F(Defrag, StopsBetweenAnyTwoMoves) {
    MakeThinVolume({0, 1}, 7);
    for (const std::size_t moves : {1, 1, 2, 3, 5, 8}) {
        {
            Defragmenter worker(User(), volume_);
            ASSERT_TRUE(worker.Survey().Ok());
            ASSERT_GT(worker.Plan().moves.size(), moves);
            EXPECT_EQ(host::StatusName(Run(worker, moves)), "STATUS_CANCELLED");
            EXPECT_EQ(worker.Moves(), moves);
        }
        Restart();
        ExpectEveryClip("stopped after " + std::to_string(moves));
    }
    Finish();
    ExpectEveryClip("finished");
}

// The power goes between two writes, most of them inside a move.
TEST_F(Defrag, LosesPowerBetweenAnyTwoWrites) {
    MakeThinVolume({0, 1}, 11);
    for (std::uint64_t write : {1, 2, 3, 4, 5, 7, 10, 14, 19, 26, 33, 57, 80}) {
        {
            Defragmenter worker(User(), volume_);
            ASSERT_TRUE(worker.Survey().Ok());
            Board().CutPowerAtWrite(write, ~0u, board::AfterPowerLoss::kError);
            static_cast<void>(Run(worker));
            EXPECT_TRUE(Board().PowerIsCut() || worker.Plan().after.IsGathered());
        }
        Restart();
        ExpectEveryClip("cut at write " + std::to_string(write));
    }
}

TEST_F(Defrag, NamesWhatStandsInTheWay) {
    MakeThinVolume({0}, 3);
    std::string held;
    host::ScopedHandle user;
    {
        Defragmenter worker(User(), volume_);
        ASSERT_TRUE(worker.Survey().Ok());
        held = worker.Describe(worker.Plan().moves.at(worker.Plan().moves.size() / 2)).path;
    }
    const auto path = std::ranges::find(clips_, held, &DrivePath::Display);
    ASSERT_NE(path, clips_.end());

    // In use before the survey, and from the middle of the work on.
    for (const bool early : {false, true}) {
        SCOPED_TRACE(early);
        Defragmenter worker(User(), volume_);
        const auto use = [&] { user = host::ScopedHandle(User(), User().Create({.path = path->Open()}).handle); };
        if (early) {
            use();
        }
        ASSERT_TRUE(worker.Survey().Ok());
        const tool::FreeSpace before = worker.Plan().before;
        EXPECT_EQ(early, std::ranges::none_of(worker.Plan().moves, [&](const tool::DefragMove& move) {
                      return worker.Describe(move).path == held;
                  }));
        if (!early) {
            use();
        }
        ASSERT_TRUE(user);
        EXPECT_TRUE(Run(worker).Ok());
        EXPECT_GE(worker.Plan().after.largest.count, before.largest.count);
        const auto obstacles = worker.InTheWay();
        EXPECT_FALSE(obstacles.empty());
        for (const tool::DefragObstacle& obstacle : obstacles) {
            EXPECT_EQ(obstacle.path, held);
            EXPECT_THAT(obstacle.reason, HasSubstr("in use"));
        }
        user.Reset();
        ExpectEveryClip("after that");
    }
    Finish();
}

using DefragCli = tests::ProgramTest;

TEST_F(DefragCli, MapAndDefrag) {
    MakeVolumes();
    for (const char* name : {"first", "second", "third"}) {
        ASSERT_EQ(Run(std::string("put @/clip P:/RZV/TWO/A/") + name).status, 0);
    }
    ASSERT_EQ(Run("rm P:/RZV/TWO/A/second").status, 0);
    ExpectFailure(Run("map"), 2, "P:/RZV/ONE, P:/RZV/TWO");
    ExpectFailure(Run("defrag P:/RZV/TWO/A"), 2, "P:/RZV/VOLUME");
    ExpectFailure(Run("map P:/RZV/NONE"), 1, "STATUS_OBJECT_NAME_NOT_FOUND");

    // Every block of the data area is told once.
    const auto before = Run("map --json P:/RZV/TWO").Objects();
    const std::uint64_t first = before.front()["first"];
    std::uint64_t next = first;
    for (const auto& line : before) {
        if (line.contains("use")) {
            EXPECT_EQ(line["first"], next);
            next += line["blocks"].get<std::uint64_t>();
        }
    }
    EXPECT_EQ(next - first, before.back()["blocks"]);
    EXPECT_GT(before.back()["free_runs"], 1);
    EXPECT_GT(before.back()["alpha_bytes"], 0);

    const auto plan = Run("defrag --dry-run --json P:/RZV/TWO").Objects();
    EXPECT_EQ(Run("map --json P:/RZV/TWO").Objects(), before);
    const tests::Outcome moved = Run("defrag --json P:/RZV/TWO");
    ASSERT_EQ(moved.status, 0) << moved.err;
    const auto done = moved.Objects();
    EXPECT_EQ(done.back()["moves"], plan.back()["moves"]);
    EXPECT_TRUE(done.back()["gathered"]);
    EXPECT_GT(done.back()["largest_free_bytes_after"], done.back()["largest_free_bytes_before"]);
    const auto after = Run("map --json P:/RZV/TWO").Objects();
    EXPECT_EQ(after.back()["free_runs"], 1);
    EXPECT_EQ(after.back()["free_bytes"], before.back()["free_bytes"]);
    EXPECT_THAT(Run("defrag P:/RZV/TWO").out, HasSubstr("nothing to move"));
    for (const char* name : {"first", "third"}) {
        EXPECT_TRUE(Run(std::string("cat P:/RZV/TWO/A/") + name).out == Contents(Path("clip")));
    }

    // No row is wider than the terminal, which has 80 columns when there is none; a picture is well formed.
    std::istringstream rows(Run("map P:/RZV/TWO").out);
    for (std::string row; std::getline(rows, row);) {
        EXPECT_LE(tool::DisplayWidth(row), 80u) << row;
    }
    ASSERT_EQ(Run("map P:/RZV/TWO --svg @/map.svg").status, 0);
    const std::string svg = Contents(Path("map.svg"));
    EXPECT_THAT(svg, testing::StartsWith("<svg "));
    EXPECT_THAT(svg, testing::EndsWith("</svg>\n"));
    EXPECT_EQ(svg.find('&'), std::string::npos);
}

}  // namespace
