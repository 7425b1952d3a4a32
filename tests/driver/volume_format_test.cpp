// Formatting: what is refused, what lies on the disks afterwards, and what a failure leaves.
#include "tests/driver/volume_rig.h"
#include "volume/format.h"

namespace tests {
namespace {

class VolumeFormat : public VolumeTest {
  protected:
    void SetUp() override { MakeStation(4, std::uint64_t{kRigBlocks} * 512); }
    // The result code, of a request that ends well.
    LONG Run(const std::u16string& name, const std::vector<ULONG>& ids, std::optional<ULONG> count = {}) {
        VrkFsVolumeInfoRecord request{};
        SetName(request.Name, name);
        request.DeviceCount = count.value_or(static_cast<ULONG>(ids.size()));
        request.Flags = 0xFFFFFFFF;
        for (std::size_t i = 0; i < 16; ++i) {
            request.Devices[i] = i < ids.size() ? ids[i] : 0xFFFFFFFF;
        }
        LONG result = 12345;
        EXPECT_EQ(Locked([&] { return VrkFsHwFormatVolume(Hw(), Vcb(), &request, &result); }), STATUS_SUCCESS);
        return result;
    }
};

TEST_F(VolumeFormat, Refusals) {
    ResizeDisk(3, 5633);
    Put(2, 0, MakeVolumeEntry(u"Taken", 1, 0));
    Start();
    const struct {
        const char* what;
        std::u16string name;
        std::vector<ULONG> ids;
        std::optional<ULONG> count;
        LONG result;
    } cases[] = {
        {"no device", u"N", {}, 0, -24},
        {"three devices", u"N", {0, 1, 2}, 3, -24},
        {"sixteen", u"N", std::vector<ULONG>(16, 0), 16, -24},
        {"four thousand million", u"N", {0}, 0xFFFFFFFF, -24},
        {"no disk there", u"N", {0, 5}, 2, -25},
        {"beyond the bus", u"N", {0, 16}, 2, -25},
        {"far beyond it", u"N", {0xFFFFFFFF}, 1, -25},
        {"the adapter's own ID", u"N", {7}, 1, -25},
        {"one disk twice", u"N", {1, 1}, 2, -25},
        {"too small a disk", u"N", {3}, 1, -25},
        {"the count comes before the devices", u"N", {16, 16, 16}, 3, -24},
        {"the devices come before the name", u":", {5}, 1, -25},
        {"no name", u"", {0}, 1, -27},
        {"not a name", u"a*b", {0}, 1, -27},
        {"another volume's name", u"TAKEN", {0}, 1, -28},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Run(c.name, c.ids, c.count), c.result) << c.what;
    }
    const UNICODE_STRING name = CountedName(u"taken");
    HwVolume* open = nullptr;
    ASSERT_TRUE(Locked([&] { return VrkFsHwOpenVolume(Hw(), &name, &open); }));
    EXPECT_EQ(Run(u"N", {0, 2}), -26);
    VrkFsHwCloseVolume(Hw(), open);
    EXPECT_EQ(DescribeVolumes(), "Taken(2)");
    EXPECT_EQ(Board().Count().Of(board::Operation::kWrite), 0u);
}

TEST_F(VolumeFormat, NewVolumeInMemoryAndOnDisk) {
    ResizeDisk(3, 14000);
    Start();
    EXPECT_EQ(Run(u"Sport", {3, 1}), 0);
    EXPECT_EQ(DescribeVolumes(), "Sport(3,1)");
    EXPECT_EQ(FreeBlocks(), 13999u - 5631);  // the smallest disk decides
    EXPECT_EQ(Volume()->LastDataLba, 13999u - 4608);
    EXPECT_EQ(Volume()->FirstDirLba, 13999u - 4607);
    ULONGLONG total = 0;
    ULONGLONG free = 0;
    VrkFsHwGetVolumeSpaceInfo(Volume(), &total, &free);
    EXPECT_EQ(total, 2 * (13999u - 4608 + 1));
    EXPECT_EQ(free, 2 * (13999u - 5631));
    EXPECT_EQ(ListFolders(), "");
    for (const ULONG position : {0u, 1u}) {
        const VolumeEntry entry = Get<VolumeEntry>(position == 0 ? 3 : 1, 0);
        EXPECT_EQ(entry.Magic, kVolumeEntryMagic);
        EXPECT_EQ(entry.Version, 0x00010000u);
        EXPECT_EQ(entry.DeviceCount, 2u);
        EXPECT_EQ(entry.Position, position);
        EXPECT_EQ(NameOf(entry.Name), u"Sport");
        EXPECT_EQ(entry.Checksum, VrkFsHwCalcVolumeChecksum(&entry));
        EXPECT_EQ(entry.CreationTime, Get<VolumeEntry>(1, 0).CreationTime);
    }
    Restart();
    EXPECT_EQ(DescribeVolumes(), "Sport(3,1)");
}

TEST_F(VolumeFormat, OldVolumesLoseTheirDisks) {
    Start();
    ASSERT_EQ(Run(u"A", {0, 1}), 0);
    ASSERT_EQ(Run(u"B", {2, 3}), 0);
    OpenedFolder folder;
    ASSERT_EQ(CreateFolder(u"Gone", folder), STATUS_SUCCESS);
    EXPECT_EQ(Run(u"a", {0, 1}), 0);  // its own name again
    EXPECT_EQ(DescribeVolumes(), "B(2,3) a(0,1)");
    EXPECT_EQ(ListFolders(Volume(1)), "");
    EXPECT_EQ(Run(u"C", {1, 2}), 0);
    EXPECT_EQ(DescribeVolumes(), "B(-,3)!incomplete a(0,-)!incomplete C(1,2)");
    EXPECT_EQ(Run(u"C", {3}), -28);
    EXPECT_EQ(Run(u"D", {3}), 0);
    EXPECT_EQ(DescribeVolumes(), "a(0,-)!incomplete C(1,2) D(3)");
}

}  // namespace
}  // namespace tests
