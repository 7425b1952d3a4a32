#include "tool/volume_map.h"

#include <algorithm>
#include <cstdio>

#include "tool/text.h"

namespace tool {
namespace {

Use UseOf(Segment segment) {
    constexpr Use kBySegment[kSegments] = {Use::kRecord, Use::kData, Use::kTable, Use::kAlpha, Use::kTable};
    return kBySegment[static_cast<std::size_t>(segment)];
}

// A stretch of the picture.
struct Cell {
    Use use = Use::kFree;  // what most of its used blocks are
    bool sparse = false;   // used, but for less than half
};

// The area in that many cells of nearly one size, fewer when it has fewer blocks.
class Raster {
  public:
    Raster(const VolumeMap& map, std::size_t cells)
        : area_(map.area), sums_(std::clamp<std::size_t>(cells, 1, std::max<std::size_t>(map.area.count, 1))) {
        for (const MapRange& range : map.ranges) {
            Add(range);
        }
    }

    [[nodiscard]] std::size_t Size() const { return sums_.size(); }
    [[nodiscard]] std::uint64_t FirstBlock(std::size_t cell) const {
        return area_.first + std::uint64_t{area_.count} * cell / sums_.size();
    }
    [[nodiscard]] Cell At(std::size_t cell) const {
        const auto& sum = sums_[cell].blocks;
        const std::uint64_t* most = std::max_element(sum, sum + kUses - 1);
        if (*most == 0) {
            return {};
        }
        std::uint64_t used = 0;
        for (std::size_t use = 0; use + 1 < kUses; ++use) {
            used += sum[use];
        }
        return {static_cast<Use>(most - sum), used * 2 < FirstBlock(cell + 1) - FirstBlock(cell)};
    }
    // The cell that has a block of the area.
    [[nodiscard]] std::size_t CellOf(std::uint64_t block) const {
        std::size_t cell = static_cast<std::size_t>((block - area_.first) * sums_.size() / area_.count);
        while (FirstBlock(cell + 1) <= block) {
            ++cell;
        }
        return cell;
    }

  private:
    struct Sum {
        std::uint64_t blocks[kUses] = {};
    };

    void Add(const MapRange& range) {
        for (std::uint64_t block = range.blocks.first; block < range.blocks.End();) {
            const std::size_t cell = CellOf(block);
            const std::uint64_t end = std::min(range.blocks.End(), FirstBlock(cell + 1));
            sums_[cell].blocks[static_cast<std::size_t>(range.use)] += end - block;
            block = end;
        }
    }

    BlockRange area_;
    std::vector<Sum> sums_;
};

std::string Percent(std::uint64_t part, std::uint64_t whole) {
    char text[16];
    std::snprintf(text, sizeof(text), "%.1f %%",
                  whole == 0 ? 0.0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole));
    return text;
}

// "34.2 %", "1.2 GiB", "in 12 pieces" of a use, for a legend.
struct LegendRow {
    std::string share;
    std::string bytes;
    std::string pieces;
};

LegendRow LegendOf(const VolumeMap& map, Use use) {
    const std::size_t count = map.counts[static_cast<std::size_t>(use)];
    const char* noun = use == Use::kFree ? " run" : " piece";
    return {Percent(map.blocks[static_cast<std::size_t>(use)], map.area.count), FormatBytes(map.BytesOf(use)),
            "in " + std::to_string(count) + noun + (count == 1 ? "" : "s")};
}

// ---- Text ----

constexpr std::size_t kTextRows = 16;

constexpr const char* kGlyphs[kUses] = {"█", "▓", "▒", "░", "·"};
constexpr const char* kColours[kUses] = {"\x1b[34m", "\x1b[36m", "\x1b[33m", "\x1b[35m", "\x1b[2m"};
constexpr const char* kSparseGlyph = "▪";
constexpr const char* kPlain = "\x1b[0m";

std::string Painted(const std::string& glyphs, Use use, bool colours) {
    return colours ? kColours[static_cast<std::size_t>(use)] + glyphs + kPlain : glyphs;
}

std::string DrawCells(const Raster& raster, std::size_t first, std::size_t end, bool colours) {
    std::string row;
    for (std::size_t cell = first; cell < end;) {
        const Cell here = raster.At(cell);
        const std::string glyph = here.sparse ? kSparseGlyph : kGlyphs[static_cast<std::size_t>(here.use)];
        std::string run;
        for (; cell < end && raster.At(cell).use == here.use && raster.At(cell).sparse == here.sparse; ++cell) {
            run += glyph;
        }
        row += Painted(run, here.use, colours);
    }
    return row;
}

// ---- SVG ----

constexpr const char* kFills[kUses] = {"#2f5d9b", "#63aebf", "#e0a93a", "#b5485d", "#eef1f5"};
constexpr const char* kLargestStroke = "#2a8a4a";
constexpr std::size_t kSvgRows = 24;
constexpr std::size_t kSvgColumns = 1000;
constexpr std::size_t kLeft = 90;
constexpr std::size_t kTop = 46;
constexpr std::size_t kRowHeight = 16;
constexpr std::size_t kRowStep = 20;

std::string Escape(const std::string& text) {
    std::string escaped;
    for (const char character : text) {
        switch (character) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            default:
                escaped += character;
        }
    }
    return escaped;
}

std::string Rectangle(std::size_t x, std::size_t y, std::size_t width, std::size_t height, const std::string& look) {
    return "<rect x=\"" + std::to_string(x) + "\" y=\"" + std::to_string(y) + "\" width=\"" + std::to_string(width) +
           "\" height=\"" + std::to_string(height) + "\" " + look + "/>\n";
}

std::string Text(std::size_t x, std::size_t y, const std::string& text, const std::string& look = {}) {
    return "<text x=\"" + std::to_string(x) + "\" y=\"" + std::to_string(y) + "\"" + (look.empty() ? "" : " ") + look +
           ">" + Escape(text) + "</text>\n";
}

std::string Fill(Use use, bool sparse) {
    return std::string("fill=\"") + kFills[static_cast<std::size_t>(use)] + "\"" +
           (sparse ? " fill-opacity=\"0.45\"" : "");
}

// Cells [first, end) of a row at `y`, one rectangle for each run of one look.
std::string SvgRow(const Raster& raster, std::size_t first, std::size_t end, std::size_t y) {
    std::string svg = Rectangle(kLeft, y, end - first, kRowHeight, Fill(Use::kFree, false));
    for (std::size_t cell = first; cell < end;) {
        const Cell here = raster.At(cell);
        const std::size_t start = cell;
        while (cell < end && raster.At(cell).use == here.use && raster.At(cell).sparse == here.sparse) {
            ++cell;
        }
        if (here.use != Use::kFree) {
            svg += Rectangle(kLeft + start - first, y, cell - start, kRowHeight, Fill(here.use, here.sparse));
        }
    }
    return svg;
}

std::string SvgLargest(const Raster& raster, BlockRange largest, std::size_t columns) {
    std::string svg;
    const std::string look = std::string("fill=\"none\" stroke-width=\"2\" stroke=\"") + kLargestStroke + "\"";
    if (!largest) {
        return svg;
    }
    const std::size_t last = raster.CellOf(largest.End() - 1);
    for (std::size_t cell = raster.CellOf(largest.first); cell <= last;) {
        const std::size_t row = cell / columns;
        const std::size_t end = std::min(last + 1, (row + 1) * columns);
        svg += Rectangle(kLeft + cell % columns, kTop + row * kRowStep, end - cell, kRowHeight, look);
        cell = end;
    }
    return svg;
}

std::string SvgLegend(const VolumeMap& map, std::size_t top) {
    std::string svg;
    for (std::size_t index = 0; index < kUses; ++index) {
        const Use use = static_cast<Use>(index);
        const std::size_t x = kLeft + index * (kSvgColumns / kUses);
        const LegendRow row = LegendOf(map, use);
        svg += Rectangle(x, top, kRowHeight, kRowHeight, Fill(use, false) + " stroke=\"#8894a3\" stroke-width=\"0.5\"");
        svg += Text(x + 22, top + 13, UseName(use), "font-weight=\"bold\"");
        svg += Text(x + 22, top + 29, row.bytes + " (" + row.share + ")");
        svg += Text(x + 22, top + 45, row.pieces);
    }
    svg += Rectangle(kLeft, top + 60, kRowHeight, kRowHeight,
                     std::string("fill=\"none\" stroke-width=\"2\" stroke=\"") + kLargestStroke + "\"");
    svg += Text(kLeft + 22, top + 73, DescribeLargest(map.free, map.disks));
    svg += Rectangle(kLeft + 3 * (kSvgColumns / kUses), top + 60, kRowHeight, kRowHeight, Fill(Use::kData, true));
    svg += Text(kLeft + 3 * (kSvgColumns / kUses) + 22, top + 73, "pale: less than half of it is used");
    return svg;
}

}  // namespace

std::vector<OwnedRange> OwnedRanges(const VolumePlacement& placement) {
    std::vector<OwnedRange> ranges;
    for (std::size_t folder = 0; folder < placement.folders.size(); ++folder) {
        const std::vector<FilePlacement>& files = placement.folders[folder].files;
        for (std::size_t file = 0; file < files.size(); ++file) {
            for (std::size_t index = 0; index < kSegments; ++index) {
                const Segment segment = static_cast<Segment>(index);
                if (files[file].Of(segment)) {
                    ranges.push_back({files[file].Of(segment), segment, folder, file});
                }
            }
        }
    }
    return ranges;
}

BlockRange DataArea(const VolumePlacement& placement) {
    const std::uint32_t last = placement.lastDataBlock;
    return {kFirstDataBlock, last < kFirstDataBlock ? 0 : last - kFirstDataBlock + 1};
}

DefragPiece PieceOf(const VolumePlacement& placement, const OwnedRange& range) {
    const bool data = IsOnEveryDisk(range.segment);
    return {range.blocks, data ? Side::kLower : Side::kUpper, false,
            data ? static_cast<std::uint32_t>(placement.devices.size()) : 1};
}

const char* UseName(Use use) {
    constexpr const char* kNames[kUses] = {"data", "alpha", "tables", "records", "free"};
    return kNames[static_cast<std::size_t>(use)];
}

VolumeMap::VolumeMap(const VolumePlacement& placement)
    : area(DataArea(placement)), disks(placement.devices.size()), owned(OwnedRanges(placement)) {
    std::ranges::sort(owned, {}, [](const OwnedRange& range) { return range.blocks.first; });
    std::vector<DefragPiece> pieces;
    std::uint64_t place = area.first;
    const auto add = [&](std::uint64_t first, std::uint64_t end, Use use, const OwnedRange* owner) {
        first = std::max<std::uint64_t>(first, area.first);
        end = std::min(end, area.End());
        if (first < end) {
            ranges.push_back(
                {{static_cast<std::uint32_t>(first), static_cast<std::uint32_t>(end - first)}, use, owner});
            blocks[static_cast<std::size_t>(use)] += end - first;
            ++counts[static_cast<std::size_t>(use)];
        }
    };
    for (const OwnedRange& range : owned) {
        add(place, range.blocks.first, Use::kFree, nullptr);
        add(range.blocks.first, range.blocks.End(), UseOf(range.segment), &range);
        place = std::max(place, range.blocks.End());
        pieces.push_back(PieceOf(placement, range));
    }
    add(place, area.End(), Use::kFree, nullptr);
    free = MeasureFreeSpace(area, pieces);
    const std::uint64_t given = disks == 0 ? 0 : placement.freeBlocks / disks;
    unaccountedBlocks = free.blocks > given ? free.blocks - given : 0;
}

std::uint64_t VolumeMap::BytesOf(Use use) const {
    const bool everywhere = use != Use::kTable && use != Use::kRecord;
    return blocks[static_cast<std::size_t>(use)] * kDiskBlockBytes * (everywhere ? disks : 1);
}

std::vector<std::string> DrawText(const VolumeMap& map, std::size_t columns, bool colours) {
    const std::size_t labelWidth = std::to_string(map.area.End()).size();
    const std::size_t width = std::max<std::size_t>(columns, labelWidth + 12) - labelWidth - 2;
    const Raster raster(map, width * kTextRows);
    std::vector<std::string> lines;
    for (std::size_t cell = 0; cell < raster.Size(); cell += width) {
        lines.push_back(PadLeft(std::to_string(raster.FirstBlock(cell)), labelWidth) + "  " +
                        DrawCells(raster, cell, std::min(cell + width, raster.Size()), colours));
    }
    lines.emplace_back();
    for (std::size_t index = 0; index < kUses; ++index) {
        const Use use = static_cast<Use>(index);
        const LegendRow row = LegendOf(map, use);
        lines.push_back(Painted(kGlyphs[index], use, colours) + " " + PadRight(UseName(use), 8) +
                        PadLeft(row.bytes, 12) + PadLeft(row.share, 9) + "  " + row.pieces);
    }
    lines.push_back(std::string(kSparseGlyph) + " less than half of it used");
    return lines;
}

std::string DrawSvg(const VolumeMap& map, const std::string& title) {
    const Raster raster(map, kSvgRows * kSvgColumns);
    const std::size_t rows = (raster.Size() + kSvgColumns - 1) / kSvgColumns;
    const std::size_t legend = kTop + rows * kRowStep + 16;
    const std::string width = std::to_string(kLeft + kSvgColumns + 20);
    const std::string height = std::to_string(legend + 96);
    std::string svg = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + width + "\" height=\"" + height +
                      "\" viewBox=\"0 0 " + width + " " + height +
                      "\" font-family=\"sans-serif\" font-size=\"12\" fill=\"#222\">\n";
    svg += "<title>" + Escape(title) + "</title>\n" + "<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n";
    svg += Text(kLeft, 28, title, "font-size=\"16\" font-weight=\"bold\"");
    for (std::size_t row = 0; row < rows; ++row) {
        const std::size_t first = row * kSvgColumns;
        const std::size_t y = kTop + row * kRowStep;
        svg += Text(kLeft - 8, y + 12, std::to_string(raster.FirstBlock(first)), "text-anchor=\"end\" fill=\"#667\"");
        svg += SvgRow(raster, first, std::min(first + kSvgColumns, raster.Size()), y);
    }
    return svg + SvgLargest(raster, map.free.largest, kSvgColumns) + SvgLegend(map, legend) + "</svg>\n";
}

std::string DescribeLargest(const FreeSpace& space, std::size_t disks) {
    if (!space.largest) {
        return "no free run takes a recording";
    }
    return "largest free run: " + FormatBytes(std::uint64_t{space.largest.count} * kDiskBlockBytes * disks) +
           " (blocks " + std::to_string(space.largest.first) + " to " + std::to_string(space.largest.End() - 1) + ")";
}

}  // namespace tool
