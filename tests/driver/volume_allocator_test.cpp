// The allocator against a plain model of it: two ordered maps of free segments and the rules, walked one by one.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "core/global_data.h"
#include "core/pool.h"
#include "nt/kernel.h"
#include "volume/allocator.h"

namespace {

using Segments = std::map<ULONG, ULONG>;  // start to count
constexpr NTSTATUS kNoSpace = STATUS_UNSUCCESSFUL;

// Walks everything, merges by hand, knows no index.
class Model {
  public:
    Model(ULONG start, ULONG count) : boundary(start + count), free(count) { lower[start] = count; }

    bool AllocateLower(ULONG count, ULONG& start) {
        for (const auto& [from, blocks] : lower) {
            if (blocks >= count) {
                start = from;
                Take(lower, from, count);
                return true;
            }
        }
        return false;
    }

    bool AllocateUpper(ULONG count, ULONG& start) {
        std::optional<ULONG> best;
        for (const auto& [from, blocks] : upper) {
            if (blocks >= count && (!best || blocks <= upper[*best])) {
                best = from;
            }
        }
        if (best) {
            start = *best;
            Take(upper, start, count);
            return true;
        }
        if (!TopMeetsBoundary() || lower.rbegin()->second < count) {
            return false;
        }
        start = boundary - count;
        Take(lower, start, count);
        boundary = start;
        return true;
    }

    bool AllocateSpecificLower(ULONG start, ULONG count) {
        return Holds(lower, start, count) && Take(lower, start, count);
    }

    bool AllocateSpecificUpper(ULONG start, ULONG count) {
        if (!upper.empty() && start >= upper.begin()->first) {
            return Holds(upper, start, count) && Take(upper, start, count);
        }
        const ULONG end = start + count;
        if (!TopMeetsBoundary() || lower.rbegin()->first > start || end > boundary) {
            return false;
        }
        const ULONG gap = boundary - end;
        Take(lower, start, boundary - start);
        if (gap != 0) {
            Put(upper, end, gap);
        }
        boundary = start;
        return true;
    }

    void Release(ULONG start, ULONG count) {
        if (start == boundary) {
            ULONG whole = count;
            if (!upper.empty() && upper.begin()->first == start + count) {
                whole += upper.begin()->second;
                free -= upper.begin()->second;
                upper.erase(upper.begin());
            }
            Put(lower, start, whole);
            boundary = start + whole;
        } else {
            Put(start > boundary ? upper : lower, start, count);
        }
    }

    ULONG boundary;
    ULONGLONG free;
    Segments lower;
    Segments upper;

  private:
    bool TopMeetsBoundary() const {
        return !lower.empty() && lower.rbegin()->first + lower.rbegin()->second == boundary;
    }
    static bool Holds(const Segments& list, ULONG start, ULONG count) {
        for (const auto& [from, blocks] : list) {
            if (from <= start && start + count <= from + blocks) {
                return true;
            }
        }
        return false;
    }
    bool Take(Segments& list, ULONG start, ULONG count) {
        auto at = std::prev(list.upper_bound(start));
        const auto [from, blocks] = *at;
        list.erase(at);
        if (from < start) {
            list[from] = start - from;
        }
        if (start + count < from + blocks) {
            list[start + count] = from + blocks - start - count;
        }
        free -= count;
        return true;
    }
    void Put(Segments& list, ULONG start, ULONG count) {
        free += count;
        list[start] = count;
        for (auto at = list.begin(); std::next(at) != list.end();) {
            if (at->first + at->second == std::next(at)->first) {
                at->second += std::next(at)->second;
                list.erase(std::next(at));
            } else {
                ++at;
            }
        }
    }
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
    ULONG Upper(ULONG count) {
        ULONG start = 0;
        EXPECT_EQ(VrkFsVolAllocAllocateUpperSpace(&alloc_, count, &start), STATUS_SUCCESS);
        return start;
    }
    ULONG Lower(ULONG count) {
        ULONG start = 0;
        EXPECT_TRUE(VrkFsVolAllocAllocateLowerSpace(&alloc_, count, &start));
        return start;
    }
    NTSTATUS Release(ULONG start, ULONG count) { return VrkFsVolAllocReleaseSpace(&alloc_, start, count); }
    NTSTATUS ClaimLower(ULONG start, ULONG count) {
        return VrkFsVolAllocAllocateSpecificLowerSpace(&alloc_, start, count);
    }
    NTSTATUS ClaimUpper(ULONG start, ULONG count) {
        return VrkFsVolAllocAllocateSpecificUpperSpace(&alloc_, start, count);
    }

    static std::string Text(const AllocSegmentList& list) {
        std::string text;
        for (const AllocSegment* at = list.FirstByPosition; at != nullptr; at = at->NextByPosition) {
            text += (text.empty() ? "" : " ") + std::to_string(at->Start) + "+" + std::to_string(at->Count);
        }
        return text;
    }
    // Everything that can be seen: both regions, the boundary, the free count.
    std::string State() {
        return Text(alloc_.Lower) + " | " + Text(alloc_.Upper) + " | " + std::to_string(alloc_.Boundary) + " " +
               std::to_string(alloc_.FreeBlocks);
    }

    // Both orders of a list and both of its trees agree with the segments that the model has.
    static void ExpectList(const AllocSegmentList& list, const Segments& expected) {
        const AllocSegment* previous = nullptr;
        auto at = expected.begin();
        for (const AllocSegment* s = list.FirstByPosition; s != nullptr; s = s->NextByPosition, ++at) {
            ASSERT_NE(at, expected.end());
            ASSERT_EQ(s->Start, at->first);
            ASSERT_EQ(s->Count, at->second);
            ASSERT_EQ(s->PrevByPosition, previous);
            previous = s;
        }
        ASSERT_EQ(at, expected.end());
        ASSERT_EQ(list.LastByPosition, previous);
        previous = nullptr;
        std::size_t count = 0;
        for (const AllocSegment* s = list.FirstBySize; s != nullptr; s = s->NextBySize, ++count) {
            ASSERT_EQ(s->PrevBySize, previous);
            if (previous != nullptr) {
                ASSERT_TRUE(previous->Count > s->Count || (previous->Count == s->Count && previous->Start < s->Start));
            }
            previous = s;
        }
        ASSERT_EQ(list.LastBySize, previous);
        ASSERT_EQ(count, expected.size());
        std::size_t inTree = 0;
        CheckTree(list.ByPosition.Root, nullptr, inTree);
        ASSERT_EQ(inTree, expected.size());
        inTree = 0;
        CheckTree(list.BySize.Root, nullptr, inTree);
        ASSERT_EQ(inTree, expected.size());
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
        const ULONG left = node->Left != nullptr ? node->Left->Height : 0;
        const ULONG right = node->Right != nullptr ? node->Right->Height : 0;
        ASSERT_EQ(node->Height, 1 + std::max(left, right));
        ASSERT_LE(std::max(left, right) - std::min(left, right), 1u);
        const ULONG below = std::max(node->Left != nullptr ? node->Left->LargestWeight : 0,
                                     node->Right != nullptr ? node->Right->LargestWeight : 0);
        ASSERT_EQ(node->LargestWeight, std::max(node->Weight, below));
        ASSERT_TRUE(node->Left == nullptr || node->Left->Key < node->Key);
        ASSERT_TRUE(node->Right == nullptr || node->Right->Key > node->Key);
    }
};

TEST_F(VolumeAllocator, RefusedAndUnchanged) {
    Make(1024, 1000);
    const ULONG data = Lower(100);
    const ULONG record = Upper(2);
    const std::string before = State();
    const struct {
        ULONG start;
        ULONG count;
    } releases[] = {
        {1023, 2},
        {0, 1},
        {2024, 1},
        {2022, 3},
        {data + 99, 2},
        {1500, 10},
        {0xFFFFFFFF, 2},
        {1024, 0xFFFFFFFF},
        {data, 1000},
        {record - 1, 3},
        {record, 0xFFFFFFFE},
    };
    for (const auto& r : releases) {
        EXPECT_EQ(Release(r.start, r.count), kNoSpace) << r.start << "+" << r.count;
    }
    for (const auto& r : releases) {
        EXPECT_EQ(ClaimLower(r.start, r.count == 10 ? 0xFFFFFFF0 : r.count), kNoSpace) << r.start << "+" << r.count;
        EXPECT_EQ(ClaimUpper(r.start, r.count == 10 ? 0xFFFFFFF0 : r.count), kNoSpace) << r.start << "+" << r.count;
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
            const bool hasRecord = NT_SUCCESS(VrkFsVolAllocAllocateUpperSpace(&alloc_, 2, &record));
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
    std::vector<std::pair<ULONG, ULONG>> held;
    const auto size = [&](ULONG most) { return 1 + static_cast<ULONG>(random() % most); };
    for (int step = 0; step < 4000; ++step) {
        ULONG start = 0;
        ULONG expected = 0;
        const ULONG kind = random() % 10;
        if (kind < 2) {
            const ULONG count = size(12);
            const bool fits = model.AllocateLower(count, expected);
            ASSERT_EQ(VrkFsVolAllocAllocateLowerSpace(&alloc_, count, &start) != FALSE, fits) << "step " << step;
            if (fits) {
                ASSERT_EQ(start, expected) << "step " << step;
                held.emplace_back(start, count);
            }
        } else if (kind < 4) {
            const ULONG count = size(6);
            const bool fits = model.AllocateUpper(count, expected);
            ASSERT_EQ(VrkFsVolAllocAllocateUpperSpace(&alloc_, count, &start), fits ? STATUS_SUCCESS : kNoSpace);
            if (fits) {
                ASSERT_EQ(start, expected) << "step " << step;
                held.emplace_back(start, count);
            }
        } else if (kind == 4) {
            const ULONG lower = size(10);
            const ULONG upper = size(40);
            Model trial = model;
            ULONG upperStart = 0;
            const bool fits = trial.AllocateLower(lower, expected) && trial.AllocateUpper(upper, upperStart);
            DualAllocation dual;
            ASSERT_EQ(VrkFsVolAllocAllocateDualSpace(&alloc_, lower, upper, &dual), fits ? STATUS_SUCCESS : kNoSpace);
            if (fits) {
                model = trial;
                ASSERT_EQ(dual.LowerStart, expected);
                ASSERT_EQ(dual.UpperStart, upperStart);
                held.emplace_back(expected, lower);
                held.emplace_back(upperStart, upper);
            }
        } else if (kind < 7) {
            start = 1024 + static_cast<ULONG>(random() % blocks);
            const ULONG count = std::min<ULONG>(size(8), 1024 + blocks - start);
            const bool upper = random() % 2 == 0;
            const bool fits =
                upper ? model.AllocateSpecificUpper(start, count) : model.AllocateSpecificLower(start, count);
            ASSERT_EQ(upper ? ClaimUpper(start, count) : ClaimLower(start, count), fits ? STATUS_SUCCESS : kNoSpace)
                << "step " << step << " " << start << "+" << count;
            if (fits) {
                held.emplace_back(start, count);
            }
        } else if (!held.empty()) {
            // A whole range, or a part of it as relocations and settlements give back.
            const std::size_t which = random() % held.size();
            auto [from, count] = held[which];
            held[which] = held.back();
            held.pop_back();
            const ULONG part = random() % 3 == 0 ? size(count) : count;
            if (part < count) {
                held.emplace_back(from, count - part);
            }
            from += count - part;
            ASSERT_EQ(Release(from, part), STATUS_SUCCESS) << "step " << step;
            ASSERT_EQ(Release(from, part), kNoSpace) << "step " << step;
            model.Release(from, part);
        }
        ASSERT_EQ(alloc_.Boundary, model.boundary) << "step " << step;
        ASSERT_EQ(alloc_.FreeBlocks, model.free) << "step " << step;
        ExpectList(alloc_.Lower, model.lower);
        ExpectList(alloc_.Upper, model.upper);
        if (HasFatalFailure()) {
            FAIL() << "step " << step << " of seed " << GetParam();
        }
    }
    for (const auto& [from, count] : held) {
        ASSERT_EQ(Release(from, count), STATUS_SUCCESS);
    }
    EXPECT_EQ(alloc_.FreeBlocks, blocks);
}

INSTANTIATE_TEST_SUITE_P(Seeds, VolumeAllocatorModel, testing::Range(1, 9));

}  // namespace
