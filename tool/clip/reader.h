// Reads a media file image front to back and checks its structure. Everything in the image is taken as hostile: a
// header is believed only as far as the bytes that follow bear it out.
#pragma once

#include <vrkfs/media.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tool/clip/layout.h"
#include "tool/clip/recipe.h"

namespace clip {

// Where an image comes from. The reader asks for ascending offsets, so a pipe can serve as well as a file.
struct ClipSource {
    // Reads at a byte offset; returns less than asked for only at the end. Throws std::system_error when reading fails.
    std::function<size_t(uint64_t offset, std::span<std::byte>)> read;
    std::optional<uint64_t> size;  // bytes, when known beforehand
};

// The first thing that is wrong with a clip.
struct ClipProblem {
    std::string text;
    std::optional<uint64_t> offset;    // byte of the image
    std::optional<SectorPlace> place;  // when it lies in frame data or in a field's node
    bool whole = false;                // the place is the whole field; its sector means nothing

    // "video frame 3 field 1 sector 7 (image byte 123456): ..."
    [[nodiscard]] std::string Line() const;
};

// "video frame 3 field 1 sector 7"; without sector when the whole field is meant.
[[nodiscard]] std::string DescribePlace(const SectorPlace& place, bool wholeField = false);

[[nodiscard]] const char* StreamName(uint32_t stream);

class ClipImageReader {
  public:
    explicit ClipImageReader(ClipSource source);

    // Everything up to the frame data. The accessors below hold what was read when it returns no problem.
    [[nodiscard]] std::optional<ClipProblem> ReadHeader();

    // The frame-data chunk header of a stream, after the header and all frame data before it.
    [[nodiscard]] std::optional<ClipProblem> ReadDataChunkHeader(uint32_t stream);

    // The next bytes of the image. Returns the bytes read, less than asked for only where the image ends early.
    [[nodiscard]] size_t ReadData(std::span<std::byte> buffer);

    // The same without looking at the data. Returns the bytes passed over.
    [[nodiscard]] uint64_t SkipData(uint64_t bytes);

    // Whether the image ends here.
    [[nodiscard]] std::optional<ClipProblem> CheckEnd();

    [[nodiscard]] uint64_t Offset() const { return offset_; }
    [[nodiscard]] const ClipSource& Source() const { return source_; }
    [[nodiscard]] const ClipLayout& Layout() const { return layout_; }
    [[nodiscard]] const ApplicationBlock& Application() const { return application_; }
    [[nodiscard]] const VideoParameters& Parameters(uint32_t stream) const { return parameters_[stream]; }
    [[nodiscard]] const std::vector<BodyTableNode>& Nodes(uint32_t stream) const { return nodes_[stream]; }

  private:
    template <class Record>
    [[nodiscard]] std::optional<ClipProblem> ReadRecord(Record& record, const char* what);
    [[nodiscard]] std::optional<ClipProblem> ReadChunkHeader(const ChunkHeader& wanted, const std::string& what);
    [[nodiscard]] std::optional<ClipProblem> ReadFileHeader();
    [[nodiscard]] std::optional<ClipProblem> ReadParameters(uint32_t stream);
    [[nodiscard]] std::optional<ClipProblem> ReadBodyTable(uint32_t stream);
    [[nodiscard]] std::optional<ClipProblem> CheckHeaderSize() const;

    ClipSource source_;
    uint64_t offset_ = 0;
    ClipLayout layout_;
    uint32_t headerSize_ = 0;  // as the file header has it
    ApplicationBlock application_{};
    VideoParameters parameters_[2]{};
    std::vector<BodyTableNode> nodes_[2];
};

}  // namespace clip
