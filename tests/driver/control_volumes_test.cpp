// Volumes through the control device: the list, the format results, the counts of blocks.
#include <cstring>

#include "tests/support/machine_fixture.h"

namespace tests {
namespace {

class ControlVolumes : public MachineTest {
  protected:
    void SetUp() override {
        MakeStation(4, kDiskBlocks * 512);
        Start();
    }
    // The output of the volume list, in a buffer that held something else before.
    std::vector<std::byte> List(std::size_t outLength, std::uint64_t* returned) {
        const host::ScopedHandle control(User(), OpenControl().handle);
        std::vector<std::byte> input(std::max<std::size_t>(outLength, 4), std::byte{0xEE});
        std::vector<std::byte> output(outLength, std::byte{0xEE});
        const host::IoResult result = User().DeviceControl(control.Get(), IOCTL_VRKFS_QUERY_VOLUME_INFO, input, output);
        EXPECT_EQ(host::StatusName(result.status), "STATUS_SUCCESS");
        *returned = result.information;
        return output;
    }
    static std::uint32_t CountIn(const std::vector<std::byte>& list) {
        std::uint32_t count = 0;
        std::memcpy(&count, list.data(), sizeof(count));
        return count;
    }
    static VrkFsVolumeInfoRecord RecordIn(const std::vector<std::byte>& list, std::size_t index) {
        VrkFsVolumeInfoRecord record;
        std::memcpy(&record, list.data() + 4 + index * sizeof(record), sizeof(record));
        return record;
    }
    host::IoResult Measure(host::Handle handle, std::uint32_t video, std::uint32_t alpha, VrkFsVolumeSpaceInfo& info,
                           std::uint32_t card = 0) {
        const host::ScopedHandle control(User(), OpenControl(card).handle);
        std::memset(&info, 0xEE, sizeof(info));
        info.Handle = handle;
        info.VideoBlocksPerFrame = video;
        info.AlphaBlocksPerFrame = alpha;
        return User().DeviceControl(control.Get(), IOCTL_VRKFS_GET_VOLUME_SPACE_INFO, BytesOf(info),
                                    WritableBytesOf(info));
    }

    static constexpr std::uint64_t kDiskBlocks = 32768;
    static constexpr std::uint32_t kLastDataLba = kDiskBlocks - 1 - 4608;
    static constexpr std::uint32_t kDataBlocks = kLastDataLba - 1023;
};

TEST_F(ControlVolumes, TheListTellsTheCountAndAsManyRecordsAsFit) {
    ASSERT_EQ(Format(u"First", {0}), VRKFS_RESULT_DONE);
    ASSERT_EQ(Format(u"Second", {1}), VRKFS_RESULT_DONE);
    ASSERT_EQ(Format(u"Third", {3, 2}), VRKFS_RESULT_DONE);
    constexpr std::size_t kRecord = sizeof(VrkFsVolumeInfoRecord);
    struct {
        std::size_t outLength;
        std::size_t capacity;
    } const cases[] = {
        {4, 0}, {4 + kRecord - 1, 0}, {4 + 2 * kRecord + 5, 2}, {4 + 3 * kRecord, 3}, {4 + 5 * kRecord, 5}};
    for (const auto& test : cases) {
        std::uint64_t returned = 0;
        const std::vector<std::byte> list = List(test.outLength, &returned);
        EXPECT_EQ(CountIn(list), 3u);
        ASSERT_EQ(returned, 4 + test.capacity * kRecord);
        const char16_t* names[] = {u"First", u"Second", u"Third", u"", u""};
        for (std::size_t index = 0; index < test.capacity; ++index) {
            const VrkFsVolumeInfoRecord record = RecordIn(list, index);
            EXPECT_EQ(std::u16string(record.Name), names[index]);
            EXPECT_EQ(record.DeviceCount, index < 2 ? 1u : index == 2 ? 2u : 0u);
            EXPECT_EQ(record.Flags, 0u);
        }
        for (std::size_t at = returned; at < test.outLength; ++at) {
            EXPECT_EQ(list[at], std::byte{0xEE}) << "written beyond what was returned";
        }
    }
    std::uint64_t returned = 0;
    const VrkFsVolumeInfoRecord third = RecordIn(List(4 + 3 * kRecord, &returned), 2);
    EXPECT_EQ(third.Devices[0], 3u);
    EXPECT_EQ(third.Devices[1], 2u);
    EXPECT_EQ(third.Devices[2], VRKFS_NO_DEVICE);
}

TEST_F(ControlVolumes, ARefusedFormatIsAResultNotAFailure) {
    ASSERT_EQ(Format(u"Taken", {0}), VRKFS_RESULT_DONE);
    ASSERT_EQ(Format(u"Held", {1}), VRKFS_RESULT_DONE);
    const host::ScopedHandle held(User(), Open(u"\\RZV\\Held").handle);
    ASSERT_TRUE(held);
    struct {
        const char16_t* name;
        std::vector<std::uint32_t> disks;
        int result;
    } const cases[] = {
        {u"New", {0, 1, 2}, VRKFS_FORMAT_BAD_DEVICE_COUNT},
        {u"New", {1}, VRKFS_FORMAT_DEVICE_IN_USE},
        {u"Taken", {0}, VRKFS_RESULT_DONE},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(Format(test.name, test.disks), test.result);
    }
    std::uint64_t returned = 0;
    EXPECT_EQ(CountIn(List(4, &returned)), 2u);
}

TEST_F(ControlVolumes, OnlyAFolderOrFileOnAVolumeOfTheCardCanBeMeasured) {
    Stop();
    std::filesystem::remove_all(StationPath());
    MakeStation(2, kDiskBlocks * 512, 2);
    Start();
    ASSERT_EQ(Format(u"Vol", {0}), VRKFS_RESULT_DONE);
    struct {
        const char16_t* path;
        std::uint32_t card;
        bool measured;
    } const cases[] = {
        {u"", 0, false},          {u"\\", 0, false},         {u"\\RZV", 0, false},
        {u"\\RZV\\Vol", 0, true}, {u"\\RZV\\Vol", 1, false}, {u"\\RZV\\Vol\\___Port0___", 0, true},
    };
    for (const auto& test : cases) {
        const host::ScopedHandle handle(User(), Open(test.path).handle);
        ASSERT_TRUE(handle) << test.card;
        VrkFsVolumeSpaceInfo info;
        const host::IoResult result = Measure(handle.Get(), 0, 0, info, test.card);
        const std::string name(test.path, test.path + std::char_traits<char16_t>::length(test.path));
        EXPECT_EQ(host::StatusName(result.status), test.measured ? "STATUS_SUCCESS" : "STATUS_UNSUCCESSFUL") << name;
        EXPECT_EQ(result.information, test.measured ? sizeof(info) : 0u) << name;
    }
}

TEST_F(ControlVolumes, CountsAreOfAllDevicesAndTheLastBlockOfOne) {
    ASSERT_EQ(Format(u"Vol", {0, 1}), VRKFS_RESULT_DONE);
    const host::ScopedHandle volume(User(), Open(u"\\RZV\\Vol").handle);
    ASSERT_TRUE(volume);
    VrkFsVolumeSpaceInfo info;
    for (const std::uint32_t alpha : {0u, 7u}) {
        ASSERT_TRUE(Measure(volume.Get(), 0, alpha, info).status.Ok());
        EXPECT_EQ(info.FreeBlocks, 2ull * kDataBlocks);
        EXPECT_EQ(info.TotalBlocks, 2ull * (kLastDataLba + 1));
        EXPECT_EQ(info.LastBlock, kLastDataLba);
        EXPECT_EQ(info.FrameEstimate, 0u);
    }
    struct {
        std::uint32_t video;
        std::uint32_t alpha;
        std::uint32_t frames;
    } const cases[] = {
        // Fields of V blocks in rows of two, one table block for 64 rows, two blocks for the record.
        {1000, 0, (kDataBlocks - 2 - 1) / 1000},
        {100, 0, (kDataBlocks - 2 - 5) / 100},
        {1000, 200, (kDataBlocks - 2 - 2) / 1200},
        {200, 1000, (kDataBlocks - 2 - 2) / 1200},
        {kDataBlocks - 3, 0, 1},
        {kDataBlocks - 2, 0, 0},
        {0xFFFFFFFF, 0, 0},
        {0xFFFFFFFF, 0xFFFFFFFF, 0},
        {1, 0xFFFFFFFF, 0},
    };
    for (const auto& test : cases) {
        ASSERT_TRUE(Measure(volume.Get(), test.video, test.alpha, info).status.Ok());
        EXPECT_EQ(info.FrameEstimate, test.frames) << test.video << " " << test.alpha;
        EXPECT_EQ(info.FreeBlocks, 2ull * kDataBlocks) << "the trials were not given back";
    }
}

}  // namespace
}  // namespace tests
