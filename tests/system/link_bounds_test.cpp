// What one client can take of the daemon, and orders of one that has gone meanwhile.
#include "tests/system/link_fixture.h"

namespace tests {
namespace {

using LinkBounds = LinkTest;

TEST_F(LinkBounds, MemoryOfProcessesThatEndedHasNoNamesAnyMore) {
    // More than there can be at one time.
    for (int i = 0; i < 66; ++i) {
        const auto process = Machine().NewProcess();
        host::Process::NamedMemory memory;
        for (int k = 0; k < 1000; ++k) {
            ASSERT_TRUE(process->AllocateMemory(1, memory).Ok()) << i;
        }
    }
}

TEST_F(LinkBounds, MemoryIsAFewPiecesAndTheirDescriptorsAreRead) {
    CloseDoor();
    limits_.patience = std::chrono::hours(1);
    OpenDoor();
    Stranger administration(SocketPath(), Kind::kAdministration);
    Stranger modest(SocketPath(), Kind::kProcess, administration.Session());
    for (int i = 0; i < 1024; ++i) {
        ASSERT_EQ(modest.AskStatus(Op::kAllocateMemory, OfSize(1)), "STATUS_SUCCESS");
    }
    EXPECT_EQ(modest.AskStatus(Op::kAllocateMemory, OfSize(1)), "STATUS_INSUFFICIENT_RESOURCES");
    Stranger silent(SocketPath(), Kind::kProcess, administration.Session());
    for (int i = 0; i < 1024; ++i) {
        silent.Post(Op::kAllocateMemory, OfSize(1));
    }
    EXPECT_TRUE(diary_.Says("reads none"));
    EXPECT_TRUE(OthersAreServed());
}

TEST_F(LinkBounds, WhatHasNoRoomAtAllIsNotWaitedFor) {
    const auto folder = OpenIn(User(), kFolder, kLooks, true);
    const auto watch = Posted::Begin({}, Bytes(100'000), [&](Posted& posted, host::Completion done) {
        return User().NotifyChangeDirectory(folder.Get(), 0x1FF, true, posted.out, std::move(done), &posted.id);
    });
    const auto large = std::make_unique_for_overwrite<std::byte[]>(300 << 20);
    const std::span<std::byte> bytes(large.get(), 300 << 20);
    EXPECT_EQ(User().ReadOverlapped(folder.Get(), bytes, 0, {}, nullptr), host::status::kInsufficientResources);
    User().CancelAll(folder.Get());
    EXPECT_EQ(watch->End(), "STATUS_CANCELLED");
}

TEST_F(LinkBounds, DisksAreNotReleasedForAProgramThatHasGone) {
    const Bytes image = MakeClip();
    for (int i = 0; i < 40; ++i) {
        Stranger administration(SocketPath(), Kind::kAdministration);
        administration.Post(Op::kReleaseDisks, Io(0));
        administration.Die();
        ASSERT_TRUE(diary_.Says("went away"));
        ASSERT_TRUE(ReadWhole(clip_) == image) << i;
    }
}

}  // namespace
}  // namespace tests
