#include "tool/clip/reader.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <type_traits>

namespace clip {
namespace {

// Body tables are read in pieces, so that a header that claims millions of frames costs no more than what follows it.
constexpr size_t kTablePiece = 1u << 20;

std::string Hex(uint64_t value) {
    char text[2 + 16 + 1];
    std::snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

ClipProblem At(uint64_t offset, std::string text) {
    return {std::move(text), offset, std::nullopt, false};
}

ClipProblem EndsEarly(uint64_t offset, const std::string& what) {
    return At(offset, "the image ends inside " + what);
}

// One value of the parameters with what it may be.
struct ParameterRule {
    const char* name;
    uint32_t value;
    std::array<uint32_t, 2> allowed;
};

std::string CheckParameters(const VideoParameters& parameters, uint32_t stream) {
    const ParameterRule rules[] = {
        {"aspect numerator", parameters.AspectNumerator, {VRKFS_VIDEO_ASPECT_NUMERATOR, VRKFS_VIDEO_ASPECT_NUMERATOR}},
        {"aspect denominator",
         parameters.AspectDenominator,
         {VRKFS_VIDEO_ASPECT_DENOMINATOR, VRKFS_VIDEO_ASPECT_DENOMINATOR}},
        {"bits per component", parameters.BitsPerComponent, {VRKFS_VIDEO_BITS, VRKFS_VIDEO_BITS}},
        {"frame rate", parameters.FrameRate, {VRKFS_VIDEO_RATE_525, VRKFS_VIDEO_RATE_625}},
        {"width", parameters.Width, {VRKFS_VIDEO_WIDTH, VRKFS_VIDEO_WIDTH}},
        {"height", parameters.Height, {VRKFS_VIDEO_HEIGHT_525, VRKFS_VIDEO_HEIGHT_625}},
    };
    if (!VrkFsSdtiCodeIsValid(parameters.SdtiType)) {
        return "SDTI type code " + std::to_string(parameters.SdtiType) + " stands for nothing";
    }
    for (const ParameterRule& rule : rules) {
        if (rule.value != rule.allowed[0] && rule.value != rule.allowed[1]) {
            return std::string(rule.name) + " is " + std::to_string(rule.value);
        }
    }
    const bool isAlpha = stream == VRKFS_STREAM_ALPHA;
    if ((parameters.Flags & VRKFS_PARAMETERS_RESERVED) != 0 ||
        ((parameters.Flags & VRKFS_PARAMETERS_ALPHA) != 0) != isAlpha) {
        return "flags are " + Hex(parameters.Flags);
    }
    if (parameters.FrameRate == VRKFS_VIDEO_RATE_525 && (parameters.Flags & VRKFS_PARAMETERS_RATE_30) == 0) {
        return "flags are " + Hex(parameters.Flags) + " at 30 frames per second";
    }
    return {};
}

}  // namespace

const char* StreamName(uint32_t stream) {
    return stream == VRKFS_STREAM_VIDEO ? "video" : stream == VRKFS_STREAM_ALPHA ? "alpha" : "unknown";
}

std::string DescribePlace(const SectorPlace& place, bool wholeField) {
    std::string text = std::string(StreamName(place.stream)) + " frame " +
                       std::to_string(place.field / VRKFS_FIELDS_PER_FRAME) + " field " +
                       std::to_string(place.field % VRKFS_FIELDS_PER_FRAME);
    return wholeField ? text : text + " sector " + std::to_string(place.sector);
}

std::string ClipProblem::Line() const {
    std::string where = place ? DescribePlace(*place, whole) : std::string();
    if (offset) {
        const std::string byte = "image byte " + std::to_string(*offset);
        where = where.empty() ? byte : where + " (" + byte + ")";
    }
    return where.empty() ? text : where + ": " + text;
}

ClipImageReader::ClipImageReader(ClipSource source) : source_(std::move(source)) {}

template <class Record>
std::optional<ClipProblem> ClipImageReader::ReadRecord(Record& record, const char* what) {
    static_assert(std::is_trivially_copyable_v<Record>);
    const size_t got = ReadData(std::as_writable_bytes(std::span(&record, 1)));
    return got == sizeof(record) ? std::nullopt : std::optional(EndsEarly(offset_, what));
}

std::optional<ClipProblem> ClipImageReader::ReadChunkHeader(const ChunkHeader& wanted, const std::string& what) {
    const uint64_t start = offset_;
    ChunkHeader chunk{};
    if (auto problem = ReadRecord(chunk, "a chunk header")) {
        return problem;
    }
    if (chunk.Type != wanted.Type || chunk.Stream != wanted.Stream) {
        return At(start, what + " has type " + std::to_string(chunk.Type) + " and stream " +
                             std::to_string(chunk.Stream) + " instead of " + std::to_string(wanted.Type) + " and " +
                             std::to_string(wanted.Stream));
    }
    if (chunk.Size < VRKFS_CHUNK_HEADER_SIZE) {
        return At(start, what + " is " + std::to_string(chunk.Size) + " bytes long, shorter than its own header");
    }
    if (chunk.Size != wanted.Size) {
        return At(start,
                  what + " is " + std::to_string(chunk.Size) + " bytes long instead of " + std::to_string(wanted.Size));
    }
    return std::nullopt;
}

std::optional<ClipProblem> ClipImageReader::ReadFileHeader() {
    MediaFileHeader header{};
    if (auto problem = ReadRecord(header, "the file header")) {
        return problem;
    }
    if (header.Magic != VRKFS_MEDIA_MAGIC) {
        return At(0, "not a clip: begins with " + Hex(header.Magic) + " instead of \"RZV0\"");
    }
    if (header.FileHeaderSize != VRKFS_MEDIA_FILE_HEADER_SIZE) {
        return At(offsetof(MediaFileHeader, FileHeaderSize),
                  "file header size is " + std::to_string(header.FileHeaderSize) + " instead of 16");
    }
    if (header.ChunkCount != VRKFS_MEDIA_CHUNKS_VIDEO_ONLY && header.ChunkCount != VRKFS_MEDIA_CHUNKS_WITH_ALPHA) {
        return At(offsetof(MediaFileHeader, ChunkCount),
                  "chunk count is " + std::to_string(header.ChunkCount) + " instead of 4, or 7 with alpha");
    }
    layout_.hasAlpha = header.ChunkCount == VRKFS_MEDIA_CHUNKS_WITH_ALPHA;
    headerSize_ = header.HeaderSize;
    return std::nullopt;
}

std::optional<ClipProblem> ClipImageReader::ReadParameters(uint32_t stream) {
    const uint64_t start = offset_;
    const std::string what = std::string("the ") + StreamName(stream) + " parameter chunk";
    if (auto problem = ReadChunkHeader({VRKFS_VIDEO_PARAMETERS_SIZE, VRKFS_CHUNK_PARAMETERS, stream}, what)) {
        return problem;
    }
    VideoParameters& parameters = parameters_[stream];
    parameters.Header = {VRKFS_VIDEO_PARAMETERS_SIZE, VRKFS_CHUNK_PARAMETERS, stream};
    const auto rest = std::as_writable_bytes(std::span(&parameters, 1)).subspan(VRKFS_CHUNK_HEADER_SIZE);
    if (ReadData(rest) != rest.size()) {
        return EndsEarly(offset_, what);
    }
    if (const std::string fault = CheckParameters(parameters, stream); !fault.empty()) {
        return At(start, std::string(StreamName(stream)) + " parameters: " + fault);
    }
    if (parameters.FrameCount != parameters_[VRKFS_STREAM_VIDEO].FrameCount) {
        return At(start + offsetof(VideoParameters, FrameCount),
                  "the alpha stream has " + std::to_string(parameters.FrameCount) + " frames, the video stream " +
                      std::to_string(parameters_[VRKFS_STREAM_VIDEO].FrameCount));
    }
    return std::nullopt;
}

std::optional<ClipProblem> ClipImageReader::CheckHeaderSize() const {
    if (headerSize_ != layout_.HeaderBytes()) {
        return At(offsetof(MediaFileHeader, HeaderSize), "header size is " + std::to_string(headerSize_) + ", but " +
                                                             std::to_string(layout_.frames) + " frames need " +
                                                             std::to_string(layout_.HeaderBytes()));
    }
    if (source_.size && *source_.size < headerSize_) {
        return At(*source_.size,
                  "the image ends inside its header, which is " + std::to_string(headerSize_) + " bytes");
    }
    return std::nullopt;
}

std::optional<ClipProblem> ClipImageReader::ReadBodyTable(uint32_t stream) {
    const std::string what = std::string("the ") + StreamName(stream) + " body table";
    const uint64_t tableBytes = layout_.BodyTableBytes();
    if (auto problem = ReadChunkHeader({tableBytes + VRKFS_CHUNK_HEADER_SIZE, VRKFS_CHUNK_BODY_TABLE, stream}, what)) {
        return problem;
    }
    const uint64_t start = offset_;
    std::vector<BodyTableNode>& nodes = nodes_[stream];
    for (uint64_t done = 0; done < tableBytes;) {
        const size_t piece = static_cast<size_t>(std::min<uint64_t>(tableBytes - done, kTablePiece));
        const size_t count = nodes.size();
        nodes.resize(count + piece / sizeof(BodyTableNode));
        if (ReadData(std::as_writable_bytes(std::span(nodes).subspan(count))) != piece) {
            return EndsEarly(offset_, what);
        }
        done += piece;
    }
    nodes.resize(layout_.FieldsPerStream());  // the rest of the last sector means nothing
    uint64_t sectors = 0;
    for (size_t field = 0; field < nodes.size(); ++field) {
        const uint32_t length = VrkFsBodyTableNodeSectors(nodes[field]);
        if (length > VRKFS_FIELD_MAX_SECTORS) {
            return ClipProblem{"the field's length is " + std::to_string(length) + " sectors, more than 65535",
                               start + field * sizeof(BodyTableNode), SectorPlace{stream, field, 0}, true};
        }
        sectors += length;
    }
    (stream == VRKFS_STREAM_VIDEO ? layout_.videoSectors : layout_.alphaSectors) = sectors;
    return std::nullopt;
}

std::optional<ClipProblem> ClipImageReader::ReadHeader() {
    if (auto problem = ReadFileHeader()) {
        return problem;
    }
    if (auto problem = ReadChunkHeader({VRKFS_APPLICATION_CHUNK_SIZE, VRKFS_CHUNK_APPLICATION, 0},
                                       "the application block's chunk")) {
        return problem;
    }
    if (auto problem = ReadRecord(application_, "the application block")) {
        return problem;
    }
    for (uint32_t stream = 0; stream < layout_.DataChunks(); ++stream) {
        if (auto problem = ReadParameters(stream)) {
            return problem;
        }
    }
    layout_.frames = parameters_[VRKFS_STREAM_VIDEO].FrameCount;
    layout_.interleaved =
        layout_.hasAlpha && (parameters_[VRKFS_STREAM_ALPHA].Flags & VRKFS_PARAMETERS_INTERLEAVED) != 0;
    if (auto problem = CheckHeaderSize()) {
        return problem;
    }
    for (uint32_t stream = 0; stream < layout_.DataChunks(); ++stream) {
        if (auto problem = ReadBodyTable(stream)) {
            return problem;
        }
    }
    return std::nullopt;
}

std::optional<ClipProblem> ClipImageReader::ReadDataChunkHeader(uint32_t stream) {
    return ReadChunkHeader(layout_.DataChunkHeader(stream),
                           std::string("the ") + StreamName(stream) + " frame data chunk");
}

size_t ClipImageReader::ReadData(std::span<std::byte> buffer) {
    const size_t got = source_.read(offset_, buffer);
    offset_ += got;
    return got;
}

uint64_t ClipImageReader::SkipData(uint64_t bytes) {
    uint64_t skipped = 0;
    if (source_.size) {
        skipped = std::min(bytes, *source_.size - std::min(offset_, *source_.size));
        offset_ += skipped;
        return skipped;
    }
    std::vector<std::byte> piece(static_cast<size_t>(std::min<uint64_t>(bytes, kTablePiece)));
    while (skipped < bytes) {
        const size_t wanted = static_cast<size_t>(std::min<uint64_t>(bytes - skipped, piece.size()));
        const size_t got = ReadData(std::span(piece).first(wanted));
        skipped += got;
        if (got != wanted) {
            break;
        }
    }
    return skipped;
}

std::optional<ClipProblem> ClipImageReader::CheckEnd() {
    const uint64_t end = offset_;
    std::byte more;
    if (ReadData(std::span(&more, 1)) != 0) {
        const bool isCounted = source_.size && *source_.size > end;
        return At(end,
                  (isCounted ? std::to_string(*source_.size - end) + " bytes follow" : std::string("bytes follow")) +
                      " the end of the clip");
    }
    return std::nullopt;
}

}  // namespace clip
