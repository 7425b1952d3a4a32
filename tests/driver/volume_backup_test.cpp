// A body table saved beside the driver finds its way back at the next mount, once.
#include <fstream>

#include "tests/driver/volume_rig.h"
#include "volume/backup.h"

namespace tests {
namespace {

constexpr ULONG kFrames = 100;
constexpr ULONG kTable = 6000;
constexpr ULONG kAlphaTable = 6004;

FileEntry MakeClip(ULONG table = kTable) {
    FileEntry entry = MakeMedia(u"X", kFrames, 1024, 400, table, 2);
    entry.Flags = kFileHasAlpha;
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
        const auto bytes = Get<std::array<UCHAR, 1024>>(0, lba);
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
        ULONG video, alpha;
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
    EXPECT_EQ(Get<Block>(1, kTable), Block{});

    PutFolder(0, 1, MakeFolder(u"later", {{0, 5002}}));
    Put(0, 5002, MakePlainFile(u"rival", kTable + 1, 1));
    for (const ULONG lba : {1u, 1020u, 5000u, 5001u, 1100u, kTable, kRigLastData, kRigFirstDir, 0xFFFFFFFFu}) {
        Put(0, 5000, MakeClip(lba));
        PutBackup(u"P:\\RZV\\V\\F\\X", 200, 0, 800);
        Start();
        EXPECT_EQ(DescribeVolumes(), "V(0) W(1)") << lba;
        EXPECT_EQ(Board().Count().Of(board::Operation::kWrite), 0u) << lba;
        Stop();
    }
}

}  // namespace
}  // namespace tests
