#include <cstring>

#include "tests/driver/core_rig.h"

namespace tests {
namespace {

using board::Operation;

constexpr ULONG kId = 1;
constexpr ULONG kAreaBlocks = 4096;

class BlockMove : public DriverRig {
  protected:
    void SetUp() override {
        DriverRig::SetUp();
        Boot();
        Plug(0, {kId});
        ASSERT_EQ(Load(), STATUS_SUCCESS);
    }
    HwContext* Hw() { return &Cards().at(0)->Hw; }
    // Every block of the area names itself.
    void Fill() {
        std::vector<ULONG> area(kAreaBlocks * 128);
        for (ULONG i = 0; i < area.size(); ++i) {
            area[i] = i / 128;
        }
        ASSERT_EQ(VrkFsHwSCSIWrite(Hw(), kId, 0, kAreaBlocks, area.data(), 0), STATUS_SUCCESS);
        BoardOf(0).ResetCounters();
    }
    // Which block's content lies at each place.
    std::vector<ULONG> Contents() {
        std::vector<ULONG> area(kAreaBlocks * 128);
        EXPECT_EQ(VrkFsHwSCSIRead(Hw(), kId, 0, kAreaBlocks, area.data(), 0), STATUS_SUCCESS);
        std::vector<ULONG> blocks(kAreaBlocks);
        for (ULONG i = 0; i < kAreaBlocks; ++i) {
            blocks[i] = area[i * 128];
            EXPECT_EQ(area[i * 128 + 127], blocks[i]);
        }
        return blocks;
    }
    static std::vector<ULONG> Moved(ULONG source, ULONG count, ULONG destination) {
        std::vector<ULONG> blocks(kAreaBlocks);
        for (ULONG i = 0; i < kAreaBlocks; ++i) {
            blocks[i] = i - destination < count ? source + (i - destination) : i;
        }
        return blocks;
    }
};

TEST_F(BlockMove, GoesFromTheEndWhereTheDestinationIsHigher) {
    const struct {
        ULONG source, destination;
        ULONG firstSource, firstDestination;  // of the one chunk that is moved before the board fails
    } cases[] = {{1000, 1100, 1344, 1444}, {1100, 1000, 1100, 1000}};
    for (const auto& c : cases) {
        for (const Operation failing : {Operation::kRead, Operation::kWrite, Operation::kAcquire}) {
            Fill();
            BoardOf(0).Misbehave().Add({.operation = failing, .skip = 1});
            ULONGLONG progress = 10;
            ULONG shown = 99;
            EXPECT_EQ(VrkFsHwMoveBlocks(Hw(), kId, c.source, 600, c.destination, &progress, 3, 2, &shown),
                      STATUS_IO_DEVICE_ERROR);
            BoardOf(0).Misbehave().Clear();
            EXPECT_EQ(progress, 10u + 256 * 3);
            EXPECT_EQ(shown, (10u + 256 * 3) / 2);
            EXPECT_EQ(Contents(), Moved(c.firstSource, 256, c.firstDestination));
            // The path was given back: it can be claimed without waiting.
            EXPECT_EQ(VrkFsHwAcquireSCSI(Hw()), STATUS_SUCCESS);
            EXPECT_EQ(VrkFsHwReleaseSCSI(Hw()), STATUS_SUCCESS);
        }
    }
}

TEST_F(BlockMove, RefusesWhatWouldWrapAndSurvivesADivisorOfZero) {
    const struct {
        ULONG source, count, destination;
    } cases[] = {{1, 0, 2}, {0xFFFFFF00, 0x101, 0}, {0, 0x101, 0xFFFFFF00}, {1, 0xFFFFFFFF, 3}};
    for (const auto& c : cases) {
        EXPECT_EQ(VrkFsHwMoveBlocks(Hw(), kId, c.source, c.count, c.destination, nullptr, 1, 1, nullptr),
                  STATUS_UNSUCCESSFUL);
    }
    BoardOf(0).ResetCounters();
    ULONGLONG progress = 0;
    ULONG shown = 99;
    EXPECT_EQ(VrkFsHwMoveBlocks(Hw(), kId, 10, 4, 20, &progress, 0xFFFFFFFF, 0, &shown), STATUS_SUCCESS);
    EXPECT_EQ(progress, 4ull * 0xFFFFFFFF);
    EXPECT_EQ(shown, 99u);
}

}  // namespace
}  // namespace tests
