// A machine reached through its socket: that every call means what it means within the program, what is left when one
// end goes, and that neither end can be harmed by the other.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <future>
#include <random>

#include "link/remote_process.h"
#include "tests/system/link_fixture.h"

namespace tests {
namespace {

using vlink::IoRecord;
using vlink::Op;

constexpr std::uint32_t kReadWrite = host::access::kReadData | host::access::kWriteData | host::access::kReadAttributes;
constexpr std::uint32_t kAllChanges = 0x1FF;
constexpr std::uint32_t kStandardInformation = 5;

class Link : public LinkTest {
  protected:
    void SetUp() override { StartVolume(2, true); }

    host::ScopedHandle OpenIn(host::Process& process, const std::u16string& path, bool overlapped = false,
                              host::Disposition disposition = host::Disposition::kOpen,
                              std::uint32_t access = kReadWrite) {
        host::OpenRequest request;
        request.path = path;
        request.access = access;
        request.disposition = disposition;
        request.overlapped = overlapped;
        const host::OpenResult opened = process.Create(request);
        EXPECT_EQ(host::StatusName(opened.status), "STATUS_SUCCESS");
        return {process, opened.handle};
    }
    // Reads of the disks' first blocks stay in the board until they are cancelled.
    void HoldFirstBlocks() {
        board::Misbehaviour hold;
        hold.what = board::Wrong::kHold;
        hold.operation = board::Operation::kRead;
        hold.lastLba = 0;
        Board().Misbehave().Add(hold);
    }
    // A clip of some megabytes, and its image.
    Bytes MakeClip(const std::u16string& name) {
        examples::RecordOrder order = Order(name, true, 5);
        order.frames = 100;
        EXPECT_TRUE(examples::Record(client_.get(), order));
        return ReadWhole(order.path);
    }
};

// ---- Every call ----

std::string Said(const host::IoResult& result) {
    return host::StatusName(result.status) + ", " + std::to_string(result.information);
}

// Sizes around what goes in a frame, in a window, and in pieces.
constexpr std::size_t kSizes[] = {
    0, 1, 511, 16 << 10, (16 << 10) + 1, 64 << 10, 256 << 10, (256 << 10) + 1, 1 << 20, (1 << 20) + 77};

TEST_F(Link, MovesDataOfEverySizeAsTheMachineDoes) {
    const Bytes image = MakeClip(u"CLIP.RZV");
    ASSERT_GT(image.size(), 2u << 20);
    const auto inside = Insider();
    const auto near = OpenIn(*inside, Path(u"CLIP.RZV"));
    const auto far = OpenIn(User(), Path(u"CLIP.RZV"));
    host::Process::NamedMemory memory;
    ASSERT_TRUE(User().AllocateMemory(2 << 20, memory).Ok());
    for (const std::size_t size : kSizes) {
        for (const std::uint64_t offset : {std::uint64_t{0}, std::uint64_t{12345}, image.size() - (256 << 10),
                                           image.size() - 100, std::uint64_t{image.size()}, ~std::uint64_t{0}}) {
            SCOPED_TRACE(std::to_string(size) + " at " + std::to_string(offset));
            Bytes wanted(size);
            Bytes got(size);
            const std::string outcome = Said(inside->Read(near.Get(), wanted, offset));
            EXPECT_EQ(Said(User().Read(far.Get(), got, offset)), outcome);
            EXPECT_TRUE(got == wanted);
            std::ranges::fill(memory.bytes, std::byte{0});
            EXPECT_EQ(Said(User().Read(far.Get(), memory.bytes.subspan(4096, size), offset)), outcome);
            EXPECT_TRUE(std::ranges::equal(memory.bytes.subspan(4096, size), wanted));
        }
    }
    // Memory that comes back is empty, and no longer its old self.
    const std::uint32_t oldName = memory.name;
    User().FreeMemory(memory);
    ASSERT_TRUE(User().AllocateMemory(2 << 20, memory).Ok());
    EXPECT_NE(memory.name, oldName);
    EXPECT_TRUE(
        std::all_of(memory.bytes.begin(), memory.bytes.end(), [](std::byte byte) { return byte == std::byte{0}; }));

    // A copy, written at the handle's position in steps of every size, and one in a single call.
    const auto inSteps = OpenIn(User(), Path(u"STEPS.RZV"), false, host::Disposition::kCreate);
    const auto inOne = OpenIn(User(), Path(u"ONE.RZV"), false, host::Disposition::kCreate);
    EXPECT_EQ(User().Write(inOne.Get(), image, 0).information, image.size());
    EXPECT_EQ(User().Write(inSteps.Get(), std::span(image).first(100'000), std::nullopt).information, 100'000u);
    for (std::size_t at = 100'000, step = 1; at < image.size(); ++step) {
        const std::size_t size = std::min(kSizes[step % std::size(kSizes)], image.size() - at);
        const auto part = std::span(image).subspan(at, size);
        const bool named = step % 3 == 0;
        std::ranges::copy(part, memory.bytes.begin());
        ASSERT_EQ(User().Write(inSteps.Get(), named ? memory.bytes.first(size) : part, std::nullopt).information, size);
        at += size;
    }
    for (const char16_t* name : {u"STEPS.RZV", u"ONE.RZV"}) {
        EXPECT_TRUE(ReadWhole(Path(name)) == image);
    }
}

TEST_F(Link, CarriesWhatIsAskedOfFilesAndFolders) {
    const auto inside = Insider();
    (void)MakeClip(u"CLIP.RZV");
    // Everything is asked of both, and both say the same.
    const auto ask = [&](host::Process& process) {
        std::vector<std::string> said;
        const auto note = [&](host::IoResult result, std::span<const std::byte> bytes = {}) {
            std::string line = Said(result);
            for (const std::byte byte : bytes.first(std::min<std::size_t>(bytes.size(), result.information))) {
                line += " " + std::to_string(std::to_integer<int>(byte));
            }
            said.push_back(line);
        };
        const auto folder = OpenIn(process, u"P:\\RZV\\VOL\\CLIPS", false, host::Disposition::kOpen, 0x81);
        {
            const auto file = OpenIn(process, Path(u"CLIP.RZV"), false, host::Disposition::kOpen, 0x10181);
            Bytes buffer(200'000);
            for (const std::uint32_t informationClass : {4u, 5u, 9u, 18u, 22u, 99u}) {
                std::ranges::fill(buffer, std::byte{0});
                note(process.QueryInformation(file.Get(), informationClass, std::span(buffer).first(150)), buffer);
            }
            for (const std::uint32_t informationClass : {1u, 3u, 5u, 77u}) {
                std::ranges::fill(buffer, std::byte{0});
                note(process.QueryVolumeInformation(file.Get(), informationClass, buffer), buffer);
            }
            const Bytes large(70'000);
            note(process.SetInformation(file.Get(), 10, large));
            note(process.SetVolumeInformation(file.Get(), 2, std::span(large).first(8)));
            note({host::Rename(process, file.Get(), u"OTHER.RZV")});
            note({host::SetLastWriteTime(process, file.Get(), 132'000'000'000'000'000)});
            note({host::Rename(process, file.Get(), u"CLIP.RZV")});
            note({process.Flush(file.Get())});
            note(process.DeviceControl(file.Get(), 0x222000, large, buffer));
            note(process.FileSystemControl(file.Get(), 0x90018, {}, {}));
            std::vector<host::DirectoryEntry> entries;
            note({host::ListDirectory(process, folder.Get(), entries, u"*.RZV")});
            for (const host::DirectoryEntry& entry : entries) {
                note({{}, entry.size}, std::as_bytes(std::span(entry.name)));
            }
            note(process.QueryDirectory(folder.Get(), {1, u"*", true, true, std::nullopt}, buffer), buffer);
            note(process.QueryDirectory(folder.Get(), {1, std::nullopt, false, false, 0}, std::span(buffer).first(10)));
        }
        host::OpenRequest request;
        request.root = folder.Get();
        request.path = u"CLIP.RZV";
        const host::OpenResult relative = process.Create(request);
        note({relative.status, relative.action});
        note({process.Close(relative.handle)});
        note({process.Close(relative.handle)});
        note({process.Flush(4711)});
        for (const std::u16string path :
             {u"P:\\RZV\\NONE", u"Q:", u"", u"\\Device\\Vrk7", u"P:\\RZV\\VOL\\CLIPS\\A:B"}) {
            host::OpenRequest wrong;
            wrong.path = path;
            note({process.Create(wrong).status});
        }
        host::Process::SectionView view;
        note({process.MapSection(u"P:/RZV/VOL/CLIPS/CLIP.RZV", true, view)});
        host::Process::NamedMemory memory;
        note({process.AllocateMemory(0, memory)});
        return said;
    };
    (void)ask(*inside);  // sets the time that the others find
    const std::vector<std::string> wanted = ask(*inside);
    const std::vector<std::string> got = ask(User());
    ASSERT_EQ(got.size(), wanted.size());
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        EXPECT_EQ(got[i], wanted[i]) << "answer " << i;
    }
}

class Overlapped : public LinkTest, public testing::WithParamInterface<bool> {};

INSTANTIATE_TEST_SUITE_P(Through, Overlapped, testing::Bool(),
                         [](const auto& row) { return row.param ? "Socket" : "Machine"; });

TEST_P(Overlapped, RequestsEndOnceAndAsTheyShould) {
    StartVolume(2, GetParam());
    host::Process& user = User();
    const auto open = [&](const std::u16string& path, bool overlapped) {
        host::OpenRequest request;
        request.path = path;
        request.overlapped = overlapped;
        return user.Create(request).handle;
    };
    Endings endings;
    Bytes buffer(4096);
    host::RequestId id = 0;
    const auto watch = [&](host::Handle handle) {
        return user.NotifyChangeDirectory(handle, kAllChanges, true, buffer, endings.Next(), &id);
    };
    host::Handle folder = open(u"P:\\RZV\\VOL\\CLIPS", true);
    examples::RecordOrder order = Order(u"CLIP.RZV", true, 1);
    order.frames = 80;
    ASSERT_TRUE(examples::Record(client_.get(), order));
    EXPECT_TRUE(watch(folder).Pending());
    // A handle's first watch begins somewhat after the call.
    EXPECT_TRUE(Eventually([&] {
        EXPECT_OK(VrkFsClientClose(client_.get(), OpenFile(Path(u"NEW.RZV"), VRKFS_OPEN_WRITE | VRKFS_OPEN_CREATE)));
        Delete(Path(u"NEW.RZV"));
        return endings.Count() > 0;
    }));
    EXPECT_EQ(endings.TakeStatus(), "STATUS_NOTIFY_ENUM_DIR");
    // This one may still be told of what came since; another handle is not.
    EXPECT_TRUE(user.Close(folder).Ok());
    folder = open(u"P:\\RZV\\VOL\\CLIPS", true);
    EXPECT_TRUE(watch(folder).Pending());
    user.Cancel(id);
    user.Cancel(id + 100);
    EXPECT_EQ(endings.TakeStatus(), "STATUS_CANCELLED");
    EXPECT_TRUE(watch(folder).Pending());
    user.CancelAll(folder);
    EXPECT_EQ(endings.TakeStatus(), "STATUS_CANCELLED");
    EXPECT_TRUE(watch(folder).Pending());
    EXPECT_TRUE(user.Close(folder).Ok());
    EXPECT_EQ(endings.TakeStatus(), "STATUS_NOTIFY_CLEANUP");

    // What cannot start has no ending.
    const host::Handle waits = open(u"P:\\RZV\\VOL\\CLIPS", false);
    EXPECT_EQ(host::StatusName(watch(waits)), "STATUS_INVALID_PARAMETER");
    EXPECT_EQ(host::StatusName(watch(4444)), "STATUS_INVALID_HANDLE");

    const Bytes image = ReadWhole(Path(u"CLIP.RZV"));
    const host::Handle file = open(Path(u"CLIP.RZV"), true);
    std::vector<Bytes> parts;
    for (std::size_t i = 0; i < 40; ++i) {
        parts.emplace_back(i * i * 100 + 1);
    }
    std::size_t under = 0;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        under += user.ReadOverlapped(file, parts[i], i * 1000, endings.Next(), &id).Ok() ? 1 : 0;
    }
    for (const host::IoResult& result : endings.Take(under)) {
        EXPECT_EQ(host::StatusName(result.status), "STATUS_SUCCESS");
    }
    for (std::size_t i = 0; i < parts.size(); ++i) {
        EXPECT_EQ(std::memcmp(parts[i].data(), image.data() + i * 1000, parts[i].size()), 0) << i;
    }
    // A call that waits, on a handle that does not.
    Bytes whole(image.size());
    EXPECT_EQ(user.Read(file, whole, 0).information, image.size());
    EXPECT_TRUE(whole == image);

    folder = open(u"P:\\RZV\\VOL\\CLIPS", true);
    EXPECT_TRUE(watch(folder).Pending());
    process_.reset();
    EXPECT_EQ(endings.TakeStatus(), "STATUS_CANCELLED");
}

TEST_F(Link, ServesManyThreadsOfOneProcess) {
    const Bytes image = MakeClip(u"CLIP.RZV");
    const auto folder = OpenIn(User(), u"P:\\RZV\\VOL\\CLIPS", true, host::Disposition::kOpen, 0x81);
    Endings watched;
    Bytes changes(1024);
    ASSERT_TRUE(
        User().NotifyChangeDirectory(folder.Get(), kAllChanges, true, changes, watched.Next(), nullptr).Pending());
    std::vector<std::future<void>> threads;
    for (unsigned seed = 0; seed < 6; ++seed) {
        threads.push_back(std::async(std::launch::async, [&, seed] {
            std::mt19937 random(seed);
            const auto file = OpenIn(User(), Path(u"CLIP.RZV"), seed % 2 == 0, host::Disposition::kOpen, 0x81);
            Endings endings;
            for (int i = 0; i < 60; ++i) {
                Bytes got(random() % (random() % 4 == 0 ? 600'000 : 3000) + 1);
                const std::uint64_t offset = random() % (image.size() - got.size());
                host::FileFacts facts;
                EXPECT_TRUE(host::QueryFacts(User(), file.Get(), facts).Ok());
                EXPECT_EQ(facts.size, image.size());
                if (seed % 2 == 0 && i % 2 == 0) {
                    EXPECT_TRUE(User().ReadOverlapped(file.Get(), got, offset, endings.Next(), nullptr).Ok());
                    EXPECT_EQ(endings.TakeStatus(), "STATUS_SUCCESS");
                } else {
                    EXPECT_EQ(User().Read(file.Get(), got, offset).information, got.size());
                }
                EXPECT_EQ(std::memcmp(got.data(), image.data() + offset, got.size()), 0);
            }
        }));
    }
    threads.clear();
    User().CancelAll(folder.Get());
    EXPECT_EQ(watched.Take(1).size(), 1u);
}

// ---- One end goes ----

VrkScsiRequest ReadOfOneBlock(std::uint32_t memory) {
    VrkScsiRequest request{};
    request.Command = VRK_SCSI_READ;
    request.BlockCount = 1;
    request.HostBuffer = memory;
    request.HostBufferLength = VRK_BLOCK_SIZE;
    return request;
}
IoRecord ControlOf(host::Handle handle, const VrkScsiRequest& request) {
    IoRecord record = Io(handle, IOCTL_VRK_SCSI_COMMAND, sizeof(request));
    record.in.length = sizeof(request);
    return record;
}

TEST_F(Link, NothingIsLeftOfAClientThatDies) {
    (void)MakeClip(u"CLIP.RZV");
    Stranger administration(SocketPath());
    Stranger client(SocketPath());
    client.Hello(vlink::Kind::kProcess, administration.Hello(vlink::Kind::kAdministration));
    const host::Handle folder = client.Open(u"P:\\RZV\\VOL\\CLIPS", true, 0x81);
    const host::Handle file = client.Open(Path(u"CLIP.RZV"));
    const host::Handle overlapped = client.Open(u"P:\\RZV\\VOL\\CLIPS", true, 0x80);
    EXPECT_NE(overlapped, file);
    EXPECT_EQ(client.Ask(Op::kNotify, Io(folder, kAllChanges, 4096)).status, host::status::kPending.code);
    EXPECT_EQ(client.Ask(Op::kNotify, Io(folder, kAllChanges, 65536)).status, host::status::kPending.code);
    IoRecord memory{};
    memory.offset = 1 << 20;
    const VrkScsiRequest blocks = ReadOfOneBlock(client.Ask(Op::kAllocateMemory, memory).value);
    HoldFirstBlocks();
    for (const host::Handle disks : {client.Open(u"\\Device\\Vrk0"), client.Open(u"\\Device\\Vrk0", true)}) {
        client.Post(Op::kDeviceControl, ControlOf(disks, blocks), vlink::BytesOf(blocks));
    }
    ASSERT_TRUE(Eventually([&] { return Board().HeldCount() == 2; }));
    client.Die();
    ASSERT_TRUE(diary_.Says("went away"));
    Board().Misbehave().Clear();
    // It held the file for itself.
    EXPECT_EQ(ReadWhole(Path(u"CLIP.RZV")).empty(), false);
    Delete(Path(u"CLIP.RZV"));
    EXPECT_EQ(diary_.Count("dropped"), 0u);
}

TEST_F(Link, EverythingEndsWhenTheDaemonGoes) {
    (void)MakeClip(u"CLIP.RZV");
    const auto folder = OpenIn(User(), u"P:\\RZV\\VOL\\CLIPS", true, host::Disposition::kOpen, 0x81);
    const auto disks = OpenIn(User(), u"\\Device\\Vrk0");
    host::Process::NamedMemory memory;
    ASSERT_TRUE(User().AllocateMemory(8192, memory).Ok());
    Endings endings;
    Bytes changes(1024);
    const auto watch = [&] {
        return User().NotifyChangeDirectory(folder.Get(), kAllChanges, true, changes, endings.Next(), nullptr);
    };
    EXPECT_TRUE(watch().Pending());
    HoldFirstBlocks();
    auto reading = std::async(std::launch::async, [&] {
        VrkScsiRequest blocks = ReadOfOneBlock(memory.name);
        return User().DeviceControl(disks.Get(), IOCTL_VRK_SCSI_COMMAND, vlink::BytesOf(blocks),
                                    WritableBytesOf(blocks));
    });
    ASSERT_TRUE(Eventually([&] { return Board().HeldCount() > 0; }));
    server_.reset();
    Board().Misbehave().Clear();
    EXPECT_EQ(Said(reading.get()), "STATUS_PORT_DISCONNECTED, 0");
    EXPECT_EQ(endings.TakeStatus(), "STATUS_PORT_DISCONNECTED");
    EXPECT_EQ(host::StatusName(watch()), "STATUS_PORT_DISCONNECTED");
    EXPECT_EQ(host::StatusName(User().Flush(disks.Get())), "STATUS_PORT_DISCONNECTED");
    EXPECT_EQ(User().Create({}).status, host::status::kPortDisconnected);
    memory.bytes[8191] = std::byte{1};  // what was mapped stays
    EXPECT_TRUE(access_->SyncImages());
    host::Problem problem;
    EXPECT_EQ(access_->NewProcess(problem), nullptr);
    EXPECT_TRUE(problem);
    EXPECT_FALSE(std::filesystem::exists(SocketPath()));
}

TEST_F(Link, DisksReleasedByAClientThatDiesAreTakenBackBeforeItsLockGoes) {
    (void)MakeClip(u"CLIP.RZV");
    const auto image = ReadWhole(Path(u"CLIP.RZV"));
    // However its connections go, and in which order.
    for (const bool processFirst : {true, false}) {
        for (const bool polite : {true, false}) {
            SCOPED_TRACE(std::string(processFirst ? "process" : "administration") + (polite ? " politely" : ""));
            Stranger administration(SocketPath());
            Stranger client(SocketPath());
            client.Hello(vlink::Kind::kProcess, administration.Hello(vlink::Kind::kAdministration));
            const host::Handle control = client.Open(u"VrkFsDevice0");
            const VrkFsLockRequest drop{1};
            IoRecord lock = Io(control, IOCTL_VRKFS_LOCK_FILE_SYSTEM);
            lock.in.length = sizeof(drop);
            ASSERT_EQ(client.AskStatus(Op::kDeviceControl, lock, vlink::BytesOf(drop)), "STATUS_SUCCESS");
            const vlink::AnswerRecord released = administration.Ask(Op::kReleaseDisks, Io(0, 0));
            EXPECT_EQ(released.status | released.extra, 0u);
            Stranger& first = processFirst ? client : administration;
            if (polite) {
                first.Send(FrameOf(Op::kGoodbye, 1000, 0));
                EXPECT_TRUE(first.IsLetGo());
            } else {
                first.Die();
            }
            EXPECT_TRUE(diary_.Says("are taken back"));
            (processFirst ? administration : client).Die();
            EXPECT_TRUE(Eventually([&] {
                std::uint32_t count = 0;
                EXPECT_OK(VrkFsClientQueryVolumes(client_.get(), control_, nullptr, 0, &count));
                return count == 1;
            }));
            EXPECT_TRUE(ReadWhole(Path(u"CLIP.RZV")) == image);
        }
    }
}

// ---- Hostile clients ----

template <typename Record>
Bytes With(Bytes frame, std::size_t place, const Record& value) {
    std::memcpy(frame.data() + place, &value, sizeof(value));
    return frame;
}
Bytes Text(const std::string& text) {
    const auto bytes = std::as_bytes(std::span(text));
    return {bytes.begin(), bytes.end()};
}
Bytes Both(Bytes first, const Bytes& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}
Bytes HelloOf(std::uint32_t magic, std::uint16_t version, vlink::Kind kind, std::uint64_t session) {
    return FrameOf(Op::kHello, 1, 0, vlink::BytesOf(vlink::HelloRecord{magic, version, kind, session}));
}
IoRecord Placed(vlink::Place in, vlink::Place out) {
    IoRecord record = Io(4);
    record.in = in;
    record.out = out;
    return record;
}

struct Attack {
    const char* name;
    bool introduced;  // as a process
    Bytes bytes;
    const char* reason;
};

std::vector<Attack> Attacks() {
    const Bytes flush = FrameOf(Op::kFlush, 2, 0, vlink::BytesOf(Io(4)));
    const auto hello = [](std::uint32_t magic, std::uint16_t version, vlink::Kind kind) {
        return HelloOf(magic, version, kind, 0);
    };
    return {
        {"another protocol", false, Text("GET / HTTP/1.1\r\n\r\n"), "a frame of 542393671 bytes"},
        {"too short for its header", true, With(flush, 0, std::uint32_t{15}), "a frame of 15 bytes"},
        {"longer than any", true, With(flush, 0, std::uint32_t{1 << 30}), "a frame of 1073741824 bytes"},
        {"no hello first", false, flush, "a request before its hello"},
        {"a wrong hello", false, hello(1, vlink::kVersion, vlink::Kind::kProcess), "no hello"},
        {"a short hello", false, FrameOf(Op::kHello, 1, 0), "no hello"},
        {"another version", false, hello(vlink::kMagic, 99, vlink::Kind::kProcess), "another version"},
        {"another kind", false, hello(vlink::kMagic, vlink::kVersion, vlink::Kind{7}), "another version"},
        {"nobody's process", false, hello(vlink::kMagic, vlink::kVersion, vlink::Kind::kProcess), "nobody here"},
        {"a second hello", true,
         With(hello(vlink::kMagic, vlink::kVersion, vlink::Kind::kProcess), 8, std::uint64_t{2}), "a second hello"},
        {"an id again", true, Both(flush, flush), "the id 2 behind 2"},
        {"an id from before", true, With(flush, 8, std::uint64_t{1}), "the id 1 behind 1"},
        {"an unknown operation", true, FrameOf(Op{0x2F}, 2, 0, vlink::BytesOf(Io(4))), "an unknown operation 47"},
        {"the station's operations", true, FrameOf(Op::kReleaseDisks, 2, 0, vlink::BytesOf(Io(0))),
         "the wrong connection"},
        {"half a record", true, FrameOf(Op::kFlush, 2, 0, std::span(flush).first(20)), "cut short"},
        {"half a create", true, FrameOf(Op::kCreate, 2, 0, std::span(flush).first(20)), "cut short"},
        {"half a character", true, FrameOf(Op::kCreate, 2, 0, std::span(flush).first(27)), "cut short"},
        {"less data than it says", true, FrameOf(Op::kWrite, 2, 0, vlink::BytesOf(Placed({0, 8, 0}, {}))),
         "another length"},
        {"more data than it says", true,
         FrameOf(Op::kWrite, 2, 0, vlink::BytesOf(Placed({0, 8, 0}, {})), std::span(flush).first(9)), "another length"},
        {"data nowhere", true, FrameOf(Op::kWrite, 2, 0, vlink::BytesOf(Placed({0, 0, 1}, {}))), "another length"},
        {"data in two places", true,
         FrameOf(Op::kWrite, 2, 0, vlink::BytesOf(Placed({5, 8, 0}, {})), std::span(flush).first(8)), "data twice"},
        {"more than a frame holds", true, FrameOf(Op::kRead, 2, 0, vlink::BytesOf(Placed({}, {0, 65537, 0}))),
         "more than"},
        {"a record elsewhere", true, FrameOf(Op::kQueryInformation, 2, 0, vlink::BytesOf(Placed({}, {5, 8, 0}))),
         "in its frame"},
        {"half a section's name", true,
         FrameOf(Op::kMapSection, 2, 0, vlink::BytesOf(Placed({0, 3, 0}, {})), std::span(flush).first(3)),
         "half a character"},
        {"a descriptor it has not", true, FrameOf(Op::kFlush, 2, vlink::kDescriptor, vlink::BytesOf(Io(4))),
         "descriptor"},
        {"its other half never", true, Bytes(flush.begin(), flush.begin() + 30), "went away"},
    };
}

TEST_F(Link, DropsWhoBreaksTheRulesAndServesTheOthers) {
    Stranger administration(SocketPath());
    const std::uint64_t session = administration.Hello(vlink::Kind::kAdministration);
    for (const Attack& attack : Attacks()) {
        SCOPED_TRACE(attack.name);
        Stranger client(SocketPath());
        if (attack.introduced) {
            client.Hello(vlink::Kind::kProcess, session);
        }
        client.Send(attack.bytes);
        if (std::string(attack.reason) == "went away") {
            shutdown(client.Socket(), SHUT_WR);
        }
        EXPECT_TRUE(client.IsLetGo());
        EXPECT_TRUE(diary_.Says(attack.reason));
        std::uint32_t count = 0;
        EXPECT_OK(VrkFsClientQueryVolumes(client_.get(), control_, nullptr, 0, &count));
    }
}

TEST_F(Link, AnswersWhatIsOnlyWrong) {
    (void)MakeClip(u"CLIP.RZV");
    host::Process::NamedMemory others;
    ASSERT_TRUE(User().AllocateMemory(8192, others).Ok());
    Stranger administration(SocketPath());
    Stranger client(SocketPath());
    client.Hello(vlink::Kind::kProcess, administration.Hello(vlink::Kind::kAdministration));
    const host::Handle file = client.Open(Path(u"CLIP.RZV"));
    const host::Handle folder = client.Open(u"P:\\RZV\\VOL\\CLIPS", true, 0x81);
    const host::Handle disks = client.Open(u"\\Device\\Vrk0");
    IoRecord size{};
    size.offset = 8192;
    const std::uint32_t own = client.Ask(Op::kAllocateMemory, size).value;
    const auto read = [&](vlink::Place out) {
        IoRecord record = Io(file, 0, 0, vlink::kHasOffset);
        record.out = out;
        return client.AskStatus(Op::kRead, record);
    };
    EXPECT_EQ(read({own, 8192, 0}), "STATUS_SUCCESS");
    for (const vlink::Place place : {vlink::Place{own, 8192, 1}, vlink::Place{own, 0xFFFFFFFF, 4096},
                                     vlink::Place{own, 4096, ~std::uint64_t{0} - 100}, vlink::Place{own + 16, 1, 0},
                                     vlink::Place{others.name, 4096, 0}}) {
        EXPECT_EQ(read(place), "STATUS_ACCESS_VIOLATION");
    }
    // A block transfer into memory of another process.
    VrkScsiRequest blocks = ReadOfOneBlock(others.name);
    const IoRecord transfer = ControlOf(disks, blocks);
    EXPECT_NE(client.AskStatus(Op::kDeviceControl, transfer, vlink::BytesOf(blocks)), "STATUS_SUCCESS");
    blocks.HostBuffer = own;
    EXPECT_EQ(client.AskStatus(Op::kDeviceControl, transfer, vlink::BytesOf(blocks)), "STATUS_SUCCESS");

    EXPECT_EQ(client.AskStatus(Op::kFlush, Io(file + 400)), "STATUS_INVALID_HANDLE");
    EXPECT_EQ(client.AskStatus(Op::kRead, Io(folder, 0, 100, vlink::kHasOffset)), "STATUS_ACCESS_DENIED");
    EXPECT_EQ(client.AskStatus(Op::kRead, Io(file, 0, 100, vlink::kOverlapped)), "STATUS_INVALID_PARAMETER");
    EXPECT_EQ(client.AskStatus(Op::kMapSection, IoRecord{}), "STATUS_OBJECT_NAME_INVALID");
    for (const std::uint64_t bytes : {std::uint64_t{0}, std::uint64_t{3} << 30, ~std::uint64_t{0}}) {
        size.offset = bytes;
        EXPECT_NE(client.Ask(Op::kAllocateMemory, size).status, 0u);
    }
    client.Post(Op::kFreeMemory, Io(0, others.name));
    client.Post(Op::kCancel, Io(0));
    client.Post(Op::kCancelAll, Io(4711));
    EXPECT_EQ(client.AskStatus(Op::kFlush, Io(file)), "STATUS_SUCCESS");
    EXPECT_EQ(others.bytes[0], std::byte{0});
}

struct Silence {
    const char* name;
    vlink::Limits limits;
    int questions;  // that it asks without reading an answer; negative: not even a hello
    const char* reason;
};

class SilentClient : public LinkTest, public testing::WithParamInterface<Silence> {};

vlink::Limits Patient(int milliseconds, std::size_t unread) {
    vlink::Limits limits;
    limits.patience = std::chrono::milliseconds(milliseconds);
    limits.unreadBytes = unread;
    return limits;
}

INSTANTIATE_TEST_SUITE_P(Each, SilentClient,
                         testing::Values(Silence{"ReadsNothing", Patient(300, 1 << 30), 20'000, "reads none"},
                                         Silence{"ReadsTooLittle", Patient(3'600'000, 1 << 16), 20'000, "reads none"},
                                         Silence{"SaysNothing", Patient(300, 1 << 30), -1, "says no hello"}),
                         [](const auto& row) { return row.param.name; });

TEST_P(SilentClient, IsDroppedWhileOthersAreServed) {
    limits_ = GetParam().limits;
    StartVolume(2, true);
    Stranger administration(SocketPath());
    Stranger client(SocketPath());
    const std::uint64_t session = administration.Hello(vlink::Kind::kAdministration);
    if (GetParam().questions >= 0) {
        client.Hello(vlink::Kind::kProcess, session);
    }
    for (int i = 0; i < GetParam().questions; ++i) {
        client.Post(Op::kFlush, Io(4711));
    }
    EXPECT_TRUE(diary_.Says(GetParam().reason));
    EXPECT_TRUE(examples::Record(client_.get(), Order(u"CLIP.RZV", false, 1)));
    EXPECT_TRUE(client.IsLetGo());
}

TEST_F(Link, RefusesWhatIsTooMuch) {
    CloseDoor();
    limits_.connections = 4;
    limits_.requests = 3;
    limits_.threads = 2;
    OpenDoor();
    Endings endings;
    const auto folder = OpenIn(User(), u"P:\\RZV\\VOL\\CLIPS", true, host::Disposition::kOpen, 0x81);
    Bytes buffer(64);
    const auto watch = [&] {
        return User().NotifyChangeDirectory(folder.Get(), kAllChanges, true, buffer, endings.Next(), nullptr);
    };
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(watch().Pending());
    }
    EXPECT_EQ(host::StatusName(watch()), "STATUS_INSUFFICIENT_RESOURCES");
    User().CancelAll(folder.Get());
    EXPECT_EQ(endings.Take(3).size(), 3u);
    EXPECT_TRUE(watch().Pending());
    // More threads of the client's than the daemon gives it.
    std::vector<std::future<void>> threads;
    for (int i = 0; i < 5; ++i) {
        threads.push_back(std::async(std::launch::async, [&] { (void)OpenIn(User(), u"P:\\RZV\\VOL"); }));
    }
    threads.clear();

    const auto third = NewProcess();
    const auto fourth = NewProcess();
    host::Problem problem;
    EXPECT_EQ(access_->NewProcess(problem), nullptr);
    EXPECT_NE(problem.what.find("too many clients"), std::string::npos);
    EXPECT_TRUE(diary_.Says("4 connections are there"));
}

TEST_F(Link, WaitsWhenDescriptorsRunOut) {
    const vlink::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
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
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(diary_.Count("cannot take connections"), 0u);  // said once
    setrlimit(RLIMIT_NOFILE, &before);
    used.clear();
    Stranger(vlink::Descriptor(dup(socket.Get()))).Hello(vlink::Kind::kAdministration);
}

// ---- The socket's place ----

TEST_F(Link, ListensWhereItIsTold) {
    std::filesystem::path deep = directory_.Path();
    for (int i = 0; i < 5; ++i) {
        deep /= std::string(40, 'd');
    }
    std::filesystem::create_directories(deep);
    host::Problem problem;
    const auto start = [&](const std::filesystem::path& path) {
        return vlink::Server::Start(Machine(), path, log_, problem);
    };
    auto second = start(deep / "socket");
    ASSERT_TRUE(second) << problem.what;
    struct stat facts {};
    ASSERT_EQ(stat((deep / "socket").c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 0777, 0600u);
    EXPECT_TRUE(vlink::Connect(deep / "socket", problem));
    EXPECT_EQ(start(deep / "socket"), nullptr);
    EXPECT_TRUE(problem.inUse);
    // Another in its place is not its own to remove.
    ASSERT_EQ(unlink((deep / "socket").c_str()), 0);
    const auto heir = start(deep / "socket");
    ASSERT_TRUE(heir);
    second.reset();
    EXPECT_TRUE(vlink::Connect(deep / "socket", problem));

    // A socket that its daemon left behind, and a file that is none.
    const auto dead = directory_.Path() / "dead";
    {
        const vlink::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        vlink::Address address;
        ASSERT_EQ(address.Set(dead), 0);
        ASSERT_EQ(bind(socket.Get(), address.Get(), vlink::Address::kSize), 0);
    }
    EXPECT_EQ(vlink::Connect(dead, problem), nullptr);
    EXPECT_FALSE(problem);
    EXPECT_TRUE(start(dead)) << problem.what;
    EXPECT_FALSE(std::filesystem::exists(dead));
    EXPECT_EQ(start(StationPath() / "registry.json"), nullptr);
    EXPECT_TRUE(std::filesystem::exists(StationPath() / "registry.json"));
    EXPECT_EQ(start("/nowhere/at/all"), nullptr);
    for (const auto& path : {dead, directory_.Path() / "none", std::filesystem::path("/nowhere/at/all")}) {
        EXPECT_EQ(vlink::Connect(path, problem), nullptr);
        EXPECT_FALSE(problem) << problem.what;
    }
}

// ---- Daemons that are none ----

// Answers each frame with the next of these, and closes.
std::future<void> Answering(vlink::Descriptor socket, std::vector<Bytes> answers, vlink::Descriptor memory = {}) {
    return std::async(std::launch::async,
                      [socket = std::move(socket), answers = std::move(answers), memory = std::move(memory)]() mutable {
                          const vlink::Descriptor own = std::move(socket);  // closed here: the future would keep it
                          vlink::FrameReader reader(own.Get(), false);
                          vlink::Frame frame;
                          for (const Bytes& answer : answers) {
                              if (reader.Next(frame) == vlink::FrameReader::Result::kFrame) {
                                  const std::span<const std::byte> piece(answer);
                                  (void)vlink::SendNow(own.Get(), std::span(&piece, 1), memory.Get());
                              }
                          }
                      });
}
std::pair<vlink::Descriptor, vlink::Descriptor> Pair() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    return {vlink::Descriptor(ends[0]), vlink::Descriptor(ends[1])};
}
Bytes AnswerOf(Op op, std::uint64_t id, std::uint16_t flags, vlink::AnswerRecord record, std::size_t data = 0) {
    return FrameOf(op, id, flags, vlink::BytesOf(record), Bytes(data));
}

TEST(BrokenDaemon, EndsTheConnectionAndHarmsNobody) {
    constexpr Op kQuery = Op::kQueryInformation;
    const Bytes good = AnswerOf(kQuery, 2, 0, {0, 0, 8, 0}, 8);
    const std::vector<std::pair<const char*, Bytes>> rows = {
        {"closes", {}},
        {"no frame", Text("what is it that you want of me?")},
        {"another id", With(good, 8, std::uint64_t{3})},
        {"another operation", With(good, 4, Op::kFlush)},
        {"more than was asked for", AnswerOf(kQuery, 2, 0, {0, 0, 9, 0}, 9)},
        {"half an answer", FrameOf(kQuery, 2, 0, Bytes(10))},
        {"starts what is not overlapped", AnswerOf(kQuery, 2, vlink::kStarted, {0x103, 0, 0, 0})},
        {"pending for ever", AnswerOf(kQuery, 2, 0, {0x103, 0, 0, 0})},
        {"a descriptor that it did not send", With(good, 6, vlink::kDescriptor)},
    };
    for (const auto& [name, bytes] : rows) {
        SCOPED_TRACE(name);
        auto [near, far] = Pair();
        const auto daemon = Answering(std::move(far), {bytes});
        vlink::RemoteProcess process(std::move(near));
        Bytes buffer(8);
        EXPECT_EQ(Said(process.QueryInformation(4, kStandardInformation, buffer)), "STATUS_PORT_DISCONNECTED, 0");
        EXPECT_EQ(host::StatusName(process.Flush(4)), "STATUS_PORT_DISCONNECTED");
    }
    {
        // It says twice that a request is under way.
        auto [near, far] = Pair();
        const Bytes started = AnswerOf(Op::kNotify, 2, vlink::kStarted, {0x103, 0, 0, 0});
        const auto daemon = Answering(std::move(far), {Both(started, started)});
        vlink::RemoteProcess process(std::move(near));
        Endings endings;
        Bytes buffer(8);
        EXPECT_TRUE(process.NotifyChangeDirectory(4, 1, false, buffer, endings.Next(), nullptr).Pending());
        EXPECT_EQ(endings.TakeStatus(), "STATUS_PORT_DISCONNECTED");
    }
    // Memory that is not as large as it says, can be cut, or is not there.
    for (const int sort : {0, 1, 2}) {
        SCOPED_TRACE(sort);
        vlink::Descriptor memory(sort == 2 ? -1 : memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING));
        if (memory) {
            ASSERT_EQ(ftruncate(memory.Get(), sort == 0 ? 4096 : 8192), 0);
            ASSERT_EQ(fcntl(memory.Get(), F_ADD_SEALS, sort == 0 ? F_SEAL_SHRINK : F_SEAL_GROW), 0);
        }
        auto [near, far] = Pair();
        const Bytes answer = AnswerOf(Op::kAllocateMemory, 2, sort == 2 ? 0 : vlink::kDescriptor, {0, 16, 8192, 0});
        const auto daemon = Answering(std::move(far), {answer}, std::move(memory));
        vlink::RemoteProcess process(std::move(near));
        host::Process::NamedMemory named;
        EXPECT_EQ(host::StatusName(process.AllocateMemory(8192, named)), "STATUS_INSUFFICIENT_RESOURCES");
    }
}

TEST(BrokenDaemon, IsNotConnectedTo) {
    const TemporaryDirectory directory;
    const auto place = directory.Path() / "socket";
    const auto hello = [](vlink::Welcome welcome, std::uint32_t cards, vlink::CardRecord card) {
        return FrameOf(Op::kHello, 1, 0, vlink::BytesOf(vlink::HelloAnswer{vlink::kMagic, 1, welcome, 1, 0, cards}),
                       vlink::BytesOf(card));
    };
    const std::pair<Bytes, const char*> rows[] = {
        {Bytes(), "went away"},
        {Text("220 mail.example ESMTP"), "no vrkfs daemon"},
        {hello(vlink::Welcome::kYes, 2, {0, 'P'}), "no vrkfs daemon"},
        {hello(vlink::Welcome::kYes, 1, {10, 'P'}), "no vrkfs daemon"},
        {hello(vlink::Welcome::kYes, 0xFFFFFFFF, {0, 'P'}), "no vrkfs daemon"},
        {hello(vlink::Welcome::kNotAllowed, 1, {0, 'P'}), "serves its own user only"},
        {hello(vlink::Welcome::kOtherVersion, 1, {0, 'P'}), "another version"},
    };
    const vlink::Descriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    vlink::Address address;
    ASSERT_EQ(address.Set(place), 0);
    ASSERT_EQ(bind(listener.Get(), address.Get(), vlink::Address::kSize), 0);
    ASSERT_EQ(listen(listener.Get(), 4), 0);
    for (const auto& [answer, words] : rows) {
        auto daemon = std::async(std::launch::async, [&, bytes = answer] {
            Answering(vlink::Descriptor(accept(listener.Get(), nullptr, nullptr)), {bytes}).wait();
        });
        host::Problem problem;
        EXPECT_EQ(vlink::Connect(place, problem), nullptr);
        EXPECT_NE(problem.what.find(words), std::string::npos) << problem.what;
    }
}

}  // namespace
}  // namespace tests
