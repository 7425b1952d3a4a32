// Clients that break the rules, ask for too much, or stay silent: they harm nobody else.
#include <sys/resource.h>

#include <future>

#include "tests/system/link_fixture.h"

namespace tests {
namespace {

using LinkHostile = LinkTest;
using vlink::Place;

template <typename Record>
Bytes With(Bytes frame, std::size_t place, const Record& value) {
    std::memcpy(frame.data() + place, &value, sizeof(value));
    return frame;
}
IoRecord Placed(Place in, Place out, host::Handle handle = 4) {
    return {handle, 0, vlink::kHasOffset, 0, 0, in, out};
}

struct Attack {
    const char* name;
    bool introduced;  // as a process
    Bytes bytes;
    const char* reason;
};

std::vector<Attack> Attacks() {
    constexpr std::uint32_t kMagic = vlink::kMagic;
    const auto hello = [](std::uint32_t magic, std::uint16_t version, Kind kind, std::uint64_t id) {
        return FrameOf(Op::kHello, id, 0, vlink::HelloRecord{magic, version, kind, 0});
    };
    const auto ask = [](Op op, const auto&... parts) { return FrameOf(op, 2, 0, parts...); };
    const auto write = [&](Place in, std::size_t bytes) { return ask(Op::kWrite, Placed(in, {}), Bytes(bytes)); };
    const Bytes flush = ask(Op::kFlush, Io(4));
    return {
        {"another protocol", false, Joined(std::string("GET / HTTP/1.1\r\n\r\n")), "a frame of 542393671 bytes"},
        {"too short for its header", true, With(flush, 0, std::uint32_t{15}), "a frame of 15 bytes"},
        {"longer than any", true, With(flush, 0, std::uint32_t{1 << 30}), "a frame of 1073741824 bytes"},
        {"no hello first", false, flush, "a request before its hello"},
        {"a wrong hello", false, hello(1, vlink::kVersion, Kind::kProcess, 1), "no hello"},
        {"a short hello", false, FrameOf(Op::kHello, 1, 0), "no hello"},
        {"another version", false, hello(kMagic, 99, Kind::kProcess, 1), "another version"},
        {"another kind", false, hello(kMagic, vlink::kVersion, Kind{7}, 1), "another version"},
        {"nobody's process", false, hello(kMagic, vlink::kVersion, Kind::kProcess, 1), "nobody here"},
        {"a second hello", true, hello(kMagic, vlink::kVersion, Kind::kProcess, 2), "a second hello"},
        {"an id again", true, Joined(flush, flush), "the id 2 behind 2"},
        {"an id from before", true, With(flush, 8, std::uint64_t{1}), "the id 1 behind 1"},
        {"an unknown operation", true, ask(Op{0x2F}, Io(4)), "an unknown operation 47"},
        {"the station's operations", true, ask(Op::kReleaseDisks, Io(0)), "the wrong connection"},
        {"half a record", true, ask(Op::kFlush, Bytes(20)), "cut short"},
        {"half a create", true, ask(Op::kCreate, Bytes(20)), "cut short"},
        {"half a character", true, ask(Op::kCreate, Bytes(27)), "cut short"},
        {"less data than it says", true, write({0, 8, 0}, 0), "another length"},
        {"more data than it says", true, write({0, 8, 0}, 9), "another length"},
        {"data nowhere", true, write({0, 0, 1}, 0), "another length"},
        {"data in two places", true, write({5, 8, 0}, 8), "data twice"},
        {"more than a frame holds", true, ask(Op::kRead, Placed({}, {0, 65537, 0})), "more than"},
        {"a record elsewhere", true, ask(Op::kQueryInformation, Placed({}, {5, 8, 0})), "in its frame"},
        {"half a section's name", true, ask(Op::kMapSection, Placed({0, 3, 0}, {}), Bytes(3)), "half a character"},
        {"a descriptor it has not", true, FrameOf(Op::kFlush, 2, vlink::kDescriptor, Io(4)), "descriptor"},
        {"its other half never", true, Bytes(flush.begin(), flush.begin() + 30), "went away"},
    };
}

TEST_F(LinkHostile, WhoBreaksTheRulesIsDroppedAndTheOthersAreServed) {
    Stranger administration(SocketPath(), Kind::kAdministration);
    for (const Attack& attack : Attacks()) {
        SCOPED_TRACE(attack.name);
        Stranger client(SocketPath());
        if (attack.introduced) {
            EXPECT_EQ(client.Hello(Kind::kProcess, administration.Session()).magic, vlink::kMagic);
        }
        client.Send(attack.bytes);
        if (std::string(attack.reason) == "went away") {
            shutdown(client.Socket(), SHUT_WR);
        }
        EXPECT_TRUE(client.IsLetGo());
        EXPECT_TRUE(diary_.Says(attack.reason));
        EXPECT_TRUE(OthersAreServed());
    }
}

TEST_F(LinkHostile, WhoIsOnlyWrongIsAnswered) {
    (void)MakeClip();
    host::Process::NamedMemory others;
    ASSERT_TRUE(User().AllocateMemory(8192, others).Ok());
    Stranger administration(SocketPath(), Kind::kAdministration);
    Stranger client(SocketPath(), Kind::kProcess, administration.Session());
    const host::Handle file = client.Open(clip_);
    const host::Handle folder = client.Open(kFolder, true, kLooks);
    const host::Handle disks = client.Open(u"\\Device\\Vrk0");
    const std::uint32_t own = client.Ask(Op::kAllocateMemory, OfSize(8192)).value;
    std::vector<std::tuple<Op, IoRecord, const char*>> rows = {
        {Op::kRead, Placed({}, {own, 8192, 0}, file), "STATUS_SUCCESS"},
        {Op::kFlush, Io(file + 400), "STATUS_INVALID_HANDLE"},
        {Op::kRead, Io(folder, 0, 100, vlink::kHasOffset), "STATUS_ACCESS_DENIED"},
        {Op::kRead, Io(file, 0, 100, vlink::kOverlapped), "STATUS_INVALID_PARAMETER"},
        {Op::kMapSection, Io(0), "STATUS_OBJECT_NAME_INVALID"},
        {Op::kAllocateMemory, OfSize(0), "STATUS_INVALID_PARAMETER"},
        {Op::kAllocateMemory, OfSize(std::uint64_t{3} << 30), "STATUS_INSUFFICIENT_RESOURCES"},
        {Op::kAllocateMemory, OfSize(~std::uint64_t{0}), "STATUS_INSUFFICIENT_RESOURCES"},
    };
    for (const Place place :
         {Place{own, 8192, 1}, Place{own, 0xFFFFFFFF, 4096}, Place{own, 4096, ~std::uint64_t{0} - 100},
          Place{own + 16, 1, 0}, Place{others.name, 1, 0}}) {
        rows.emplace_back(Op::kRead, Placed({}, place, file), "STATUS_ACCESS_VIOLATION");
    }
    for (const auto& [op, record, status] : rows) {
        EXPECT_EQ(client.AskStatus(op, record), status) << std::hex << record.out.length << ' ' << record.offset;
    }
    // A block transfer into memory of another process.
    VrkScsiRequest blocks = ReadOfOneBlock(others.name);
    const IoRecord transfer = Io(disks, IOCTL_VRK_SCSI_COMMAND, sizeof(blocks), 0, sizeof(blocks));
    EXPECT_NE(client.AskStatus(Op::kDeviceControl, transfer, blocks), "STATUS_SUCCESS");
    blocks.HostBuffer = own;
    EXPECT_EQ(client.AskStatus(Op::kDeviceControl, transfer, blocks), "STATUS_SUCCESS");
    // What has no answer, of things that are not its own.
    client.Post(Op::kFreeMemory, Io(0, others.name));
    client.Post(Op::kCancel, Io(0));
    client.Post(Op::kCancelAll, Io(4711));
    EXPECT_EQ(client.AskStatus(Op::kFlush, Io(file)), "STATUS_SUCCESS");
    EXPECT_EQ(others.bytes[0], std::byte{0});
}

TEST_F(LinkHostile, WhoIsSilentIsDroppedWhileTheOthersAreServed) {
    const struct {
        int milliseconds;  // that the daemon is patient
        std::size_t unread;
        int questions;  // that are asked, and no answer read; negative: not even a hello
        const char* reason;
    } rows[] = {{300, 1 << 30, 20'000, "reads none"},
                {3'600'000, 1 << 16, 20'000, "reads none"},
                {300, 1 << 30, -1, "says no hello"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.milliseconds) + row.reason);
        CloseDoor();
        limits_.patience = std::chrono::milliseconds(row.milliseconds);
        limits_.unreadBytes = row.unread;
        OpenDoor();
        Stranger administration(SocketPath(), Kind::kAdministration);
        Stranger client(SocketPath());
        if (row.questions >= 0) {
            (void)client.Hello(Kind::kProcess, administration.Session());
        }
        for (int i = 0; i < row.questions; ++i) {
            client.Post(Op::kFlush, Io(4711));
        }
        EXPECT_TRUE(diary_.Says(row.reason));
        EXPECT_TRUE(examples::Record(client_.get(), Order(u"CLIP.RZV", false, 1)));
        Delete(clip_);
        EXPECT_TRUE(client.IsLetGo());
    }
}

TEST_F(LinkHostile, WhatIsTooMuchIsRefused) {
    CloseDoor();
    limits_.connections = 4;
    limits_.requests = 3;
    limits_.threads = 2;
    OpenDoor();
    const auto folder = OpenIn(User(), kFolder, kLooks, true);
    for (int round = 0; round < 2; ++round) {
        std::vector<PostedPtr> watches(3);
        std::ranges::generate(watches, [&] { return Watch(User(), folder.Get()); });
        EXPECT_EQ(Watch(User(), folder.Get())->End(), "STATUS_INSUFFICIENT_RESOURCES");
        User().CancelAll(folder.Get());
        for (const PostedPtr& watch : watches) {
            EXPECT_EQ(watch->End(), "STATUS_CANCELLED");
        }
    }
    // More threads of the client's than the daemon gives it.
    std::vector<std::future<void>> threads;
    for (int i = 0; i < 5; ++i) {
        threads.push_back(std::async(std::launch::async, [&] { (void)OpenIn(User(), kFolder); }));
    }
    threads.clear();

    const auto fourth = NewProcess();
    host::Problem problem;
    EXPECT_EQ(access_->NewProcess(problem), nullptr);
    EXPECT_NE(problem.what.find("too many clients"), std::string::npos);
    EXPECT_TRUE(diary_.Says("4 connections are there"));
}

TEST_F(LinkHostile, ConnectionsWaitWhenDescriptorsRunOut) {
    vlink::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    vlink::Address address;
    ASSERT_EQ(address.Set(SocketPath()), 0);
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit none = before;
    none.rlim_cur = static_cast<rlim_t>(address.Directory()) + 1;  // whatever is free below that gets used up
    std::vector<vlink::Descriptor> used;
    setrlimit(RLIMIT_NOFILE, &none);
    while (used.empty() || used.back()) {
        used.emplace_back(dup(socket.Get()));
    }
    EXPECT_EQ(connect(socket.Get(), address.Get(), vlink::Address::kSize), 0);
    EXPECT_TRUE(diary_.Says("cannot take connections"));
    EXPECT_FALSE(diary_.Says("cannot take connections", std::chrono::milliseconds(300))) << "said twice";
    setrlimit(RLIMIT_NOFILE, &before);
    used.clear();
    EXPECT_NE(Stranger(std::move(socket)).Hello(Kind::kAdministration).session, 0u);
}

}  // namespace
}  // namespace tests
