// Every call over the socket means what it means within the program.
#include <future>
#include <random>

#include "tests/system/link_fixture.h"

namespace tests {
namespace {

using LinkCalls = LinkTest;

// Sizes around what goes in a frame, in a window, and in pieces.
constexpr std::size_t kSizes[] = {
    0, 1, 511, 16 << 10, (16 << 10) + 1, 64 << 10, 128 << 10, (128 << 10) + 1, 256 << 10, 1 << 20, (1 << 20) + 77};

TEST_F(LinkCalls, MoveDataOfEverySizeAsTheMachineDoes) {
    const Bytes image = MakeClip();
    ASSERT_GT(image.size(), 2u << 20);
    const auto inside = Machine().NewProcess();
    const auto near = OpenIn(*inside, clip_);
    const auto far = OpenIn(User(), clip_);
    host::Process::NamedMemory memory;
    ASSERT_TRUE(User().AllocateMemory(2 << 20, memory).Ok());
    for (const std::size_t size : kSizes) {
        for (const std::uint64_t offset : {std::uint64_t{0}, std::uint64_t{12345}, image.size() - (256 << 10),
                                           image.size() - 100, std::uint64_t{image.size()}, ~std::uint64_t{0}}) {
            SCOPED_TRACE(std::to_string(size) + " at " + std::to_string(offset));
            Bytes wanted(size);
            Bytes got(size);
            std::ranges::fill(memory.bytes, std::byte{0});
            const std::string outcome = Said(inside->Read(near.Get(), wanted, offset));
            for (const auto place : {std::span(got), memory.bytes.subspan(4096, size)}) {
                EXPECT_EQ(Said(User().Read(far.Get(), place, offset)), outcome);
                EXPECT_TRUE(std::ranges::equal(place, wanted));
            }
        }
    }
    // Memory that comes back is empty, and no longer its old self.
    const std::uint32_t oldName = memory.name;
    User().FreeMemory(memory);
    ASSERT_TRUE(User().AllocateMemory(2 << 20, memory).Ok());
    EXPECT_NE(memory.name, oldName);
    EXPECT_TRUE(std::ranges::all_of(memory.bytes, [](std::byte byte) { return byte == std::byte{0}; }));

    // A copy, written at the handle's position in steps of every size.
    const auto copy = OpenIn(User(), Path(u"COPY.RZV"), kReadWrite, false, host::Disposition::kCreate);
    for (std::size_t at = 0, size = 100'000, step = 1; at < image.size(); at += size, ++step) {
        size = std::min(at == 0 ? size : kSizes[step % std::size(kSizes)], image.size() - at);
        const auto part = std::span(image).subspan(at, size);
        std::ranges::copy(part, memory.bytes.begin());
        const std::span<const std::byte> data = step % 3 == 0 ? memory.bytes.first(size) : part;
        ASSERT_EQ(User().Write(copy.Get(), data, std::nullopt).information, size);
    }
    EXPECT_TRUE(ReadWhole(Path(u"COPY.RZV")) == image);
}

// Calls that programs seldom make: wrong ones, long ones, and odd ones. (Commands compare the usual.)
TEST_F(LinkCalls, AreAnsweredAsTheMachineDoes) {
    (void)MakeClip();
    struct Asked {
        host::Process& process;
        host::Handle folder, file;
        std::span<std::byte> out;
    };
    const Bytes large(70'000);
    const std::span<const std::byte> in(large);
    const host::Process::DirectoryQuery one{1, u"*", true, true, {}};
    const host::Process::DirectoryQuery rest{1, {}, false, false, 0};
    const auto create = [](const Asked& a, const std::u16string& path, host::Handle root = 0) -> host::IoResult {
        return {a.process.Create({.path = path, .root = root}).status};
    };
    const std::function<host::IoResult(const Asked&)> calls[] = {
        [&](const Asked& a) { return a.process.QueryInformation(a.file, 18, a.out.first(150)); },
        [&](const Asked& a) { return a.process.QueryInformation(a.file, 9, a.out.first(10)); },
        [&](const Asked& a) { return a.process.QueryInformation(a.file, 99, a.out); },
        [&](const Asked& a) { return a.process.QueryVolumeInformation(a.file, 5, a.out); },
        [&](const Asked& a) { return a.process.QueryVolumeInformation(a.file, 77, a.out); },
        [&](const Asked& a) { return a.process.SetInformation(a.file, 10, in); },
        [&](const Asked& a) { return a.process.SetVolumeInformation(a.file, 2, in.first(8)); },
        [&](const Asked& a) { return a.process.DeviceControl(a.file, 0x222000, in, a.out); },
        [&](const Asked& a) { return a.process.FileSystemControl(a.file, 0x90018, {}, {}); },
        [&](const Asked& a) { return a.process.QueryDirectory(a.folder, one, a.out); },
        [&](const Asked& a) { return a.process.QueryDirectory(a.folder, rest, a.out.first(9)); },
        [&](const Asked& a) { return a.process.QueryDirectory(a.folder, rest, a.out); },
        [&](const Asked& a) { return create(a, u"CLIP.RZV", a.folder); },
        [&](const Asked& a) { return create(a, u"CLIP.RZV", 4711); },
        [&](const Asked& a) { return create(a, u"P:\\RZV\\NONE"); },
        [&](const Asked& a) { return host::IoResult{a.process.Close(4711)}; },
    };
    const auto answers = [&](host::Process& process) {
        const auto folder = OpenIn(process, kFolder, kLooks);
        const auto file = OpenIn(process, clip_, kLooks | host::access::kDelete | host::access::kWriteAttributes);
        std::vector<std::pair<std::string, Bytes>> said;
        for (const auto& call : calls) {
            Bytes out(200'000);
            const std::string result = Said(call({process, folder.Get(), file.Get(), out}));
            said.emplace_back(result, std::move(out));
        }
        return said;
    };
    const auto wanted = answers(*Machine().NewProcess());
    const auto got = answers(User());
    for (std::size_t i = 0; i < std::size(calls); ++i) {
        EXPECT_EQ(got[i].first, wanted[i].first) << "call " << i;
        EXPECT_TRUE(got[i].second == wanted[i].second) << "what came of call " << i;
    }
}

class Overlapped : public LinkTest, public testing::WithParamInterface<bool> {
  protected:
    void SetUp() override { StartVolume(2, GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(Through, Overlapped, testing::Bool(),
                         [](const auto& row) { return row.param ? "Socket" : "Machine"; });

TEST_P(Overlapped, RequestsEndAsTheyShould) {
    const auto openFolder = [&] { return OpenIn(User(), kFolder, kLooks, true).Release(); };
    const PostedPtr first = Watch(User(), openFolder());
    // A handle's first watch begins somewhat after the call.
    EXPECT_TRUE(Eventually([&] {
        OpenOnce(Path(u"NEW.RZV"), VRKFS_OPEN_WRITE | VRKFS_OPEN_CREATE);
        Delete(Path(u"NEW.RZV"));
        return first->IsOver();
    }));
    EXPECT_EQ(first->End(), "STATUS_NOTIFY_ENUM_DIR");

    // The ways in which one ends, while another waits on. (That handle may still be told of what came since; others are
    // not.)
    const PostedPtr other = Watch(User(), openFolder());
    const auto cancel = [&](host::Handle, host::RequestId id) { User().Cancel(id); };
    const auto cancelAll = [&](host::Handle folder, host::RequestId) { User().CancelAll(folder); };
    const auto close = [&](host::Handle folder, host::RequestId) { EXPECT_TRUE(User().Close(folder).Ok()); };
    const std::pair<std::function<void(host::Handle, host::RequestId)>, const char*> ends[] = {
        {cancel, "STATUS_CANCELLED"}, {cancelAll, "STATUS_CANCELLED"}, {close, "STATUS_NOTIFY_CLEANUP"}};
    for (const auto& [end, status] : ends) {
        const host::Handle folder = openFolder();
        const PostedPtr watch = Watch(User(), folder);
        User().Cancel(watch->id + 100);
        EXPECT_FALSE(watch->IsOver());
        end(folder, watch->id);
        EXPECT_EQ(watch->End(), status);
    }
    EXPECT_EQ(Watch(User(), OpenIn(User(), kFolder, kLooks).Get())->End(), "STATUS_INVALID_PARAMETER");
    EXPECT_EQ(Watch(User(), 4444)->End(), "STATUS_INVALID_HANDLE");
    EXPECT_FALSE(other->IsOver());
    process_.reset();
    EXPECT_EQ(other->End(), "STATUS_CANCELLED");
}

// Reads of several threads, waited for and overlapped, on handles of both sorts, while a watch is under way.
TEST_P(Overlapped, RequestsOfManyThreadsGetWhatIsTheirs) {
    const Bytes image = MakeClip();
    const auto folder = OpenIn(User(), kFolder, kLooks, true);
    const PostedPtr watch = Watch(User(), folder.Get());
    const auto read = [&](unsigned seed) {
        std::mt19937 random(seed);
        const bool overlapped = seed % 2 == 0;
        const auto file = OpenIn(User(), clip_, kLooks, overlapped);
        for (int round = 0; round < 6; ++round) {
            std::vector<std::pair<std::size_t, PostedPtr>> under;
            for (int i = 0; i < 10; ++i) {
                Bytes got(random() % (random() % 4 == 0 ? 600'000 : 3000) + 1);
                const std::size_t offset = random() % (image.size() - got.size());
                if (overlapped && random() % 4 != 0) {
                    under.emplace_back(offset, ReadAside(User(), file.Get(), offset, got.size()));
                } else {
                    EXPECT_EQ(User().Read(file.Get(), got, offset).information, got.size());
                    EXPECT_EQ(std::memcmp(got.data(), image.data() + offset, got.size()), 0);
                }
            }
            for (const auto& [offset, posted] : under) {
                EXPECT_EQ(posted->End(), "STATUS_SUCCESS");
                EXPECT_EQ(std::memcmp(posted->out.data(), image.data() + offset, posted->out.size()), 0);
            }
        }
    };
    std::vector<std::future<void>> threads;
    for (unsigned seed = 0; seed < 6; ++seed) {
        threads.push_back(std::async(std::launch::async, read, seed));
    }
    threads.clear();
    User().CancelAll(folder.Get());
    EXPECT_EQ(watch->End(), "STATUS_CANCELLED");
}

}  // namespace
}  // namespace tests
