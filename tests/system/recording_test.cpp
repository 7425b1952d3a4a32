// Recording and playing as applications do it: past the file system, with the driver keeping the books. And what is
// left when a recorder ends in the middle.
#include <condition_variable>
#include <future>
#include <mutex>

#include "tests/system/client_fixture.h"

namespace tests {
namespace {

// Makes the recorder wait for the player at a certain field, so that a clip is followed live however threads run.
class Meeting {
  public:
    explicit Meeting(std::uint32_t field) : field_(field) {}
    void PlayerAt(std::uint32_t fields) {
        const std::lock_guard hold(lock_);
        played_ = fields;
        changed_.notify_all();
    }
    void PlayerEnds() { PlayerAt(~0u); }
    void RecorderAt(std::uint32_t fields) {
        std::unique_lock hold(lock_);
        changed_.wait(hold, [&] { return fields != field_ || played_ >= field_; });
    }

  private:
    const std::uint32_t field_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::uint32_t played_ = 0;
};

struct Setup {
    std::uint32_t disks;
    bool alpha;
    bool is625;
    bool socket;
};

class Recording : public ClientTest, public testing::WithParamInterface<Setup> {};

// Field k lies on disk k modulo the disk count, and all disks give as much as the fullest needs.
std::uint64_t BlocksOnFullestDisk(const examples::RecordOrder& order, std::uint32_t stream, std::uint32_t disks) {
    std::vector<std::uint64_t> used(disks);
    for (std::uint32_t field = 0; field < order.frames * VRKFS_FIELDS_PER_FRAME; ++field) {
        used[field % disks] += examples::FieldSectors(order.pattern, stream, field);
    }
    return *std::max_element(used.begin(), used.end());
}

TEST_P(Recording, IsPlayedWhileItIsMadeAndReadsBackEqual) {
    StartVolume(GetParam().disks, GetParam().socket);
    examples::RecordOrder order = Order(u"CLIP.RZV", GetParam().alpha, 7);
    order.is625 = GetParam().is625;
    const std::uint64_t free = FreeBlocks();

    Meeting meeting(order.frames);  // half of the fields
    examples::PlayOrder play;
    play.path = order.path;
    play.patience = std::chrono::seconds(120);
    play.watch = [&](std::uint32_t fields) { meeting.PlayerAt(fields); };
    order.watch = [&](examples::RecordStep, std::uint32_t fields) {
        meeting.RecorderAt(fields);
        return true;
    };
    auto playing = std::async(std::launch::async, [&] {
        const client::ClientPointer player = NewClient();
        const auto end = std::shared_ptr<void>(nullptr, [&](void*) { meeting.PlayerEnds(); });
        return examples::Play(player.get(), play);
    });
    {
        const client::ClientPointer recorder = NewClient();
        EXPECT_TRUE(examples::Record(recorder.get(), order));
    }
    const examples::PlayReport report = playing.get();
    EXPECT_TRUE(report.ended);
    EXPECT_EQ(report.fields, order.frames * VRKFS_FIELDS_PER_FRAME);
    EXPECT_EQ(report.wrongFields, 0u);
    EXPECT_GE(report.liveFields, order.frames - 1);

    std::uint64_t used =
        2 + BlocksOnFullestDisk(order, VRKFS_STREAM_VIDEO, disks_) + VrkFsBodyTableSectors(order.frames);
    if (order.alpha) {
        used += BlocksOnFullestDisk(order, VRKFS_STREAM_ALPHA, disks_) + VrkFsBodyTableSectors(order.frames);
    }
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round == 0 ? "at once" : "after a restart");
        ExpectClip(order);
        EXPECT_EQ(FreeBlocks(), free - used);
        play.watch = nullptr;
        const examples::PlayReport again = examples::Play(client_.get(), play);
        EXPECT_TRUE(again.ended);
        EXPECT_EQ(again.fields, report.fields);
        EXPECT_EQ(again.wrongFields + again.liveFields, 0u);
        RestartVolume();
    }
}

INSTANTIATE_TEST_SUITE_P(Volumes, Recording,
                         testing::Values(Setup{1, false, true, true}, Setup{1, true, false, false},
                                         Setup{2, false, false, false}, Setup{2, true, true, false},
                                         Setup{4, false, true, false}, Setup{4, true, false, true}),
                         [](const testing::TestParamInfo<Setup>& row) {
                             return "On" + std::to_string(row.param.disks) + (row.param.alpha ? "WithAlpha" : "") +
                                    (row.param.socket ? "ThroughSocket" : "");
                         });

// ---- A recorder that ends in the middle ----

using examples::RecordStep;

struct Drop {
    RecordStep step;
    std::uint32_t fields = 0;
};

constexpr Drop kDrops[] = {
    {RecordStep::kOpened},     {RecordStep::kVideoSpace},  {RecordStep::kAlphaSpace},     {RecordStep::kTableMade},
    {RecordStep::kNodesAdded}, {RecordStep::kAnnounced},   {RecordStep::kField, 1},       {RecordStep::kField, 11},
    {RecordStep::kField, 24},  {RecordStep::kSettled, 24}, {RecordStep::kTableLetGo, 24},
};

struct Company {
    bool followed;
    bool socket;
};

class DroppedRecording : public ClientTest, public testing::WithParamInterface<Company> {
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
    const bool followed = GetParam().followed;
    StartVolume(2, GetParam().socket);
    const examples::RecordOrder kept = Order(u"KEEP.RZV", true, 1);
    ASSERT_TRUE(examples::Record(client_.get(), kept));
    const std::uint64_t free = FreeBlocks();

    for (const Drop& drop : kDrops) {
        SCOPED_TRACE("step " + std::to_string(static_cast<int>(drop.step)) + ", fields " + std::to_string(drop.fields));
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
            EXPECT_OK(VrkFsClientClose(client_.get(), OpenFile(order.path, VRKFS_OPEN_READ | VRKFS_OPEN_WRITE)));
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

INSTANTIATE_TEST_SUITE_P(Player, DroppedRecording,
                         testing::Values(Company{false, false}, Company{true, false}, Company{true, true}),
                         [](const auto& row) {
                             return std::string(row.param.followed ? "Followed" : "Alone") +
                                    (row.param.socket ? "ThroughSocket" : "");
                         });

}  // namespace
}  // namespace tests
