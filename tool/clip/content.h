// The frame data of a generated clip, field by field: lengths and bytes follow from the recipe alone.
#pragma once

#include <vrkfs/media.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "tool/clip/bars.h"
#include "tool/clip/recipe.h"

namespace clip {

class ClipContent {
  public:
    // The recipe passes CheckRecipe.
    explicit ClipContent(const ClipRecipe& recipe);

    [[nodiscard]] uint32_t FieldSectors(uint32_t stream, uint32_t field) const;

    // How the field's length is divided between the two halves of its node: they need not be equal, and either may be
    // 0.
    [[nodiscard]] BodyTableNode FieldNode(uint32_t stream, uint32_t field) const;

    // out is FieldSectors * VRKFS_SECTOR_SIZE bytes long.
    void FillField(uint32_t stream, uint32_t field, std::span<std::byte> out) const;

  private:
    ClipRecipe recipe_;
    std::optional<BarsPainter> painter_;
};

}  // namespace clip
