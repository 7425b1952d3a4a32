// From volume entries on disks to volumes: which disks make one, and what strangers' entries do.
#include "tests/driver/volume_rig.h"

namespace tests {
namespace {

class VolumeDiscovery : public VolumeTest {};

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

}  // namespace
}  // namespace tests
