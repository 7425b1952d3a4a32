// The allocator against a plain model of it: blocks one by one, and the rules.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/global_data.h"
#include "core/pool.h"
#include "nt/kernel.h"
#include "volume/allocator.h"

namespace {

using Segments = std::vector<std::pair<ULONG, ULONG>>;  // start and count
constexpr NTSTATUS kNoSpace = STATUS_UNSUCCESSFUL;

// Knows of every block whether it is free, and keeps no segment, order or index.
class Model {
  public:
    Model(ULONG start, ULONG count) : boundary(start + count), first_(start), free_(count, 1) {}

    Segments Lower() const { return Runs(first_, boundary); }
    Segments Upper() const { return Runs(boundary, End()); }

    bool Allocate(bool inUpper, ULONG count, ULONG& start) {
        ULONG best = 0xFFFFFFFF;
        for (const auto& [from, blocks] : inUpper ? Upper() : Lower()) {
            if (blocks >= count && (inUpper ? blocks <= best : best == 0xFFFFFFFF)) {
                start = from;
                best = blocks;
            }
        }
        if (best != 0xFFFFFFFF) {
            return Take(start, start + count);
        }
        start = boundary - count;
        return inUpper && Claim(true, start, count);
    }

    bool Claim(bool inUpper, ULONG start, ULONG count) {
        const ULONG end = start + count;
        if (!inUpper || start >= boundary) {
            return (inUpper || end <= boundary) && Take(start, end);
        }
        if (end > boundary || !AreFree(start, boundary)) {
            return false;
        }
        boundary = start;
        return Take(start, end);
    }

    void Release(ULONG start, ULONG count) {
        std::fill_n(free_.begin() + (start - first_), count, 1);
        while (boundary < End() && AreFree(boundary, boundary + 1)) {
            ++boundary;
        }
    }

    ULONG boundary;

  private:
    ULONG End() const { return first_ + static_cast<ULONG>(free_.size()); }
    bool AreFree(ULONG start, ULONG end) const {
        return start >= first_ &&
               std::all_of(free_.begin() + (start - first_), free_.begin() + (end - first_), std::identity());
    }
    bool Take(ULONG start, ULONG end) {
        const bool free = AreFree(start, end);
        if (free) {
            std::fill(free_.begin() + (start - first_), free_.begin() + (end - first_), 0);
        }
        return free;
    }
    Segments Runs(ULONG start, ULONG end) const {
        Segments runs;
        const auto last = free_.begin() + (end - first_);
        for (auto at = free_.begin() + (start - first_); (at = std::find(at, last, 1)) != last;) {
            const auto taken = std::find(at, last, 0);
            runs.emplace_back(first_ + (at - free_.begin()), taken - at);
            at = taken;
        }
        return runs;
    }

    ULONG first_;
    std::vector<char> free_;
};

// Kernel and lookaside list: all that the allocator needs of the driver.
class VolumeAllocator : public testing::Test {
  protected:
    void SetUp() override {
        nt::Boot();
        static GlobalData global;
        global = GlobalData{};
        pVrkFsGlobalData = &global;
        ExInitializePagedLookasideList(&global.AllocSegmentLookaside, nullptr, nullptr, 0, sizeof(AllocSegment),
                                       VrkFsPoolTag("VOLA"), 256);
    }
    void TearDown() override {
        VrkFsVolAllocFreeAllocObject(&alloc_);
        VrkFsVolAllocFreeAllocObject(&alloc_);
        ExDeletePagedLookasideList(&pVrkFsGlobalData->AllocSegmentLookaside);
        pVrkFsGlobalData = nullptr;
        EXPECT_EQ(nt::ToString(nt::Shutdown()), "");
    }

    void Make(ULONG first, ULONG count) {
        ASSERT_EQ(VrkFsVolAllocInitializeAllocObject(&alloc_, first, count), STATUS_SUCCESS);
    }
    NTSTATUS Allocate(bool inUpper, ULONG count, ULONG& start) {
        return inUpper ? VrkFsVolAllocAllocateUpperSpace(&alloc_, count, &start)
               : VrkFsVolAllocAllocateLowerSpace(&alloc_, count, &start) ? STATUS_SUCCESS
                                                                         : kNoSpace;
    }
    ULONG Upper(ULONG count) {
        ULONG start = 0;
        EXPECT_EQ(Allocate(true, count, start), STATUS_SUCCESS);
        return start;
    }
    ULONG Lower(ULONG count) {
        ULONG start = 0;
        EXPECT_EQ(Allocate(false, count, start), STATUS_SUCCESS);
        return start;
    }
    NTSTATUS Release(ULONG start, ULONG count) { return VrkFsVolAllocReleaseSpace(&alloc_, start, count); }
    NTSTATUS Claim(bool inUpper, ULONG start, ULONG count) {
        return inUpper ? VrkFsVolAllocAllocateSpecificUpperSpace(&alloc_, start, count)
                       : VrkFsVolAllocAllocateSpecificLowerSpace(&alloc_, start, count);
    }

    // A list in one of its orders, whose way back must be its way forth.
    template <AllocSegment* AllocSegment::*kNext, AllocSegment* AllocSegment::*kPrev>
    static Segments Walk(const AllocSegment* first, const AllocSegment* last) {
        Segments found;
        const AllocSegment* previous = nullptr;
        for (const AllocSegment* at = first; at != nullptr && at->*kPrev == previous; at = at->*kNext) {
            found.emplace_back(at->Start, at->Count);
            previous = at;
        }
        EXPECT_EQ(last, previous);
        return found;
    }
    static Segments ByPosition(const AllocSegmentList& list) {
        return Walk<&AllocSegment::NextByPosition, &AllocSegment::PrevByPosition>(list.FirstByPosition,
                                                                                  list.LastByPosition);
    }
    static Segments BySize(const AllocSegmentList& list) {
        return Walk<&AllocSegment::NextBySize, &AllocSegment::PrevBySize>(list.FirstBySize, list.LastBySize);
    }
    static std::string Text(const AllocSegmentList& list) {
        std::string text;
        for (const auto& [start, count] : ByPosition(list)) {
            text += (text.empty() ? "" : " ") + std::to_string(start) + "+" + std::to_string(count);
        }
        return text;
    }
    // Everything that can be seen: both regions, the boundary, the free count.
    std::string State() {
        return Text(alloc_.Lower) + " | " + Text(alloc_.Upper) + " | " + std::to_string(alloc_.Boundary) + " " +
               std::to_string(alloc_.FreeBlocks);
    }

    // Both orders of a list and both of its trees agree with the segments that the model has.
    static void ExpectList(const AllocSegmentList& list, Segments expected) {
        ASSERT_EQ(ByPosition(list), expected);
        for (const AllocTreeNode* root : {list.ByPosition.Root, list.BySize.Root}) {
            std::size_t inTree = 0;
            CheckTree(root, nullptr, inTree);
            ASSERT_EQ(inTree, expected.size());
        }
        std::ranges::stable_sort(expected, std::greater(), &Segments::value_type::second);
        ASSERT_EQ(BySize(list), expected);
    }

    AllocObject alloc_{};

  private:
    static void CheckTree(const AllocTreeNode* node, const AllocTreeNode* parent, std::size_t& count) {
        if (node == nullptr) {
            return;
        }
        ++count;
        ASSERT_EQ(node->Parent, parent);
        CheckTree(node->Left, node, count);
        CheckTree(node->Right, node, count);
        const AllocTreeNode leaf{};
        const AllocTreeNode& left = node->Left != nullptr ? *node->Left : leaf;
        const AllocTreeNode& right = node->Right != nullptr ? *node->Right : leaf;
        ASSERT_EQ(node->Height, 1 + std::max(left.Height, right.Height));
        ASSERT_LE(std::max(left.Height, right.Height) - std::min(left.Height, right.Height), 1u);
        ASSERT_EQ(node->LargestWeight, std::max({node->Weight, left.LargestWeight, right.LargestWeight}));
        ASSERT_TRUE(node->Left == nullptr || node->Left->Key < node->Key);
        ASSERT_TRUE(node->Right == nullptr || node->Right->Key > node->Key);
    }
};

TEST_F(VolumeAllocator, RefusedAndUnchanged) {
    Make(1024, 1000);
    const ULONG data = Lower(100);
    const ULONG record = Upper(2);
    const std::string before = State();
    const std::pair<ULONG, ULONG> ranges[] = {{1023, 2},      {0, 1},          {2024, 1},           {2022, 3},
                                              {data + 99, 2}, {1500, 10},      {0xFFFFFFFF, 2},     {1024, ~ULONG{}},
                                              {data, 1000},   {record - 1, 3}, {record, 0xFFFFFFFE}};
    for (const auto& [start, count] : ranges) {
        SCOPED_TRACE(std::to_string(start) + "+" + std::to_string(count));
        EXPECT_EQ(Release(start, count), kNoSpace);
        for (const bool inUpper : {false, true}) {
            EXPECT_EQ(Claim(inUpper, start, count == 10 ? 0xFFFFFFF0 : count), kNoSpace);
        }
    }
    ULONG start = 7;
    EXPECT_FALSE(VrkFsVolAllocAllocateLowerSpace(&alloc_, 899, &start));
    EXPECT_EQ(VrkFsVolAllocAllocateUpperSpace(&alloc_, 0xFFFFFFFF, &start), kNoSpace);
    DualAllocation dual;
    EXPECT_EQ(VrkFsVolAllocAllocateDualSpace(&alloc_, 800, 99, &dual), kNoSpace);
    EXPECT_EQ(VrkFsVolAllocAllocateDualSpace(&alloc_, 898, 1, &dual), kNoSpace);  // took and gave back a whole segment
    EXPECT_EQ(VrkFsVolAllocAllocateDualSpace(&alloc_, 899, 1, &dual), kNoSpace);
    EXPECT_EQ(State(), before);
}

TEST_F(VolumeAllocator, ContestedBlocksStayTaken) {
    Make(1024, 1000);
    const ULONG data = Lower(100);  // 1024 to 1123
    EXPECT_EQ(VrkFsVolAllocContestSpace(&alloc_, data + 40, 20), STATUS_SUCCESS);
    EXPECT_EQ(VrkFsVolAllocContestSpace(&alloc_, data + 50, 20), STATUS_SUCCESS);
    EXPECT_EQ(VrkFsVolAllocContestSpace(&alloc_, data + 90, 30), STATUS_SUCCESS);  // ten taken, twenty free
    EXPECT_EQ(Text(alloc_.Contested), "1064+30 1114+30");
    EXPECT_EQ(State(), "1144+880 |  | 2024 880");
    EXPECT_FALSE(VrkFsVolAllocIsOwnedSpace(&alloc_, data, 41));
    EXPECT_TRUE(VrkFsVolAllocIsOwnedSpace(&alloc_, data, 40));
    EXPECT_FALSE(VrkFsVolAllocIsOwnedSpace(&alloc_, 1144, 1));
    EXPECT_EQ(Release(data, 100), STATUS_SUCCESS);  // all but the contested
    EXPECT_EQ(State(), "1024+40 1094+20 1144+880 |  | 2024 940");
    EXPECT_EQ(Release(data + 40, 30), STATUS_SUCCESS);
    EXPECT_EQ(State(), "1024+40 1094+20 1144+880 |  | 2024 940");
    // Ranges that wrap or reach beyond the data area count with the part inside it.
    EXPECT_EQ(VrkFsVolAllocContestSpace(&alloc_, 0xFFFFFFF0, 0x20), STATUS_SUCCESS);
    EXPECT_EQ(VrkFsVolAllocContestSpace(&alloc_, 2000, 0xFFFFFFFF), STATUS_SUCCESS);
    EXPECT_EQ(VrkFsVolAllocContestSpace(&alloc_, 3, 1022), STATUS_SUCCESS);
    EXPECT_EQ(Text(alloc_.Contested), "1024+1 1064+30 1114+30 2000+24");
    EXPECT_EQ(State(), "1025+39 1094+20 1144+856 |  | 2024 915");
    // The region above cannot grow past contested blocks.
    ULONG start;
    EXPECT_EQ(VrkFsVolAllocAllocateUpperSpace(&alloc_, 1, &start), kNoSpace);
}

// The bottom of the upper region given back around a contested block.
TEST_F(VolumeAllocator, ContestedAtTheBoundary) {
    Make(1024, 1000);
    const ULONG table = Upper(10);
    EXPECT_EQ(VrkFsVolAllocContestSpace(&alloc_, table + 4, 2), STATUS_SUCCESS);
    EXPECT_EQ(Release(table, 10), STATUS_SUCCESS);
    EXPECT_EQ(State(), "1024+994 | 2020+4 | 2018 998");
    EXPECT_EQ(Upper(5), 2013u);
}

// Writers of different files allocate at the same time.
TEST_F(VolumeAllocator, Threads) {
    Make(1024, 4000);
    const std::string before = State();
    const auto work = [this](unsigned seed) {
        std::minstd_rand random(seed);
        for (int step = 0; step < 3000; ++step) {
            ULONG record = 0;
            DualAllocation dual;
            const ULONG count = 1 + random() % 20;
            const bool hasRecord = NT_SUCCESS(Allocate(true, 2, record));
            if (NT_SUCCESS(VrkFsVolAllocAllocateDualSpace(&alloc_, count, 3, &dual))) {
                EXPECT_EQ(Release(dual.LowerStart, count), STATUS_SUCCESS);
                EXPECT_EQ(Release(dual.UpperStart, 3), STATUS_SUCCESS);
            }
            EXPECT_TRUE(hasRecord && Release(record, 2) == STATUS_SUCCESS);
        }
    };
    {
        std::vector<std::jthread> threads;
        for (unsigned seed = 1; seed <= 3; ++seed) {
            threads.emplace_back(work, seed);
        }
    }
    EXPECT_EQ(State(), before);
}

// Random operations on a small data area, where everything meets everything, compared after each.
class VolumeAllocatorModel : public VolumeAllocator, public testing::WithParamInterface<int> {};

TEST_P(VolumeAllocatorModel, AgreesAfterEveryOperation) {
    std::mt19937 random(static_cast<unsigned>(GetParam()));
    const ULONG blocks = GetParam() % 2 == 0 ? 120 : 4000;
    Make(1024, blocks);
    Model model(1024, blocks);
    Segments held;
    const auto size = [&](ULONG most) { return 1 + static_cast<ULONG>(random() % most); };
    for (int step = 0; step < 4000; ++step) {
        SCOPED_TRACE(step);
        ULONG start = 0;
        ULONG expected = 0;
        const ULONG kind = random() % 10;
        const bool inUpper = random() % 2 == 0;
        if (kind < 7 && kind != 4) {
            const bool claims = kind > 4;
            start = expected = claims ? 1024 + static_cast<ULONG>(random() % blocks) : 0;
            const ULONG count = claims ? std::min<ULONG>(size(8), 1024 + blocks - start) : size(inUpper ? 6 : 12);
            const bool fits = claims ? model.Claim(inUpper, start, count) : model.Allocate(inUpper, count, expected);
            const NTSTATUS status = claims ? Claim(inUpper, start, count) : Allocate(inUpper, count, start);
            ASSERT_EQ(status, fits ? STATUS_SUCCESS : kNoSpace) << start << "+" << count;
            if (fits) {
                ASSERT_EQ(start, expected);
                held.emplace_back(start, count);
            }
        } else if (kind == 4) {
            const ULONG lower = size(10);
            const ULONG upper = size(40);
            Model trial = model;
            ULONG upperStart = 0;
            const bool fits = trial.Allocate(false, lower, expected) && trial.Allocate(true, upper, upperStart);
            DualAllocation dual;
            ASSERT_EQ(VrkFsVolAllocAllocateDualSpace(&alloc_, lower, upper, &dual), fits ? STATUS_SUCCESS : kNoSpace);
            if (fits) {
                model = trial;
                ASSERT_EQ(dual.LowerStart, expected);
                ASSERT_EQ(dual.UpperStart, upperStart);
                held.emplace_back(expected, lower);
                held.emplace_back(upperStart, upper);
            }
        } else if (!held.empty()) {
            // A whole range, or a part of it as relocations and settlements give back.
            std::swap(held[random() % held.size()], held.back());
            auto [from, count] = held.back();
            held.pop_back();
            const ULONG part = random() % 3 == 0 ? size(count) : count;
            if (part < count) {
                held.emplace_back(from, count - part);
            }
            from += count - part;
            ASSERT_EQ(Release(from, part), STATUS_SUCCESS);
            ASSERT_EQ(Release(from, part), kNoSpace);
            model.Release(from, part);
        }
        ASSERT_EQ(alloc_.Boundary, model.boundary);
        ASSERT_NO_FATAL_FAILURE(ExpectList(alloc_.Lower, model.Lower()));
        ASSERT_NO_FATAL_FAILURE(ExpectList(alloc_.Upper, model.Upper()));
        const ULONGLONG taken = std::accumulate(held.begin(), held.end(), 0ull,
                                                [](ULONGLONG sum, const auto& range) { return sum + range.second; });
        ASSERT_EQ(alloc_.FreeBlocks + taken, blocks);
    }
    for (const auto& [from, count] : held) {
        ASSERT_EQ(Release(from, count), STATUS_SUCCESS);
    }
    EXPECT_EQ(alloc_.FreeBlocks, blocks);
}

INSTANTIATE_TEST_SUITE_P(Seeds, VolumeAllocatorModel, testing::Range(1, 9));

}  // namespace
