// Space, placement and settings of media files through the control device: what a recorder asks and is told, which
// handles are refused, and that no caller's numbers and no record give away blocks of others.
#include <algorithm>
#include <functional>

#include "board/disk.h"
#include "tests/driver/fsd_fixture.h"
#include "tests/driver/recorder_rig.h"

namespace tests {
namespace {

constexpr const char* kDone = "STATUS_SUCCESS";
constexpr const char* kFailed = "STATUS_UNSUCCESSFUL";
constexpr const char* kDeleted = "STATUS_FILE_DELETED";
constexpr const char* kBadHandle = "STATUS_INVALID_HANDLE";

// ---- Handles ----

constexpr std::uint32_t kHandleCodes[] = {
    IOCTL_VRKFS_ALLOCATE_VIDEO_SPACE,
    IOCTL_VRKFS_UPDATE_VIDEO_FILE,
    IOCTL_VRKFS_GET_FILE_INFO,
    IOCTL_VRKFS_GET_FILE_ENTRY,
    IOCTL_VRKFS_SET_APP_FILE_ENTRY_INFO,
    IOCTL_VRKFS_GET_FILE_LOCATION_INFO,
    IOCTL_VRKFS_SET_SDTI_TYPE,
    IOCTL_VRKFS_CREATE_NEW_BODY_TABLE,
    IOCTL_VRKFS_REFERENCE_BODY_TABLE,
    IOCTL_VRKFS_DEREFERENCE_BODY_TABLE,
    IOCTL_VRKFS_ADD_VIDEO_NODES_TO_BODY_TABLE,
    IOCTL_VRKFS_ADD_ALPHA_NODES_TO_BODY_TABLE,
};

class ControlHandles : public FsdTest {
  protected:
    void SetUp() override {
        MakeStation(1, 16 << 20, 2);
        Start();
        ASSERT_EQ(Format(u"VolA", {0}), VRKFS_RESULT_DONE);
        ASSERT_EQ(Format(u"VolB", {0}, 1), VRKFS_RESULT_DONE);
        AddTypes();
        Make(u"\\RZV\\VolA\\Clips", host::option::kDirectoryFile);
        Make(u"\\RZV\\VolA\\Clips\\Take1");
        Make(u"\\RZV\\VolA\\Clips\\Take2");
        control_ = {User(), OpenControl().handle};
    }
    void TearDown() override {
        control_.Reset();
        FsdTest::TearDown();
    }
    // Every code with this handle.
    void Expect(const std::string& what, host::Handle handle, const std::string& answer) {
        for (const std::uint32_t code : kHandleCodes) {
            std::vector<std::byte> in(1024);
            std::vector<std::byte> out(1024);
            std::memcpy(in.data(), &handle, sizeof(handle));
            const host::IoResult result = User().DeviceControl(control_.Get(), code, in, out);
            EXPECT_EQ(host::StatusName(result.status), answer) << what << ", code " << std::hex << code;
            EXPECT_EQ(result.information, 0u);
            EXPECT_TRUE(std::ranges::all_of(out, [](std::byte b) { return b == std::byte{0}; })) << what;
        }
    }
    host::ScopedHandle control_;
};

TEST_F(ControlHandles, OnlyAFileOfTheCardWillDo) {
    const struct {
        std::u16string path;
        std::uint32_t options = 0;
    } cases[] = {
        {u"P:"},
        {u"P:\\"},
        {u"P:\\RZV"},
        {u"P:\\RZV\\VolA"},
        {u"P:\\RZV\\VolA\\Clips"},
        {u"P:\\FRM\\VolA\\Clips\\Take1"},
        {u"P:\\FRM\\VolA\\Clips\\Take1\\note"},
        {u"P:\\RZV\\VolA\\Clips\\___port0___"},
        {u"VrkFsDevice0"},
        {u"Q:\\RZV\\VolB\\Other", host::option::kDirectoryFile},
        {u"Q:\\RZV\\VolB\\Other\\Take"},  // of the other card
    };
    for (const auto& test : cases) {
        const host::OpenResult opened =
            User().Create({.path = test.path, .disposition = host::Disposition::kOpenIf, .options = test.options});
        const host::ScopedHandle handle(User(), opened.handle);
        const std::string what(test.path.begin(), test.path.end());
        ASSERT_TRUE(handle) << what;
        Expect(what, handle.Get(), kFailed);
    }
    host::ScopedHandle closed = Hold(u"\\RZV\\VolA\\Clips\\Take1");
    const host::Handle gone = closed.Get();
    closed.Reset();
    for (const host::Handle none : {gone, host::Handle{0}, host::Handle{0x7FFFFFFC}}) {
        Expect("no handle", none, kBadHandle);
    }
    Expect("the process itself", 0xFFFFFFFF, kFailed);

    // Deleted through one path while open through another.
    const host::ScopedHandle left = Hold(u"\\XYZ\\VolA\\Clips\\Take2", kReadWrite);
    {
        const host::ScopedHandle handle = Hold(u"\\RZV\\VolA\\Clips\\Take2", host::access::kDelete);
        ASSERT_EQ(SetDelete(handle, true), kDone);
    }
    Expect("a deleted file", left.Get(), kDeleted);
}

// ---- Space ----

class ControlMedia : public RecorderTest {
  protected:
    // The handle goes where the record comes.
    FileEntry Entry(host::Handle file) {
        FileEntry entry{};
        std::memcpy(&entry, &file, sizeof(file));
        EXPECT_EQ(Send(IOCTL_VRKFS_GET_FILE_ENTRY, entry), kOk);
        return entry;
    }
};

TEST_F(ControlMedia, SpaceIsTakenRecordedAndSettled) {
    StartVolume(2);
    host::ScopedHandle file = OpenClip(u"new.RZV", host::Disposition::kCreate);
    const host::Handle handle = file.Get();
    const std::uint64_t before = FreeBlocks();
    EXPECT_EQ(Allocate(handle, 1, 0x7FFFFFFF).Result, VRKFS_ALLOCATE_NO_SPACE);
    EXPECT_EQ(Allocate(handle, 0x7FFFFFFF, 100).Result, VRKFS_ALLOCATE_NO_SPACE);
    EXPECT_EQ(FreeBlocks(), before);
    EXPECT_EQ(Entry(handle).Kind, kFileKindPlain);

    const VrkFsVideoSpace space = Allocate(handle, 1, 100, VRKFS_SPACE_625 | VRKFS_SPACE_SDTI_ALLOWED);
    ASSERT_EQ(space.Result, VRKFS_RESULT_DONE);
    EXPECT_EQ(std::pair(space.DataBlocks, space.BodyTableBlocks), std::pair(100u, 1u));
    EXPECT_EQ(std::u16string(space.Volume.Name), u"VOL");
    EXPECT_EQ(space.Volume.DeviceCount, 2u);
    EXPECT_EQ(Allocate(handle, 1, 100).Result, VRKFS_ALLOCATE_NO_SPACE) << "the stream holds space";
    FileEntry entry = Entry(handle);
    EXPECT_EQ(std::tuple(entry.Kind, entry.LineStandard, entry.Flags), std::tuple(kFileKindMedia, 625u, 0xAu));
    VrkFsFileLocation place = Locate(handle);
    EXPECT_EQ(place.FileEntryBlocks, 2u);
    EXPECT_EQ(RawRecord<FileEntry>(place.FileEntryLba).Name, std::u16string(u"new.RZV"));
    EXPECT_EQ(std::tuple(place.DataLba, place.DataBlocks, place.BodyTableLba, place.BodyTableBlocks),
              std::tuple(space.DataLba, 100u, space.BodyTableLba, 1u));
    EXPECT_EQ(
        std::tuple(place.AlphaDataLba, place.AlphaDataBlocks, place.AlphaBodyTableLba, place.AlphaBodyTableBlocks),
        std::tuple(0u, 0u, 0u, 0u));
    const VrkFsVideoSpace alpha = Allocate(handle, 1, 50, VRKFS_SPACE_ALPHA);
    ASSERT_EQ(alpha.Result, VRKFS_RESULT_DONE);
    EXPECT_EQ(Entry(handle).Flags, 0x1Bu);
    EXPECT_EQ(Entry(handle).LineStandard, 525u);

    // Numbers that are not the file's own change nothing.
    VrkFsVideoFileUpdate good = Settlement(handle, space.BodyTableBlocks, space.DataBlocks);
    good.Result = 77;
    const std::uint64_t held = FreeBlocks();
    std::uint32_t VrkFsVideoFileUpdate::*const fields[] = {
        &VrkFsVideoFileUpdate::VideoBodyTableAllocated, &VrkFsVideoFileUpdate::VideoDataAllocated,
        &VrkFsVideoFileUpdate::VideoBodyTableUsed, &VrkFsVideoFileUpdate::VideoDataUsed};
    for (const auto field : fields) {
        for (const std::uint32_t wrong : {good.*field + 1, 0xFFFFFFFFu}) {
            VrkFsVideoFileUpdate update = good;
            update.*field = wrong;
            EXPECT_EQ(Send(IOCTL_VRKFS_UPDATE_VIDEO_FILE, update), "STATUS_INVALID_PARAMETER");
        }
    }
    EXPECT_EQ(FreeBlocks(), held);
    EXPECT_EQ(Entry(handle).Flags, 0x1Bu);

    VrkFsVideoFileUpdate update = good;
    update.FrameCount = 3;
    update.VideoDataUsed = 60;
    update.VideoDataLength = 119;
    update.AlphaBodyTableAllocated = update.AlphaBodyTableUsed = 1;
    update.AlphaDataAllocated = update.AlphaDataUsed = 50;
    EXPECT_EQ(Send(IOCTL_VRKFS_UPDATE_VIDEO_FILE, update), kOk);
    EXPECT_EQ(update.Result, 0u);
    EXPECT_EQ(FreeBlocks(), held + 40) << "blocks of all disks count once";
    EXPECT_EQ(Entry(handle).Flags, 0x13u) << "the alpha stream is not settled yet";
    VrkFsFileInfo info{};
    info.Handle = handle;
    EXPECT_EQ(Send(IOCTL_VRKFS_GET_FILE_INFO, info), kOk);
    EXPECT_EQ(std::tuple(info.Kind, info.DataBlocks, info.DataLength, info.FrameCount, info.AlphaDataBlocks),
              std::tuple(1u, 60u, std::uint64_t{119}, 3u, 50u));
    EXPECT_EQ(info.AlphaBodyTableLba, alpha.BodyTableLba);

    // A caller that gives nothing back need not count what it was given.
    update.VideoDataAllocated = update.VideoBodyTableAllocated = 0;
    EXPECT_EQ(Send(IOCTL_VRKFS_UPDATE_VIDEO_FILE, update), kOk);
    EXPECT_EQ(std::pair(FreeBlocks(), Entry(handle).DataBlockCount), std::pair(held + 40, 60u));

    // Without frames there is no stream left, and what the last answer said stays as it was sent.
    update.FrameCount = 0;
    update.VideoDataAllocated = 60;
    update.VideoBodyTableAllocated = 1;
    update.VideoDataUsed = update.VideoBodyTableUsed = update.AlphaDataUsed = update.AlphaBodyTableUsed = 0;
    update.Flags = VRKFS_UPDATE_VIDEO | VRKFS_UPDATE_ALPHA;
    EXPECT_EQ(Send(IOCTL_VRKFS_UPDATE_VIDEO_FILE, update), kOk);
    EXPECT_EQ(FreeBlocks(), before);
    std::memset(&info, 0xEE, sizeof(info));
    info.Handle = handle;
    EXPECT_EQ(Send(IOCTL_VRKFS_GET_FILE_INFO, info), kOk);
    EXPECT_EQ(std::tuple(info.Kind, info.DataBlocks, info.Result), std::tuple(0u, 0u, 0u));
    EXPECT_EQ(std::tuple(info.BodyTableLba, info.FrameCount, info.AlphaDataLba, info.Flags),
              std::tuple(0xEEEEEEEEu, 0xEEEEEEEEu, 0xEEEEEEEEu, 0xEEEEEEEEu));
    EXPECT_EQ(std::u16string(info.Volume.Name), u"VOL");
    EXPECT_EQ(Allocate(handle, 1, 100).Result, VRKFS_RESULT_DONE) << "and it can be recorded into again";
    file.Reset();
    EXPECT_EQ(FreeBlocks(), before) << "what nobody settled is given back";
}

// A plain file's record may name anything in the fields of the streams: nothing of it is the file's.
TEST_F(ControlMedia, APlainFileGivesNothingAwayAndWritesNowhere) {
    StartVolume(1);
    const ClipSpec clip = {.frames = 4, .videoFields = {1, 2, 3, 4, 5, 6, 7, 8}, .alphaFields = {}};
    PutClip(u"good.RZV", clip);
    OpenClip(u"bad.RZV", host::Disposition::kCreate).Reset();
    const FileEntry good = RawFile(u"good.RZV");
    FileEntry bad = RawFile(u"bad.RZV");
    bad.FrameCount = good.FrameCount;
    bad.VideoBodyTableLba = bad.AlphaBodyTableLba = good.VideoBodyTableLba;
    bad.VideoBodyTableBlockCount = bad.AlphaBodyTableBlockCount = good.VideoBodyTableBlockCount;
    bad.AlphaDataStartLba = good.DataStartLba;
    bad.AlphaDataBlockCount = good.DataBlockCount;
    bad.Flags = 0x1F;
    bad.Checksum = VrkFsHwCalcFileChecksum(&bad);
    ASSERT_TRUE(Board().DiskAt(ids_[0])->Write(Locate(OpenClip(u"bad.RZV").Get()).FileEntryLba, 2, &bad));
    CloseControl();
    Restart();
    const std::uint64_t before = FreeBlocks();
    host::ScopedHandle file = OpenClip(u"bad.RZV");
    VrkFsVideoFileUpdate update = Settlement(file.Get(), good.VideoBodyTableBlockCount, 0);
    update.AlphaBodyTableAllocated = good.VideoBodyTableBlockCount;
    update.AlphaDataAllocated = good.DataBlockCount;
    for (const std::uint32_t flags : {1u, 2u, 3u}) {
        update.Flags = flags;
        EXPECT_EQ(Send(IOCTL_VRKFS_UPDATE_VIDEO_FILE, update), "STATUS_INVALID_PARAMETER");
    }
    EXPECT_EQ(CreateTable(file.Get(), 4), kOk);
    VrkFsVideoSpace theirs{};
    theirs.BodyTableLba = good.VideoBodyTableLba;
    theirs.BodyTableBlocks = good.VideoBodyTableBlockCount;
    std::u16string name;
    EXPECT_EQ(AddNodes(file.Get(), theirs, &name), "STATUS_INVALID_PARAMETER");
    EXPECT_EQ(AddNodes(file.Get(), theirs, &name, true), "STATUS_INVALID_PARAMETER");
    EXPECT_EQ(Allocate(file.Get(), 1, 10, VRKFS_SPACE_ALPHA).Result, VRKFS_RESULT_DONE);
    EXPECT_EQ(Locate(file.Get()).BodyTableLba, 0u) << "it became a media file without the other stream";
    EXPECT_EQ(AddNodes(file.Get(), theirs, &name), "STATUS_INVALID_PARAMETER");
    file.Reset();
    EXPECT_EQ(FreeBlocks(), before);
    ExpectImage(u"good.RZV", clip);
}

}  // namespace
}  // namespace tests
