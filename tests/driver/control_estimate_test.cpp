// The estimate of recordable frames against its definition: trials one by one, from the bound downwards.
#include <algorithm>
#include <random>

#include "control/space_estimate.h"
#include "tests/driver/core_rig.h"
#include "volume/allocator.h"

namespace tests {
namespace {

class Estimate : public LoadedRig {
  protected:
    void SetUp() override {
        LoadedRig::SetUp();
        alloc_ = static_cast<AllocObject*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(AllocObject), 1));
        RtlZeroMemory(alloc_, sizeof(*alloc_));
    }
    void TearDown() override {
        VrkFsVolAllocFreeAllocObject(alloc_);
        ExFreePoolWithTag(alloc_, 1);
        LoadedRig::TearDown();
    }
    void MakeAlloc(ULONG first, ULONG count) {
        VrkFsVolAllocFreeAllocObject(alloc_);
        RtlZeroMemory(alloc_, sizeof(*alloc_));
        ASSERT_EQ(VrkFsVolAllocInitializeAllocObject(alloc_, first, count), STATUS_SUCCESS);
    }
    // Everything that decides about later allocations.
    std::vector<ULONG> State() const {
        std::vector<ULONG> state = {alloc_->Boundary, static_cast<ULONG>(alloc_->FreeBlocks)};
        for (const AllocSegmentList* list : {&alloc_->Lower, &alloc_->Upper}) {
            for (const AllocSegment* segment = list->FirstByPosition; segment != nullptr;
                 segment = segment->NextByPosition) {
                state.insert(state.end(), {segment->Start, segment->Count});
            }
            state.push_back(0);
        }
        return state;
    }

    bool Trial(const SpaceEstimate& estimate, ULONG rows) {
        const ULONG table = (estimate.Devices * rows + 127) / 128;
        DualAllocation taken[2];
        ULONG count = 0;
        bool fits = true;
        for (const ULONG blocks : {estimate.VideoBlocks, estimate.AlphaBlocks}) {
            if (blocks != 0 && fits) {
                fits = NT_SUCCESS(VrkFsVolAllocAllocateDualSpace(alloc_, rows * blocks, table, &taken[count]));
                count += fits;
            }
        }
        for (ULONG index = 0; index < count; ++index) {
            EXPECT_EQ(VrkFsVolAllocReleaseSpace(alloc_, taken[index].LowerStart, taken[index].LowerCount), 0);
            EXPECT_EQ(VrkFsVolAllocReleaseSpace(alloc_, taken[index].UpperStart, taken[index].UpperCount), 0);
        }
        return fits;
    }
    ULONG Reference(const SpaceEstimate& estimate) {
        ULONG record = 0;
        if (!NT_SUCCESS(VrkFsVolAllocAllocateUpperSpace(alloc_, 2, &record))) {
            return 0;
        }
        AllocRange first;
        AllocRange second;
        VrkFsVolAllocGetTwoLargestSegmentsInfo(alloc_, &first, &second);
        const AllocRange big = first.Count > second.Count ? first : second;
        ULONG rows = big.Count / estimate.VideoBlocks;
        if (estimate.AlphaBlocks != 0) {
            const ULONG shared = big.Count / (estimate.VideoBlocks + estimate.AlphaBlocks);
            AllocRange video = first;
            AllocRange alpha = second;
            if (second.Count != 0 && second.Start < first.Start) {
                std::swap(video, alpha);
            }
            rows = std::max(shared, std::min(video.Count / estimate.VideoBlocks, alpha.Count / estimate.AlphaBlocks));
        }
        while (rows != 0 && !Trial(estimate, rows)) {
            --rows;
        }
        EXPECT_EQ(VrkFsVolAllocReleaseSpace(alloc_, record, 2), STATUS_SUCCESS);
        return estimate.Devices * rows / 2;
    }

    AllocObject* alloc_ = nullptr;
};

TEST_F(Estimate, IsWhatTrialsOneByOneFind) {
    constexpr int kRounds = 3000;
    int above = 0;
    for (int round = 0; round < kRounds; ++round) {
        std::mt19937 random(static_cast<unsigned>(round));
        const auto below = [&](ULONG limit) { return static_cast<ULONG>(random() % limit); };
        MakeAlloc(1024, 20 + below(600));
        // Fragments of both regions: ranges taken, some of them given back.
        std::vector<AllocRange> taken;
        for (ULONG step = below(40); step != 0; --step) {
            AllocRange range = {0, 1 + below(30)};
            const bool got = below(2) == 0
                                 ? VrkFsVolAllocAllocateLowerSpace(alloc_, range.Count, &range.Start) != FALSE
                                 : NT_SUCCESS(VrkFsVolAllocAllocateUpperSpace(alloc_, range.Count, &range.Start));
            if (got) {
                taken.push_back(range);
            }
            if (!taken.empty() && below(2) == 0) {
                const ULONG index = below(static_cast<ULONG>(taken.size()));
                ASSERT_EQ(VrkFsVolAllocReleaseSpace(alloc_, taken[index].Start, taken[index].Count), STATUS_SUCCESS);
                taken.erase(taken.begin() + index);
            }
        }
        // Many devices make tables that compete with the streams for the last segment.
        const SpaceEstimate estimate = {alloc_, 1 + below(below(2) == 0 ? 16 : 1000), 1 + below(12),
                                        below(3) == 0 ? 0 : 1 + below(12)};
        const std::vector<ULONG> before = State();
        const ULONG wanted = Reference(estimate);
        ASSERT_EQ(State(), before) << "round " << round;
        ULONG frames = 0xEEEEEEEE;
        ASSERT_EQ(VrkFsIoctlEstimateFrames(&estimate, &frames), STATUS_SUCCESS);
        ASSERT_EQ(frames, wanted) << "round " << round;
        ASSERT_EQ(State(), before) << "round " << round;
        above += wanted > 1;
    }
    EXPECT_GT(above, kRounds / 2) << "the cases do not try much";
}

// Going down one by one, from a billion rows that the tables leave no room for, would not come back.
TEST_F(Estimate, ComesBackOnALargeFragmentedVolume) {
    constexpr ULONG kHoles = 100'000;
    MakeAlloc(1024, 0xF0000000);
    for (ULONG hole = 0; hole < kHoles; ++hole) {
        ASSERT_EQ(VrkFsVolAllocAllocateSpecificLowerSpace(alloc_, 1025 + hole * 4, 2), STATUS_SUCCESS);
    }
    const ULONG rest = 0xF0000000 - kHoles * 4 - 2;  // what the last segment has beside the record
    const SpaceEstimate cases[] = {{alloc_, 16, 1, 0}, {alloc_, 16, 1, 1}, {alloc_, 1, 1, 0}, {alloc_, 16, 3, 2}};
    for (const SpaceEstimate& estimate : cases) {
        ULONG frames = 0;
        ASSERT_EQ(VrkFsIoctlEstimateFrames(&estimate, &frames), STATUS_SUCCESS);
        const ULONG streams = estimate.AlphaBlocks == 0 ? 1 : 2;
        const ULONGLONG perRow128 =  // blocks of 128 rows
            (ULONGLONG{estimate.VideoBlocks} + estimate.AlphaBlocks) * 128 + ULONGLONG{streams} * estimate.Devices;
        const ULONGLONG about = ULONGLONG{rest} * 128 / perRow128 * estimate.Devices / 2;
        EXPECT_NEAR(static_cast<double>(frames), static_cast<double>(std::min<ULONGLONG>(about, 0xFFFFFFFF)), 64.0);
    }
}

}  // namespace
}  // namespace tests
