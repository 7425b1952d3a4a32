#include "tool/defrag_plan.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>

namespace tool {
namespace {

constexpr std::size_t kNoPiece = ~std::size_t{0};

// A range of the model. Pieces that touch no move can be several in one block.
struct Block {
    std::uint32_t first = 0;
    std::uint32_t count = 0;
    Side side = Side::kLower;
    bool fixed = false;
    std::size_t piece = kNoPiece;

    [[nodiscard]] std::uint32_t End() const { return first + count; }
};

// What lies where, and what is free, while moves are tried.
class Space {
  public:
    Space(BlockRange area, std::vector<Block> blocks);

    [[nodiscard]] const Block& At(std::size_t block) const { return blocks_[block]; }
    [[nodiscard]] std::size_t Blocks() const { return blocks_.size(); }
    // The first one at or above a place; Blocks() when there is none.
    [[nodiscard]] std::size_t From(std::uint32_t place) const;
    // First block of the lowest one of a side, or the area's end.
    [[nodiscard]] std::uint32_t LowestOf(Side side) const;
    // The smallest free run of that length that begins at or above `from` and below `limit`.
    [[nodiscard]] std::optional<std::uint32_t> FindRun(std::uint32_t count, std::uint32_t from,
                                                       std::uint32_t limit) const;
    [[nodiscard]] FreeSpace Free() const;
    [[nodiscard]] std::vector<std::size_t> Separators() const;

    void Move(std::size_t block, std::uint32_t to);

    // The same seen from above: what was on top is at the bottom, and the sides are exchanged.
    [[nodiscard]] Space Mirrored() const;
    [[nodiscard]] std::uint32_t MirroredPlace(std::uint32_t first, std::uint32_t count) const {
        return area_.first + static_cast<std::uint32_t>(area_.End() - count - first);
    }

  private:
    void Take(std::uint32_t first, std::uint32_t count);
    void Release(std::uint32_t first, std::uint32_t count);
    void AddRun(std::uint32_t first, std::uint32_t count);
    void DropRun(std::map<std::uint32_t, std::uint32_t>::iterator run);

    BlockRange area_;
    std::vector<Block> blocks_;
    std::map<std::uint32_t, std::size_t> byPlace_;                  // first block, index
    std::set<std::uint32_t> places_[2];                             // first blocks by side
    std::map<std::uint32_t, std::uint32_t> runs_;                   // free: first block, count
    std::set<std::pair<std::uint32_t, std::uint32_t>> runsBySize_;  // count, first block
    std::uint64_t free_ = 0;
};

Space::Space(BlockRange area, std::vector<Block> blocks) : area_(area), blocks_(std::move(blocks)) {
    Release(area.first, area.count);
    for (std::size_t index = 0; index < blocks_.size(); ++index) {
        const Block& block = blocks_[index];
        byPlace_[block.first] = index;
        places_[static_cast<std::size_t>(block.side)].insert(block.first);
        Take(block.first, block.count);
    }
}

std::size_t Space::From(std::uint32_t place) const {
    const auto found = byPlace_.lower_bound(place);
    return found == byPlace_.end() ? blocks_.size() : found->second;
}

std::uint32_t Space::LowestOf(Side side) const {
    const auto& places = places_[static_cast<std::size_t>(side)];
    return places.empty() ? static_cast<std::uint32_t>(area_.End()) : *places.begin();
}

std::optional<std::uint32_t> Space::FindRun(std::uint32_t count, std::uint32_t from, std::uint32_t limit) const {
    for (auto run = runsBySize_.lower_bound({count, 0}); run != runsBySize_.end(); ++run) {
        if (run->second >= from && run->second < limit) {
            return run->second;
        }
    }
    return std::nullopt;
}

FreeSpace Space::Free() const {
    FreeSpace space{free_, runs_.size(), {}};
    const std::uint32_t boundary = LowestOf(Side::kUpper);
    for (auto run = runsBySize_.rbegin(); run != runsBySize_.rend(); ++run) {
        if (run->second < boundary) {
            space.largest = {run->second, run->first};
            break;
        }
    }
    return space;
}

// The blocks beside each free run but the largest, on the way to that one.
std::vector<std::size_t> Space::Separators() const {
    std::set<std::size_t> found;
    const BlockRange largest = Free().largest;
    for (const auto& [first, count] : runs_) {
        const auto above = byPlace_.lower_bound(first);
        if (largest && first < largest.first) {
            found.insert(above->second);
        } else if (first != largest.first) {
            found.insert(std::prev(above)->second);
        }
    }
    return {found.begin(), found.end()};
}

void Space::Move(std::size_t index, std::uint32_t to) {
    Block& block = blocks_[index];
    auto& places = places_[static_cast<std::size_t>(block.side)];
    Take(to, block.count);
    Release(block.first, block.count);
    byPlace_.erase(block.first);
    places.erase(block.first);
    block.first = to;
    byPlace_[to] = index;
    places.insert(to);
}

Space Space::Mirrored() const {
    std::vector<Block> blocks = blocks_;
    for (Block& block : blocks) {
        block.first = MirroredPlace(block.first, block.count);
        block.side = block.side == Side::kLower ? Side::kUpper : Side::kLower;
    }
    return {area_, std::move(blocks)};
}

void Space::AddRun(std::uint32_t first, std::uint32_t count) {
    if (count != 0) {
        runs_[first] = count;
        runsBySize_.insert({count, first});
    }
}

void Space::DropRun(std::map<std::uint32_t, std::uint32_t>::iterator run) {
    runsBySize_.erase({run->second, run->first});
    runs_.erase(run);
}

// The range is free.
void Space::Take(std::uint32_t first, std::uint32_t count) {
    const auto run = std::prev(runs_.upper_bound(first));
    const auto [runFirst, runCount] = *run;
    DropRun(run);
    AddRun(runFirst, first - runFirst);
    AddRun(first + count, runFirst + runCount - (first + count));
    free_ -= count;
}

void Space::Release(std::uint32_t first, std::uint32_t count) {
    free_ += count;
    auto next = runs_.lower_bound(first);
    if (next != runs_.end() && next->first == first + count) {
        count += next->second;
        const auto merged = next++;
        DropRun(merged);
    }
    if (next != runs_.begin()) {
        const auto before = std::prev(next);
        if (before->first + before->second == first) {
            first = before->first;
            count += before->second;
            DropRun(before);
        }
    }
    AddRun(first, count);
}

// What lies in the area, merged where ranges overlap.
std::vector<Block> BlocksOf(BlockRange area, const std::vector<DefragPiece>& pieces) {
    std::vector<Block> sorted;
    std::uint64_t lowestRecord = area.End();
    for (std::size_t index = 0; index < pieces.size(); ++index) {
        const DefragPiece& piece = pieces[index];
        const std::uint64_t first = std::max(piece.blocks.first, area.first);
        const std::uint64_t end = std::min(piece.blocks.End(), area.End());
        if (first < end) {
            const bool inside = piece.blocks.first >= area.first && piece.blocks.End() <= area.End();
            sorted.push_back({static_cast<std::uint32_t>(first), static_cast<std::uint32_t>(end - first), piece.side,
                              piece.fixed || !inside, index});
            if (piece.side == Side::kUpper) {
                lowestRecord = std::min(lowestRecord, first);
            }
        }
    }
    std::ranges::stable_sort(sorted, {}, &Block::first);
    std::vector<Block> blocks;
    for (const Block& block : sorted) {
        if (blocks.empty() || block.first >= blocks.back().End()) {
            blocks.push_back(block);
        } else {
            Block& before = blocks.back();
            before.count = std::max(before.End(), block.End()) - before.first;
            before.fixed = true;
        }
        if (blocks.back().first >= lowestRecord && blocks.back().side == Side::kLower) {
            blocks.back().side = Side::kUpper;
            blocks.back().fixed = true;
        }
    }
    return blocks;
}

enum class Fill {
    kLargest,  // holes take the largest piece from anywhere above that fits: little is moved, holes may be left
    kNext,     // everything slides down: all is moved, nothing is left
};

struct Step {
    std::size_t block;
    BlockRange from;
    std::uint32_t to;
};

// Moves the lower side of a space down, from its bottom to its top.
class Packer {
  public:
    Packer(Space& space, Fill fill, std::vector<Step>& steps) : space_(space), fill_(fill), steps_(steps) {
        for (std::size_t index = 0; index < space.Blocks(); ++index) {
            const Block& block = space.At(index);
            if (IsMovable(block)) {
                ahead_.insert({block.count, block.first});
            }
        }
    }

    void Run(std::uint32_t bottom) {
        std::uint32_t place = bottom;
        while (true) {
            const std::size_t next = space_.From(place);
            if (next == space_.Blocks() || space_.At(next).side != Side::kLower) {
                return;
            }
            const Block block = space_.At(next);
            if (block.first == place) {
                ahead_.erase({block.count, block.first});
                place = block.End();
            } else if (const auto fits = Choose(block, block.first - place)) {
                const std::uint32_t count = space_.At(*fits).count;
                MoveTo(*fits, place);
                place += count;
            } else if (!StepAside(next)) {
                place = block.first;
            }
        }
    }

  private:
    static bool IsMovable(const Block& block) { return block.side == Side::kLower && !block.fixed; }

    // What goes into a hole, if anything fits; `next` lies right above it.
    [[nodiscard]] std::optional<std::size_t> Choose(const Block& next, std::uint32_t hole) const {
        if (fill_ == Fill::kNext && IsMovable(next) && next.count <= hole) {
            return space_.From(next.first);
        }
        auto fits = ahead_.upper_bound({hole, ~0u});
        if (fits == ahead_.begin()) {
            return std::nullopt;
        }
        return space_.From(std::prev(fits)->second);
    }

    // The hole below a piece is shorter than the piece: it goes to a free run above, and the hole is longer by it. What
    // is put into the hole next is no shorter than the piece, so this comes to an end.
    [[nodiscard]] bool StepAside(std::size_t index) {
        const Block block = space_.At(index);
        if (fill_ == Fill::kLargest || block.fixed) {
            return false;
        }
        const auto run = space_.FindRun(block.count, block.End(), space_.LowestOf(Side::kUpper));
        if (run) {
            MoveTo(index, *run);
            ahead_.insert({block.count, *run});
        }
        return run.has_value();
    }

    void MoveTo(std::size_t index, std::uint32_t to) {
        const Block& block = space_.At(index);
        ahead_.erase({block.count, block.first});
        steps_.push_back({index, {block.first, block.count}, to});
        space_.Move(index, to);
    }

    Space& space_;
    Fill fill_;
    std::vector<Step>& steps_;
    std::set<std::pair<std::uint32_t, std::uint32_t>> ahead_;  // movable above the place: count, first block
};

void PackLower(Space& space, BlockRange area, Fill fill, std::vector<Step>& steps) {
    Packer(space, fill, steps).Run(area.first);
}

void PackUpper(Space& space, BlockRange area, Fill fill, std::vector<Step>& steps) {
    Space mirrored = space.Mirrored();
    std::vector<Step> found;
    Packer(mirrored, fill, found).Run(area.first);
    for (const Step& step : found) {
        const std::uint32_t to = space.MirroredPlace(step.to, step.from.count);
        steps.push_back({step.block, {space.At(step.block).first, step.from.count}, to});
        space.Move(step.block, to);
    }
}

struct Attempt {
    std::vector<Step> steps;
    std::uint64_t cost = 0;
    FreeSpace after;
    std::vector<std::size_t> separators;
};

std::uint64_t CostOf(const std::vector<DefragPiece>& pieces, const Space& space, const Step& step) {
    return std::uint64_t{step.from.count} * pieces[space.At(step.block).piece].weight;
}

// Leaves out the steps behind the one with which the largest run has its best length.
void Trim(Space space, const std::vector<DefragPiece>& pieces, Attempt& attempt) {
    attempt.after = space.Free();
    std::size_t best = 0;
    std::uint64_t cost = 0;
    for (std::size_t index = 0; index < attempt.steps.size(); ++index) {
        cost += CostOf(pieces, space, attempt.steps[index]);
        space.Move(attempt.steps[index].block, attempt.steps[index].to);
        const FreeSpace now = space.Free();
        if (now.largest.count > attempt.after.largest.count) {
            attempt.after = now;
            attempt.cost = cost;
            best = index + 1;
        }
    }
    attempt.steps.resize(best);
}

// Passes over both sides until they make the largest run no longer. Records first: they are short, and where they were
// long pieces of data find room to step aside. And again: the room for those that had none comes from the data.
Attempt Try(const Space& start, BlockRange area, const std::vector<DefragPiece>& pieces, bool fillFirst) {
    Attempt attempt;
    Space space = start;
    if (fillFirst) {
        PackUpper(space, area, Fill::kLargest, attempt.steps);
        PackLower(space, area, Fill::kLargest, attempt.steps);
    }
    std::uint32_t before = 0;
    do {
        before = space.Free().largest.count;
        PackUpper(space, area, Fill::kNext, attempt.steps);
        PackLower(space, area, Fill::kNext, attempt.steps);
        PackUpper(space, area, Fill::kNext, attempt.steps);
    } while (space.Free().largest.count > before);
    attempt.separators = space.Separators();
    Trim(start, pieces, attempt);
    return attempt;
}

}  // namespace

FreeSpace MeasureFreeSpace(BlockRange area, const std::vector<DefragPiece>& pieces) {
    return Space(area, BlocksOf(area, pieces)).Free();
}

DefragPlan PlanDefrag(BlockRange area, const std::vector<DefragPiece>& pieces) {
    const Space space(area, BlocksOf(area, pieces));
    Attempt chosen = Try(space, area, pieces, true);
    Attempt other = Try(space, area, pieces, false);
    const auto lessGood = [](const Attempt& attempt) { return std::pair(~attempt.after.largest.count, attempt.cost); };
    if (lessGood(other) < lessGood(chosen)) {
        chosen = std::move(other);
    }
    DefragPlan plan{{}, chosen.cost, space.Free(), chosen.after, {}};
    for (const Step& step : chosen.steps) {
        plan.moves.push_back({space.At(step.block).piece, step.from, step.to});
    }
    if (!plan.after.IsGathered()) {
        for (const std::size_t separator : chosen.separators) {
            plan.inTheWay.push_back(space.At(separator).piece);
        }
    }
    return plan;
}

}  // namespace tool
