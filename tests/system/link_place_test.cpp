// The socket's place, whom it serves, and daemons that are none.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <future>

#include "link/remote_process.h"
#include "tests/system/link_fixture.h"

namespace tests {
namespace {

using LinkPlace = LinkTest;
namespace fs = std::filesystem;

vlink::Descriptor BoundTo(const fs::path& path) {
    vlink::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    vlink::Address address;
    EXPECT_EQ(address.Set(path), 0);
    EXPECT_EQ(bind(socket.Get(), address.Get(), vlink::Address::kSize), 0);
    return socket;
}

TEST_F(LinkPlace, IsWhereItIsToldUnlessItIsAnothers) {
    fs::path deep = directory_.Path();
    for (int i = 0; i < 5; ++i) {
        deep /= std::string(40, 'd');
    }
    fs::create_directories(deep);
    deep /= "socket";
    host::Problem problem;
    const auto start = [&](const fs::path& path) { return vlink::Server::Start(Machine(), path, log_, problem); };
    auto second = start(deep);
    ASSERT_TRUE(second) << problem.what;
    EXPECT_EQ(fs::status(deep).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_TRUE(vlink::Connect(deep, problem));
    EXPECT_EQ(start(deep), nullptr);
    EXPECT_TRUE(problem.inUse);
    // Another in its place is not its own to remove.
    ASSERT_TRUE(fs::remove(deep));
    const auto heir = start(deep);
    ASSERT_TRUE(heir);
    second.reset();
    EXPECT_TRUE(vlink::Connect(deep, problem));

    // A socket that its daemon left behind, and a file that is none.
    const fs::path dead = directory_.Path() / "dead";
    const fs::path nowhere = "/nowhere/at/all";
    BoundTo(dead).Reset();
    EXPECT_EQ(vlink::Connect(dead, problem), nullptr);
    EXPECT_FALSE(problem);
    EXPECT_TRUE(start(dead)) << problem.what;
    EXPECT_FALSE(fs::exists(dead));
    EXPECT_EQ(start(StationPath() / "registry.json"), nullptr);
    EXPECT_TRUE(fs::exists(StationPath() / "registry.json"));
    EXPECT_EQ(start(nowhere), nullptr);
    for (const fs::path& path : {dead, directory_.Path() / "none", nowhere}) {
        EXPECT_EQ(vlink::Connect(path, problem), nullptr);
        EXPECT_FALSE(problem) << problem.what;
    }
}

// Even where the file lets others in.
TEST_F(LinkPlace, ServesItsOwnUserOnly) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can be somebody else";
    }
    for (const fs::path& path : {directory_.Path(), StationPath(), SocketPath()}) {
        fs::permissions(path, fs::perms::all);
    }
    std::async(std::launch::async, [&] {
        ASSERT_EQ(syscall(SYS_setresuid, -1, 65534, -1), 0);  // of this thread alone
        EXPECT_EQ(Stranger(SocketPath()).Hello(Kind::kAdministration).welcome, vlink::Welcome::kNotAllowed);
    }).wait();
    prctl(PR_SET_DUMPABLE, 1);  // which it took from the whole program
    EXPECT_TRUE(diary_.Says("of user 65534"));
    EXPECT_TRUE(NewProcess());
}

// ---- Daemons that are none ----

bool Says(const vlink::Descriptor& socket, const Bytes& bytes, int descriptor = -1) {
    const std::span<const std::byte> piece(bytes);
    return vlink::SendNow(socket.Get(), std::span(&piece, 1), descriptor) == std::ssize(bytes);
}

// A process of a daemon that has its answer to the first question ready, and says nothing more.
struct Deceived {
    explicit Deceived(const Bytes& answer, int descriptor = -1) {
        int ends[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        daemon = vlink::Descriptor(ends[0]);
        EXPECT_TRUE(Says(daemon, answer, descriptor));
        shutdown(daemon.Get(), SHUT_WR);
        process.emplace(vlink::Descriptor(ends[1]));
    }
    vlink::Descriptor daemon;
    std::optional<vlink::RemoteProcess> process;
};

TEST(BrokenDaemon, EndsTheConnectionAndHarmsNobody) {
    const auto answer = [](std::uint16_t flags, std::uint32_t status, std::size_t bytes, std::uint64_t id = 2,
                           Op op = Op::kQueryInformation) {
        return FrameOf(op, id, flags, vlink::AnswerRecord{status, 0, bytes, 0}, Bytes(bytes));
    };
    const std::pair<const char*, Bytes> rows[] = {
        {"closes", {}},
        {"no frame", Joined(std::string("what is it that you want of me?"))},
        {"another id", answer(0, 0, 8, 3)},
        {"another operation", answer(0, 0, 8, 2, Op::kFlush)},
        {"more than was asked for", answer(0, 0, 9)},
        {"half an answer", FrameOf(Op::kQueryInformation, 2, 0, Bytes(10))},
        {"starts what is not overlapped", answer(vlink::kStarted, 0x103, 0)},
        {"pending for ever", answer(0, 0x103, 0)},
        {"a descriptor that it did not send", answer(vlink::kDescriptor, 0, 8)},
    };
    Bytes buffer(8);
    for (const auto& [name, bytes] : rows) {
        SCOPED_TRACE(name);
        Deceived deceived(bytes);
        EXPECT_EQ(Said(deceived.process->QueryInformation(4, 5, buffer)), "STATUS_PORT_DISCONNECTED, 0");
        EXPECT_EQ(deceived.process->Flush(4), host::status::kPortDisconnected);
    }
    // It says twice that a request is under way.
    const Bytes started = answer(vlink::kStarted, 0x103, 0, 2, Op::kNotify);
    Deceived twice(Joined(started, started));
    EXPECT_EQ(Watch(*twice.process, 4)->End(), "STATUS_PORT_DISCONNECTED");
    // Memory that is not as large as it says, can be cut, or is not there.
    const std::pair<int, int> memories[] = {{4096, F_SEAL_SHRINK}, {8192, F_SEAL_GROW}, {0, 0}};
    for (const auto& [bytes, seals] : memories) {
        SCOPED_TRACE(bytes);
        vlink::Descriptor memory(bytes == 0 ? -1 : memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING));
        if (memory) {
            ASSERT_EQ(ftruncate(memory.Get(), bytes), 0);
            ASSERT_EQ(fcntl(memory.Get(), F_ADD_SEALS, seals), 0);
        }
        const std::uint16_t flags = memory ? vlink::kDescriptor : 0;
        Deceived deceived(FrameOf(Op::kAllocateMemory, 2, flags, vlink::AnswerRecord{0, 16, 8192, 0}), memory.Get());
        host::Process::NamedMemory named;
        EXPECT_EQ(deceived.process->AllocateMemory(8192, named), host::status::kInsufficientResources);
    }
}

TEST(BrokenDaemon, IsNotConnectedTo) {
    using vlink::Welcome;
    const auto hello = [](Welcome welcome, std::uint32_t cards, std::uint32_t index) {
        return FrameOf(Op::kHello, 1, 0, vlink::HelloAnswer{vlink::kMagic, 1, welcome, 1, 0, cards},
                       vlink::CardRecord{index, 'P'});
    };
    const std::pair<Bytes, const char*> rows[] = {
        {Bytes(), "went away"},
        {Joined(std::string("220 mail.example ESMTP")), "no vrkfs daemon"},
        {hello(Welcome::kYes, 2, 0), "no vrkfs daemon"},
        {hello(Welcome::kYes, 1, 10), "no vrkfs daemon"},
        {hello(Welcome::kYes, 0xFFFFFFFF, 0), "no vrkfs daemon"},
        {hello(Welcome::kNotAllowed, 1, 0), "serves its own user only"},
        {hello(Welcome::kOtherVersion, 1, 0), "another version"},
    };
    const TemporaryDirectory directory;
    const auto place = directory.Path() / "socket";
    const vlink::Descriptor listener = BoundTo(place);
    ASSERT_EQ(listen(listener.Get(), 4), 0);
    for (const auto& [answer, words] : rows) {
        const auto daemon = std::async(std::launch::async, [&, bytes = answer] {
            EXPECT_TRUE(Says(vlink::Descriptor(accept(listener.Get(), nullptr, nullptr)), bytes));
        });
        host::Problem problem;
        EXPECT_EQ(vlink::Connect(place, problem), nullptr);
        EXPECT_NE(problem.what.find(words), std::string::npos) << problem.what;
    }
}

}  // namespace
}  // namespace tests
