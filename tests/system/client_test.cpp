// The client library: that each function sends what it says and brings back what came, in C too, and that what a caller
// passes wrongly is refused. What the codes do is tested with the driver.
#include <thread>

#include "tests/system/client_fixture.h"

extern "C" int CountVolumesInC(VrkFsClient* client, VrkFsVolumeInfoRecord* first);

namespace tests {
namespace {

class Client : public ClientTest, public testing::WithParamInterface<bool> {
  protected:
    void SetUp() override { StartVolume(2, GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(Through, Client, testing::Bool(),
                         [](const auto& row) { return row.param ? "Socket" : "Machine"; });

TEST_P(Client, SpeaksC) {
    VrkFsVolumeInfoRecord volume{};
    EXPECT_EQ(CountVolumesInC(client_.get(), &volume), 1);
    EXPECT_EQ(std::u16string(volume.Name), u"VOL");
    EXPECT_EQ(volume.DeviceCount, 2u);
    char name[16];
    VrkFsClientStatusName(VRKFS_STATUS_ACCESS_DENIED, name, sizeof(name));
    EXPECT_STREQ(name, "STATUS_ACCESS_D");
}

TEST_P(Client, CarriesSettingsAndVolumes) {
    VrkFsPreferences preferences;
    ASSERT_OK(VrkFsClientGetPreferences(client_.get(), control_, &preferences));
    EXPECT_EQ(preferences.DriveLetter, 'P');
    preferences.BaseFrameNumber = 4711;
    ASSERT_OK(VrkFsClientSetPreferences(client_.get(), control_, &preferences));
    VrkFsPreferences again{};
    ASSERT_OK(VrkFsClientGetPreferences(client_.get(), control_, &again));
    EXPECT_EQ(std::memcmp(&again, &preferences, sizeof(again)), 0);

    const VrkFsScsiPrefs wanted{3, 1};
    VrkFsScsiPrefs scsi{};
    ASSERT_OK(VrkFsClientSetScsiPrefs(client_.get(), control_, &wanted));
    ASSERT_OK(VrkFsClientGetScsiPrefs(client_.get(), control_, &scsi));
    EXPECT_EQ(std::memcmp(&scsi, &wanted, sizeof(scsi)), 0);

    VrkFsFileType types[2] = {};
    for (std::uint32_t i = 0; i < 2; ++i) {
        types[i].TypeCode = 5 + i;
        std::u16string(i == 0 ? u"TGA" : u"BMP").copy(types[i].Extension, 3);
    }
    ASSERT_OK(VrkFsClientRegisterFileTypes(client_.get(), control_, types, 2));
    OpenOnce(u"P:\\BMP\\VOL\\CLIPS", VRKFS_OPEN_READ | VRKFS_OPEN_FOLDER);
    ASSERT_OK(VrkFsClientUnregisterFileTypes(client_.get(), control_));
    VrkFsHandle folder = 0;
    EXPECT_FALSE(VRKFS_SUCCEEDED(
        VrkFsClientOpenFile(client_.get(), u"P:\\BMP\\VOL\\CLIPS", VRKFS_OPEN_READ | VRKFS_OPEN_FOLDER, &folder)));
    EXPECT_OK(VrkFsClientRegisterSdtiFlags(client_.get(), control_, 1));

    VrkFsVolumeInfoRecord volume{};
    volume.DeviceCount = 3;
    std::int32_t result = 0;
    ASSERT_OK(VrkFsClientFormatVolume(client_.get(), control_, &volume, &result));
    EXPECT_NE(result, VRKFS_RESULT_DONE);
}

// ---- A clip's facts, its tables, and moving it ----

TEST_P(Client, TellsAndMovesAClip) {
    const examples::RecordOrder order = Order(u"CLIP.RZV", true, 3);
    ASSERT_TRUE(examples::Record(client_.get(), order));
    VrkFsHandle file = OpenFile(order.path, VRKFS_OPEN_MOVER);
    VrkFsFileLocation place{};
    ASSERT_OK(VrkFsClientGetFileLocation(client_.get(), control_, file, &place));
    EXPECT_EQ(place.FileEntryBlocks, 2u);
    EXPECT_NE(place.AlphaDataLba, 0u);
    ASSERT_OK(VrkFsClientSetSdtiType(client_.get(), control_, file, 5, 0));
    std::uint32_t sdti = 0;
    std::byte entry[VRKFS_FILE_ENTRY_SIZE];
    ASSERT_OK(VrkFsClientGetFileEntry(client_.get(), control_, file, entry));
    std::memcpy(&sdti, entry + 0x78, sizeof(sdti));
    EXPECT_EQ(sdti, 5u);
    ASSERT_OK(VrkFsClientSetSdtiType(client_.get(), control_, file, 0, 0));

    VrkFsSegmentMove move{};
    move.NewLba[VRKFS_SEGMENT_DATA] = place.DataLba + 4000;
    ASSERT_OK(VrkFsClientSuspendBodyTableFlush(client_.get(), control_));
    ASSERT_OK(VrkFsClientResumeBodyTableFlush(client_.get(), control_));
    VrkFsBuffer progress;
    ASSERT_OK(VrkFsClientAllocateBuffer(client_.get(), sizeof(std::uint32_t), &progress));
    move.NewLba[VRKFS_SEGMENT_ALPHA_DATA] = place.AlphaDataLba + 5000;
    move.NewLba[VRKFS_SEGMENT_BODY_TABLE] = place.BodyTableLba - 300;
    move.NewLba[VRKFS_SEGMENT_FILE_ENTRY] = place.FileEntryLba - 1;
    ASSERT_OK(VrkFsClientMoveFileSegments(client_.get(), control_, file, &move, &progress));
    EXPECT_EQ(VrkFsClientReadProgress(&progress),
              place.DataBlocks + place.AlphaDataBlocks + place.BodyTableBlocks + place.FileEntryBlocks);
    VrkFsFileLocation moved{};
    ASSERT_OK(VrkFsClientGetFileLocation(client_.get(), control_, file, &moved));
    EXPECT_EQ(moved.DataLba, place.DataLba + 4000);
    EXPECT_EQ(moved.FileEntryLba, place.FileEntryLba - 1);
    VrkFsClientFreeBuffer(client_.get(), &progress);
    EXPECT_OK(VrkFsClientClose(client_.get(), file));
    ExpectClip(order);
}

TEST_P(Client, RefusesWhatItCannotCarry) {
    VrkFsHandle disks = 0;
    VrkFsHandle nothing = 0;
    ASSERT_OK(VrkFsClientOpenDisks(client_.get(), 0, &disks));
    EXPECT_EQ(VrkFsClientOpenDisks(client_.get(), 10, &nothing), VRKFS_STATUS_INVALID_PARAMETER);
    EXPECT_FALSE(VRKFS_SUCCEEDED(VrkFsClientOpenControl(client_.get(), 3, &nothing)));

    VrkScsiDeviceInfo disk{};
    ASSERT_OK(VrkFsClientQueryDisk(client_.get(), disks, 1, &disk));
    EXPECT_EQ(disk.State, VRK_DEVICE_STATE_DISK);
    VrkFsBuffer buffer;
    ASSERT_OK(VrkFsClientAllocateBuffer(client_.get(), 4 * VRKFS_SECTOR_SIZE, &buffer));
    EXPECT_OK(VrkFsClientReadBlocks(client_.get(), disks, 1, disk.LastLba - 3, 4, &buffer));
    EXPECT_FALSE(VRKFS_SUCCEEDED(VrkFsClientReadBlocks(client_.get(), disks, 1, disk.LastLba - 2, 4, &buffer)));
    EXPECT_EQ(VrkFsClientReadBlocks(client_.get(), disks, 1, 0, 5, &buffer), VRKFS_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(VrkFsClientWriteBlocks(client_.get(), disks, 1, 0, 0xFFFFFFFF, &buffer), VRKFS_STATUS_INVALID_PARAMETER);

    // A buffer is its client's, and only while it is not freed.
    const client::ClientPointer other = NewClient();
    VrkFsHandle otherDisks = 0;
    ASSERT_OK(VrkFsClientOpenDisks(other.get(), 0, &otherDisks));
    EXPECT_FALSE(VRKFS_SUCCEEDED(VrkFsClientReadBlocks(other.get(), otherDisks, 1, 0, 1, &buffer)));
    VrkFsBuffer again = buffer;
    VrkFsClientFreeBuffer(other.get(), &again);
    EXPECT_OK(VrkFsClientReadBlocks(client_.get(), disks, 1, 0, 1, &buffer));
    const VrkFsBuffer freed = buffer;
    VrkFsClientFreeBuffer(client_.get(), &buffer);
    again = freed;
    VrkFsClientFreeBuffer(client_.get(), &again);
    ASSERT_OK(VrkFsClientAllocateBuffer(client_.get(), 4 * VRKFS_SECTOR_SIZE, &buffer));
    ASSERT_OK(VrkFsClientAllocateBuffer(client_.get(), 4 * VRKFS_SECTOR_SIZE, &again));
    EXPECT_NE(buffer.Bytes, again.Bytes) << "freed twice, handed out once";
    EXPECT_FALSE(VRKFS_SUCCEEDED(VrkFsClientReadBlocks(client_.get(), disks, 1, 0, 1, &freed)));
    EXPECT_EQ(VrkFsClientAllocateBuffer(client_.get(), 0, &buffer), VRKFS_STATUS_INVALID_PARAMETER);

    // Names of sections that are none.
    VrkFsNodeView view = {};
    VrkFsSectionName name = {};
    EXPECT_FALSE(VRKFS_SUCCEEDED(VrkFsClientMapNodes(client_.get(), &name, 0, &view)));
    std::fill(std::begin(name.Text), std::end(name.Text), u'x');
    EXPECT_FALSE(VRKFS_SUCCEEDED(VrkFsClientMapNodes(client_.get(), &name, 0, &view)));
}

}  // namespace
}  // namespace tests
