#include "tool/clip/content.h"

#include "tool/clip/tagged.h"

namespace clip {
namespace {

// Sector numbers that no field has, so that these draws share nothing with the filler.
constexpr uint32_t kLengthDraw = 0x7FFFFFFF;
constexpr uint32_t kSplitDraw = 0x7FFFFFFE;

}  // namespace

ClipContent::ClipContent(const ClipRecipe& recipe) : recipe_(recipe) {
    if (recipe.kind == ClipKind::Bars) {
        painter_.emplace(recipe.standard, recipe.seed);
    }
}

uint32_t ClipContent::FieldSectors(uint32_t stream, uint32_t field) const {
    if (painter_) {
        return BarsPainter::FieldSectors(recipe_.standard);
    }
    const uint64_t draw = MixTag(recipe_.seed, stream, field, kLengthDraw);
    return recipe_.minSectors + static_cast<uint32_t>(draw % (recipe_.maxSectors - recipe_.minSectors + 1));
}

BodyTableNode ClipContent::FieldNode(uint32_t stream, uint32_t field) const {
    const uint32_t sectors = FieldSectors(stream, field);
    const uint32_t second = painter_ ? sectors / 2
                                     : static_cast<uint32_t>(MixTag(recipe_.seed, stream, field, kSplitDraw) %
                                                             (static_cast<uint64_t>(sectors) + 1));
    return {static_cast<uint16_t>(sectors - second), static_cast<uint16_t>(second)};
}

void ClipContent::FillField(uint32_t stream, uint32_t field, std::span<std::byte> out) const {
    if (painter_) {
        painter_->Paint(stream, field, out);
        return;
    }
    SectorTag tag{recipe_.seed, stream, field, 0};
    for (size_t at = 0; at < out.size(); at += VRKFS_SECTOR_SIZE, ++tag.sector) {
        FillTaggedSector(tag, out.subspan(at).first<VRKFS_SECTOR_SIZE>());
    }
}

}  // namespace clip
