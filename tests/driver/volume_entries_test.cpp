// Folders and files: slots and limits, what is on the disk after each change, and that a change whose write fails
// leaves memory, disk and allocator as they were.
#include "tests/driver/volume_rig.h"

namespace tests {
namespace {

class VolumeEntries : public VolumeTest {
  protected:
    // Records as they lie on the disk of the running machine.
    DirEntry FolderOnDisk(ULONG slot) { return Get<DirEntry>(0, FolderLba(slot)); }
    void FailWrites(ULONG firstLba, ULONG lastLba, std::uint64_t skip, std::uint64_t count, board::Wrong what) {
        const auto operation = board::Operation::kWrite;
        Board().Misbehave().Add({what, operation, {}, firstLba, lastLba, skip, count, STATUS_IO_DEVICE_ERROR, 1});
    }

    static NTSTATUS Rename(OpenedFolder& folder, FileEntry& image, ULONG slot, const std::u16string& name) {
        const UNICODE_STRING counted = CountedName(name);
        return Locked(
            [&] { return VrkFsHwRenameFile(Hw(), Vcb(), Volume(), &folder.fcb, &image, slot, &counted, FALSE); });
    }
    static NTSTATUS Move(OpenedFolder& to, OpenedFolder& from, FileEntry& image, ULONG& slot,
                         const std::u16string& name) {
        const UNICODE_STRING counted = CountedName(name);
        return Locked([&] { return VrkFsHwMoveFile(Hw(), Vcb(), &to.fcb, &from.fcb, &image, &slot, &counted, FALSE); });
    }

    // What may be seen of a folder: its own listing, what the disk says, what the cache says, and the free space.
    std::string Everything(OpenedFolder& folder) {
        OpenedFolder again(folder.common.FolderEntryIndex);
        EXPECT_EQ(folder.image.FileCount, again.image.FileCount);
        const DirEntry disk = FolderOnDisk(folder.common.FolderEntryIndex);
        EXPECT_EQ(std::memcmp(disk.FileTable, folder.image.FileTable, sizeof(disk.FileTable)), 0);
        EXPECT_EQ(std::memcmp(disk.Name, folder.image.Name, sizeof(disk.Name)), 0);
        EXPECT_EQ(disk.Checksum, VrkFsHwCalcFolderChecksum(&disk));
        EXPECT_EQ(ListFiles(folder), ListFiles(again));
        return ListFolders() + " / " + ListFiles(folder) + " / " + std::to_string(FreeBlocks());
    }
};

TEST_F(VolumeEntries, FoldersAndTheirSlots) {
    Start();
    std::vector<std::unique_ptr<OpenedFolder>> folders;
    for (ULONG i = 0; i < kMaxFolders; ++i) {
        folders.push_back(std::make_unique<OpenedFolder>());
        ASSERT_EQ(CreateFolder(u"F" + std::u16string(1, static_cast<char16_t>(u'a' + i % 26)), *folders.back()),
                  STATUS_SUCCESS);
        ASSERT_EQ(folders.back()->common.FolderEntryIndex, i);
    }
    OpenedFolder extra;
    EXPECT_EQ(CreateFolder(u"TooMany", extra), STATUS_ACCESS_DENIED);
    EXPECT_EQ(RemoveFolder(folders[200]->image, 200), STATUS_SUCCESS);
    EXPECT_EQ(RemoveFolder(folders[3]->image, 3), STATUS_SUCCESS);
    EXPECT_EQ(FolderOnDisk(3).InUse, 0u);
    EXPECT_EQ(NameOf(FolderOnDisk(3).Name), u"Fd");
    EXPECT_EQ(CreateFolder(u"Again", extra), STATUS_SUCCESS);
    EXPECT_EQ(extra.common.FolderEntryIndex, 3u);
    EXPECT_EQ(NameOf(FolderOnDisk(3).Name), u"Again");
    Restart();
    EXPECT_EQ(Volume()->FolderCount, 255u);
    EXPECT_NE(ListFolders().find("3:Again"), std::string::npos);
    EXPECT_EQ(ListFolders().find("200:"), std::string::npos);
}

TEST_F(VolumeEntries, FilesAndTheirSlots) {
    Start();
    OpenedFolder folder;
    ASSERT_EQ(CreateFolder(u"F", folder), STATUS_SUCCESS);
    FileEntry image;
    ULONG slot = 99;
    for (ULONG i = 0; i < kMaxFilesPerFolder; ++i) {
        ASSERT_EQ(CreateFile(folder, u"x" + std::u16string(1, static_cast<char16_t>(0x4E00 + i)), image, slot),
                  STATUS_SUCCESS);
        ASSERT_EQ(slot, i);
    }
    EXPECT_EQ(CreateFile(folder, u"TooMany", image, slot), STATUS_ACCESS_DENIED);
    EXPECT_EQ(FreeBlocks(), FreeWithout(2 * kMaxFilesPerFolder));
    for (const ULONG gone : {7u, 0u, 2047u}) {
        EXPECT_EQ(RemoveFile(folder, ReadFile(folder, gone), gone), STATUS_SUCCESS);
    }
    EXPECT_EQ(FreeBlocks(), FreeWithout(2 * (kMaxFilesPerFolder - 3)));
    EXPECT_EQ(FolderOnDisk(0).FileCount, kMaxFilesPerFolder - 3);
    Restart();
    EXPECT_EQ(FreeBlocks(), FreeWithout(2 * (kMaxFilesPerFolder - 3)));
    OpenFolder(folder, 0);
    EXPECT_EQ(CreateFile(folder, u"Back", image, slot), STATUS_SUCCESS);
    EXPECT_EQ(slot, 0u);
    EXPECT_EQ(folder.image.FileCount, kMaxFilesPerFolder - 2);
}

// A source folder that takes no writes may have lost the name already: the destination keeps it on the disk.
TEST_F(VolumeEntries, MoveFromAFolderThatCannotBeWritten) {
    PutFolder(0, 0, MakeFolder(u"S", {{0, 2000}}));
    PutFolder(0, 1, MakeFolder(u"T"));
    Put(0, 2000, MakePlainFile(u"clip", 1100, 50));
    Start();
    OpenedFolder source(0);
    OpenedFolder target(1);
    FileEntry image = ReadFile(source, 0);
    ULONG slot = 0;
    FailWrites(FolderLba(0), FolderLba(0) + 17, 0, 2, board::Wrong::kFail);
    EXPECT_FALSE(NT_SUCCESS(Move(target, source, image, slot, u"clip")));
    EXPECT_EQ(ListFiles(source) + "/" + ListFiles(target), "0:clip/");
    EXPECT_EQ(FolderOnDisk(1).FileTable[0], 2000u);
    EXPECT_EQ(RemoveFile(source, image, 0), STATUS_SUCCESS);
    EXPECT_FALSE(IsFree(2000) || IsFree(1100));
}

// A record is written where its object is, and nowhere else.
TEST_F(VolumeEntries, WhatIsNeverWritten) {
    Start();
    OpenedFolder folder;
    ASSERT_EQ(CreateFolder(u"F", folder), STATUS_SUCCESS);
    FileEntry image;
    ULONG slot;
    ASSERT_EQ(CreateFile(folder, u"a", image, slot), STATUS_SUCCESS);
    ASSERT_EQ(CreateFile(folder, u"b", image, slot), STATUS_SUCCESS);
    const ULONG lba = folder.image.FileTable[1];
    const std::uint64_t writes = Board().Count().Of(board::Operation::kWrite);
    FileEntry standIn;
    VrkFsHwMakeSubstituteFile(&standIn, lba);
    EXPECT_EQ(WriteFile(folder, standIn, 1, lba), STATUS_SUCCESS);  // not written, and that is right
    EXPECT_EQ(WriteFile(folder, image, 1, folder.image.FileTable[0]), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(WriteFile(folder, image, 0, lba), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(WriteFile(folder, image, 2, 0), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(WriteFile(folder, image, 2048, lba), STATUS_UNSUCCESSFUL);
    for (const ULONG elsewhere : {0u, 2u, 1023u, 5000u, kRigLastData, kRigFirstDir, 0xFFFFFFFFu}) {
        folder.image.FileTable[1] = elsewhere;
        EXPECT_EQ(WriteFile(folder, image, 1, elsewhere), STATUS_UNSUCCESSFUL) << elsewhere;
        EXPECT_EQ(Rename(folder, image, 1, u"c"), STATUS_UNSUCCESSFUL) << elsewhere;
    }
    folder.image.FileTable[1] = lba;
    folder.common.Flags = kFcbCommonSubstitute;
    EXPECT_EQ(WriteFile(folder, image, 1, lba), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(CreateFile(folder, u"c", image, slot), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(RemoveFile(folder, image, 1), STATUS_UNSUCCESSFUL);
    folder.common.Flags = 0;
    DirEntry standInFolder{};
    standInFolder.Magic = kDirEntryMagic;
    standInFolder.InUse = 1;
    EXPECT_EQ(RemoveFolder(standInFolder, 0), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(RenameFolder(standInFolder, 0, u"n"), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Board().Count().Of(board::Operation::kWrite), writes);
    EXPECT_EQ(Everything(folder), "0:F / 0:a 1:b / " + std::to_string(FreeWithout(4)));
}

// Each write of each change fails once and tears the record; then nothing has changed, and the change works next time.
TEST_F(VolumeEntries, AFailedWriteChangesNothing) {
    Start();
    OpenedFolder folder;
    OpenedFolder other;
    ASSERT_EQ(CreateFolder(u"F", folder), STATUS_SUCCESS);
    ASSERT_EQ(CreateFolder(u"G", other), STATUS_SUCCESS);
    FileEntry image;
    FileEntry victim;
    ULONG slot;
    ULONG victimSlot;
    ASSERT_EQ(CreateFile(folder, u"good", image, slot), STATUS_SUCCESS);
    ASSERT_EQ(CreateFile(folder, u"victim", victim, victimSlot), STATUS_SUCCESS);
    OpenedFolder made;
    const struct {
        const char* what;
        std::uint64_t writes;
        std::function<NTSTATUS()> change;
    } changes[] = {
        {"create a folder", 1, [&] { return CreateFolder(u"New", made); }},
        {"rename a folder", 1, [&] { return RenameFolder(folder.image, 0, u"Renamed"); }},
        {"delete a folder", 1, [&] { return RemoveFolder(other.image, 1); }},
        {"create a file", 2, [&] { return CreateFile(folder, u"new", image, slot); }},
        {"rename a file", 1, [&] { return Rename(folder, victim, victimSlot, u"renamed"); }},
        {"move a file", 3, [&] { return Move(other, folder, victim, victimSlot, u"moved"); }},
        {"delete a file", 1, [&] { return RemoveFile(folder, victim, victimSlot); }},
    };
    const std::string before = Everything(folder) + Everything(other);
    for (const auto& change : changes) {
        for (std::uint64_t n = 0; n < change.writes; ++n) {
            SCOPED_TRACE(testing::Message() << change.what << ", write " << n);
            FailWrites(0, 0xFFFFFFFF, n, 1, board::Wrong::kTearFail);
            EXPECT_FALSE(NT_SUCCESS(change.change()));
            Board().Misbehave().Clear();
            EXPECT_EQ(Everything(folder) + Everything(other), before);
            EXPECT_EQ(Volume()->FolderCount, 2u);
        }
    }
    EXPECT_EQ(Move(other, folder, victim, victimSlot, u"moved"), STATUS_SUCCESS);
}

}  // namespace
}  // namespace tests
