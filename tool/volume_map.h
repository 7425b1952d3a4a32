// A picture of a volume's space: who has which blocks of the data area, and what is free.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tool/defrag_plan.h"
#include "tool/file_placement.h"

namespace tool {

// A range of a file.
struct OwnedRange {
    BlockRange blocks;
    Segment segment = Segment::kRecord;
    std::size_t folder = 0;  // indexes into the placement
    std::size_t file = 0;
};

// All that files told to be theirs, in no order.
[[nodiscard]] std::vector<OwnedRange> OwnedRanges(const VolumePlacement& placement);

[[nodiscard]] BlockRange DataArea(const VolumePlacement& placement);

// As the planner takes it: all of them may be moved.
[[nodiscard]] DefragPiece PieceOf(const VolumePlacement& placement, const OwnedRange& range);

enum class Use : std::uint8_t { kData, kAlpha, kTable, kRecord, kFree };
inline constexpr std::size_t kUses = 5;
[[nodiscard]] const char* UseName(Use use);

struct MapRange {
    BlockRange blocks;
    Use use = Use::kFree;
    const OwnedRange* owner = nullptr;  // none: free
};

struct VolumeMap {
    explicit VolumeMap(const VolumePlacement& placement);
    VolumeMap(const VolumeMap&) = delete;  // ranges point into it
    VolumeMap& operator=(const VolumeMap&) = delete;

    BlockRange area;
    std::size_t disks = 0;
    std::vector<OwnedRange> owned;
    std::vector<MapRange> ranges;         // by place, the free ones between the others
    std::uint64_t blocks[kUses] = {};     // by Use, of one disk
    std::size_t counts[kUses] = {};       // ranges by Use
    std::uint64_t unaccountedBlocks = 0;  // of one disk: seem free, but the driver has fewer to give
    FreeSpace free;

    // Bytes over all disks that hold such blocks. What is free beside a record on the other disks holds nothing.
    [[nodiscard]] std::uint64_t BytesOf(Use use) const;
};

// The picture in rows of text, at most `columns` wide; with `colours` for a terminal.
[[nodiscard]] std::vector<std::string> DrawText(const VolumeMap& map, std::size_t columns, bool colours);

// The picture as an SVG document. `title` is what a person reads.
[[nodiscard]] std::string DrawSvg(const VolumeMap& map, const std::string& title);

// "largest free run: 1.2 GiB (blocks 4096 to 8191)"
[[nodiscard]] std::string DescribeLargest(const FreeSpace& space, std::size_t disks);

}  // namespace tool
