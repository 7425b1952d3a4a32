#include "tool/clip/writer.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

namespace clip {
namespace {

constexpr size_t kFlushBytes = 1u << 20;

template <class Record>
void Append(std::vector<std::byte>& image, const Record& record) {
    static_assert(std::is_trivially_copyable_v<Record>);
    const auto bytes = std::as_bytes(std::span(&record, 1));
    image.insert(image.end(), bytes.begin(), bytes.end());
}

// Collects fields until a write is worth while. It never moves: a field is painted where it will be written from.
class Collector {
  public:
    Collector(const ClipSink& sink, size_t longestField) : sink_(sink), bytes_(kFlushBytes + longestField) {}

    // Room for the next bytes, at most the longest field.
    std::span<std::byte> Take(size_t count) {
        const std::span<std::byte> room = std::span(bytes_).subspan(used_, count);
        used_ += count;
        return room;
    }

    [[nodiscard]] bool FlushIfFull() { return used_ < kFlushBytes || Flush(); }

    [[nodiscard]] bool Flush() {
        const size_t count = used_;
        used_ = 0;
        return count == 0 || sink_(std::span(bytes_).first(count));
    }

  private:
    const ClipSink& sink_;
    std::vector<std::byte> bytes_;
    size_t used_ = 0;
};

}  // namespace

ClipImageWriter::ClipImageWriter(const ClipRecipe& recipe) : recipe_(recipe), content_(recipe) {
    layout_.frames = recipe.frames;
    layout_.hasAlpha = recipe.alpha;
    layout_.interleaved = recipe.interleave;
    uint64_t sums[2] = {};
    for (uint32_t stream = 0; stream < layout_.DataChunks(); ++stream) {
        tables_[stream].reserve(layout_.FieldsPerStream());
        for (uint32_t field = 0; field < layout_.FieldsPerStream(); ++field) {
            const BodyTableNode node = content_.FieldNode(stream, field);
            tables_[stream].push_back(node);
            sums[stream] += VrkFsBodyTableNodeSectors(node);
            longestField_ = std::max(longestField_, VrkFsBodyTableNodeSectors(node));
        }
    }
    layout_.videoSectors = sums[VRKFS_STREAM_VIDEO];
    layout_.alphaSectors = sums[VRKFS_STREAM_ALPHA];
}

std::vector<std::byte> ClipImageWriter::Header() const {
    std::vector<std::byte> image;
    image.reserve(layout_.HeaderBytes());
    Append(image, MediaFileHeader{VRKFS_MEDIA_MAGIC, VRKFS_MEDIA_FILE_HEADER_SIZE,
                                  recipe_.alpha ? VRKFS_MEDIA_CHUNKS_WITH_ALPHA : VRKFS_MEDIA_CHUNKS_VIDEO_ONLY,
                                  static_cast<uint32_t>(layout_.HeaderBytes())});
    Append(image, ChunkHeader{VRKFS_APPLICATION_CHUNK_SIZE, VRKFS_CHUNK_APPLICATION, 0});
    Append(image, SignClip(recipe_));
    for (uint32_t stream = 0; stream < layout_.DataChunks(); ++stream) {
        Append(image, MakeParameters(recipe_, stream));
    }
    for (uint32_t stream = 0; stream < layout_.DataChunks(); ++stream) {
        const uint64_t tableBytes = layout_.BodyTableBytes();
        Append(image, ChunkHeader{tableBytes + VRKFS_CHUNK_HEADER_SIZE, VRKFS_CHUNK_BODY_TABLE, stream});
        const auto nodes = std::as_bytes(std::span(tables_[stream]));
        image.insert(image.end(), nodes.begin(), nodes.end());
        image.resize(image.size() + tableBytes - nodes.size());
    }
    return image;
}

bool ClipImageWriter::Write(const ClipSink& sink) const {
    if (!sink(Header())) {
        return false;
    }
    Collector collector(sink, std::max<size_t>(longestField_ * size_t{VRKFS_SECTOR_SIZE}, VRKFS_CHUNK_HEADER_SIZE));
    for (uint32_t stream = 0; stream < layout_.DataChunks(); ++stream) {
        const ChunkHeader chunk = layout_.DataChunkHeader(stream);
        std::memcpy(collector.Take(sizeof(chunk)).data(), &chunk, sizeof(chunk));
        for (uint64_t position = 0; position < layout_.DataChunkFields(stream); ++position) {
            if (!collector.FlushIfFull()) {
                return false;
            }
            const SectorPlace place = layout_.FieldAt(stream, position);
            const uint32_t sectors = VrkFsBodyTableNodeSectors(tables_[place.stream][place.field]);
            content_.FillField(place.stream, static_cast<uint32_t>(place.field),
                               collector.Take(sectors * size_t{VRKFS_SECTOR_SIZE}));
        }
        if (!collector.FlushIfFull()) {
            return false;
        }
    }
    return collector.Flush();
}

std::vector<std::byte> MakeClipImage(const ClipRecipe& recipe) {
    const ClipImageWriter writer(recipe);
    std::vector<std::byte> image;
    image.reserve(writer.Layout().TotalBytes());
    const bool whole = writer.Write([&image](std::span<const std::byte> bytes) {
        image.insert(image.end(), bytes.begin(), bytes.end());
        return true;
    });
    (void)whole;  // this sink never stops the writer
    return image;
}

}  // namespace clip
