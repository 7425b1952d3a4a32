// Plans how the pieces of a volume's files move so that its free blocks come together. Pure arithmetic: what lies where
// goes in, a list of moves comes out.
//
// A volume's data area has data below and records above, and what is free between them is what a recording can use:
// its largest run is what the plan makes longer. Data goes down to the bottom, records and tables up to the top. No
// move writes over blocks that hold anything at its time, the piece's own old place included, so that a move that is
// cut off anywhere loses nothing; a piece that would slide by less than its length goes through a free run elsewhere.
#pragma once

#include <cstdint>
#include <vector>

#include "tool/file_placement.h"

namespace tool {

enum class Side : std::uint8_t { kLower, kUpper };

// A range that belongs to somebody.
struct DefragPiece {
    BlockRange blocks;         // not empty
    Side side = Side::kLower;  // data is kLower, records and tables kUpper
    bool fixed = false;        // has to stay where it is
    std::uint32_t weight = 1;  // disks that hold it: what moving a block of it costs
};

struct DefragMove {
    std::size_t piece = 0;  // index of the piece
    BlockRange from;
    std::uint32_t to = 0;
};

struct FreeSpace {
    std::uint64_t blocks = 0;  // of one disk
    std::size_t runs = 0;
    BlockRange largest;  // of the runs below the lowest record; those between records take no data

    [[nodiscard]] bool IsGathered() const { return blocks == largest.count; }
};

struct DefragPlan {
    std::vector<DefragMove> moves;  // in this order
    std::uint64_t cost = 0;         // blocks to copy, on all disks
    FreeSpace before;
    FreeSpace after;
    std::vector<std::size_t> inTheWay;  // pieces that keep free runs apart in the end
};

// `area` is the data area. Pieces that overlap each other or lie on the wrong side stay where they are. The largest
// free run is never shorter after the plan than before it, and the plan is empty when it would not be longer.
[[nodiscard]] DefragPlan PlanDefrag(BlockRange area, const std::vector<DefragPiece>& pieces);

[[nodiscard]] FreeSpace MeasureFreeSpace(BlockRange area, const std::vector<DefragPiece>& pieces);

}  // namespace tool
