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

struct HandleCode {
    std::uint32_t code;
    std::size_t in;
    std::size_t out;
} constexpr kHandleCodes[] = {
    {IOCTL_VRKFS_ALLOCATE_VIDEO_SPACE, 620, 620},
    {IOCTL_VRKFS_UPDATE_VIDEO_FILE, 64, 64},
    {IOCTL_VRKFS_GET_FILE_INFO, 664, 664},
    {IOCTL_VRKFS_GET_FILE_ENTRY, 4, 1024},
    {IOCTL_VRKFS_SET_APP_FILE_ENTRY_INFO, 260, 0},
    {IOCTL_VRKFS_GET_FILE_LOCATION_INFO, 44, 44},
    {IOCTL_VRKFS_SET_SDTI_TYPE, 12, 0},
    {IOCTL_VRKFS_CREATE_NEW_BODY_TABLE, 12, 0},  // first of its kind: a plain file has no table to refer to
    {IOCTL_VRKFS_REFERENCE_BODY_TABLE, 12, 400},
    {IOCTL_VRKFS_DEREFERENCE_BODY_TABLE, 8, 0},
    {IOCTL_VRKFS_ADD_VIDEO_NODES_TO_BODY_TABLE, 16, 400},
    {IOCTL_VRKFS_ADD_ALPHA_NODES_TO_BODY_TABLE, 16, 400},
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
        for (const HandleCode& test : kHandleCodes) {
            std::vector<std::byte> in(test.in);
            std::vector<std::byte> out(test.out);
            std::memcpy(in.data(), &handle, sizeof(handle));
            const host::IoResult result = User().DeviceControl(control_.Get(), test.code, in, out);
            EXPECT_EQ(host::StatusName(result.status), answer) << what << ", code " << std::hex << test.code;
            EXPECT_EQ(result.information, 0u);
            EXPECT_TRUE(std::ranges::all_of(out, [](std::byte b) { return b == std::byte{0}; })) << what;
        }
    }
    host::ScopedHandle OpenOther(const std::u16string& path, std::uint32_t options) {
        host::OpenRequest request;
        request.path = std::u16string(1, static_cast<char16_t>(Machine().Cards()[1].driveLetter)) + u":" + path;
        request.disposition = host::Disposition::kOpenIf;
        request.access = kReadWrite;
        request.options = options;
        return {User(), User().Create(request).handle};
    }

    host::ScopedHandle control_;
};

TEST_F(ControlHandles, OnlyAFileOfTheCardWillDo) {
    for (const char16_t* path :
         {u"", u"\\", u"\\RZV", u"\\RZV\\VolA", u"\\RZV\\VolA\\Clips", u"\\FRM\\VolA\\Clips\\Take1"}) {
        const host::ScopedHandle handle = Hold(path);
        ASSERT_TRUE(handle);
        Expect(std::string(path, path + std::u16string_view(path).size()), handle.Get(), kFailed);
    }
    for (const char16_t* path : {u"\\FRM\\VolA\\Clips\\Take1\\note", u"\\RZV\\VolA\\Clips\\___port0___"}) {
        const host::OpenResult opened = Open(path, host::Disposition::kOpenIf, kReadWrite);
        const host::ScopedHandle handle(User(), opened.handle);
        ASSERT_TRUE(handle);
        Expect("no file of the disk", handle.Get(), kFailed);
    }
    const host::ScopedHandle folder = OpenOther(u"\\RZV\\VolB\\Other", host::option::kDirectoryFile);
    const host::ScopedHandle other = OpenOther(u"\\RZV\\VolB\\Other\\Take", 0);
    ASSERT_TRUE(other);
    Expect("another card's file", other.Get(), kFailed);
    Expect("the control handle", control_.Get(), kFailed);
    host::ScopedHandle closed = Hold(u"\\RZV\\VolA\\Clips\\Take1");
    const host::Handle gone = closed.Get();
    closed.Reset();
    Expect("a closed handle", gone, kBadHandle);
    Expect("no handle", 0, kBadHandle);

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
    VrkFsVideoFileUpdate SettlementOf(host::Handle file, const VrkFsVideoSpace& space) {
        VrkFsVideoFileUpdate update{};
        update.Handle = file;
        update.VideoBodyTableAllocated = update.VideoBodyTableUsed = space.BodyTableBlocks;
        update.VideoDataAllocated = update.VideoDataUsed = space.DataBlocks;
        update.Flags = VRKFS_UPDATE_VIDEO;
        update.Result = 77;
        return update;
    }
    FileEntry Entry(host::Handle file) {
        FileEntry entry{};
        const VrkFsHandleRequest request{file};
        const host::IoResult result =
            User().DeviceControl(Control(), IOCTL_VRKFS_GET_FILE_ENTRY, BytesOf(request), WritableBytesOf(entry));
        EXPECT_EQ(result.information, sizeof(entry));
        return entry;
    }
    // Changes a file's record on the disk while the driver is not looking.
    void Tamper(const std::u16string& name, const std::function<void(FileEntry*)>& change) {
        const DirEntry folder = RawRecord<DirEntry>(kLastLba - 4607);
        FileEntry entry = RawFile(name);
        change(&entry);
        entry.Checksum = VrkFsHwCalcFileChecksum(&entry);
        for (const ULONG lba : folder.FileTable) {
            if (lba != 0 && name == std::u16string(RawRecord<FileEntry>(lba).Name)) {
                ASSERT_TRUE(Board().DiskAt(ids_[0])->Write(lba, 2, &entry));
            }
        }
        CloseControl();
        Restart();
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
    const VrkFsVideoFileUpdate good = SettlementOf(handle, space);
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
    std::uint64_t returned = 0;
    EXPECT_EQ(Send(IOCTL_VRKFS_UPDATE_VIDEO_FILE, update, &returned), kOk);
    EXPECT_EQ(std::pair(returned, update.Result), std::pair(std::uint64_t{64}, 0u));
    EXPECT_EQ(FreeBlocks(), held + 40) << "blocks of all disks count once";
    EXPECT_EQ(Entry(handle).Flags, 0x13u) << "the alpha stream is not settled yet";
    VrkFsFileInfo info{};
    info.Handle = handle;
    EXPECT_EQ(Send(IOCTL_VRKFS_GET_FILE_INFO, info, &returned), kOk);
    EXPECT_EQ(returned, sizeof(info));
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
    ClipSpec clip;
    clip.frames = 4;
    clip.videoFields = {1, 2, 3, 4, 5, 6, 7, 8};
    PutClip(u"good.RZV", clip);
    OpenClip(u"bad.RZV", host::Disposition::kCreate).Reset();
    const FileEntry good = RawFile(u"good.RZV");
    Tamper(u"bad.RZV", [&](FileEntry* entry) {
        entry->FrameCount = good.FrameCount;
        entry->VideoBodyTableLba = entry->AlphaBodyTableLba = good.VideoBodyTableLba;
        entry->VideoBodyTableBlockCount = entry->AlphaBodyTableBlockCount = good.VideoBodyTableBlockCount;
        entry->AlphaDataStartLba = good.DataStartLba;
        entry->AlphaDataBlockCount = good.DataBlockCount;
        entry->Flags = 0x1F;
    });
    const std::uint64_t before = FreeBlocks();
    host::ScopedHandle file = OpenClip(u"bad.RZV");
    VrkFsVideoFileUpdate update{};
    update.Handle = file.Get();
    update.VideoBodyTableAllocated = update.AlphaBodyTableAllocated = good.VideoBodyTableBlockCount;
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
