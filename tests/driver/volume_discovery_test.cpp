// From volume entries on disks to volumes: which disks make one, and what strangers' entries do.
#include "tests/driver/volume_rig.h"

namespace tests {
namespace {

using VolumeDiscovery = VolumeTest;

TEST_F(VolumeDiscovery, EntriesMakeVolumes) {
    constexpr ULONGLONG kLater = kRigTime + 1;
    struct EntryOnDisk {
        std::uint32_t id;
        std::u16string name;
        ULONG count, position;
        ULONGLONG time = kRigTime;
        ULONG blocks = kRigBlocks;  // size of the disk
        bool damaged = false;
    };
    const struct {
        const char* what;
        std::vector<EntryOnDisk> disks;
        std::string volumes;
    } cases[] = {
        {"positions decide, not IDs", {{1, u"V", 2, 1}, {4, u"V", 2, 0}}, "V(4,1)"},
        {"a disk is missing", {{1, u"V", 2, 1}}, "V(-,1)!incomplete"},
        {"case does not matter, another time does",
         {{0, u"News", 2, 0}, {1, u"NEWS", 2, 1, kLater}, {2, u"NEWS", 2, 1}},
         "News(0,2) NEWS(-,1)!incomplete"},
        {"the later of two is hidden", {{1, u"News", 1, 0}, {3, u"NEWS", 1, 0, kLater}}, "News(1) NEWS(3)!conflict"},
        {"incomplete ones count too", {{0, u"A", 2, 0}, {1, u"A", 1, 0, kLater}}, "A(0,-)!incomplete A(1)!conflict"},
        {"a copy of a disk is a volume of its own", {{0, u"A", 1, 0}, {2, u"A", 1, 0}}, "A(0) A(2)!conflict"},
        {"a copy of one of two", {{0, u"A", 2, 0}, {1, u"A", 2, 0}, {2, u"A", 2, 1}}, "A(0,2) A(1,-)!incomplete"},
        {"positions and counts that cannot be",
         {{0, u"A", 0, 0}, {1, u"B", 17, 3}, {2, u"C", 2, 2}, {3, u"D", 1, 0xFFFFFFFF}, {4, u"E", 1, 0}},
         "E(4)"},
        {"a wrong checksum", {{0, u"A", 1, 0, kRigTime, kRigBlocks, true}, {1, u"B", 1, 0}}, "B(1)"},
        {"disks of one name that disagree about their number",
         {{0, u"A", 2, 0}, {1, u"A", 3, 1}, {2, u"A", 2, 1}},
         "A(0,2) A(-,1,-)!incomplete"},
        {"disks too small for a volume",
         {{0, u"A", 1, 0, kRigTime, 5633},
          {1, u"B", 1, 0, kRigTime, 5634},
          {2, u"C", 2, 0},
          {3, u"C", 2, 1, kRigTime, 2}},
         "A(0)!incomplete B(1) C(2,3)!incomplete"},
    };
    for (const auto& c : cases) {
        for (const std::uint32_t id : {0u, 1u, 2u, 3u, 4u}) {
            ResizeDisk(id, kRigBlocks);
            Put(id, 0, VolumeEntry{});
        }
        for (const EntryOnDisk& disk : c.disks) {
            VolumeEntry entry = MakeVolumeEntry(disk.name, disk.count, disk.position, disk.time);
            entry.Checksum ^= disk.damaged ? 1 : 0;
            ResizeDisk(disk.id, disk.blocks);
            Put(disk.id, 0, entry);
        }
        Start();
        EXPECT_EQ(DescribeVolumes(), c.volumes) << c.what;
        Stop();
    }
}

// Disks of one volume under two names would never find each other again.
TEST_F(VolumeDiscovery, RenameThatFailsHalfWay) {
    for (ULONG id = 0; id < 3; ++id) {
        Put(id, 0, MakeVolumeEntry(u"OldName", 3, id));
    }
    Start();
    constexpr auto kWrite = board::Operation::kWrite;
    Board().Misbehave().Add(
        {.what = board::Wrong::kTearFail, .operation = kWrite, .scsiId = 1, .count = 1, .blocks = 1});
    const UNICODE_STRING newName = CountedName(u"New");
    EXPECT_FALSE(NT_SUCCESS(Locked([&] { return VrkFsHwRenameVolume(Hw(), Vcb(), Volume(), &newName); })));
    EXPECT_EQ(DescribeVolumes(), "OldName(0,1,2)");
    Board().Misbehave().Clear();
    Restart();
    EXPECT_EQ(DescribeVolumes(), "OldName(0,1,2)");
}

}  // namespace
}  // namespace tests
