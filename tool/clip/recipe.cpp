#include "tool/clip/recipe.h"

#include <cstring>
#include <type_traits>

#include "tool/clip/crc32.h"

namespace clip {
namespace {

constexpr char kSignatureMagic[8] = {'V', 'R', 'K', 'C', 'L', 'I', 'P', '\0'};
constexpr uint32_t kSignatureVersion = 1;
constexpr uint32_t kSignatureAlpha = 1;
constexpr uint32_t kSignatureInterleave = 2;
constexpr size_t kSignatureCopies[] = {0, VRKFS_APPLICATION_BLOCK_SIZE / 2};

// As it lies in the application block.
struct SignatureRecord {
    char magic[8];
    uint32_t version;
    uint32_t kind;
    uint64_t seed;
    uint32_t standard;
    uint32_t frames;
    uint32_t flags;
    uint32_t minSectors;
    uint32_t maxSectors;
    uint32_t crc;  // of everything before it
};
static_assert(sizeof(SignatureRecord) == 48 && offsetof(SignatureRecord, crc) == 44);
static_assert(std::has_unique_object_representations_v<SignatureRecord>);

uint32_t RecordCrc(const SignatureRecord& record) {
    return Crc32(std::as_bytes(std::span(&record, 1)).first(offsetof(SignatureRecord, crc)));
}

SignatureRecord ToRecord(const ClipRecipe& recipe) {
    SignatureRecord record{};
    std::memcpy(record.magic, kSignatureMagic, sizeof(record.magic));
    record.version = kSignatureVersion;
    record.kind = static_cast<uint32_t>(recipe.kind);
    record.seed = recipe.seed;
    record.standard = recipe.standard;
    record.frames = recipe.frames;
    record.flags = (recipe.alpha ? kSignatureAlpha : 0) | (recipe.interleave ? kSignatureInterleave : 0);
    record.minSectors = recipe.minSectors;
    record.maxSectors = recipe.maxSectors;
    record.crc = RecordCrc(record);
    return record;
}

ClipRecipe FromRecord(const SignatureRecord& record) {
    ClipRecipe recipe;
    recipe.kind = static_cast<ClipKind>(record.kind);
    recipe.standard = record.standard;
    recipe.frames = record.frames;
    recipe.alpha = (record.flags & kSignatureAlpha) != 0;
    recipe.interleave = (record.flags & kSignatureInterleave) != 0;
    recipe.minSectors = record.minSectors;
    recipe.maxSectors = record.maxSectors;
    recipe.seed = record.seed;
    return recipe;
}

ClipSignature ReadCopy(const std::byte* bytes) {
    SignatureRecord record;
    std::memcpy(&record, bytes, sizeof(record));
    ClipSignature signature;
    if (std::memcmp(record.magic, kSignatureMagic, sizeof(record.magic)) != 0) {
        return signature;
    }
    signature.state = SignatureState::Damaged;
    signature.version = record.version;
    if (record.crc != RecordCrc(record)) {
        return signature;
    }
    if (record.version > kSignatureVersion) {
        signature.state = SignatureState::Newer;
        return signature;
    }
    signature.recipe = FromRecord(record);
    if (record.version == kSignatureVersion && CheckRecipe(signature.recipe).empty()) {
        signature.state = SignatureState::Intact;
    }
    return signature;
}

// Compressed material is what has fields of varying length, so tagged clips go through the compressed types.
uint32_t SdtiCode(const ClipRecipe& recipe) {
    if (recipe.kind == ClipKind::Bars) {
        return VRKFS_SDTI_CODE_UNCOMPRESSED;
    }
    return VRKFS_SDTI_CODE_FIRST + static_cast<uint32_t>(recipe.seed % VRKFS_SDTI_TYPE_LAST);
}

}  // namespace

std::string CheckRecipe(const ClipRecipe& recipe) {
    if (recipe.kind != ClipKind::Bars && recipe.kind != ClipKind::Tagged) {
        return "unknown kind of clip " + std::to_string(static_cast<uint32_t>(recipe.kind));
    }
    if (recipe.standard != VRKFS_LINE_STANDARD_525 && recipe.standard != VRKFS_LINE_STANDARD_625) {
        return "the line standard is 525 or 625, not " + std::to_string(recipe.standard);
    }
    if (recipe.frames > kMaxFrames) {
        return "a generated clip has at most " + std::to_string(kMaxFrames) + " frames";
    }
    if (recipe.alpha && recipe.frames == 0) {
        return "a clip with alpha needs at least one frame";
    }
    if (recipe.interleave && !recipe.alpha) {
        return "interleaving needs an alpha stream";
    }
    if (recipe.minSectors > recipe.maxSectors) {
        return "the shortest field (" + std::to_string(recipe.minSectors) + " sectors) is longer than the longest (" +
               std::to_string(recipe.maxSectors) + ")";
    }
    if (recipe.maxSectors > VRKFS_FIELD_MAX_SECTORS) {
        return "a field has at most " + std::to_string(VRKFS_FIELD_MAX_SECTORS) + " sectors";
    }
    return {};
}

std::string DescribeRecipe(const ClipRecipe& recipe) {
    std::string text = recipe.kind == ClipKind::Bars ? "bars" : "tagged sectors";
    text += ", " + std::to_string(recipe.standard) + " lines, " + std::to_string(recipe.frames) + " frames";
    text += recipe.alpha ? ", alpha" : "";
    text += recipe.interleave ? ", interleaved" : "";
    if (recipe.kind == ClipKind::Tagged) {
        text += ", fields " + std::to_string(recipe.minSectors) + ".." + std::to_string(recipe.maxSectors);
    }
    return text + ", seed " + std::to_string(recipe.seed);
}

VideoParameters MakeParameters(const ClipRecipe& recipe, uint32_t stream) {
    const bool is625 = recipe.standard == VRKFS_LINE_STANDARD_625;
    const bool isAlpha = stream == VRKFS_STREAM_ALPHA;
    VideoParameters parameters{};
    parameters.Header = {VRKFS_VIDEO_PARAMETERS_SIZE, VRKFS_CHUNK_PARAMETERS, stream};
    parameters.Width = VRKFS_VIDEO_WIDTH;
    parameters.Height = is625 ? VRKFS_VIDEO_HEIGHT_625 : VRKFS_VIDEO_HEIGHT_525;
    parameters.BitsPerComponent = VRKFS_VIDEO_BITS;
    parameters.AspectNumerator = VRKFS_VIDEO_ASPECT_NUMERATOR;
    parameters.AspectDenominator = VRKFS_VIDEO_ASPECT_DENOMINATOR;
    parameters.FrameRate = is625 ? VRKFS_VIDEO_RATE_625 : VRKFS_VIDEO_RATE_525;
    parameters.SdtiType = SdtiCode(recipe);
    parameters.FrameCount = recipe.frames;
    parameters.Flags = (is625 ? 0 : VRKFS_PARAMETERS_RATE_30) | (isAlpha ? VRKFS_PARAMETERS_ALPHA : 0) |
                       (isAlpha && recipe.interleave ? VRKFS_PARAMETERS_INTERLEAVED : 0);
    return parameters;
}

ApplicationBlock SignClip(const ClipRecipe& recipe) {
    ApplicationBlock block{};
    const SignatureRecord record = ToRecord(recipe);
    for (const size_t offset : kSignatureCopies) {
        std::memcpy(block.data() + offset, &record, sizeof(record));
    }
    return block;
}

ClipSignature ReadSignature(const ApplicationBlock& block) {
    ClipSignature best;
    for (const size_t offset : kSignatureCopies) {
        const ClipSignature copy = ReadCopy(block.data() + offset);
        if (copy.state == SignatureState::Intact || copy.state == SignatureState::Newer) {
            return copy;
        }
        if (copy.state == SignatureState::Damaged) {
            best = copy;
        }
    }
    return best;
}

}  // namespace clip
