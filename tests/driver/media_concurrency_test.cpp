// Recorders, players, a lister and a watcher at once: a clip that can be opened is whole, and no block goes astray.
#include <atomic>
#include <thread>

#include "tests/driver/media_rig.h"

namespace tests {
namespace {

class MediaConcurrency : public MediaTest {
  protected:
    static constexpr unsigned kThreads = 4;
    static constexpr int kSteps = 150;

    static host::ScopedHandle OpenFor(host::Process& process, const std::u16string& path, host::Disposition disposition,
                                      std::uint32_t access, std::uint32_t share) {
        const host::OpenRequest request{
            .path = u"P:\\RZV\\VOL\\F" + path, .access = access, .shareAccess = share, .disposition = disposition};
        return {process, process.Create(request).handle};
    }
    static std::u16string NameOf(unsigned number) { return u"\\CLIP" + std::u16string(1, u'0' + number % 3); }

    void Record(host::Process& process, unsigned name, unsigned clip) {
        const auto handle = OpenFor(process, NameOf(name), host::Disposition::kOpenIf,
                                    host::access::kWriteData | host::access::kReadData, host::share::kNone);
        if (handle) {
            const host::IoResult result = process.Write(handle.Get(), written_[clip], 0);
            EXPECT_EQ(host::StatusName(result.status), "STATUS_SUCCESS");
            recorded_ += 1;
        }
    }
    // Nothing recorded yet, or one of the clips from end to end.
    void Play(host::Process& process, unsigned name) {
        const auto handle =
            OpenFor(process, NameOf(name), host::Disposition::kOpen, host::access::kReadData, host::share::kAll);
        Bytes bytes(100'000);
        const host::IoResult result = process.Read(handle.Get(), bytes, 0);
        if (handle && result.status != host::status::kEndOfFile) {
            bytes.resize(result.information);
            EXPECT_EQ(std::count(images_.begin(), images_.end(), bytes), 1) << host::StatusName(result.status);
            played_ += 1;
        }
    }
    static void Remove(host::Process& process, unsigned name) {
        const auto handle =
            OpenFor(process, NameOf(name), host::Disposition::kOpen, host::access::kDelete, host::share::kAll);
        if (handle) {
            (void)host::SetDeleteOnCleanup(process, handle.Get(), true);
        }
    }
    static void WatchAndList(host::Process& process) {
        const host::OpenRequest request{
            .path = u"P:\\RZV\\VOL\\F", .options = host::option::kDirectoryFile, .overlapped = true};
        const host::ScopedHandle folder(process, process.Create(request).handle);
        auto buffer = std::make_shared<Bytes>(512);
        (void)process.NotifyChangeDirectory(
            folder.Get(), 0x17, false, *buffer, [buffer](host::IoResult) {}, nullptr);
        std::vector<host::DirectoryEntry> entries;
        EXPECT_EQ(host::StatusName(host::ListDirectory(process, folder.Get(), entries)), "STATUS_SUCCESS");
        process.CancelAll(folder.Get());
    }

    std::vector<Bytes> written_;
    std::vector<Bytes> images_;  // as they are read back
    std::atomic<int> recorded_{0};
    std::atomic<int> played_{0};
};

TEST_F(MediaConcurrency, AClipThatOpensIsWhole) {
    ASSERT_NO_FATAL_FAILURE(StartVolume(2));
    const std::uint64_t freeBefore = FreeBlocks();
    std::mt19937 clips(7);
    for (std::uint32_t i = 0; i < kThreads; ++i) {
        const ClipSpec clip = RandomClip(clips, 2 + i, i % 2 == 1, i == 1, 0, 9);
        written_.push_back(BuildImage(clip, true));
        images_.push_back(BuildImage(clip, false));
    }
    {
        std::vector<std::jthread> threads;
        for (unsigned thread = 0; thread < kThreads; ++thread) {
            threads.emplace_back([this, thread] {
                const auto process = Machine().NewProcess();
                std::minstd_rand random(23 + thread);
                for (int step = 0; step < kSteps; ++step) {
                    const auto what = static_cast<unsigned>(random() >> 8) % 8;
                    const auto name = static_cast<unsigned>(random() >> 8);
                    what < 3   ? Record(*process, name, thread)
                    : what < 6 ? Play(*process, name)
                    : what < 7 ? Remove(*process, name)
                               : WatchAndList(*process);
                }
            });
        }
    }
    EXPECT_GT(recorded_, 50);
    EXPECT_GT(played_, 50);
    Restart();
    for (unsigned name = 0; name < 3; ++name) {
        Play(User(), name);
        Remove(User(), name);
    }
    EXPECT_EQ(FreeBlocks(), freeBefore);
}

}  // namespace
}  // namespace tests
