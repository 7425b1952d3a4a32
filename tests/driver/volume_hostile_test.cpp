// Volumes whose records contradict each other or the disk, with right checksums: they mount, everything sound on them
// is there, and no block with two claimants, or claimed by somebody else, is ever given out, given back or written.
#include <algorithm>
#include <random>

#include "tests/driver/volume_rig.h"

namespace tests {
namespace {

class VolumeHostile : public VolumeTest {
  protected:
    void SetUp() override {
        VolumeTest::SetUp();
        Put(1, 0, MakeVolumeEntry(u"GOOD", 1, 0, kRigTime + 1));
        PutFolder(1, 0, MakeFolder(u"ok"));
    }
    struct File {
        ULONG slot, lba;
        FileEntry record;
        ULONG folder = 0;
    };
    // Folders F0, F1, ... hold what their files say.
    void PutFiles(const std::vector<File>& files) {
        std::map<ULONG, std::map<ULONG, ULONG>> tables;
        for (const File& file : files) {
            tables[file.folder][file.slot] = file.lba;
            if (file.lba <= kRigLastLba - 1) {
                Put(0, file.lba, file.record);
            }
        }
        Put(0, 0, MakeVolumeEntry(u"V", 1, 0));  // a record may have been put over it
        for (const auto& [folder, table] : tables) {
            PutFolder(0, folder, MakeFolder(u"F" + std::u16string(1, static_cast<char16_t>(u'0' + folder)), table));
        }
    }
    // Where blocks are in doubt; counts them.
    std::string Contested() {
        std::string text;
        doubtful_ = 0;
        const AllocSegmentList& list = Volume()->Allocator.Contested;
        for (const AllocSegment* at = list.FirstByPosition; at != nullptr; at = at->NextByPosition) {
            text += (text.empty() ? "" : " ") + std::to_string(at->Start) + "+" + std::to_string(at->Count);
            doubtful_ += at->Count;
        }
        return text;
    }

    ULONG doubtful_ = 0;
};

TEST_F(VolumeHostile, FilesMountAndWhatIsSoundIsKept) {
    const FileEntry a = MakePlainFile(u"a", 1024, 10);
    const FileEntry n = MakePlainFile(u"n");
    const FileEntry clip = MakeMedia(u"a", 64, 1024, 100, 4990, 1);
    const struct {
        const char* what;
        std::vector<File> files;
        std::string mounted;  // the files; what is contested; how many blocks are taken
    } cases[] = {
        {"one record in two slots", {{0, 5000, clip}, {3, 5000, clip}}, "0:a 3:a / 1024+100 4990+1 5000+2 / 103"},
        {"records that share a block",
         {{0, 5000, a}, {1, 5001, MakePlainFile(u"b", 2000, 10)}},
         "0:BAD_FILE_5000 1:b / 2000+10 5001+2 / 13"},
        {"data of two files overlaps",
         {{0, 5000, MakePlainFile(u"a", 1024, 100)}, {1, 5002, MakePlainFile(u"b", 1100, 100)}},
         "0:a 1:b / 1100+100 / 180"},
        {"data over a record and over its own record",
         {{0, 5000, MakePlainFile(u"a", 4998, 4)}, {1, 6000, MakePlainFile(u"b", 4000, 2)}},
         "0:a 1:b / 4998+4 / 8"},
        {"data over everything",
         {{0, 5000, MakePlainFile(u"a", 1024, 3976)}, {1, 3000, MakePlainFile(u"b", 1200, 5)}},
         "0:a 1:b / 1200+5 3000+2 / 3978"},
        {"ranges that wrap or leave the disk",
         {{0, 5000, MakePlainFile(u"a", 0xFFFFFFF0, 0x20)},
          {1, 5002, MakePlainFile(u"b", 2000, 0xFFFFFFFF)},
          {2, 5004, MakeMedia(u"c", 0xFFFFFFFF, 11770, 100, 1, 2)},
          {3, 5006, MakeMedia(u"d", 1, 1023, 2, 12000, 0xFFFFFFFF)}},
         "0:a 1:b 2:c 3:d / 1024+1 2000+9776 / 9777"},
        {"a record far below, then data above it",
         {{0, 1030, MakePlainFile(u"low", 1024, 6)}, {1, 9000, MakePlainFile(u"b", 4000, 100)}},
         "0:low 1:b /  / 110"},
        {"ranges of no blocks",
         {{0, 5000, MakeMedia(u"a", 0, 1024, 0, 0, 7)}, {1, 5002, MakePlainFile(u"b", 0, 50)}},
         "0:a 1:b /  / 4"},
        {"records outside the data area: below it, at its edges, over a folder, nowhere",
         {{0, 1, n}, {1, 1023, n}, {2, kRigLastData, n}, {3, FolderLba(200), n}, {4, ~0u, n}, {5, 6000, a}},
         "0:BAD_FILE_1 1:BAD_FILE_1023 2:BAD_FILE_11775 3:BAD_FILE_15376 4:BAD_FILE_4294967295 5:a"
         " / 1024+10 11775+1 / 13"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        PutFiles(c.files);
        Start();
        ASSERT_EQ(DescribeVolumes(), "V(0) GOOD(1)");
        EXPECT_EQ(ListFolders(Volume(1)), "0:ok");
        OpenedFolder folder(0);
        const std::string contested = Contested();
        EXPECT_EQ(ListFiles(folder) + " / " + contested + " / " + std::to_string(kRigDataBlocks - FreeBlocks()),
                  c.mounted);

        // Whatever is deleted, in whatever order, nothing in doubt becomes free.
        for (const File& file : c.files) {
            EXPECT_EQ(RemoveFile(folder, ReadFile(folder, file.slot), file.slot), STATUS_SUCCESS);
        }
        EXPECT_EQ(Contested(), contested);
        EXPECT_EQ(FreeBlocks(), FreeWithout(doubtful_));
        // The next mount finds an empty folder, and nothing in doubt any more.
        Restart();
        EXPECT_EQ(FreeBlocks(), kRigDataBlocks);
        Stop();
    }
}

// The order of the claims is that of the slots: the first record to name a block has it, but both lose the right to
// write it.
TEST_F(VolumeHostile, RecordsInDoubtAreNotWritten) {
    const FileEntry shared = MakePlainFile(u"a", 1024, 10);
    PutFiles({{0, 5000, shared}, {4, 5000, shared, 1}, {5, 6000, MakePlainFile(u"good", 1100, 10), 1}});
    Start();
    OpenedFolder first(0);
    OpenedFolder second(1);
    FileEntry image = ReadFile(first, 0);
    FileEntry good = ReadFile(second, 5);
    EXPECT_EQ(WriteFile(first, image, 0, 5000), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(WriteFile(second, image, 4, 5000), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(WriteFile(second, good, 5, 6000), STATUS_SUCCESS);
    EXPECT_EQ(RemoveFile(second, image, 4), STATUS_SUCCESS);
    EXPECT_FALSE(IsFree(5000));
    EXPECT_FALSE(IsFree(1024));
    Restart();
    // One claimant is left: the file is as good as any again.
    OpenFolder(first, 0);
    EXPECT_EQ(WriteFile(first, image, 0, 5000), STATUS_SUCCESS);
    EXPECT_EQ(RemoveFile(first, image, 0), STATUS_SUCCESS);
    EXPECT_EQ(FreeBlocks(), FreeWithout(12));
}

TEST_F(VolumeHostile, FoldersMountAndAreListed) {
    const std::string all = "2:F 3:next";
    const std::string both = "1:a 2:b";
    const struct {
        const char* what;
        std::function<void(DirEntry&)> change;
        std::string folders, files;  // files of folder slot 2
        bool fixChecksum = true;
    } cases[] = {
        {"another magic", [](DirEntry& f) { f.Magic = 0x12345678; }, all, both},
        {"in use by any number", [](DirEntry& f) { f.InUse = 0x80000000; }, all, both},
        {"not in use", [](DirEntry& f) { f.InUse = 0; }, "3:next", ""},
        {"magic 0 and in use, unchecked", [](DirEntry& f) { f.Magic = 0; }, "3:next", "", false},
        {"magic 0 and in use, with its checksum", [](DirEntry& f) { f.Magic = 0; }, all, both},
        {"a wrong checksum", [](DirEntry& f) { f.Checksum ^= 1; }, "2:BAD_DIR_11812 3:next", "", false},
        {"a count below the table", [](DirEntry& f) { f.FileCount = 0; }, all, both},
        {"a count beyond all tables", [](DirEntry& f) { f.FileCount = 0xFFFFFFFF; }, all, both},
        {"a name without an end", [](DirEntry& f) { std::ranges::fill(f.Name, u'z'); },
         "2:" + std::string(256, 'z') + " 3:next", both},
        {"no name", [](DirEntry& f) { f.Name[0] = 0; }, "2: 3:next", both},
    };
    Put(0, 5000, MakePlainFile(u"a", 1024, 10));
    Put(0, 5002, MakePlainFile(u"b", 1034, 10));
    Put(0, 5004, MakePlainFile(u"c", 1044, 10));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        DirEntry folder = MakeFolder(u"F", {{1, 5000}, {2, 5002}});
        c.change(folder);
        if (c.fixChecksum) {
            folder.Checksum = VrkFsHwCalcFolderChecksum(&folder);
        }
        PutFolder(0, 0, DirEntry{});
        PutFolder(0, 2, folder);
        PutFolder(0, 3, MakeFolder(u"next", {{0, 5004}}));
        Start();
        ASSERT_EQ(DescribeVolumes(), "V(0) GOOD(1)");
        EXPECT_EQ(ListFolders(), c.folders);
        EXPECT_FALSE(IsFree(1044));
        if (VrkFsHwCheckBitmapEntry(Volume(), 2)) {
            OpenedFolder opened(2);
            EXPECT_EQ(ListFiles(opened), c.files);
            EXPECT_LE(opened.image.FileCount, kMaxFilesPerFolder);
        }
        // A new folder takes the lowest slot that is free, whatever the rest says.
        OpenedFolder made;
        EXPECT_EQ(CreateFolder(u"new", made), STATUS_SUCCESS);
        EXPECT_EQ(made.common.FolderEntryIndex, 0u);
        Stop();
    }
}

// Volumes of random nonsense with right checksums. Two properties must hold whatever they say: a block that any two
// records claim, or that any listed record claims, is not free; and after all files are deleted and the volume is
// mounted again, everything is.
class VolumeHostileRandom : public VolumeHostile, public testing::WithParamInterface<unsigned> {};

TEST_P(VolumeHostileRandom, NothingClaimedIsFree) {
    std::mt19937 random(GetParam());
    const auto somewhere = [&]() -> ULONG {
        const ULONG edges[] = {
            0,           1,          2,          1023,      1024, 1025, kRigLastData - 1, kRigLastData, kRigFirstDir,
            kRigLastLba, 0xFFFFFFFF, 0x7FFFFFFF, 0xFFFFFC00};
        return random() % 4 == 0 ? edges[random() % std::size(edges)] : 1024 + random() % (kRigLastData - 1023);
    };
    const auto some = [&]() -> ULONG { return random() % 8 == 0 ? random() : random() % 200; };
    std::vector<File> files;
    for (ULONG i = 0; i < 60; ++i) {
        FileEntry record = MakeMedia(u"f" + std::u16string(1, static_cast<char16_t>(u'A' + i)), random() % 100,
                                     somewhere(), some(), somewhere(), some() % 5);
        record.Kind = random() % 3;
        record.Flags = random();
        record.AlphaDataStartLba = somewhere();
        record.AlphaDataBlockCount = some();
        record.AlphaBodyTableLba = somewhere();
        record.AlphaBodyTableBlockCount = some() % 4;
        record.Checksum = VrkFsHwCalcFileChecksum(&record);
        const ULONG lba = !files.empty() && random() % 10 == 0 ? files[random() % files.size()].lba
                          : random() % 10 == 0                 ? somewhere()
                                                               : 9000 + 2 * (random() % 1000);
        files.push_back({i, lba, record, static_cast<ULONG>(random() % 3)});
    }
    // Records that another one overwrote, or that lie over folder slots, are what the disk holds in the end.
    std::erase_if(files, [](const File& file) { return file.lba == 0; });
    PutFiles(files);
    Start();
    ASSERT_EQ(DescribeVolumes(), "V(0) GOOD(1)");
    std::vector<int> claims(kRigLastData + 1);
    for (ULONG slot = 0; slot < 3; ++slot) {
        OpenedFolder folder(slot);
        for (ULONG i = 0; i < kMaxFilesPerFolder; ++i) {
            if (folder.image.FileTable[i] == 0) {
                continue;
            }
            const FileEntry entry = ReadFile(folder, i);
            const auto claim = [&](ULONG start, std::uint64_t count) {
                const std::uint64_t end = start == 0 ? 0 : std::min<std::uint64_t>(start + count, kRigLastData + 1);
                for (std::uint64_t lba = std::max<ULONG>(start, 1024); lba < end; ++lba) {
                    ++claims[lba];
                }
            };
            claim(folder.image.FileTable[i], 2);
            claim(entry.DataStartLba, entry.DataBlockCount);
            if (entry.Kind == 1) {
                claim(entry.VideoBodyTableLba, entry.VideoBodyTableBlockCount);
                if ((entry.Flags & 1) != 0) {
                    claim(entry.AlphaDataStartLba, entry.AlphaDataBlockCount);
                    claim(entry.AlphaBodyTableLba, entry.AlphaBodyTableBlockCount);
                }
            }
        }
    }
    const auto inFreeList = [&](ULONG lba) {
        for (const AllocSegmentList* list : {&Volume()->Allocator.Lower, &Volume()->Allocator.Upper}) {
            const AllocSegment* at = VrkFsVolAllocFindEndingAfter(list, lba);
            if (at != nullptr && at->Start <= lba) {
                return true;
            }
        }
        return false;
    };
    for (ULONG lba = 1024; lba <= kRigLastData; ++lba) {
        ASSERT_EQ(inFreeList(lba), claims[lba] == 0) << "block " << lba;
        ASSERT_FALSE(claims[lba] > 1 && VrkFsVolAllocIsOwnedSpace(&Volume()->Allocator, lba, 1)) << "block " << lba;
    }
    // Deletes in any order free only blocks that nobody else claims.
    std::shuffle(files.begin(), files.end(), random);
    for (const File& file : files) {
        OpenedFolder folder(file.folder);
        ASSERT_EQ(RemoveFile(folder, ReadFile(folder, file.slot), file.slot), STATUS_SUCCESS);
    }
    for (ULONG lba = 1024; lba <= kRigLastData; ++lba) {
        ASSERT_TRUE(claims[lba] < 2 || !inFreeList(lba)) << "block " << lba;
    }
    Restart();
    EXPECT_EQ(FreeBlocks(), kRigDataBlocks);
}

INSTANTIATE_TEST_SUITE_P(Seeds, VolumeHostileRandom, testing::Range(1u, 13u));

}  // namespace
}  // namespace tests
