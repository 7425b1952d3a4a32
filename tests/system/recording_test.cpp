// Recording and playing as applications do it: past the file system, with the driver keeping the books. And what is
// left when a recorder ends in the middle.
#include <atomic>
#include <future>

#include "tests/system/client_fixture.h"

namespace tests {
namespace {

using examples::RecordStep;

class Recording : public ClientTest, public testing::WithParamInterface<std::tuple<std::uint32_t, bool, bool>> {
  protected:
    // A player that comes before the recorder has made them gets none, and spoils nothing.
    void ExpectNoTables(const std::u16string& path) {
        const VrkFsHandle early = OpenFile(path, VRKFS_OPEN_PLAYER);
        VrkFsSectionName name;
        EXPECT_NE(VrkFsClientReferenceBodyTable(client_.get(), control_, early, VRKFS_STREAM_VIDEO, &name), 0u);
        EXPECT_OK(VrkFsClientClose(client_.get(), early));
    }
};

TEST_P(Recording, IsPlayedWhileItIsMadeAndReadsBackEqual) {
    const auto [disks, alpha, socket] = GetParam();
    StartVolume(disks, socket);
    examples::RecordOrder order = Order(u"CLIP.RZV", alpha, 7);
    order.is625 = alpha == (disks == 2);
    const std::uint64_t free = FreeBlocks();

    // Half of the fields are played before the recorder goes on, so that a clip is followed live however threads run.
    std::atomic<std::uint32_t> played = 0;
    const auto playedSoFar = [&](std::uint32_t fields) {
        played = fields;
        played.notify_all();
    };
    order.watch = [&](RecordStep step, std::uint32_t fields) {
        if (step < RecordStep::kNodesAdded) {
            ExpectNoTables(order.path);
        }
        for (std::uint32_t seen = played; fields == order.frames && seen < fields; seen = played) {
            played.wait(seen);
        }
        return true;
    };
    examples::PlayOrder play{.path = order.path, .patience = std::chrono::seconds(120), .watch = playedSoFar};
    auto playing = std::async(std::launch::async, [&] {
        const auto end = std::shared_ptr<void>(nullptr, [&](void*) { playedSoFar(~0u); });
        return examples::Play(NewClient().get(), play);
    });
    EXPECT_TRUE(examples::Record(NewClient().get(), order));
    const examples::PlayReport report = playing.get();
    EXPECT_EQ(report.fields, order.frames * VRKFS_FIELDS_PER_FRAME);
    EXPECT_TRUE(report.ended && report.wrongFields == 0);
    EXPECT_GE(report.liveFields, order.frames - 1);

    play.watch = nullptr;
    const std::uint64_t left = FreeBlocks();
    EXPECT_LT((free - left) * disks, 2 * ReadWhole(order.path).size() / VRKFS_SECTOR_SIZE) << "as good as reserved";
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round == 0 ? "at once" : "after a restart");
        ExpectClip(order);
        EXPECT_EQ(FreeBlocks(), left);
        const examples::PlayReport again = examples::Play(client_.get(), play);
        EXPECT_EQ(again.fields, report.fields);
        EXPECT_TRUE(again.ended && again.wrongFields + again.liveFields == 0);
        RestartVolume();
    }
    Delete(order.path);
    EXPECT_EQ(FreeBlocks(), free);
}

INSTANTIATE_TEST_SUITE_P(Volumes, Recording,
                         testing::Combine(testing::Values(1, 2, 4), testing::Bool(), testing::Bool()));

// ---- A recorder that ends in the middle ----

struct Drop {
    RecordStep step;
    std::uint32_t fields = 0;
};

constexpr Drop kDrops[] = {
    {RecordStep::kOpened},      {RecordStep::kVideoSpace},     {RecordStep::kAlphaSpace},
    {RecordStep::kTableMade},   {RecordStep::kNodesAdded},     {RecordStep::kAnnounced},
    {RecordStep::kField, 1},    {RecordStep::kField, 11},      {RecordStep::kField, 24},
    {RecordStep::kSettled, 24}, {RecordStep::kTableLetGo, 24}, {RecordStep::kTableStored, 24},
};

class DroppedRecording : public ClientTest, public testing::WithParamInterface<bool> {
  protected:
    // Whoever follows the recording: a handle on the file, and on its tables once they can be had.
    VrkFsHandle Follow(const std::u16string& path, Drop drop) {
        const VrkFsHandle file = OpenFile(path, VRKFS_OPEN_PLAYER);
        if (drop.step >= RecordStep::kAnnounced) {
            VrkFsSectionName name;
            EXPECT_OK(VrkFsClientReferenceBodyTable(client_.get(), control_, file, VRKFS_STREAM_ALPHA, &name));
            EXPECT_OK(VrkFsClientMapNodes(client_.get(), &name, 0, &view_));
        }
        return file;
    }
    void Leave(VrkFsHandle file, Drop drop) {
        if (view_.Nodes != nullptr) {
            VrkFsPlacedNode node;
            const bool seen = VrkFsClientReadNode(&view_.Nodes[0], &node) != 0;
            EXPECT_EQ(seen, drop.fields > 0);  // what was published stays to be seen after its writer
            VrkFsClientUnmapNodes(client_.get(), &view_);
        }
        EXPECT_OK(VrkFsClientClose(client_.get(), file));
    }

    VrkFsNodeView view_ = {};
};

TEST_P(DroppedRecording, LosesNothingButItself) {
    StartVolume(2, GetParam());
    const examples::RecordOrder kept = Order(u"KEEP.RZV", true, 1);
    ASSERT_TRUE(examples::Record(client_.get(), kept));
    const std::uint64_t free = FreeBlocks();

    for (std::size_t i = 0; i < 2 * std::size(kDrops); ++i) {
        const Drop& drop = kDrops[i / 2];
        const bool followed = i % 2 == 1;
        SCOPED_TRACE("drop " + std::to_string(i / 2) + (followed ? ", followed" : ""));
        examples::RecordOrder order = Order(u"DROPPED.RZV", true, 2);
        order.watch = [&](RecordStep step, std::uint32_t fields) { return step != drop.step || fields != drop.fields; };
        client::ClientPointer recorder = NewClient();
        EXPECT_FALSE(examples::Record(recorder.get(), order));
        const VrkFsHandle follower = followed ? Follow(order.path, drop) : 0;
        recorder.reset();
        if (followed) {
            EXPECT_LT(FreeBlocks(), free);  // a player may still be reading there
            Leave(follower, drop);
            // Readers settle nothing; the next writer that leaves gives back what the recorder had reserved.
            OpenOnce(order.path, VRKFS_OPEN_READ | VRKFS_OPEN_WRITE);
        }
        if (drop.step >= RecordStep::kSettled) {
            ExpectClip(order);
        } else {
            EXPECT_TRUE(ReadWhole(order.path).empty());
            EXPECT_EQ(FreeBlocks(), free - 2);  // the record of an empty file
        }
        ExpectClip(kept);
        Delete(order.path);
        EXPECT_EQ(FreeBlocks(), free);
    }
    RestartVolume();
    ExpectClip(kept);
    EXPECT_EQ(FreeBlocks(), free);
}

// Whoever still plays it keeps the driver from writing the last of it by itself.
TEST_P(DroppedRecording, IsOnTheDisksOnceItIsDone) {
    StartVolume(2, GetParam());
    examples::RecordOrder order = Order(u"DONE.RZV", true, 3);
    VrkFsHandle player = 0;
    order.watch = [&](RecordStep step, std::uint32_t) {
        if (step == RecordStep::kAnnounced) {
            player = Follow(order.path, {step});
        }
        return true;
    };
    ASSERT_TRUE(examples::Record(NewClient().get(), order));
    const std::filesystem::path disks = StationPath() / "card0";
    const std::filesystem::path then = directory_.Path() / "then";
    std::filesystem::copy(disks, then);
    Leave(player, {RecordStep::kClosed, 24});
    CloseDoor();
    Stop();
    std::filesystem::copy(then, disks,
                          std::filesystem::copy_options::recursive | std::filesystem::copy_options::overwrite_existing);
    Start();
    OpenDoor();
    ExpectClip(order);
}

// The driver tells nobody that a disk does not take the tables; a recorder learns it all the same.
TEST_P(DroppedRecording, IsNotDoneWithoutItsTables) {
    StartVolume(2, GetParam());
    examples::RecordOrder order = Order(u"REFUSED.RZV", true, 4);
    order.watch = [&](RecordStep step, std::uint32_t) {
        if (step == RecordStep::kTableLetGo) {
            Board().Misbehave().Add({.operation = board::Operation::kWrite});
        }
        return true;
    };
    std::string problem;
    try {
        (void)examples::Record(NewClient().get(), order);
    } catch (const std::runtime_error& error) {
        problem = error.what();
    }
    EXPECT_EQ(problem, "store the tables: STATUS_IO_DEVICE_ERROR");
    Board().Misbehave().Clear();
}

INSTANTIATE_TEST_SUITE_P(Through, DroppedRecording, testing::Bool(),
                         [](const auto& row) { return row.param ? "Socket" : "Machine"; });

}  // namespace
}  // namespace tests
