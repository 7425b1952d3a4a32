#include <cstring>

#include "core/strings.h"
#include "tests/driver/core_rig.h"
#include "volume/records.h"

namespace tests {
namespace {

using board::Operation;
using board::Wrong;

constexpr ULONG kId = 3;
constexpr ULONG kLba = 2048;

// A loaded driver with one card and one empty disk; the test speaks to the card's link.
class Storage : public DriverRig {
  protected:
    void SetUp() override {
        DriverRig::SetUp();
        Boot();
        Plug(0, {kId});
        ASSERT_EQ(Load(), STATUS_SUCCESS);
        Reset(4, 1);
    }
    // A board that behaves, no events, nothing counted.
    void Reset(ULONG retries, ULONG verify) {
        BoardOf(0).Misbehave().Clear();
        BoardOf(0).ResetCounters();
        Card().ScsiPrefs = {retries, verify};
        Hw()->ErrorsLogged = 0;
        ForgetEvents();
    }
    CardInstance& Card() { return *Cards().at(0); }
    HwContext* Hw() { return &Card().Hw; }
    std::uint64_t Reads() { return BoardOf(0).Count().Of(Operation::kRead); }
    std::uint64_t Writes() { return BoardOf(0).Count().Of(Operation::kWrite); }
    // At this record: skip so many fitting requests, then go wrong for so many.
    void GoWrong(Operation operation, Wrong what, std::uint64_t count, std::uint64_t skip = 0) {
        BoardOf(0).Misbehave().Add({.what = what, .operation = operation, .scsiId = kId, .skip = skip, .count = count});
    }
    std::string Logged() {
        std::string text;
        for (const std::string& event : Events()) {
            text += (text.empty() ? "" : ", ") + event;
        }
        return text;
    }
    static FileEntry GoodFile() {
        FileEntry entry{};
        entry.Magic = kFileEntryMagic;
        entry.FrameCount = 7;
        entry.Name[0] = 'F';
        entry.Checksum = VrkFsHwCalcFileChecksum(&entry);
        return entry;
    }
    template <typename Record>
    static std::u16string NameOf(const Record& record) {
        return std::u16string(record.Name, VrkFsRtlBoundedLength(record.Name, kRecordNameChars));
    }
};

constexpr std::uint64_t kAlways = ~std::uint64_t{0};

TEST_F(Storage, RecordReadsRepeatTestReportAndSubstitute) {
    const struct {
        const char* what;
        ULONG retries;
        std::uint64_t boardErrors;  // so many reads fail first ...
        std::uint64_t badContents;  // ... and then so many deliver flipped bits
        std::uint64_t attempts;
        const char* events;
        bool substituted;
    } cases[] = {
        {"good at once", 4, 0, 0, 1, "", false},
        {"second attempt", 4, 1, 0, 2, "80050005 read 3 2048 FileEntry 0", false},
        {"last attempt", 4, 4, 0, 5, "80050005 read 3 2048 FileEntry 3", false},
        {"never", 4, kAlways, 0, 5, "C0050006 read 3 2048 FileEntry 4", true},
        {"no retries", 0, kAlways, 0, 1, "C0050006 read 3 2048 FileEntry 0", true},
        {"checksum once", 4, 0, 1, 2, "80050007 3 2048 FileEntry 0 [40]", false},
        {"checksum always", 4, 0, kAlways, 5, "C0050008 3 2048 FileEntry 4 [40]", true},
        {"one board error outweighs checksum errors", 4, 1, kAlways, 5, "C0050006 read 3 2048 FileEntry 4", true},
        {"a limit without reason", 0xFFFFFFFF, kAlways, 0, kMaxRetriesUsed + 1, "C0050006 read 3 2048 FileEntry 100",
         true},
    };
    const FileEntry good = GoodFile();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Reset(c.retries, 0);
        FileEntry entry = good;
        ASSERT_EQ(VrkFsHwSCSIWrite(Hw(), kId, kLba, 2, &entry, 0), STATUS_SUCCESS);
        if (c.boardErrors != 0) {
            GoWrong(Operation::kRead, Wrong::kFail, c.boardErrors);
        }
        GoWrong(Operation::kRead, Wrong::kFlipBits, c.badContents, c.boardErrors == kAlways ? 0 : c.boardErrors);
        BOOLEAN substituted = 0xCC;
        std::memset(&entry, 0xCC, sizeof(entry));
        EXPECT_EQ(VrkFsHwSCSIReadEx(Hw(), kId, kLba, 2, &entry, 0, kHwRecordFileEntry, FALSE, &substituted),
                  STATUS_SUCCESS);
        EXPECT_EQ(Reads(), c.attempts);
        EXPECT_EQ(Logged(), c.events);
        EXPECT_EQ(substituted, c.substituted ? TRUE : FALSE);
        if (c.substituted) {
            EXPECT_EQ(NameOf(entry), u"BAD_FILE_2048");
            EXPECT_EQ(entry.Magic, kFileEntryMagic);
            EXPECT_EQ(entry.DataBlockCount + entry.DataStartLba + entry.FrameCount, 0u);
        } else {
            EXPECT_EQ(std::memcmp(&entry, &good, sizeof(entry)), 0);
        }
    }
}

TEST_F(Storage, RecordWritesAreReadBackAndRepeated) {
    const struct {
        const char* what;
        ULONG retries, verify;
        std::uint64_t failedWrites, flippedWrites, failedReads, writes, reads;
        NTSTATUS status;
        const char* events;
    } cases[] = {
        {"without read-back", 4, 0, 0, 0, 0, 1, 0, STATUS_SUCCESS, ""},
        {"without read-back there is no retry", 4, 0, kAlways, 0, 0, 1, 0, STATUS_IO_DEVICE_ERROR, ""},
        {"with read-back", 4, 1, 0, 0, 0, 1, 1, STATUS_SUCCESS, ""},
        {"write fails once", 4, 1, 1, 0, 0, 2, 1, STATUS_SUCCESS, "80050005 write 3 2048 FileEntry 0"},
        {"write fails always", 4, 1, kAlways, 0, 0, 5, 0, STATUS_IO_DEVICE_ERROR, "C0050006 write 3 2048 FileEntry 4"},
        {"differs twice", 4, 7, 0, 2, 0, 3, 3, STATUS_SUCCESS, "80050009 3 2048 FileEntry 1 [40]"},
        {"differs always", 2, 1, 0, kAlways, 0, 3, 3, STATUS_UNSUCCESSFUL, "C005000A 3 2048 FileEntry 2 [40]"},
        {"read-back fails", 1, 1, 0, 0, kAlways, 2, 2, STATUS_UNSUCCESSFUL, "C005000A 3 2048 FileEntry 1 [40]"},
        {"one board error outweighs", 2, 1, 1, kAlways, 0, 3, 2, STATUS_UNSUCCESSFUL,
         "C0050006 write 3 2048 FileEntry 2"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Reset(c.retries, c.verify);
        if (c.failedWrites != 0) {
            GoWrong(Operation::kWrite, Wrong::kFail, c.failedWrites);
        }
        GoWrong(Operation::kWrite, Wrong::kFlipBits, c.flippedWrites, c.failedWrites == kAlways ? 0 : c.failedWrites);
        GoWrong(Operation::kRead, Wrong::kFail, c.failedReads);
        FileEntry entry = GoodFile();
        EXPECT_EQ(VrkFsHwSCSIWriteEx(Hw(), kId, kLba, 2, &entry, 0, kHwRecordFileEntry), c.status);
        EXPECT_EQ(Writes(), c.writes);
        EXPECT_EQ(Reads(), c.reads);
        EXPECT_EQ(Logged(), c.events);
    }
}

TEST_F(Storage, LongRecordsAreReadBackIntoMemoryOfTheirOwn) {
    for (const ULONG blocks : {256u, 257u, 300u}) {
        Reset(1, 1);
        std::vector<UCHAR> data(blocks * 512, 0x5A);
        EXPECT_EQ(VrkFsHwSCSIWriteEx(Hw(), kId, kLba, blocks, data.data(), 0, kHwRecordBodyTable), STATUS_SUCCESS);
        EXPECT_EQ(Reads(), 1u);
    }
}

TEST_F(Storage, AtMostTwentyEventsAreLogged) {
    GoWrong(Operation::kRead, Wrong::kFail, kAlways);
    FileEntry entry;
    for (ULONG i = 0; i < 25; ++i) {
        EXPECT_EQ(VrkFsHwSCSIReadEx(Hw(), kId, kLba + 2 * i, 2, &entry, 0, kHwRecordFileEntry, FALSE, nullptr),
                  STATUS_SUCCESS);
    }
    EXPECT_EQ(Events().size(), 20u);
    EXPECT_EQ(Events().back(), "C0050006 read 3 2086 FileEntry 4");
}

TEST_F(Storage, ImpossibleTransfersNeverReachTheBoard) {
    UCHAR block[512] = {};
    const struct {
        ULONG id, lba, count;
        NTSTATUS status;
    } cases[] = {{kId, 0, 0, STATUS_SUCCESS},
                 {16, 0, 1, STATUS_INVALID_PARAMETER},
                 {0xFFFFFFFF, 0, 1, STATUS_INVALID_PARAMETER},
                 {kId, 0xFFFFFFFF, 2, STATUS_INVALID_PARAMETER},
                 {kId, 0, 0x800000, STATUS_INVALID_PARAMETER}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.lba);
        EXPECT_EQ(VrkFsHwSCSIRead(Hw(), c.id, c.lba, c.count, block, 0), c.status);
        EXPECT_EQ(VrkFsHwSCSIWrite(Hw(), c.id, c.lba, c.count, block, 0), c.status);
    }
    EXPECT_EQ(BoardOf(0).Count().Total(), 0u);
    // The last block of the address space can be asked for; this disk does not have it.
    EXPECT_EQ(VrkFsHwSCSIRead(Hw(), kId, 0xFFFFFFFF, 1, block, 0), STATUS_IO_DEVICE_ERROR);
    // A board that says "timed out" has failed.
    BoardOf(0).Misbehave().Add({.status = STATUS_TIMEOUT});
    EXPECT_EQ(VrkFsHwSCSIRead(Hw(), kId, 0, 1, block, 0), STATUS_DEVICE_CONFIGURATION_ERROR);
    EXPECT_EQ(VrkFsHwAcquireSCSI(Hw()), STATUS_DEVICE_CONFIGURATION_ERROR);
}

}  // namespace
}  // namespace tests
