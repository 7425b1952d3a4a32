// The planner against an account of every block: random volumes, and a few whose right answer is plain.
#include "tool/defrag_plan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace {

using tool::BlockRange;
using tool::DefragMove;
using tool::DefragPiece;
using tool::DefragPlan;
using tool::Side;

constexpr BlockRange kArea{1024, 3000};
constexpr int kFree = -1;

// Who has each block.
class Account {
  public:
    explicit Account(const std::vector<DefragPiece>& pieces) : pieces_(pieces), owner_(kArea.End(), kFree) {
        for (std::size_t index = 0; index < pieces.size(); ++index) {
            std::fill_n(owner_.begin() + pieces[index].blocks.first, pieces[index].blocks.count,
                        static_cast<int>(index));
        }
    }

    void Apply(const DefragMove& move) {
        DefragPiece& piece = pieces_.at(move.piece);
        ASSERT_FALSE(piece.fixed);
        ASSERT_EQ(move.from, piece.blocks);
        ASSERT_TRUE(move.to >= kArea.first && move.to + piece.blocks.count <= kArea.End());
        for (std::uint32_t block = move.to; block < move.to + piece.blocks.count; ++block) {
            ASSERT_EQ(owner_[block], kFree) << "block " << block << " is written over";
        }
        std::fill_n(owner_.begin() + piece.blocks.first, piece.blocks.count, kFree);
        std::fill_n(owner_.begin() + move.to, piece.blocks.count, static_cast<int>(move.piece));
        piece.blocks.first = move.to;
        ASSERT_LE(HighestDataEnd(), LowestRecord());
    }

    // Longest free run below the lowest record.
    [[nodiscard]] std::uint32_t LongestRun() const {
        std::uint32_t longest = 0;
        std::uint32_t run = 0;
        for (std::uint64_t block = kArea.first; block < LowestRecord(); ++block) {
            run = owner_[block] == kFree ? run + 1 : 0;
            longest = std::max(longest, run);
        }
        return longest;
    }
    [[nodiscard]] std::uint64_t FreeBlocks() const {
        return static_cast<std::uint64_t>(std::count(owner_.begin() + kArea.first, owner_.end(), kFree));
    }
    [[nodiscard]] const std::vector<DefragPiece>& Pieces() const { return pieces_; }

  private:
    [[nodiscard]] std::uint64_t LowestRecord() const {
        std::uint64_t lowest = kArea.End();
        for (const DefragPiece& piece : pieces_) {
            lowest = piece.side == Side::kUpper ? std::min<std::uint64_t>(lowest, piece.blocks.first) : lowest;
        }
        return lowest;
    }
    [[nodiscard]] std::uint64_t HighestDataEnd() const {
        std::uint64_t highest = 0;
        for (const DefragPiece& piece : pieces_) {
            highest = piece.side == Side::kLower ? std::max(highest, piece.blocks.End()) : highest;
        }
        return highest;
    }

    std::vector<DefragPiece> pieces_;
    std::vector<int> owner_;
};

struct RandomVolume {
    std::uint32_t dataBlocks;    // of one piece, at most
    std::uint32_t recordBlocks;  // likewise
    unsigned unit;               // every length and hole is a multiple of it
    unsigned full;               // percent of data and of records that is there
    unsigned fixedPercent;
};

std::vector<DefragPiece> Make(const RandomVolume& kind, std::mt19937& random) {
    const auto upTo = [&](std::uint32_t most) {
        return std::uniform_int_distribution<std::uint32_t>(1, most / kind.unit)(random) * kind.unit;
    };
    const auto chance = [&](unsigned percent) { return random() % 100 < percent; };
    std::vector<DefragPiece> pieces;
    const auto fill = [&](std::uint32_t first, std::uint32_t end, std::uint32_t most, Side side) {
        for (std::uint32_t count; (count = upTo(most)) <= end - first; first += count) {
            if (chance(kind.full)) {
                pieces.push_back({{first, count}, side, chance(kind.fixedPercent), side == Side::kLower ? 2u : 1u});
            }
        }
    };
    fill(kArea.first, kArea.first + 2400 + random() % 300, kind.dataBlocks, Side::kLower);
    fill(kArea.first + 2800 + random() % 100, static_cast<std::uint32_t>(kArea.End()), kind.recordBlocks, Side::kUpper);
    std::ranges::shuffle(pieces, random);
    return pieces;
}

TEST(DefragPlan, LosesNoBlockAndIsNeverWorse) {
    constexpr RandomVolume kKinds[] = {{100, 10, 1, 60, 0},  {300, 20, 1, 85, 0},  {64, 8, 8, 70, 0},
                                       {100, 10, 1, 60, 10}, {700, 90, 1, 90, 30}, {5, 2, 1, 50, 0},
                                       {400, 10, 1, 100, 0}, {100, 40, 1, 5, 5},   {100, 10, 1, 50, 100}};
    std::mt19937 random(20);
    for (const RandomVolume& kind : kKinds) {
        for (int round = 0; round < 25; ++round) {
            SCOPED_TRACE("kind " + std::to_string(&kind - kKinds) + ", round " + std::to_string(round));
            const std::vector<DefragPiece> pieces = Make(kind, random);
            Account account(pieces);
            const DefragPlan plan = tool::PlanDefrag(kArea, pieces);
            const std::uint32_t before = account.LongestRun();
            ASSERT_EQ(plan.before.largest.count, before);
            ASSERT_EQ(plan.before.blocks, account.FreeBlocks());

            std::uint64_t cost = 0;
            for (const DefragMove& move : plan.moves) {
                ASSERT_NO_FATAL_FAILURE(account.Apply(move));
                cost += std::uint64_t{move.from.count} * pieces[move.piece].weight;
            }
            ASSERT_EQ(plan.cost, cost);
            ASSERT_EQ(plan.after.largest.count, account.LongestRun());
            ASSERT_EQ(plan.after.largest, tool::MeasureFreeSpace(kArea, account.Pieces()).largest);
            ASSERT_TRUE(plan.moves.empty() ? plan.after.largest.count == before : plan.after.largest.count > before);

            // What is free is one run, or somebody keeps it apart.
            ASSERT_EQ(plan.inTheWay.empty(), plan.after.IsGathered());
            std::uint32_t longest = 0;
            for (const DefragPiece& piece : pieces) {
                longest = std::max(longest, piece.blocks.count);
            }
            if (kind.fixedPercent == 0 && before >= longest) {
                ASSERT_TRUE(plan.after.IsGathered());
            }
            // Nobody gains by asking again.
            ASSERT_TRUE(tool::PlanDefrag(kArea, account.Pieces()).moves.empty());
        }
    }
}

struct Small {
    const char* what;
    std::vector<DefragPiece> pieces;
    std::size_t moves;
    std::uint32_t largest;
    std::vector<std::size_t> inTheWay;
};

TEST(DefragPlan, SmallVolumes) {
    constexpr Side kLower = Side::kLower;
    constexpr Side kUpper = Side::kUpper;
    const std::uint32_t end = static_cast<std::uint32_t>(kArea.End());
    const Small cases[] = {
        {"nothing there", {}, 0, 3000, {}},
        {"one block free", {{{1024, 2999}, kLower}}, 0, 1, {}},
        {"a hole that the top piece fills", {{{1124, 500}, kLower}, {{1624, 100}, kLower}}, 1, 2400, {}},
        {"a slide by less than the piece goes through free space", {{{1034, 500}, kLower}}, 2, 2500, {}},
        {"data and records", {{{2024, 100}, kLower}, {{3000, 2}, kUpper}}, 2, 2898, {}},
        {"no room to step aside", {{{1025, 2000}, kLower}, {{3026, 998}, kUpper}}, 0, 1, {0}},
        {"something that stays", {{{1124, 100}, kLower, true}, {{3024, 50}, kLower}}, 1, 2800, {0}},
        {"a record that stays", {{{end - 10, 2}, kUpper, true}}, 0, 2990, {0}},
        {"the whole area taken", {{{1024, 3000}, kLower}}, 0, 0, {}},
        // What a damaged volume may tell is left alone, and nothing is moved onto it.
        {"overlapping pieces", {{{1100, 50}, kLower}, {{1120, 60}, kLower}}, 0, 2844, {0}},
        {"pieces beyond the area", {{{10, 2000}, kLower}, {{end - 1, 900}, kUpper}}, 0, 2013, {}},
        {"data above a record", {{{1030, 2}, kUpper}, {{1040, 50}, kLower}}, 1, 16, {1}},
    };
    for (const Small& small : cases) {
        SCOPED_TRACE(small.what);
        const DefragPlan plan = tool::PlanDefrag(kArea, small.pieces);
        EXPECT_EQ(plan.moves.size(), small.moves);
        EXPECT_EQ(plan.after.largest.count, small.largest);
        EXPECT_EQ(plan.inTheWay, small.inTheWay);
    }
}

}  // namespace
