// Media files through the driver: what is written comes back, in any order and in any pieces, and lies on the disks
// where the placement rule says.
#include <algorithm>
#include <chrono>
#include <semaphore>

#include "core/file_types.h"
#include "tests/driver/media_rig.h"

namespace tests {
namespace {

class MediaImage : public MediaTest {
  protected:
    // Reads the image from `first` on in pieces of random sizes, in order or anywhere.
    void ExpectReads(const host::ScopedHandle& handle, const Bytes& image, std::mt19937& random, bool inOrder,
                     std::uint64_t first = 0) {
        std::uint64_t at = first;
        for (int piece = 0; piece < 60; ++piece) {
            at = inOrder ? at : first + random() % (image.size() - first);
            const std::size_t length = 1 + random() % (random() % 4 == 0 ? 30000 : 1500);
            ASSERT_TRUE(ReadRange(handle, at, length) == Part(image, at, at + length)) << length << " bytes at " << at;
            at = at + length < image.size() ? at + length : first;
        }
    }
    void ExpectRecord(const FileEntry& entry, const ClipSpec& clip) {
        EXPECT_EQ(entry.Kind, kFileKindMedia);
        EXPECT_EQ(entry.LineStandard, clip.is625 ? 625u : 525u);
        EXPECT_EQ(entry.FrameCount, clip.frames);
        EXPECT_EQ(std::uint64_t{entry.VideoDataLength}, Sum(clip.videoFields));
        EXPECT_EQ(std::uint64_t{entry.AlphaDataLength}, Sum(clip.alphaFields));
        EXPECT_EQ(entry.VideoBodyTableBlockCount, TableBytes(clip.frames) / 512);
        EXPECT_EQ(entry.AlphaBodyTableBlockCount, clip.alpha ? TableBytes(clip.frames) / 512 : 0);
        const ULONG videoSet = clip.videoSdti != 0 ? kFileVideoFormatSet : 0;
        const ULONG alphaSet = clip.alpha && clip.alphaSdti != 0 ? kFileAlphaFormatSet : 0;
        EXPECT_EQ(entry.Flags, (clip.alpha ? kFileHasAlpha : 0) | videoSet | alphaSet);
        EXPECT_EQ(entry.VideoFormat, clip.videoSdti < 3 ? 0 : clip.videoSdti - 2);
        const Bytes image = BuildImage(clip, false);
        EXPECT_EQ(std::memcmp(entry.ApplicationInfo, image.data() + 32, 256), 0);
    }
    FileEntry ExpectOnDisk(const std::u16string& name, const ClipSpec& clip) {
        const FileEntry entry = RawFile(name);
        ExpectRecord(entry, clip);
        ExpectFieldsOnDisk(clip, 0, entry.DataStartLba, entry.DataBlockCount);
        ExpectTableOnDisk(clip, false, entry.VideoBodyTableLba);
        if (clip.alpha) {
            ExpectFieldsOnDisk(clip, 1, entry.AlphaDataStartLba, entry.AlphaDataBlockCount);
            ExpectTableOnDisk(clip, true, entry.AlphaBodyTableLba);
        }
        return entry;
    }
    void ExpectTableOnDisk(const ClipSpec& clip, bool alpha, std::uint32_t lba) {
        const Bytes raw = RawBlocks(0, lba, static_cast<std::uint32_t>(TableBytes(clip.frames) / 512));
        ImageWriter table;
        PutTable(table, clip, alpha);
        EXPECT_TRUE(Part(raw, 0, clip.frames * 8) == Part(table.bytes, 16, 16 + clip.frames * 8));
    }
};

class MediaImageOverDisks : public MediaImage, public testing::WithParamInterface<std::uint32_t> {};

TEST_P(MediaImageOverDisks, WrittenAndReadInPieces) {
    StartVolume(GetParam());
    std::mt19937 random(GetParam());
    struct {
        const char16_t* name;
        std::uint32_t frames;
        bool alpha, interleaved;
        std::uint32_t minSectors, maxSectors;
    } const clips[] = {
        {u"video.RZV", 70, false, false, 1, 9},  // two blocks of body table
        {u"alpha.RZV", 20, true, false, 0, 12},  // empty fields in between
        {u"mixed.RZV", 17, true, true, 0, 12},     {u"sparse.RZV", 30, true, true, 0, 1},
        {u"large.RZV", 5, false, false, 300, 700}, {u"still.RZV", 1, false, false, 40, 40},
        {u"empty.RZV", 0, false, false, 0, 0},     {u"hollow.RZV", 2, true, false, 0, 0},
    };
    for (const auto& test : clips) {
        SCOPED_TRACE(testing::Message() << std::string(test.name, test.name + 5) << " on " << GetParam());
        const ClipSpec clip =
            RandomClip(random, test.frames, test.alpha, test.interleaved, test.minSectors, test.maxSectors);
        const Bytes written = BuildImage(clip, true);
        const Bytes readBack = BuildImage(clip, false);
        const std::uint64_t freeBefore = FreeBlocks();
        {
            const host::ScopedHandle handle = OpenClip(test.name, host::Disposition::kCreate);
            WriteSplit(handle, written, random, test.frames == 5 ? 400000 : 5000);
            // The writer's own readers already see the data as it will be.
            ExpectReads(handle, readBack, random, false, HeaderBytes(clip));
            ExpectReads(handle, readBack, random, true, HeaderBytes(clip));
        }
        const FileEntry entry = ExpectOnDisk(test.name, clip);
        EXPECT_EQ(freeBefore - FreeBlocks(), 2 + entry.DataBlockCount + entry.AlphaDataBlockCount +
                                                 entry.VideoBodyTableBlockCount + entry.AlphaBodyTableBlockCount);
        const host::ScopedHandle handle = OpenClip(test.name);
        ExpectReads(handle, readBack, random, true);
        ExpectReads(handle, readBack, random, false);
        EXPECT_TRUE(ReadRange(handle, 0, readBack.size() + 1) == readBack);
        EXPECT_EQ(host::StatusName(User().Read(handle.Get(), std::span(Bytes(1).data(), 1), readBack.size()).status),
                  "STATUS_END_OF_FILE");
    }
}

INSTANTIATE_TEST_SUITE_P(Disks, MediaImageOverDisks, testing::Values(1, 2, 3, 4, 15));

TEST_F(MediaImage, DataMayComeInAnyOrderAndAgain) {
    StartVolume(2);
    std::mt19937 random(11);
    for (const bool interleaved : {false, true}) {
        SCOPED_TRACE(interleaved);
        const ClipSpec clip = RandomClip(random, 12, true, interleaved, 0, 9);
        const Bytes image = BuildImage(clip, true);
        const std::u16string name = interleaved ? u"mixed.RZV" : u"plain.RZV";
        const std::size_t videoChunk = HeaderBytes(clip);
        const std::size_t alphaChunk = videoChunk + 16 + Sum(clip.videoFields) * 512;
        {
            const host::ScopedHandle first = OpenClip(name, host::Disposition::kCreate);
            const host::ScopedHandle second = OpenClip(name);
            ASSERT_TRUE(WriteAt(first, image, 0, videoChunk + 16).status.Ok());
            if (!interleaved) {
                ASSERT_TRUE(WriteAt(second, image, alphaChunk, alphaChunk + 16).status.Ok());
            }
            // Pieces in random order through both handles, each once with rubbish and then properly.
            std::vector<std::uint64_t> starts;
            for (std::uint64_t at = videoChunk + 16; at < image.size(); at += 700) {
                starts.push_back(at);
            }
            std::shuffle(starts.begin(), starts.end(), random);
            const Bytes rubbish(image.size(), std::byte{0xAA});
            for (const std::uint64_t at : starts) {
                const std::uint64_t end = std::min<std::uint64_t>(at + 700, image.size());
                const host::ScopedHandle& handle = random() % 2 == 0 ? first : second;
                ASSERT_TRUE(WriteAt(handle, rubbish, at, end).status.Ok()) << at;
                ASSERT_TRUE(WriteAt(handle, image, at, end).status.Ok()) << at;
            }
            // Reads behind a write of the same handle, which stood in the written order of fields.
            const Bytes readBack = BuildImage(clip, false);
            for (int i = 0; i < 60; ++i) {
                const std::uint64_t at = videoChunk + 16 + random() % (image.size() - videoChunk - 716);
                ASSERT_TRUE(WriteAt(first, image, at, at + 600).status.Ok());
                const std::uint64_t from = std::min<std::uint64_t>(at + random() % 9000, readBack.size() - 1);
                ASSERT_TRUE(ReadRange(first, from, 900) == Part(readBack, from, from + 900))
                    << "write at " << at << ", read at " << from;
            }
        }
        ExpectOnDisk(name, clip);
        ExpectImage(name, clip);
    }
}

TEST_F(MediaImage, EachTransferAnswersForItsPlace) {
    StartVolume(1);
    std::mt19937 random(3);
    const ClipSpec clip = RandomClip(random, 4, false, false, 3, 5);
    const Bytes image = BuildImage(clip, true);
    const std::uint64_t header = HeaderBytes(clip);
    Bytes longer = image;
    longer.resize(image.size() + 600, std::byte{0x55});

    const host::ScopedHandle handle = OpenClip(u"a.RZV", host::Disposition::kCreate);
    Bytes none;
    EXPECT_TRUE(User().Read(handle.Get(), none, 0).status.Ok());
    EXPECT_EQ(User().Read(handle.Get(), std::span(longer), 0).status, host::status::kEndOfFile);
    struct {
        std::uint64_t from, to;
        host::Status status;
        std::uint64_t information;
    } const writes[] = {
        {16, 32, host::status::kFileInvalid, 0},
        {100000, 100001, host::status::kFileInvalid, 0},
        {0, 10, host::status::kSuccess, 10},  // no effect: the file header comes in one piece
        {10, 300, host::status::kSuccess, 6},
        {16, 300, host::status::kFileInvalid, 0},
        {0, 16, host::status::kSuccess, 16},
        {header, header + 16, host::status::kFileInvalid, 0},
        {16, header - 1, host::status::kSuccess, header - 17},
        {header - 1, header, host::status::kSuccess, 1},
        {header + 16, header + 17, host::status::kFileInvalid, 0},
        {header, header + 16, host::status::kSuccess, 16},
        {image.size(), image.size() + 1, host::status::kFileInvalid, 0},  // there is no alpha
        {header + 16, image.size() + 600, host::status::kFileInvalid, 0},
        {image.size() + 16, image.size() + 20, host::status::kFileInvalid, 0},
    };
    for (const auto& test : writes) {
        const std::size_t source = test.from < longer.size() ? test.from : 0;
        const host::IoResult result = User().Write(
            handle.Get(), std::span<const std::byte>(longer).subspan(source, test.to - test.from), test.from);
        EXPECT_EQ(host::StatusName(result.status), host::StatusName(test.status)) << test.from << " to " << test.to;
        EXPECT_EQ(result.information, test.information) << test.from << " to " << test.to;
    }
    // What fitted of the write that went too far is in its place, and nothing behind it was touched.
    EXPECT_TRUE(ReadRange(handle, 0, image.size() + 10) == image);
    // Through the handle's own position.
    const host::IoResult implicit = User().Read(handle.Get(), std::span(longer).first(100), std::nullopt);
    EXPECT_EQ(implicit.status, host::status::kEndOfFile) << "the position stands behind the last good transfer";
}

TEST_F(MediaImage, HeaderBytesAfterTheCommitMoveNoData) {
    StartVolume(2);
    std::mt19937 random(7);
    const ClipSpec clip = RandomClip(random, 10, true, false, 2, 6);
    const Bytes image = BuildImage(clip, true);
    {
        const host::ScopedHandle handle = OpenClip(u"a.RZV", host::Disposition::kCreate);
        ASSERT_TRUE(WriteAt(handle, image, 0, image.size() / 2).status.Ok());
        // Another table, with fields that lead far outside the clip's space.
        Bytes other = image;
        std::fill(other.begin() + 400, other.begin() + static_cast<std::ptrdiff_t>(HeaderBytes(clip)), std::byte{0x7F});
        ASSERT_TRUE(WriteAt(handle, other, 0, HeaderBytes(clip)).status.Ok());
        EXPECT_TRUE(ReadRange(handle, 300, 500) == Part(other, 300, 800));
        ASSERT_TRUE(WriteAt(handle, image, image.size() / 2, image.size()).status.Ok());
    }
    ExpectOnDisk(u"a.RZV", clip);
    ExpectImage(u"a.RZV", clip);
}

TEST_F(MediaImage, TwoPathsToOneFileNeverUseAnOldLayout) {
    StartVolume(2);
    FileType second = pVrkFsGlobalData->FileTypes[0];
    std::memcpy(second.Extension, u"ZVR", 6);
    ASSERT_EQ(VrkFsGlobAddFileType(pVrkFsGlobalData, &second), STATUS_SUCCESS);
    std::mt19937 random(9);
    const ClipSpec clips[] = {RandomClip(random, 8, false, false, 2, 9), RandomClip(random, 11, false, false, 0, 7),
                              RandomClip(random, 5, true, true, 5, 9)};
    PutClip(u"a.RZV", clips[0]);
    const host::ScopedHandle here = OpenClip(u"a.RZV");
    const host::ScopedHandle there = OpenClip(u"a.RZV", host::Disposition::kOpen, u"ZVR");
    // The end first: a cursor left from another layout would be taken up there.
    const auto expect = [&](const host::ScopedHandle& handle, const ClipSpec& clip) {
        const Bytes image = BuildImage(clip, false);
        for (const std::size_t from : {image.size() - 2000, image.size() / 2, std::size_t{0}, image.size() / 3}) {
            EXPECT_TRUE(ReadRange(handle, from, image.size()) == Part(image, from)) << "from " << from;
        }
    };
    expect(here, clips[0]);
    expect(there, clips[0]);
    // Written again through the second path while the first has read it.
    Bytes image = BuildImage(clips[1], true);
    ASSERT_TRUE(WriteAt(there, image, 0, image.size()).status.Ok());
    expect(here, clips[1]);
    // A header that is refused on one path takes nothing from the writer on the other.
    Bytes refused = BuildImage(clips[2], true);
    refused[24] ^= std::byte{1};
    EXPECT_EQ(WriteAt(here, refused, 0, HeaderBytes(clips[2])).status, host::status::kFileInvalid);
    EXPECT_TRUE(WriteAt(there, image, image.size() / 2, image.size()).status.Ok());
    expect(here, clips[1]);
    // And again through the first, whose object has served reads; the second path's writer is out of date then.
    image = BuildImage(clips[2], true);
    ASSERT_TRUE(WriteAt(here, image, 0, image.size()).status.Ok());
    image = BuildImage(clips[1], true);
    EXPECT_EQ(WriteAt(there, image, HeaderBytes(clips[1]) + 16, HeaderBytes(clips[1]) + 600).status,
              host::status::kFileInvalid);
    expect(there, clips[2]);
}

// Overlapped reads run on the few system workers, first reads of every path included, while names come and go.
TEST_F(MediaImage, PostedReadsAndCreatesDoNotWaitForEachOther) {
    StartVolume(2);
    std::mt19937 random(31);
    const ClipSpec clip = RandomClip(random, 10, true, false, 2, 9);
    PutClip(u"a.RZV", clip);
    const Bytes image = BuildImage(clip, false);
    struct Reader {
        host::ScopedHandle handle;
        std::uint64_t offset;
        Bytes buffer = Bytes(5000);
    };
    for (int round = 0; round < 20; ++round) {
        std::vector<Reader> readers;
        std::counting_semaphore<> ended(0);
        for (int i = 0; i < 12; ++i) {
            const host::OpenResult opened = User().Create({.path = u"P:\\RZV\\VOL\\F\\a.RZV", .overlapped = true});
            readers.push_back({{User(), opened.handle}, random() % (image.size() - 5000)});
        }
        for (Reader& reader : readers) {
            const host::Status asked = User().ReadOverlapped(
                reader.handle.Get(), reader.buffer, reader.offset, [&](host::IoResult) { ended.release(); }, nullptr);
            ASSERT_TRUE(asked.Ok()) << host::StatusName(asked);
        }
        {
            const host::ScopedHandle other = OpenClip(u"b.RZV", host::Disposition::kCreate);
            ASSERT_TRUE(host::SetDeleteOnCleanup(User(), other.Get(), true).Ok());
        }
        for (std::size_t i = 0; i < readers.size(); ++i) {
            ASSERT_TRUE(ended.try_acquire_for(std::chrono::seconds(30)));
        }
        for (const Reader& reader : readers) {
            EXPECT_TRUE(reader.buffer == Part(image, reader.offset, reader.offset + 5000));
        }
    }
}

// Records with the right checksum and numbers that cannot be true: no transfer leaves the clip's space, nothing hangs,
// and the file beside them is as good as ever.
TEST_F(MediaImage, RecordsThatCannotBeTrueAreRefused) {
    StartVolume(2);
    std::mt19937 random(23);
    const ClipSpec clip = RandomClip(random, 70, true, false, 1, 3);
    PutClip(u"a.RZV", clip);
    PutClip(u"b.RZV", clip);
    const std::uint32_t lba = Get<DirEntry>(0, kLastLba - 4607).FileTable[0];
    const FileEntry good = RawFile(u"a.RZV");
    struct {
        const char* what;
        void (*spoil)(FileEntry&);
    } const cases[] = {
        {"more frames than nodes", [](FileEntry& e) { e.FrameCount = 129; }},
        {"frames whose nodes wrap", [](FileEntry& e) { e.FrameCount = 0x20000002; }},
        {"table of 2 TiB", [](FileEntry& e) { e.VideoBodyTableBlockCount = 0xFFFFFFFF; }},
        {"table nowhere", [](FileEntry& e) { e.VideoBodyTableLba = 0; }},
        {"table beyond the disk", [](FileEntry& e) { e.VideoBodyTableLba = 0xFFFFFFFF; }},
        {"alpha without a table", [](FileEntry& e) { e.AlphaBodyTableLba = e.AlphaBodyTableBlockCount = 0; }},
        {"length beyond all disks", [](FileEntry& e) { e.VideoDataLength = ~std::uint64_t{0}; }},
        {"alpha length that wraps in bytes", [](FileEntry& e) { e.AlphaDataLength = std::uint64_t{1} << 55; }},
        {"length beyond the table", [](FileEntry& e) { e.VideoDataLength += 1000; }},
        {"range beyond the disk", [](FileEntry& e) { e.DataStartLba = 0xFFFFFFF0; }},
        {"range of fewer blocks", [](FileEntry& e) { e.DataBlockCount = 3; }},
        {"no range", [](FileEntry& e) { e.DataStartLba = e.DataBlockCount = 0; }},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        FileEntry bad = good;
        test.spoil(bad);
        bad.Checksum = VrkFsHwCalcFileChecksum(&bad);
        ASSERT_TRUE(Board().DiskAt(ids_[0])->Write(lba, 2, &bad));
        Restart();
        const host::ScopedHandle handle = OpenClip(u"a.RZV");
        host::FileFacts facts;
        EXPECT_TRUE(host::QueryFacts(User(), handle.Get(), facts).Ok());
        EXPECT_LT(facts.size, std::uint64_t{1} << 62);
        Bytes bytes(400000);
        EXPECT_FALSE(User().Read(handle.Get(), bytes, 0).status.Ok());
        ExpectImage(u"b.RZV", clip);
    }
}

TEST_F(MediaImage, TablesThatLeadOutsideTheClipAreRefused) {
    StartVolume(2);
    std::mt19937 random(21);
    const ClipSpec clip = RandomClip(random, 8, true, false, 3, 6);
    PutClip(u"a.RZV", clip);
    const FileEntry entry = RawFile(u"a.RZV");
    const Bytes table = RawBlocks(0, entry.VideoBodyTableLba, 1);
    struct {
        std::size_t field;
        std::uint16_t first, second;
    } const cases[] = {{0, 0xFFFF, 0xFFFF}, {3, 0xFFFF, 1}, {15, 0x8000, 0x8000}, {4, 100, 0}, {15, 0, 0}};
    for (const auto& test : cases) {
        Bytes bad = table;
        std::memcpy(bad.data() + test.field * 4, &test.first, 2);
        std::memcpy(bad.data() + test.field * 4 + 2, &test.second, 2);
        ASSERT_TRUE(Board().DiskAt(ids_[0])->Write(entry.VideoBodyTableLba, 1, bad.data()));
        const host::ScopedHandle handle = OpenClip(u"a.RZV");
        Bytes bytes(BuildImage(clip, false).size());
        const host::IoResult result = User().Read(handle.Get(), bytes, 0);
        EXPECT_EQ(host::StatusName(result.status), "STATUS_FILE_CORRUPT_ERROR") << "field " << test.field;
        EXPECT_TRUE(User().Read(handle.Get(), std::span(bytes).first(600), 0).status.Ok()) << "the header still reads";
    }
}

}  // namespace
}  // namespace tests
