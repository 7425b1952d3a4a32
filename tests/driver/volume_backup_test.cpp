// A body table saved beside the driver finds its way back at the next mount, once; and body tables on disk are read and
// written within their bounds.
#include <fstream>

#include "tests/driver/volume_rig.h"
#include "volume/backup.h"
#include "volume/body_table_io.h"

namespace tests {
namespace {

constexpr ULONG kFrames = 100;
constexpr ULONG kTable = 6000;
constexpr ULONG kAlphaTable = 6004;

FileEntry MakeClip(ULONG flags = kFileHasAlpha) {
    FileEntry entry = MakePlainFile(u"X", 1024, 400);
    entry.Kind = kFileKindMedia;
    entry.Flags = flags;
    entry.FrameCount = kFrames;
    entry.VideoBodyTableLba = kTable;
    entry.VideoBodyTableBlockCount = 2;
    entry.AlphaBodyTableLba = kAlphaTable;
    entry.AlphaBodyTableBlockCount = 2;
    entry.AlphaDataStartLba = 2000;
    entry.AlphaDataBlockCount = 300;
    entry.Checksum = VrkFsHwCalcFileChecksum(&entry);
    return entry;
}

using Block = std::array<UCHAR, 512>;

class VolumeBackup : public VolumeTest {
  protected:
    void SetUp() override {
        VolumeTest::SetUp();
        Put(0, 0, MakeVolumeEntry(u"V", 1, 0));
        PutFolder(0, 0, MakeFolder(u"F", {{0, 5000}}));
        Put(0, 5000, MakeClip());
    }
    std::filesystem::path BackupFile() const {
        return StationPath() / "SystemRoot" / "system32" / "drivers" / "!RZVBKUP.!BT";
    }
    void PutBackup(const std::u16string& path, ULONG entries, UCHAR stream, std::size_t dataBytes) {
        BackupFileHeader header{};
        std::memcpy(header.Path, path.data(), std::min<std::size_t>(path.size(), 516) * sizeof(WCHAR));
        header.EntryCount = entries;
        header.Stream = stream;
        std::filesystem::create_directories(BackupFile().parent_path());
        std::ofstream file(BackupFile(), std::ios::binary);
        file.write(reinterpret_cast<const char*>(&header), sizeof(header));
        for (std::size_t i = 0; i < dataBytes; ++i) {
            file.put(static_cast<char>(i % 251 + 1));
        }
    }
    // How many of the bytes of the two blocks at lba are the backup's; the others must be 0.
    ULONG RecoveredBytes(ULONG lba) {
        std::array<UCHAR, 1024> bytes{};
        EXPECT_TRUE(OpenImage(0).Read(lba, 2, bytes.data()));
        ULONG count = 0;
        while (count < bytes.size() && bytes[count] == count % 251 + 1) {
            ++count;
        }
        for (std::size_t i = count; i < bytes.size(); ++i) {
            EXPECT_EQ(bytes[i], 0) << "at " << i;
        }
        return count;
    }
};

TEST_F(VolumeBackup, WhatIsWrittenBack) {
    const struct {
        const char* what;
        std::u16string path;
        ULONG entries;
        UCHAR stream;
        std::size_t bytes;
        ULONG video;
        ULONG alpha;
    } cases[] = {
        {"the video table", u"P:\\RZV\\V\\F\\X", 200, 0, 800, 800, 0},
        {"the alpha table", u"P:\\RZV\\V\\F\\X", 200, 9, 1024, 0, 1024},
        {"more than the table holds", u"P:\\RZV\\V\\F\\X", 200, 0, 5000, 1024, 0},
        {"another volume", u"P:\\RZV\\v\\F\\X", 200, 0, 800, 0, 0},
        {"another file", u"P:\\RZV\\V\\F\\XX", 200, 0, 800, 0, 0},
        {"another length", u"P:\\RZV\\V\\F\\X", 198, 0, 800, 0, 0},
        {"fewer bytes than entries", u"P:\\RZV\\V\\F\\X", 200, 0, 799, 0, 0},
        {"no bytes", u"P:\\RZV\\V\\F\\X", 0, 0, 0, 0, 0},
        {"no file name", u"P:\\RZV\\V\\F\\", 200, 0, 800, 0, 0},
        {"no colon", u"P;\\RZV\\V\\F\\X", 200, 0, 800, 0, 0},
        {"a path without an end", u"P:\\RZV\\V\\F\\" + std::u16string(600, u'X'), 200, 0, 800, 0, 0},
        {"entries beyond counting", u"P:\\RZV\\V\\F\\X", 0x40000000, 0, 800, 0, 0},
    };
    for (const auto& c : cases) {
        PutBackup(c.path, c.entries, c.stream, c.bytes);
        Start();
        EXPECT_EQ(DescribeVolumes(), "V(0)");
        EXPECT_FALSE(std::filesystem::exists(BackupFile())) << c.what;
        Stop();
        EXPECT_EQ(RecoveredBytes(kTable), c.video) << c.what;
        EXPECT_EQ(RecoveredBytes(kAlphaTable), c.alpha) << c.what;
        for (const ULONG lba : {kTable, kTable + 1, kAlphaTable, kAlphaTable + 1}) {
            Put(0, lba, Block{});
        }
    }
}

// The first complete volume reads the backup, and nothing is written where the table's blocks are in doubt.
TEST_F(VolumeBackup, WhoGetsItAndWhere) {
    Put(1, 0, MakeVolumeEntry(u"W", 1, 0, kRigTime + 1));
    PutFolder(1, 0, MakeFolder(u"F", {{0, 5000}}));
    Put(1, 5000, MakeClip());
    PutBackup(u"P:\\RZV\\W\\F\\X", 200, 0, 800);
    Start();
    EXPECT_FALSE(std::filesystem::exists(BackupFile()));
    Stop();
    Block first{};
    EXPECT_TRUE(OpenImage(1).Read(kTable, 1, first.data()));
    EXPECT_EQ(first, Block{});

    PutFolder(0, 1, MakeFolder(u"later", {{0, 5002}}));
    Put(0, 5002, MakePlainFile(u"rival", kTable + 1, 1));
    for (const ULONG lba : {1u, 1020u, 5000u, 5001u, 1100u, kTable, kRigLastData, kRigFirstDir, 0xFFFFFFFFu}) {
        FileEntry clip = MakeClip();
        clip.VideoBodyTableLba = lba;
        clip.Checksum = VrkFsHwCalcFileChecksum(&clip);
        Put(0, 5000, clip);
        PutBackup(u"P:\\RZV\\V\\F\\X", 200, 0, 800);
        Start();
        EXPECT_EQ(DescribeVolumes(), "V(0) W(1)") << lba;
        EXPECT_EQ(Board().Count().Of(board::Operation::kWrite), 0u) << lba;
        Stop();
    }
}

class VolumeBodyTables : public VolumeBackup {
  protected:
    void SetUp() override {
        VolumeTest::SetUp();
        for (ULONG position = 0; position < 3; ++position) {
            Put(position, 0, MakeVolumeEntry(u"V", 3, position));
        }
        PutFolder(0, 0, MakeFolder(u"F", {{0, 5000}}));
        Put(0, 5000, MakeClip());
        file_.Common = &common_;
        common_.FileEntry = &clip_;
        Start();
        common_.VolumeHandle = Volume();
    }
    // The three disks in position order are 0, 1, 2.
    void PutTable(ULONG lba, const std::vector<BodyTableNode>& nodes) {
        std::vector<UCHAR> bytes((nodes.size() * 4 + 511) / 512 * 512);
        std::memcpy(bytes.data(), nodes.data(), nodes.size() * 4);
        ASSERT_TRUE(Board().DiskAt(0)->Write(lba, static_cast<ULONG>(bytes.size() / 512), bytes.data()));
    }

    FCB file_{};
    FCBCommon common_{};
    FileEntry clip_ = MakeClip();
};

TEST_F(VolumeBodyTables, RecordsThatLie) {
    const struct {
        const char* what;
        std::function<void(FileEntry&)> change;
        NTSTATUS expected;
        bool tableReadable = expected == STATUS_SUCCESS;
    } cases[] = {
        {"more blocks than the frames need", [](FileEntry& e) { e.VideoBodyTableBlockCount = 900; }, STATUS_SUCCESS},
        {"fewer", [](FileEntry& e) { e.VideoBodyTableBlockCount = 1; }, STATUS_UNSUCCESSFUL},
        {"no frames", [](FileEntry& e) { e.FrameCount = 0; }, STATUS_SUCCESS},
        {"frames beyond counting", [](FileEntry& e) { e.FrameCount = 0xFFFFFFFF; }, STATUS_UNSUCCESSFUL},
        {"frames and blocks beyond counting",
         [](FileEntry& e) {
             e.FrameCount = 0x20000000;
             e.VideoBodyTableBlockCount = 0xFFFFFFFF;
         },
         STATUS_UNSUCCESSFUL},
        {"outside the data area", [](FileEntry& e) { e.VideoBodyTableLba = kRigFirstDir; }, STATUS_UNSUCCESSFUL},
        {"beyond the disk", [](FileEntry& e) { e.VideoBodyTableLba = 0xFFFFFFFF; }, STATUS_UNSUCCESSFUL},
        {"data that runs off the disk", [](FileEntry& e) { e.DataStartLba = kRigLastData; }, STATUS_UNSUCCESSFUL, true},
        {"data that wraps", [](FileEntry& e) { e.DataStartLba = 0xFFFFFFFF; }, STATUS_UNSUCCESSFUL, true},
    };
    PutTable(kTable, std::vector<BodyTableNode>(2 * kFrames, {1, 1}));
    for (const auto& c : cases) {
        clip_ = MakeClip(0);
        c.change(clip_);
        std::vector<PlacedBodyTableNode> nodes(clip_.FrameCount <= kFrames ? 2 * kFrames : 0);
        EXPECT_EQ(Locked([&] { return VrkFsHwReadBodyTableNodes(Hw(), &file_, nodes.data(), nullptr); }), c.expected)
            << c.what;
        const std::size_t needed = clip_.FrameCount <= kFrames ? VrkFsHwGetBodyTableSize(clip_.FrameCount) : 0;
        std::vector<UCHAR> raw(needed + 512, 0xEE);
        const NTSTATUS status = Locked([&] { return VrkFsHwReadBodyTable(Hw(), &file_, raw.data(), nullptr); });
        EXPECT_EQ(NT_SUCCESS(status), c.tableReadable) << c.what;
        EXPECT_EQ(raw[needed], 0xEE) << c.what << ": read past the frames";
    }
    // Nothing is written to blocks that are not a file's own.
    std::vector<UCHAR> bytes(1024);
    const std::uint64_t writes = Board().Count().Of(board::Operation::kWrite);
    for (const ULONG lba : {0u, 1023u, 7000u, kTable + 1, kRigLastData, kRigFirstDir, 0xFFFFFFFFu}) {
        EXPECT_EQ(Locked([&] { return VrkFsHwWriteBodyTable(Hw(), bytes.data(), nullptr, lba, 0, 1024, 0, Volume()); }),
                  STATUS_UNSUCCESSFUL)
            << lba;
    }
    EXPECT_EQ(Board().Count().Of(board::Operation::kWrite), writes);
}

}  // namespace
}  // namespace tests
