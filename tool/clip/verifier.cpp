#include "tool/clip/verifier.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "tool/clip/tagged.h"

namespace clip {
namespace {

constexpr size_t kBatchBytes = 1u << 20;

std::string HexByte(std::byte value) {
    char text[5];
    std::snprintf(text, sizeof(text), "0x%02x", std::to_integer<unsigned>(value));
    return text;
}

}  // namespace

ClipVerifier::ClipVerifier(ClipSource source, ClipProgress progress)
    : reader_(std::move(source)), progress_(std::move(progress)) {}

ClipVerdict ClipVerifier::Run() {
    if (!CheckHeader()) {
        return verdict_;
    }
    for (uint32_t stream = 0; stream < reader_.Layout().DataChunks(); ++stream) {
        if (!CheckDataChunk(stream)) {
            return verdict_;
        }
    }
    if (auto problem = reader_.CheckEnd()) {
        (void)Fail(std::move(*problem));
    }
    return verdict_;
}

bool ClipVerifier::Fail(ClipProblem problem) {
    if (!verdict_.problem) {
        verdict_.problem = std::move(problem);
    }
    return false;
}

bool ClipVerifier::GoOn() {
    if (progress_ && !progress_(reader_.Offset(), verdict_.layout.TotalBytes())) {
        verdict_.stopped = true;
        return false;
    }
    return true;
}

bool ClipVerifier::CheckHeader() {
    if (auto problem = reader_.ReadHeader()) {
        return Fail(std::move(*problem));
    }
    verdict_.layout = reader_.Layout();
    verdict_.signature = ReadSignature(reader_.Application());
    switch (verdict_.signature.state) {
        case SignatureState::None:
        case SignatureState::Newer:
            return true;
        case SignatureState::Damaged:
            return Fail({"the generator's signature is damaged", VRKFS_MEDIA_APPLICATION_BLOCK_OFFSET, {}, false});
        case SignatureState::Intact:
            break;
    }
    return CheckAgainstRecipe();
}

bool ClipVerifier::CheckAgainstRecipe() {
    const ClipRecipe& recipe = verdict_.signature.recipe;
    const ApplicationBlock wanted = SignClip(recipe);
    const auto at = std::ranges::mismatch(reader_.Application(), wanted);
    if (at.in1 != reader_.Application().end()) {
        const uint64_t byte = static_cast<uint64_t>(at.in1 - reader_.Application().begin());
        return Fail({"the application block holds " + HexByte(*at.in1) + " instead of " + HexByte(*at.in2),
                     VRKFS_MEDIA_APPLICATION_BLOCK_OFFSET + byte,
                     {},
                     false});
    }
    if (verdict_.layout.hasAlpha != recipe.alpha) {
        return Fail({recipe.alpha ? "the clip was made with an alpha stream but has none"
                                  : "the clip was made without an alpha stream but has one",
                     offsetof(MediaFileHeader, ChunkCount),
                     {},
                     false});
    }
    content_.emplace(recipe);
    verdict_.compared = true;
    for (uint32_t stream = 0; stream < verdict_.layout.DataChunks(); ++stream) {
        if (!CheckParameters(stream)) {
            return false;
        }
    }
    for (uint32_t stream = 0; stream < verdict_.layout.DataChunks(); ++stream) {
        if (!CheckNodes(stream)) {
            return false;
        }
    }
    return true;
}

bool ClipVerifier::CheckParameters(uint32_t stream) {
    const VideoParameters& found = reader_.Parameters(stream);
    VideoParameters wanted = MakeParameters(verdict_.signature.recipe, stream);
    if (!verdict_.layout.interleaved) {
        wanted.Flags &= ~VRKFS_PARAMETERS_INTERLEAVED;
    }
    struct Value {
        const char* name;
        uint32_t found;
        uint32_t wanted;
        uint32_t offset;
    };
    const Value values[] = {
        {"height", found.Height, wanted.Height, offsetof(VideoParameters, Height)},
        {"frame rate", found.FrameRate, wanted.FrameRate, offsetof(VideoParameters, FrameRate)},
        {"SDTI type code", found.SdtiType, wanted.SdtiType, offsetof(VideoParameters, SdtiType)},
        {"frame count", found.FrameCount, wanted.FrameCount, offsetof(VideoParameters, FrameCount)},
        {"flags", found.Flags, wanted.Flags, offsetof(VideoParameters, Flags)},
    };
    for (const Value& value : values) {
        if (value.found != value.wanted) {
            return Fail({std::string(StreamName(stream)) + " " + value.name + " is " + std::to_string(value.found) +
                             " instead of " + std::to_string(value.wanted),
                         VRKFS_MEDIA_VIDEO_PARAMETERS_OFFSET + stream * VRKFS_VIDEO_PARAMETERS_SIZE + value.offset,
                         {},
                         false});
        }
    }
    return true;
}

bool ClipVerifier::CheckNodes(uint32_t stream) {
    const std::vector<BodyTableNode>& nodes = reader_.Nodes(stream);
    const uint64_t table = stream == VRKFS_STREAM_ALPHA
                               ? VrkFsMediaAlphaBodyTableOffset(verdict_.layout.BodyTableBytes())
                               : VrkFsMediaVideoBodyTableOffset(verdict_.layout.hasAlpha);
    for (size_t field = 0; field < nodes.size(); ++field) {
        const BodyTableNode found = nodes[field];
        const BodyTableNode wanted = content_->FieldNode(stream, static_cast<uint32_t>(field));
        if (found.First != wanted.First || found.Second != wanted.Second) {
            return Fail({"the body table says " + std::to_string(found.First) + " + " + std::to_string(found.Second) +
                             " sectors instead of " + std::to_string(wanted.First) + " + " +
                             std::to_string(wanted.Second),
                         table + field * sizeof(BodyTableNode), SectorPlace{stream, field, 0}, true});
        }
    }
    return true;
}

size_t ClipVerifier::FieldBytes(const SectorPlace& place) const {
    return size_t{VrkFsBodyTableNodeSectors(reader_.Nodes(place.stream)[place.field])} * VRKFS_SECTOR_SIZE;
}

bool ClipVerifier::CheckDataChunk(uint32_t stream) {
    if (auto problem = reader_.ReadDataChunkHeader(stream)) {
        return Fail(std::move(*problem));
    }
    const ClipLayout& layout = verdict_.layout;
    const uint64_t fields = layout.DataChunkFields(stream);
    for (uint64_t first = 0; first < fields;) {
        uint64_t count = 0;
        size_t bytes = 0;
        while (first + count < fields && bytes < kBatchBytes) {
            bytes += FieldBytes(layout.FieldAt(stream, first + count));
            ++count;
        }
        if (!CheckBatch(stream, first, count, bytes) || !GoOn()) {
            return false;
        }
        first += count;
    }
    return true;
}

bool ClipVerifier::CheckBatch(uint32_t stream, uint64_t first, uint64_t count, size_t bytes) {
    if (!content_) {
        for (uint64_t position = first; position < first + count; ++position) {
            if (!SkipField(verdict_.layout.FieldAt(stream, position))) {
                return false;
            }
        }
        return true;
    }
    found_.resize(std::max(found_.size(), bytes));
    const uint64_t offset = reader_.Offset();
    const std::span<const std::byte> got = std::span(found_).first(reader_.ReadData(std::span(found_).first(bytes)));
    size_t at = 0;
    for (uint64_t position = first; position < first + count; ++position) {
        const SectorPlace place = verdict_.layout.FieldAt(stream, position);
        const size_t fieldBytes = FieldBytes(place);
        const size_t there = std::min(fieldBytes, got.size() - at);
        CompareField(place, got.subspan(at, there), offset + at);
        at += there;
        if (there < fieldBytes) {
            return Fail({"the image ends here", offset + at,
                         SectorPlace{place.stream, place.field, there / VRKFS_SECTOR_SIZE}, false});
        }
    }
    return true;
}

bool ClipVerifier::SkipField(const SectorPlace& place) {
    const size_t bytes = FieldBytes(place);
    const uint64_t skipped = reader_.SkipData(bytes);
    return skipped == bytes || Fail({"the image ends here", reader_.Offset(),
                                     SectorPlace{place.stream, place.field, skipped / VRKFS_SECTOR_SIZE}, false});
}

void ClipVerifier::CompareField(SectorPlace place, std::span<const std::byte> found, uint64_t offset) {
    const size_t fieldBytes = FieldBytes(place);
    wanted_.resize(std::max(wanted_.size(), fieldBytes));
    const std::span<std::byte> wanted = std::span(wanted_).first(fieldBytes);
    content_->FillField(place.stream, static_cast<uint32_t>(place.field), wanted);
    if (found.empty() || std::memcmp(found.data(), wanted.data(), found.size()) == 0) {
        return;
    }
    ++verdict_.wrongFields;
    for (size_t at = 0; at < found.size(); at += VRKFS_SECTOR_SIZE) {
        const auto sector = found.subspan(at, std::min<size_t>(VRKFS_SECTOR_SIZE, found.size() - at));
        if (std::memcmp(sector.data(), wanted.data() + at, sector.size()) == 0) {
            continue;
        }
        ++verdict_.wrongSectors;
        if (!verdict_.problem) {
            const auto expected = wanted.subspan(at, sector.size());
            const size_t byte = static_cast<size_t>(std::ranges::mismatch(sector, expected).in1 - sector.begin());
            place.sector = at / VRKFS_SECTOR_SIZE;
            verdict_.problem = {DescribeDifference(sector, expected, byte), offset + at + byte, place, false};
        }
    }
}

std::string ClipVerifier::DescribeDifference(std::span<const std::byte> found, std::span<const std::byte> wanted,
                                             size_t at) const {
    std::string byte =
        "byte " + std::to_string(at) + " of the sector is " + HexByte(found[at]) + " instead of " + HexByte(wanted[at]);
    if (std::ranges::all_of(found, [](std::byte value) { return value == std::byte{0}; })) {
        return "holds zeros";
    }
    if (found.size() != VRKFS_SECTOR_SIZE) {
        return byte;
    }
    const std::optional<SectorTag> tag = ReadTaggedSector(found.first<VRKFS_SECTOR_SIZE>());
    if (!tag) {
        return byte;
    }
    std::string holds = "holds " + DescribePlace({tag->stream, tag->field, tag->sector});
    const ClipRecipe& recipe = verdict_.signature.recipe;
    const bool isThisClip = recipe.kind == ClipKind::Tagged && tag->seed == recipe.seed;
    return isThisClip ? holds : holds + " of another clip, seed " + std::to_string(tag->seed);
}

}  // namespace clip
