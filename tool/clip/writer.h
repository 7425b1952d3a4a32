// Produces the media file image of a recipe as one stream, front to back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "tool/clip/content.h"
#include "tool/clip/layout.h"
#include "tool/clip/recipe.h"

namespace clip {

// Takes the next bytes of the image; false stops the writer.
using ClipSink = std::function<bool(std::span<const std::byte>)>;

class ClipImageWriter {
  public:
    // The recipe passes CheckRecipe.
    explicit ClipImageWriter(const ClipRecipe& recipe);

    [[nodiscard]] const ClipLayout& Layout() const { return layout_; }

    // The header image: everything before the first frame-data chunk.
    [[nodiscard]] std::vector<std::byte> Header() const;

    // The whole image, in pieces of a megabyte or more. False when the sink stopped it.
    [[nodiscard]] bool Write(const ClipSink& sink) const;

  private:
    ClipRecipe recipe_;
    ClipContent content_;
    ClipLayout layout_;
    std::vector<BodyTableNode> tables_[2];
    uint32_t longestField_ = 0;  // sectors
};

// The whole image in memory.
[[nodiscard]] std::vector<std::byte> MakeClipImage(const ClipRecipe& recipe);

}  // namespace clip
