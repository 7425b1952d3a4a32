// Checks a clip against what its generator would make of it, or, for a clip from elsewhere, against its own header.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tool/clip/content.h"
#include "tool/clip/layout.h"
#include "tool/clip/reader.h"
#include "tool/clip/recipe.h"

namespace clip {

// Called now and then with bytes done and bytes in all; false asks to stop.
using ClipProgress = std::function<bool(uint64_t done, uint64_t total)>;

struct ClipVerdict {
    std::optional<ClipProblem> problem;  // the first thing wrong, in the order of the image; none: nothing is wrong
    bool stopped = false;                // the progress function asked for it; the rest was not looked at
    bool compared = false;               // frame data was compared with the generator's
    ClipSignature signature;
    ClipLayout layout;         // meaningful once the header is right
    uint64_t wrongFields = 0;  // fields and sectors of frame data that differ
    uint64_t wrongSectors = 0;

    [[nodiscard]] bool Right() const { return !problem && !stopped; }
};

// An image counts as right in the order it was written in, and in the plain order that a drive gives back for a clip
// that was written interleaved. The rest of a body table's last sector means nothing and is not compared.
class ClipVerifier {
  public:
    explicit ClipVerifier(ClipSource source, ClipProgress progress = {});

    // Runs once. Passes on what the source throws.
    [[nodiscard]] ClipVerdict Run();

  private:
    // Each says whether the check goes on.
    [[nodiscard]] bool CheckHeader();
    [[nodiscard]] bool CheckAgainstRecipe();
    [[nodiscard]] bool CheckParameters(uint32_t stream);
    [[nodiscard]] bool CheckNodes(uint32_t stream);
    [[nodiscard]] bool CheckDataChunk(uint32_t stream);
    [[nodiscard]] bool CheckBatch(uint32_t stream, uint64_t first, uint64_t count, size_t bytes);
    [[nodiscard]] bool SkipField(const SectorPlace& place);

    void CompareField(SectorPlace place, std::span<const std::byte> found, uint64_t offset);
    [[nodiscard]] std::string DescribeDifference(std::span<const std::byte> found, std::span<const std::byte> wanted,
                                                 size_t at) const;
    [[nodiscard]] size_t FieldBytes(const SectorPlace& place) const;
    [[nodiscard]] bool Fail(ClipProblem problem);
    [[nodiscard]] bool GoOn();

    ClipImageReader reader_;
    ClipProgress progress_;
    ClipVerdict verdict_;
    std::optional<ClipContent> content_;
    std::vector<std::byte> found_;
    std::vector<std::byte> wanted_;
};

}  // namespace clip
