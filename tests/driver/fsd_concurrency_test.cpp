// Many processes on few names at once: whatever they answer each other, nothing is left over and the disk stays whole.
#include <random>
#include <thread>

#include "tests/driver/fsd_fixture.h"

namespace tests {
namespace {

class FsdConcurrency : public FsdTest {
  protected:
    static constexpr int kThreads = 4;
    static constexpr int kSteps = 250;

    // What may come of an operation that others cross.
    static bool IsExpected(host::Status status) {
        return status.Ok() || status == host::status::kObjectNameNotFound ||
               status == host::status::kObjectPathNotFound || status == host::status::kObjectNameCollision ||
               status == host::status::kDeletePending || status == host::status::kCannotDelete ||
               host::StatusName(status) == "STATUS_FILE_DELETED";
    }

    static void Work(host::Process& process, unsigned seed) {
        std::minstd_rand random(seed);
        const auto below = [&](unsigned count) { return static_cast<unsigned>(random() % count); };
        std::vector<std::byte> buffer(512);
        for (int step = 0; step < kSteps; ++step) {
            const bool folder = below(4) == 0;
            std::u16string path = std::u16string(u"P:\\") + (below(2) == 0 ? u"RZV" : u"XYZ") + u"\\VolA\\Folder" +
                                  static_cast<char16_t>(u'0' + below(2));
            if (!folder) {
                path += std::u16string(u"\\File") + static_cast<char16_t>(u'0' + below(3));
            }
            const host::OpenResult opened =
                process.Create({.path = path,
                                .access = kReadWriteDelete | host::access::kReadAttributes,
                                .disposition = below(2) == 0 ? host::Disposition::kOpenIf : host::Disposition::kOpen,
                                .options = folder ? host::option::kDirectoryFile : host::option::kNonDirectoryFile});
            EXPECT_TRUE(IsExpected(opened.status)) << host::StatusName(opened.status);
            if (!opened.status.Ok()) {
                continue;
            }
            const host::ScopedHandle handle(process, opened.handle);
            if (folder) {
                static_cast<void>(process.QueryDirectory(handle.Get(), {}, buffer));
            } else {
                static_cast<void>(process.Read(handle.Get(), buffer, 0));
            }
            host::FileFacts facts;
            EXPECT_TRUE(host::QueryFacts(process, handle.Get(), facts).Ok());
            if (below(3) == 0) {
                const host::Status status = host::SetDeleteOnCleanup(process, handle.Get(), true);
                EXPECT_TRUE(IsExpected(status)) << host::StatusName(status);
            }
        }
    }

    void Remove(const std::u16string& path) { EXPECT_EQ(SetDelete(Hold(path, host::access::kDelete), true), kOk); }
    void RemoveAll() {
        for (const std::u16string folder : {u"\\RZV\\VolA\\Folder0", u"\\RZV\\VolA\\Folder1"}) {
            if (TryOpen(folder) == kOk) {
                for (const std::u16string& file : List(folder)) {
                    Remove(folder + u"\\" + file);
                }
                Remove(folder);
            }
        }
    }
};

TEST_F(FsdConcurrency, CrossingOpensDeletesAndListingsLeaveNothingBehind) {
    const ULONGLONG freeBefore = FreeBlocks();
    std::vector<std::unique_ptr<host::Process>> processes;
    for (int i = 0; i < kThreads; ++i) {
        processes.push_back(Machine().NewProcess());
    }
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] { Work(*processes[i], 17u + i); });
        }
    }
    processes.clear();
    ExpectIdle("when all have stopped");
    RestartWithTypes();
    RemoveAll();
    EXPECT_EQ(FreeBlocks(), freeBefore);
    EXPECT_EQ(Volume()->FolderCount, 1u);
    ExpectIdle("at the end");
}

}  // namespace
}  // namespace tests
