// One end of the socket goes: nothing of a client stays behind, and everything of a daemon's clients ends.
#include <future>

#include "tests/system/link_fixture.h"

namespace tests {
namespace {

using LinkEnd = LinkTest;

// Reads of the disks' first blocks stay in the board until they are cancelled.
const board::Misbehaviour kHold{.what = board::Wrong::kHold, .operation = board::Operation::kRead, .lastLba = 0};

TEST_F(LinkEnd, NothingIsLeftOfAClientThatDies) {
    (void)MakeClip();
    Stranger administration(SocketPath(), Kind::kAdministration);
    Stranger client(SocketPath(), Kind::kProcess, administration.Session());
    const host::Handle folder = client.Open(kFolder, true, kLooks);
    EXPECT_NE(client.Open(clip_), host::kNoHandle);
    for (const std::uint32_t room : {4096u, 65536u}) {
        EXPECT_EQ(client.Ask(Op::kNotify, Io(folder, kAllChanges, room)).status, host::status::kPending.code);
    }
    const VrkScsiRequest blocks = ReadOfOneBlock(client.Ask(Op::kAllocateMemory, OfSize(1 << 20)).value);
    Board().Misbehave().Add(kHold);
    for (const host::Handle disks : {client.Open(u"\\Device\\Vrk0"), client.Open(u"\\Device\\Vrk0", true)}) {
        client.Post(Op::kDeviceControl, Io(disks, IOCTL_VRK_SCSI_COMMAND, sizeof(blocks), 0, sizeof(blocks)), blocks);
    }
    ASSERT_TRUE(Eventually([&] { return Board().HeldCount() == 2; }));
    client.Die();
    ASSERT_TRUE(diary_.Says("went away"));
    Board().Misbehave().Clear();
    // It had the clip for itself.
    EXPECT_FALSE(ReadWhole(clip_).empty());
    Delete(clip_);
    EXPECT_FALSE(diary_.Says("dropped", {}));
}

TEST_F(LinkEnd, EverythingEndsWhenTheDaemonGoes) {
    const auto folder = OpenIn(User(), kFolder, kLooks, true);
    const auto disks = OpenIn(User(), u"\\Device\\Vrk0");
    host::Process::NamedMemory memory;
    ASSERT_TRUE(User().AllocateMemory(8192, memory).Ok());
    const PostedPtr watch = Watch(User(), folder.Get());
    Board().Misbehave().Add(kHold);
    auto reading = std::async(std::launch::async, [&] {
        VrkScsiRequest blocks = ReadOfOneBlock(memory.name);
        return User().DeviceControl(disks.Get(), IOCTL_VRK_SCSI_COMMAND, BytesOf(blocks), WritableBytesOf(blocks));
    });
    ASSERT_TRUE(Eventually([&] { return Board().HeldCount() > 0; }));
    server_.reset();
    Board().Misbehave().Clear();
    EXPECT_EQ(Said(reading.get()), "STATUS_PORT_DISCONNECTED, 0");
    for (const PostedPtr& ended : {watch, Watch(User(), folder.Get())}) {
        EXPECT_EQ(ended->End(), "STATUS_PORT_DISCONNECTED");
    }
    EXPECT_EQ(User().Flush(disks.Get()), host::status::kPortDisconnected);
    EXPECT_EQ(User().Create({}).status, host::status::kPortDisconnected);
    memory.bytes[8191] = std::byte{1};  // what was mapped stays
    EXPECT_TRUE(access_->SyncImages());
    host::Problem problem;
    EXPECT_EQ(access_->NewProcess(problem), nullptr);
    EXPECT_TRUE(problem);
    EXPECT_FALSE(std::filesystem::exists(SocketPath()));
}

TEST_F(LinkEnd, DisksReleasedByAClientThatDiesAreTakenBackBeforeItsLockGoes) {
    const Bytes image = MakeClip();
    // However its connections go, and in which order.
    for (const bool processFirst : {true, false}) {
        for (const bool polite : {true, false}) {
            SCOPED_TRACE(std::string(processFirst ? "process" : "administration") + (polite ? " politely" : ""));
            Stranger administration(SocketPath(), Kind::kAdministration);
            Stranger client(SocketPath(), Kind::kProcess, administration.Session());
            const VrkFsLockRequest drop{1};
            const IoRecord lock = Io(client.Open(u"VrkFsDevice0"), IOCTL_VRKFS_LOCK_FILE_SYSTEM, 0, 0, sizeof(drop));
            ASSERT_EQ(client.AskStatus(Op::kDeviceControl, lock, drop), "STATUS_SUCCESS");
            Stranger meddler(SocketPath(), Kind::kAdministration);
            EXPECT_EQ(meddler.Ask(Op::kTakeDisks, Io(0)).extra, 0u) << "nobody has released them";
            const vlink::AnswerRecord released = administration.Ask(Op::kReleaseDisks, Io(0));
            EXPECT_EQ(released.status | released.extra, 0u);
            EXPECT_NE(meddler.Ask(Op::kReleaseDisks, Io(0)).extra, 0u) << "somebody has them";
            Stranger& first = processFirst ? client : administration;
            if (polite) {
                first.Send(FrameOf(Op::kGoodbye, 1000, 0));
                EXPECT_TRUE(first.IsLetGo());
            } else {
                first.Die();
            }
            EXPECT_TRUE(diary_.Says("are taken back"));
            (processFirst ? administration : client).Die();
            EXPECT_TRUE(Eventually([&] { return OthersAreServed(); }));
            EXPECT_TRUE(ReadWhole(clip_) == image);
        }
    }
}

}  // namespace
}  // namespace tests
