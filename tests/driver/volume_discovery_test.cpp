// From volume entries on disks to volumes: which disks make one, which names are seen, and what strangers' entries do.
#include "tests/driver/volume_rig.h"

namespace tests {
namespace {

class VolumeDiscovery : public VolumeTest {
  protected:
    static bool OpenByName(const std::u16string& name) {
        const UNICODE_STRING counted = CountedName(name);
        HwVolume* volume = nullptr;
        const bool opened = Locked([&] { return VrkFsHwOpenVolume(Hw(), &counted, &volume); });
        if (opened) {
            VrkFsHwCloseVolume(Hw(), volume);
        }
        return opened;
    }
};

struct EntryOnDisk {
    std::uint32_t id;
    std::u16string name;
    ULONG count;
    ULONG position;
    ULONGLONG time = kRigTime;
    ULONG blocks = kRigBlocks;  // size of the disk
};

struct DiscoveryCase {
    const char* what;
    std::vector<EntryOnDisk> disks;
    std::string volumes;
};

class VolumeDiscoveryCases : public VolumeDiscovery, public testing::WithParamInterface<DiscoveryCase> {
  protected:
    void SetUp() override { MakeStation(5, std::uint64_t{kRigBlocks} * 512); }
};

TEST_P(VolumeDiscoveryCases, Volumes) {
    for (const EntryOnDisk& disk : GetParam().disks) {
        ResizeDisk(disk.id, disk.blocks);
        Put(disk.id, 0, MakeVolumeEntry(disk.name, disk.count, disk.position, disk.time));
    }
    Start();
    EXPECT_EQ(DescribeVolumes(), GetParam().volumes) << GetParam().what;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, VolumeDiscoveryCases,
    testing::Values(
        DiscoveryCase{"positions decide, not IDs", {{1, u"V", 2, 1}, {4, u"V", 2, 0}}, "V(4,1)"},
        DiscoveryCase{"a disk is missing", {{1, u"V", 2, 1}}, "V(-,1)!incomplete"},
        DiscoveryCase{"case does not matter, another time does",
                      {{0, u"News", 2, 0}, {1, u"NEWS", 2, 1, kRigTime + 1}, {2, u"NEWS", 2, 1}},
                      "News(0,2) NEWS(-,1)!incomplete"},
        DiscoveryCase{"the later of two names is hidden",
                      {{1, u"News", 1, 0}, {3, u"NEWS", 1, 0, kRigTime + 1}},
                      "News(1) NEWS(3)!conflict"},
        DiscoveryCase{"an incomplete volume's name counts too",
                      {{0, u"A", 2, 0}, {1, u"A", 1, 0, kRigTime + 1}},
                      "A(0,-)!incomplete A(1)!conflict"},
        DiscoveryCase{
            "a copy of a disk is a volume of its own", {{0, u"A", 1, 0}, {2, u"A", 1, 0}}, "A(0) A(2)!conflict"},
        DiscoveryCase{"a copy of one of two disks",
                      {{0, u"A", 2, 0}, {1, u"A", 2, 0}, {2, u"A", 2, 1}},
                      "A(0,2) A(1,-)!incomplete"},
        DiscoveryCase{"positions and counts that cannot be",
                      {{0, u"A", 0, 0}, {1, u"B", 17, 3}, {2, u"C", 2, 2}, {3, u"D", 1, 0xFFFFFFFF}, {4, u"E", 1, 0}},
                      "E(4)"},
        DiscoveryCase{"disks of one name that disagree about their number",
                      {{0, u"A", 2, 0}, {1, u"A", 3, 1}, {2, u"A", 2, 1}},
                      "A(0,2) A(-,1,-)!incomplete"},
        DiscoveryCase{"disks too small for a volume",
                      {{0, u"A", 1, 0, kRigTime, 5633},
                       {1, u"B", 1, 0, kRigTime, 5634},
                       {2, u"C", 2, 0},
                       {3, u"C", 2, 1, kRigTime, 2}},
                      "A(0)!incomplete B(1) C(2,3)!incomplete"}),
    [](const auto& one) { return "Case" + std::to_string(one.index); });

TEST_F(VolumeDiscovery, SizesFollowTheSmallestDisk) {
    ResizeDisk(2, 12000);
    Put(0, 0, MakeVolumeEntry(u"V", 2, 0));
    Put(2, 0, MakeVolumeEntry(u"V", 2, 1));
    VolumeEntry bad = MakeVolumeEntry(u"BAD", 1, 0);
    bad.Checksum ^= 1;
    Put(1, 0, bad);
    Start();
    ASSERT_EQ(DescribeVolumes(), "V(0,2)");
    EXPECT_EQ(Volume()->LastDataLba, 11999u - 4608);
    EXPECT_EQ(Volume()->FirstDirLba, 11999u - 4607);
    ULONGLONG total = 0;
    ULONGLONG free = 0;
    VrkFsHwGetVolumeSpaceInfo(Volume(), &total, &free);
    EXPECT_EQ(total, 2 * (11999u - 4608 + 1));
    EXPECT_EQ(free, 2 * (11999u - 5631));
}

TEST_F(VolumeDiscovery, NamesComeBackOneAtATime) {
    Put(0, 0, MakeVolumeEntry(u"News", 1, 0, kRigTime));
    Put(1, 0, MakeVolumeEntry(u"NEWS", 1, 0, kRigTime + 5));
    Put(2, 0, MakeVolumeEntry(u"news", 1, 0, kRigTime + 9));
    Start();
    ASSERT_EQ(DescribeVolumes(), "News(0) NEWS(1)!conflict news(2)!conflict");
    EXPECT_TRUE(OpenByName(u"nEwS"));
    ULONGLONG total = 0;
    ULONGLONG free = 0;
    VrkFsHwGetTotalVolumeSpaceInfo(Hw(), &total, &free);
    EXPECT_EQ(free, kRigDataBlocks);  // hidden volumes have none
    LONGLONG time = -1;
    VrkFsHwGetLatestVolumeTime(Hw(), &time);
    EXPECT_EQ(time, static_cast<LONGLONG>(kRigTime));

    const std::u16string sport = u"Sport";
    const UNICODE_STRING newName = CountedName(sport);
    const std::u16string news = u"neWS";
    const UNICODE_STRING freed = CountedName(news);
    EXPECT_EQ(Locked([&] {
                  const NTSTATUS status = VrkFsHwRenameVolume(Hw(), Vcb(), Volume(), &newName);
                  VrkFsHwResolveVolumeNameConflicts(Hw(), Vcb(), &freed);
                  return status;
              }),
              STATUS_SUCCESS);
    EXPECT_EQ(DescribeVolumes(), "Sport(0) NEWS(1) news(2)!conflict");
    VrkFsHwGetLatestVolumeTime(Hw(), &time);
    EXPECT_EQ(time, static_cast<LONGLONG>(kRigTime + 5));
    Restart();
    EXPECT_EQ(DescribeVolumes(), "Sport(0) NEWS(1) news(2)!conflict");
}

// Disks of one volume under two names would never find each other again.
TEST_F(VolumeDiscovery, RenameThatFailsHalfWay) {
    for (ULONG id = 0; id < 3; ++id) {
        Put(id, 0, MakeVolumeEntry(u"OldName", 3, id));
    }
    Start();
    board::Misbehaviour rule;
    rule.operation = board::Operation::kWrite;
    rule.scsiId = 1;
    rule.what = board::Wrong::kTearFail;
    rule.blocks = 1;
    rule.count = 1;
    Board().Misbehave().Add(rule);
    const std::u16string text = u"New";
    const UNICODE_STRING newName = CountedName(text);
    EXPECT_FALSE(NT_SUCCESS(Locked([&] { return VrkFsHwRenameVolume(Hw(), Vcb(), Volume(), &newName); })));
    EXPECT_EQ(DescribeVolumes(), "OldName(0,1,2)");
    Board().Misbehave().Clear();
    Restart();
    EXPECT_EQ(DescribeVolumes(), "OldName(0,1,2)");
}

TEST_F(VolumeDiscovery, FlushForgetsAndRebuildFindsAgain) {
    Put(0, 0, MakeVolumeEntry(u"A", 2, 0));
    Put(1, 0, MakeVolumeEntry(u"A", 2, 1));
    Put(2, 0, MakeVolumeEntry(u"B", 1, 0));
    PutFolder(0, 3, MakeFolder(u"F"));
    Start();
    const auto flush = [&] { return VrkFsHwFlushVolumeCache(Hw(), Vcb()); };
    const auto rebuild = [&] { return VrkFsHwRebuildVolumeCache(Hw(), Vcb()); };
    EXPECT_EQ(Locked(flush), STATUS_SUCCESS);
    EXPECT_EQ(DescribeVolumes(), "");
    EXPECT_FALSE(OpenByName(u"A"));
    EXPECT_NE(Vcb()->Flags & kVcbVolumesFlushed, 0u);
    // What another party writes in the meantime is read fresh.
    PutFolder(0, 3, MakeFolder(u"G"));
    board::Misbehaviour rule;
    rule.operation = board::Operation::kScan;
    rule.count = 1;
    Board().Misbehave().Add(rule);
    EXPECT_FALSE(NT_SUCCESS(Locked(rebuild)));
    EXPECT_NE(Vcb()->Flags & kVcbVolumesFlushed, 0u);
    EXPECT_EQ(Locked(rebuild), STATUS_SUCCESS);
    EXPECT_EQ(Vcb()->Flags & kVcbVolumesFlushed, 0u);
    EXPECT_EQ(DescribeVolumes(), "A(0,1) B(2)");
    EXPECT_EQ(ListFolders(), "3:G");
    EXPECT_EQ(Locked(rebuild), STATUS_SUCCESS);  // once more over what is there
    EXPECT_EQ(DescribeVolumes(), "A(0,1) B(2)");
}

}  // namespace
}  // namespace tests
