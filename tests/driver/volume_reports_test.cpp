// Who hears of a change: watchers of the folder that holds the changed name, under every type folder, and nobody else.
#include <functional>
#include <future>
#include <thread>

#include "tests/driver/volume_rig.h"

namespace tests {
namespace {

constexpr std::uint32_t kFileNames = 1;
constexpr std::uint32_t kFolderNames = 2;
constexpr std::uint32_t kAnything = 0xFFF;

class VolumeReports : public VolumeTest {
  protected:
    void SetUp() override {
        VolumeTest::SetUp();
        Put(1, 0, MakeVolumeEntry(u"v", 1, 0, kRigTime + 1));
        PutFolder(0, 0, MakeFolder(u"F", {{0, 5000}}));
        PutFolder(0, 1, MakeFolder(u"G"));
        Put(0, 5000, MakePlainFile(u"a"));
        Start();
        AddType(u"XYZ");
    }
    void TearDown() override {
        static_cast<void>(Heard());
        VolumeTest::TearDown();
    }

    struct Watch {
        std::string name;
        host::ScopedHandle handle;
        std::promise<std::string> end;  // the status that the request ended with
        std::array<std::byte, 64> buffer{};
    };
    void AddWatch(const std::string& name, const std::u16string& path, std::uint32_t filter) {
        const host::OpenResult opened = User().Create({.path = u"P:" + path,
                                                       .access = host::access::kReadData,
                                                       .options = host::option::kDirectoryFile,
                                                       .overlapped = true});
        ASSERT_TRUE(opened.status.Ok()) << name;
        watches_.push_back(std::make_unique<Watch>());
        Watch* watch = watches_.back().get();
        watch->name = name;
        watch->handle = host::ScopedHandle(User(), opened.handle);
        host::RequestId id = 0;
        const host::Status status = User().NotifyChangeDirectory(
            opened.handle, filter, false, watch->buffer,
            [watch](host::IoResult result) { watch->end.set_value(host::StatusName(result.status)); }, &id);
        ASSERT_EQ(host::StatusName(status), "STATUS_PENDING") << name;
    }
    // A watch begins when a worker has taken the request: waits for all of them.
    void AwaitWatches() {
        std::size_t registered = 0;
        while (registered < watches_.size()) {
            std::this_thread::yield();
            registered = 0;
            Locked([&] {
                for (PLIST_ENTRY link = Vcb()->NotifyList.Flink; link != &Vcb()->NotifyList; link = link->Flink) {
                    ++registered;
                }
            });
        }
    }
    void WatchAll() {
        AddWatch("type", u"\\RZV", kAnything);
        AddWatch("type's files", u"\\RZV", kFileNames);
        AddWatch("volume", u"\\RZV\\V", kFolderNames);
        AddWatch("volume of XYZ", u"\\XYZ\\V", kAnything);
        AddWatch("F", u"\\RZV\\V\\F", kFileNames);
        AddWatch("F of XYZ", u"\\XYZ\\V\\F", kAnything);
        AddWatch("F's folders", u"\\RZV\\V\\F", kFolderNames);
        AddWatch("G", u"\\RZV\\V\\G", kAnything);
        AwaitWatches();
    }
    // Ends the watching: a request that no report has ended is ended by the close of its handle.
    std::string Heard() {
        std::string text;
        for (const auto& watch : watches_) {
            watch->handle.Reset();
            if (watch->end.get_future().get() == "STATUS_NOTIFY_ENUM_DIR") {
                text += (text.empty() ? "" : ", ") + watch->name;
            }
        }
        watches_.clear();
        return text;
    }

    std::vector<std::unique_ptr<Watch>> watches_;
};

TEST_F(VolumeReports, WhoHearsWhat) {
    OpenedFolder f(0);
    OpenedFolder g(1);
    FileEntry image = ReadFile(f, 0);
    ULONG slot = 0;
    const UNICODE_STRING name = CountedName(u"new");
    const UNICODE_STRING volumeName = CountedName(u"V");
    const auto rename = [&](BOOLEAN replace) {
        return VrkFsHwRenameFile(Hw(), Vcb(), Volume(), &f.fcb, &image, slot, &name, replace);
    };
    const auto resolve = [&] {
        VrkFsHwResolveVolumeNameConflicts(Hw(), Vcb(), &volumeName);
        return STATUS_SUCCESS;
    };
    OpenedFolder made;
    FileEntry created;
    ULONG createdSlot = 0;
    const struct {
        const char* what;
        std::function<NTSTATUS()> change;
        std::string heard;
    } cases[] = {
        {"create a file", [&] { return CreateFile(f, u"created", created, createdSlot); }, "F, F of XYZ"},
        {"delete it", [&] { return RemoveFile(f, created, createdSlot); }, "F, F of XYZ"},
        {"rename a file", [&] { return rename(FALSE); }, "F, F of XYZ"},
        {"rename over another", [&] { return rename(TRUE); }, "F, F of XYZ"},
        {"write a record", [&] { return WriteFile(f, image, slot, f.image.FileTable[slot]); }, ""},
        {"create a folder", [&] { return CreateFolder(u"H", made); }, "volume, volume of XYZ"},
        {"delete it", [&] { return RemoveFolder(made.image, made.common.FolderEntryIndex); }, "volume, volume of XYZ"},
        {"move a file", [&] { return VrkFsHwMoveFile(Hw(), Vcb(), &g.fcb, &f.fcb, &image, &slot, &name, FALSE); },
         "F, F of XYZ, G"},
        {"a hidden volume comes back", resolve, "type"},
        {"no other is hidden", resolve, ""},
        {"rename a folder", [&] { return RenameFolder(g.image, 1, u"new"); }, "volume, volume of XYZ"},
    };
    for (const auto& c : cases) {
        WatchAll();
        ASSERT_FALSE(HasFatalFailure()) << c.what;
        EXPECT_EQ(Locked(c.change), STATUS_SUCCESS) << c.what;
        EXPECT_EQ(Heard(), c.heard) << c.what;
    }
}

}  // namespace
}  // namespace tests
