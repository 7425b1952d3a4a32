// Images that contradict themselves, and commits that something goes wrong in: nothing is taken, nothing changes, and
// the same file can be written properly afterwards. A clip that is written again survives whatever happens to the new
// one.
#include <tuple>

#include "media/media_file.h"
#include "tests/driver/media_rig.h"

namespace tests {
namespace {

class MediaHostile : public MediaTest {
  protected:
    // Everything that a refused commit must leave alone.
    using State = std::tuple<std::uint64_t, std::uint64_t, Bytes>;  // free blocks, size, the record on the disk
    State StateOf(const host::ScopedHandle& handle, const std::u16string& name) {
        host::FileFacts facts;
        EXPECT_TRUE(host::QueryFacts(User(), handle.Get(), facts).Ok());
        const FileEntry entry = RawFile(name);
        const std::span<const std::byte> record = BytesOf(entry);
        return {FreeBlocks(), facts.size, Bytes(record.begin(), record.end())};
    }
    void ExpectStillWritable(const host::ScopedHandle& handle, const ClipSpec& clip) {
        const Bytes image = BuildImage(clip, true);
        const host::IoResult result = WriteAt(handle, image, 0, image.size());
        EXPECT_EQ(host::StatusName(result.status), "STATUS_SUCCESS");
        EXPECT_TRUE(ReadRange(handle, 0, image.size()) == BuildImage(clip, false));
    }
    static void Poke(Bytes& image, std::size_t offset, std::uint64_t value, std::size_t size) {
        if (image.size() < offset + size) {
            image.resize(offset + size);
        }
        std::memcpy(image.data() + offset, &value, size);
    }
};

TEST_F(MediaHostile, ImagesThatContradictThemselvesAreRefused) {
    StartVolume(2);
    std::mt19937 random(1);
    const ClipSpec plain = RandomClip(random, 3, false, false, 2, 5);
    const ClipSpec alpha = RandomClip(random, 3, true, false, 2, 5);
    struct {
        const char* what;
        bool withAlpha;
        std::size_t offset;
        std::uint64_t value;
        std::size_t size;
    } const cases[] = {
        {"magic", false, 0, 0x31565A52, 4},
        {"chunk count 5", false, 8, 5, 4},
        {"chunk count 7 without alpha", false, 8, 7, 4},
        {"chunk count 4 with alpha", true, 8, 4, 4},
        {"header of 0 bytes", false, 12, 0, 4},
        {"header one short", false, 12, 344 + 511, 4},
        {"header of 4 GiB", false, 12, 0xFFFFFFF8, 4},
        {"header at the driver's limit", false, 12, kMediaMaxHeaderBytes + 344, 4},
        {"application chunk size, high half", false, 20, 1, 4},
        {"video parameters type", false, 296, 1, 4},
        {"video parameters marked alpha", false, 324, 6, 4},
        {"rate 30 without its flag", false, 324, 0, 4},
        {"frames that the table does not hold", false, 320, 65, 4},
        {"frames whose entries wrap", false, 320, 0x20000003, 4},
        {"table chunk size 15", false, 328, 15, 8},
        {"table chunk size, high half", false, 332, 1, 4},
        {"table chunk beyond the header", false, 328, 1024 + 16, 8},
        {"table chunk size wraps", false, 328, ~std::uint64_t{0}, 8},
        {"table chunk type", false, 336, 3, 4},
        {"field of 65536 sectors", false, 344, 0x80008000, 4},
        {"alpha parameters not marked", true, 364, 4, 4},
        {"alpha frame count", true, 360, 2, 4},
        {"alpha table chunk size", true, 384 + 512, 511 + 16, 8},
        {"alpha field of 65536 sectors", true, 400 + 512 + 20, 0xFFFF0001, 4},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        const ClipSpec& clip = test.withAlpha ? alpha : plain;
        const std::u16string name = u"bad.RZV";
        {
            const host::ScopedHandle handle = OpenClip(name, host::Disposition::kCreate);
            const State before = StateOf(handle, name);
            Bytes image = BuildImage(clip, true);
            // The rate of the specimen must be 30 for its flag to matter.
            Poke(image, 314, 30, 2);
            Poke(image, 324, 4, 4);
            Poke(image, test.offset, test.value, test.size);
            const host::IoResult result = WriteAt(handle, image, 0, image.size());
            EXPECT_EQ(host::StatusName(result.status), "STATUS_FILE_INVALID");
            EXPECT_EQ(result.information, 0u);
            EXPECT_EQ(StateOf(handle, name), before);
            ExpectStillWritable(handle, clip);
        }
        const host::ScopedHandle handle = OpenClip(name);
        ASSERT_TRUE(host::SetDeleteOnCleanup(User(), handle.Get(), true).Ok());
    }
}

TEST_F(MediaHostile, AnAlphaStreamWithoutFramesIsNotKept) {
    StartVolume(2);
    std::mt19937 random(4);
    ClipSpec clip = RandomClip(random, 3, true, true, 2, 5);
    Bytes image = BuildImage(clip, true);
    Poke(image, 360, 0, 4);                 // alpha frames
    Poke(image, 400 + 512, 0xFFFFFFFF, 4);  // its table is not looked at
    const std::uint64_t before = FreeBlocks();
    {
        const host::ScopedHandle handle = OpenClip(u"a.RZV", host::Disposition::kCreate);
        ASSERT_TRUE(WriteAt(handle, image, 0, HeaderBytes(clip) + 16).status.Ok());
        // The fields are all video: nothing is interleaved.
        clip.alpha = clip.interleaved = false;
        const Bytes plain = BuildImage(clip, true);
        const host::IoResult result =
            User().Write(handle.Get(), Part(plain, HeaderBytes(clip) + 16), 2 * 512 + 400 + 16);
        EXPECT_EQ(host::StatusName(result.status), "STATUS_SUCCESS");
    }
    const FileEntry entry = RawFile(u"a.RZV");
    EXPECT_EQ(entry.Flags & kFileHasAlpha, 0u);
    EXPECT_EQ(FreeBlocks(), before - entry.DataBlockCount - 2 - 1) << "data, record and a table";
    EXPECT_EQ(entry.AlphaDataStartLba + entry.AlphaDataBlockCount + entry.AlphaBodyTableLba, 0u);
    ExpectFieldsOnDisk(clip, 0, entry.DataStartLba, entry.DataBlockCount);
}

TEST_F(MediaHostile, AFullVolumeGivesEverythingBack) {
    StartVolume(1);
    PutClip(u"filler.RZV", {.frames = 1, .videoFields = {static_cast<std::uint32_t>(FreeBlocks()) / 2, 0}});
    const std::uint32_t left = static_cast<std::uint32_t>(FreeBlocks());
    struct {
        const char* what;
        std::uint32_t video, alpha;
    } const cases[] = {
        {"video", left, 0},
        {"table", left - 2, 0},  // the record of the new file takes 2
        {"alpha", left / 2, left / 2 + 1},
        {"more than any disk", 60000, 60000},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        const bool alpha = test.alpha != 0;
        const ClipSpec clip{.frames = 1, .alpha = alpha, .videoFields = {0, 0}, .alphaFields = {0, 0}};
        Bytes header = BuildImage(clip, true);
        header.resize(HeaderBytes(clip));
        Poke(header, alpha ? 384 : 344, test.video, 2);
        if (alpha) {
            Poke(header, 400 + 512, test.alpha, 2);
        }
        const host::ScopedHandle handle = OpenClip(u"new.RZV", host::Disposition::kOpenIf);
        const State before = StateOf(handle, u"new.RZV");
        const host::IoResult result = WriteAt(handle, header, 0, header.size());
        EXPECT_EQ(host::StatusName(result.status), "STATUS_DISK_FULL");
        EXPECT_EQ(StateOf(handle, u"new.RZV"), before);
    }
    ExpectStillWritable(OpenClip(u"new.RZV"), {.frames = 2, .videoFields = {1, 2, 3, 4}});
}

// A clip is written over an old one, and the board fails in one place after the other.
TEST_F(MediaHostile, AFailedSecondCommitLeavesTheOldClip) {
    StartVolume(2);
    std::mt19937 random(13);
    const ClipSpec old = RandomClip(random, 5, true, false, 2, 5);
    const ClipSpec fresh = RandomClip(random, 9, true, false, 2, 5);
    PutClip(u"a.RZV", old);
    const Bytes image = BuildImage(fresh, true);
    const std::uint32_t recordLba = Get<DirEntry>(0, kLastLba - 4607).FileTable[0];
    Card()->ScsiPrefs = {0, 0};
    host::ScopedHandle handle = OpenClip(u"a.RZV");
    constexpr auto kWrite = board::Operation::kWrite;
    const board::Misbehaviour points[] = {
        {.operation = kWrite},  // the two tables; the record, torn once and for ever
        {.operation = kWrite, .skip = 1},
        {board::Wrong::kTearFail, kWrite, {}, recordLba, recordLba, 0, 1, STATUS_IO_DEVICE_ERROR, 1},
        {.operation = kWrite, .firstLba = recordLba, .lastLba = recordLba},
    };
    for (const board::Misbehaviour& point : points) {
        SCOPED_TRACE(&point - points);
        const State before = StateOf(handle, u"a.RZV");
        Board().Misbehave().Add(point);
        const host::IoResult result = WriteAt(handle, image, 0, HeaderBytes(fresh));
        Board().Misbehave().Clear();
        EXPECT_FALSE(result.status.Ok());
        EXPECT_EQ(StateOf(handle, u"a.RZV"), before);
        EXPECT_TRUE(ReadRange(handle, 0, BuildImage(old, false).size()) == BuildImage(old, false));
    }
    ExpectStillWritable(handle, fresh);
    const std::uint64_t free = FreeBlocks();
    handle.Reset();
    Restart();
    EXPECT_EQ(FreeBlocks(), free) << "the old clip's space is free again, and a mount agrees";
    ExpectImage(u"a.RZV", fresh);
}

// The power goes at each write of a second recording: after the next mount the clip is the old one, whole, or the new
// one as far as it was written; and the clip beside it is untouched.
TEST_F(MediaHostile, PowerGoesWhileAClipIsWrittenAgain) {
    std::mt19937 random(17);
    const ClipSpec old = RandomClip(random, 4, true, false, 2, 4);
    const ClipSpec fresh = RandomClip(random, 4, true, false, 2, 4);
    const ClipSpec beside = RandomClip(random, 4, false, false, 2, 4);
    const Bytes image = BuildImage(fresh, true);
    std::uint32_t sawOld = 0;
    std::uint32_t sawNew = 0;
    bool done = false;
    for (std::uint64_t cut = 1; !done; ++cut) {
        SCOPED_TRACE(cut);
        Stop();
        std::filesystem::remove_all(StationPath());
        StartVolume(2);
        PutClip(u"a.RZV", old);
        PutClip(u"b.RZV", beside);
        Board().CutPowerAtWrite(cut, 0, board::AfterPowerLoss::kSilent);
        {
            const host::ScopedHandle handle = OpenClip(u"a.RZV");
            static_cast<void>(WriteAt(handle, image, 0, image.size()));
            ClipSpec other = beside;
            other.seed = 99;
            const host::OpenResult third = Open(u"\\RZV\\VOL\\F\\c.RZV", host::Disposition::kCreate, kReadWrite);
            const host::ScopedHandle created(User(), third.handle);
            const Bytes bytes = BuildImage(other, true);
            if (third.status.Ok()) {
                static_cast<void>(WriteAt(created, bytes, 0, bytes.size()));
            }
        }
        done = !Board().PowerIsCut();
        Restart();
        ExpectImage(u"b.RZV", beside);
        const FileEntry entry = RawFile(u"a.RZV");
        const host::ScopedHandle handle = OpenClip(u"a.RZV");
        const Bytes oldImage = BuildImage(old, false);
        const Bytes newImage = BuildImage(fresh, false);
        if (VrkFsHwCalcFileChecksum(&entry) != entry.Checksum) {
            continue;  // the record itself was torn: nothing is known of the clip
        }
        if (std::memcmp(entry.ApplicationInfo, oldImage.data() + 32, 256) == 0) {
            EXPECT_TRUE(ReadRange(handle, 0, oldImage.size()) == oldImage);
            ++sawOld;
        } else {
            EXPECT_TRUE(ReadRange(handle, 0, HeaderBytes(fresh)) == Part(newImage, 0, HeaderBytes(fresh)));
            ++sawNew;
        }
    }
    EXPECT_GE(sawOld, 2u);
    EXPECT_GE(sawNew, 2u);
}

}  // namespace
}  // namespace tests
