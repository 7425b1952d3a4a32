#include "tool/clip/report.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace clip {
namespace {

struct FieldSizes {
    uint32_t shortest = 0;
    uint32_t longest = 0;
};

FieldSizes MeasureFields(const std::vector<BodyTableNode>& nodes) {
    if (nodes.empty()) {
        return {};
    }
    const auto less = [](BodyTableNode left, BodyTableNode right) {
        return VrkFsBodyTableNodeSectors(left) < VrkFsBodyTableNodeSectors(right);
    };
    const auto [shortest, longest] = std::ranges::minmax_element(nodes, less);
    return {VrkFsBodyTableNodeSectors(*shortest), VrkFsBodyTableNodeSectors(*longest)};
}

[[gnu::format(printf, 1, 2)]] std::string Format(const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return text;
}

unsigned long long Wide(uint64_t value) {
    return value;
}

std::string SdtiText(uint32_t code) {
    if (!VrkFsSdtiCodeIsSet(code)) {
        return Format("code %u (no format set)", code);
    }
    return Format("code %u (format set, type %u)", code, VrkFsSdtiTypeFromCode(code));
}

uint64_t StreamBytes(const ClipLayout& layout, uint32_t stream) {
    return stream == VRKFS_STREAM_ALPHA ? layout.AlphaBytes() : layout.VideoBytes();
}

std::string StreamText(const ClipImageReader& reader, uint32_t stream) {
    const VideoParameters& parameters = reader.Parameters(stream);
    const FieldSizes sizes = MeasureFields(reader.Nodes(stream));
    const uint64_t bytes = StreamBytes(reader.Layout(), stream);
    return Format("  %-12s %llu bytes (0x%llx) in %zu fields of %u to %u sectors\n", StreamName(stream), Wide(bytes),
                  Wide(bytes), reader.Nodes(stream).size(), sizes.shortest, sizes.longest) +
           Format("  %-12s SDTI %s, flags 0x%x\n", "", SdtiText(parameters.SdtiType).c_str(), parameters.Flags);
}

std::string SignatureText(const ClipSignature& signature) {
    switch (signature.state) {
        case SignatureState::Intact:
            return Format("vrkfs clip make, version %u: ", signature.version) + DescribeRecipe(signature.recipe);
        case SignatureState::Newer:
            return Format("vrkfs clip make, version %u, later than this program", signature.version);
        case SignatureState::Damaged:
            return "vrkfs clip make, but the signature is damaged";
        case SignatureState::None:
            break;
    }
    return "not vrkfs clip make";
}

std::string HexDump(const ApplicationBlock& block) {
    std::string text;
    for (size_t at = 0; at < block.size(); at += 16) {
        text += Format("    %03zx ", at);
        for (size_t byte = at; byte < at + 16; ++byte) {
            text += Format(" %02x", std::to_integer<unsigned>(block[byte]));
        }
        text += '\n';
    }
    return text;
}

bool IsZero(const ApplicationBlock& block) {
    return std::ranges::all_of(block, [](std::byte value) { return value == std::byte{0}; });
}

std::string HexString(const ApplicationBlock& block) {
    std::string text;
    for (const std::byte value : block) {
        text += Format("%02x", std::to_integer<unsigned>(value));
    }
    return text;
}

// What there is of the image, against what the header promises; empty when that cannot be known without reading on.
std::string WholenessText(const ClipImageReader& reader) {
    if (!reader.Source().size) {
        return {};
    }
    const uint64_t there = *reader.Source().size;
    const uint64_t wanted = reader.Layout().TotalBytes();
    if (there == wanted) {
        return {};
    }
    return there < wanted ? Format("  incomplete   %llu bytes are missing\n", Wide(wanted - there))
                          : Format("  too long     %llu bytes follow the end\n", Wide(there - wanted));
}

std::string StreamsText(const ClipLayout& layout) {
    if (!layout.hasAlpha) {
        return "video";
    }
    return layout.interleaved ? "video and alpha, interleaved" : "video and alpha";
}

}  // namespace

Json RecipeJson(const ClipRecipe& recipe) {
    Json json{{"kind", recipe.kind == ClipKind::Bars ? "bars" : "tagged"},
              {"standard", recipe.standard},
              {"frames", recipe.frames},
              {"alpha", recipe.alpha},
              {"interleave", recipe.interleave},
              {"seed", recipe.seed}};
    if (recipe.kind == ClipKind::Tagged) {
        json["field_sectors"] = {recipe.minSectors, recipe.maxSectors};
    }
    return json;
}

std::string InfoText(const std::string& name, const ClipImageReader& reader) {
    const ClipLayout& layout = reader.Layout();
    const VideoParameters& video = reader.Parameters(VRKFS_STREAM_VIDEO);
    std::string text = Format("%s: media file image, %llu bytes\n", name.c_str(), Wide(layout.TotalBytes()));
    text += WholenessText(reader);
    text += Format("  frames       %u, %u per second (%.2f s)\n", layout.frames, video.FrameRate,
                   static_cast<double>(layout.frames) / video.FrameRate);
    text += Format("  picture      %u x %u, %u lines, %u bits, %u:%u\n", video.Width, video.Height,
                   video.FrameRate == VRKFS_VIDEO_RATE_625 ? VRKFS_LINE_STANDARD_625 : VRKFS_LINE_STANDARD_525,
                   video.BitsPerComponent, video.AspectNumerator, video.AspectDenominator);
    text += "  streams      " + StreamsText(layout) + "\n";
    for (uint32_t stream = 0; stream < layout.DataChunks(); ++stream) {
        text += StreamText(reader, stream);
    }
    text +=
        Format("  header       %llu bytes (0x%llx), body table %llu (0x%llx) per stream\n", Wide(layout.HeaderBytes()),
               Wide(layout.HeaderBytes()), Wide(layout.BodyTableBytes()), Wide(layout.BodyTableBytes()));
    const ClipSignature signature = ReadSignature(reader.Application());
    text += "  made by      " + SignatureText(signature) + "\n";
    if (signature.state != SignatureState::Intact) {
        text += IsZero(reader.Application()) ? std::string("  application  256 zero bytes\n")
                                             : "  application\n" + HexDump(reader.Application());
    }
    return text;
}

Json InfoJson(const std::string& name, const ClipImageReader& reader) {
    const ClipLayout& layout = reader.Layout();
    const VideoParameters& video = reader.Parameters(VRKFS_STREAM_VIDEO);
    Json json{{"command", "clip info"},
              {"file", name},
              {"bytes", layout.TotalBytes()},
              {"file_bytes", reader.Source().size ? Json(*reader.Source().size) : Json(nullptr)},
              {"frames", layout.frames},
              {"standard", video.FrameRate == VRKFS_VIDEO_RATE_625 ? VRKFS_LINE_STANDARD_625 : VRKFS_LINE_STANDARD_525},
              {"width", video.Width},
              {"height", video.Height},
              {"rate", video.FrameRate},
              {"header_bytes", layout.HeaderBytes()},
              {"body_table_bytes", layout.BodyTableBytes()},
              {"interleaved", layout.interleaved}};
    for (uint32_t stream = 0; stream < layout.DataChunks(); ++stream) {
        const FieldSizes sizes = MeasureFields(reader.Nodes(stream));
        json["streams"].push_back({{"stream", StreamName(stream)},
                                   {"bytes", StreamBytes(layout, stream)},
                                   {"fields", reader.Nodes(stream).size()},
                                   {"shortest_field_sectors", sizes.shortest},
                                   {"longest_field_sectors", sizes.longest},
                                   {"sdti_code", reader.Parameters(stream).SdtiType},
                                   {"flags", reader.Parameters(stream).Flags}});
    }
    const ClipSignature signature = ReadSignature(reader.Application());
    json["made_by"] = signature.state == SignatureState::Intact ? RecipeJson(signature.recipe) : Json(nullptr);
    json["application"] = HexString(reader.Application());
    return json;
}

std::string VerdictText(const std::string& name, const ClipVerdict& verdict) {
    if (verdict.problem) {
        std::string text = name + ": wrong: " + verdict.problem->Line();
        if (verdict.wrongSectors > 1) {
            text += Format("; %llu sectors in %llu fields are wrong in all", Wide(verdict.wrongSectors),
                           Wide(verdict.wrongFields));
        }
        return text + (verdict.stopped ? "; stopped before the end\n" : "\n");
    }
    if (verdict.stopped) {
        return name + ": stopped before the end; nothing wrong so far\n";
    }
    const ClipLayout& layout = verdict.layout;
    const std::string amount = Format("%u frames, %s, %llu sectors", layout.frames, StreamsText(layout).c_str(),
                                      Wide(layout.videoSectors + layout.alphaSectors));
    if (verdict.compared) {
        return name + ": right: " + amount + ", as made: " + DescribeRecipe(verdict.signature.recipe) + "\n";
    }
    return name + ": structure right: " + amount + "; frame data not compared, made by " +
           SignatureText(verdict.signature) + "\n";
}

Json VerdictJson(const std::string& name, const ClipVerdict& verdict) {
    Json json{{"command", "clip verify"},
              {"file", name},
              {"verdict", verdict.problem   ? "wrong"
                          : verdict.stopped ? "stopped"
                                            : "right"},
              {"compared", verdict.compared},
              {"stopped", verdict.stopped}};
    if (verdict.signature.state == SignatureState::Intact) {
        json["made_by"] = RecipeJson(verdict.signature.recipe);
    }
    if (verdict.problem) {
        const ClipProblem& problem = *verdict.problem;
        json["problem"] = problem.text;
        if (problem.offset) {
            json["offset"] = *problem.offset;
        }
        if (problem.place) {
            json["stream"] = StreamName(problem.place->stream);
            json["frame"] = problem.place->field / VRKFS_FIELDS_PER_FRAME;
            json["field"] = problem.place->field % VRKFS_FIELDS_PER_FRAME;
            if (!problem.whole) {
                json["sector"] = problem.place->sector;
            }
        }
        json["wrong_fields"] = verdict.wrongFields;
        json["wrong_sectors"] = verdict.wrongSectors;
        return json;
    }
    json["frames"] = verdict.layout.frames;
    json["sectors"] = verdict.layout.videoSectors + verdict.layout.alphaSectors;
    return json;
}

}  // namespace clip
