// Records that could not be read when their volume was mounted: they are listed under a stand-in, never written over,
// and read again before anybody is given space that may be theirs.
#include "tests/driver/volume_rig.h"

namespace tests {
namespace {

class VolumeUnread : public VolumeTest {
  protected:
    void SetUp() override {
        VolumeTest::SetUp();
        PutFolder(0, 3, MakeFolder(u"G", {{1, 5004}}));
        Put(0, 5000, MakePlainFile(u"a", 1024, 100));
        Put(0, 5002, MakePlainFile(u"b", 1124, 100));
        Put(0, 5004, MakePlainFile(u"c", 1224, 100));
        StartAfresh();
    }
    static constexpr ULONG kTaken = 306;

    // Mounts again while the disk refuses to read the blocks.
    void RemountWithout(ULONG firstLba, ULONG lastLba) {
        FailReads(firstLba, lastLba);
        ASSERT_EQ(Locked([&] { return VrkFsHwFlushVolumeCache(Hw(), Vcb()); }), STATUS_SUCCESS);
        ASSERT_EQ(Locked([&] { return VrkFsHwRebuildVolumeCache(Hw(), Vcb()); }), STATUS_SUCCESS);
        ASSERT_EQ(DescribeVolumes(), "V(0)");
    }
    NTSTATUS Retry() {
        return Locked([&] { return VrkFsHwRetryUnreadRecords(Hw(), Volume()); });
    }
    std::uint64_t Reads() { return Board().Count().Of(board::Operation::kRead); }
    // The first blocks of the first file, which nobody claims as long as its record cannot be read.
    ULONG TakeFirst(ULONG count) {
        ULONG start = 0;
        EXPECT_TRUE(VrkFsVolAllocAllocateLowerSpace(&Volume()->Allocator, count, &start));
        EXPECT_EQ(start, 1024u);
        return start;
    }
    // The disks as they were in the beginning.
    void StartAfresh() {
        Stop();
        PutFolder(0, 2, MakeFolder(u"F", {{0, 5000}, {4, 5002}}));
        Start();
    }
};

TEST_F(VolumeUnread, OneErrorLosesNothing) {
    EXPECT_EQ(FreeBlocks(), FreeWithout(kTaken));
    const struct {
        const char* what;
        ULONG lba;
        ULONG taken;  // before the record is read again
        std::string folders;
        std::string files;  // of folder slot 2
    } cases[] = {
        {"a file", 5000, kTaken - 100, "2:F 3:G", "0:BAD_FILE_5000 4:b"},
        {"a folder", FolderLba(2), kTaken - 204, "2:BAD_DIR_11812 3:G", ""},
        {"a folder's last block", FolderLba(2) + 17, kTaken - 204, "2:BAD_DIR_11812 3:G", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        RemountWithout(c.lba, c.lba);
        EXPECT_EQ(FreeBlocks(), FreeWithout(c.taken));
        EXPECT_EQ(ListFolders(), c.folders);
        OpenedFolder folder(2);
        EXPECT_EQ(ListFiles(folder), c.files);
        Board().Misbehave().Clear();
        // The listing was not remembered.
        EXPECT_EQ(ListFolders(), "2:F 3:G");
        // Space is handed out only after the record was read and claimed.
        OpenedFolder other(3);
        FileEntry image;
        ULONG slot = 0;
        ASSERT_EQ(CreateFile(other, u"new", image, slot), STATUS_SUCCESS);
        EXPECT_EQ(FreeBlocks(), FreeWithout(kTaken + 2));
        ASSERT_EQ(RemoveFile(other, image, slot), STATUS_SUCCESS);
        OpenedFolder again(2);
        EXPECT_EQ(ListFiles(again), "0:a 4:b");
        EXPECT_EQ(RemoveFile(again, ReadFile(again, 4), 4), STATUS_SUCCESS);
        EXPECT_EQ(FreeBlocks(), FreeWithout(kTaken - 102));
        StartAfresh();
    }
}

// A record that fails again is left alone: neither every allocation nor every listing pays for it.
TEST_F(VolumeUnread, BadForGoodIsTriedOnce) {
    RemountWithout(5000, 5000);
    Board().ResetCounters();
    EXPECT_EQ(Retry(), STATUS_SUCCESS);
    EXPECT_EQ(Reads(), 1u);
    EXPECT_EQ(Retry(), STATUS_SUCCESS);
    EXPECT_EQ(Reads(), 1u);
    // More retries are another chance.
    Card()->ScsiPrefs.MaxRetries = 3;
    EXPECT_EQ(Retry(), STATUS_SUCCESS);
    EXPECT_EQ(Reads(), 1u + 4);
    EXPECT_EQ(Retry(), STATUS_SUCCESS);
    EXPECT_EQ(Reads(), 1u + 4);
    // And so is a read that succeeds by the way.
    Board().Misbehave().Clear();
    OpenedFolder folder(2);
    EXPECT_EQ(ListFiles(folder), "0:a 4:b");
    EXPECT_EQ(FreeBlocks(), FreeWithout(kTaken - 100));
    EXPECT_EQ(Retry(), STATUS_SUCCESS);
    EXPECT_EQ(FreeBlocks(), FreeWithout(kTaken));
}

// What was claimed by nobody when space was handed out may lie in somebody's new file when it can be read at last: then
// it is in doubt, and stays out of everybody's way.
TEST_F(VolumeUnread, ReadableTooLate) {
    RemountWithout(5000, 5000);
    EXPECT_EQ(Retry(), STATUS_SUCCESS);
    const ULONG start = TakeFirst(60);
    Board().Misbehave().Clear();
    OpenedFolder folder(2);
    const FileEntry image = ReadFile(folder, 0);
    EXPECT_EQ(RemoveFile(folder, image, 0), STATUS_SUCCESS);
    EXPECT_EQ(FreeBlocks(), FreeWithout(kTaken - 2));  // its record is free; its data is not, nor is the new file's
    ASSERT_EQ(VrkFsVolAllocReleaseSpace(&Volume()->Allocator, start, 60), STATUS_SUCCESS);
    EXPECT_FALSE(IsFree(1024));
    EXPECT_FALSE(IsFree(1100));
}

// A file that was read in between, and is deleted while what it names is still unclaimed: that may be another's by now.
TEST_F(VolumeUnread, DeletedUnclaimed) {
    const struct {
        const char* what;
        ULONG lba;
        ULONG taken;  // afterwards, with the 100 blocks of the new file
    } cases[] = {{"a file", 5000, kTaken - 2}, {"a folder", FolderLba(2), kTaken - 204 + 100}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        RemountWithout(c.lba, c.lba);
        EXPECT_EQ(Retry(), STATUS_SUCCESS);
        TakeFirst(100);
        Board().Misbehave().Clear();
        OpenedFolder folder(2);
        const FileEntry image = ReadFile(folder, 0);
        // The disk fails again, and the copies that were read have been displaced.
        FailReads(c.lba, c.lba);
        VrkFsVolCacheFileEntryRemove(&Volume()->EntryCache, 5000);
        DirEntry other{};
        for (ULONG i = 0; i < kMaxCachedFolders; ++i) {
            VrkFsVolCacheFolderEntryCache(&Volume()->EntryCache, &other, 1 + i);
        }
        FileEntry changed = image;
        EXPECT_EQ(WriteFile(folder, changed, 0, 5000), STATUS_UNSUCCESSFUL);
        if (c.lba == FolderLba(2)) {
            ULONG slot = 0;
            EXPECT_EQ(CreateFile(folder, u"new", changed, slot), STATUS_UNSUCCESSFUL);
        }
        EXPECT_EQ(RemoveFile(folder, image, 0), STATUS_SUCCESS);
        EXPECT_TRUE(VrkFsVolAllocIsOwnedSpace(&Volume()->Allocator, 1024, 100));
        EXPECT_EQ(FreeBlocks(), FreeWithout(c.taken));
        Board().Misbehave().Clear();
        StartAfresh();
    }
}

// An empty slot that could not be read passes for a folder until it is read; then it can be used.
TEST_F(VolumeUnread, EmptySlot) {
    RemountWithout(FolderLba(0), FolderLba(1) + 17);
    EXPECT_EQ(ListFolders(), "0:BAD_DIR_11776 1:BAD_DIR_11794 2:F 3:G");
    EXPECT_EQ(Volume()->FolderCount, 4u);
    OpenedFolder made;
    ASSERT_EQ(CreateFolder(u"new", made), STATUS_SUCCESS);
    EXPECT_EQ(made.common.FolderEntryIndex, 4u);  // what cannot be read may be in use
    Board().Misbehave().Clear();
    EXPECT_EQ(ListFolders(), "2:F 3:G 4:new");
    OpenedFolder second;
    ASSERT_EQ(CreateFolder(u"low", second), STATUS_SUCCESS);
    EXPECT_EQ(second.common.FolderEntryIndex, 0u);
    EXPECT_EQ(Volume()->FolderCount, 4u);
}

// An empty folder that could be read at last and was deleted before the pass that would have claimed it.
TEST_F(VolumeUnread, DeletedFolderIsCountedOffOnce) {
    Stop();
    PutFolder(0, 0, MakeFolder(u"E"));
    Start();
    RemountWithout(FolderLba(0), FolderLba(0));
    Board().Misbehave().Clear();
    OpenedFolder folder(0);
    EXPECT_EQ(RemoveFolder(folder.image, 0), STATUS_SUCCESS);
    OpenedFolder made;
    ASSERT_EQ(CreateFolder(u"new", made), STATUS_SUCCESS);
    EXPECT_EQ(made.common.FolderEntryIndex, 0u);
    EXPECT_EQ(Volume()->FolderCount, 3u);
    EXPECT_EQ(Volume()->Unread.Count, 0u);
}

}  // namespace
}  // namespace tests
