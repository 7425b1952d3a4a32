#include "tool/clip_transfer.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "tool/drive_file.h"

namespace tool {
namespace {

clip::ClipProblem Wrong(std::string text, std::optional<std::uint64_t> offset = std::nullopt) {
    return {std::move(text), offset, std::nullopt, false};
}

// A multiplying hash over 8-byte words; frame data and what is hashed of headers come in multiples of them.
std::uint64_t Mix(std::uint64_t hash, std::uint64_t word) {
    constexpr std::uint64_t kOdd = 0x9E3779B97F4A7C15;
    return std::rotl((hash ^ word) * kOdd, 29);
}

std::uint64_t MixBytes(std::uint64_t hash, std::span<const std::byte> bytes) {
    for (std::size_t at = 0; at + sizeof(std::uint64_t) <= bytes.size(); at += sizeof(std::uint64_t)) {
        std::uint64_t word;
        std::memcpy(&word, bytes.data() + at, sizeof(word));
        hash = Mix(hash, word);
    }
    return hash;
}

}  // namespace

ClipTransfer::ClipTransfer(clip::ClipSource source)
    : reader_({[this, read = std::move(source.read)](std::uint64_t offset, std::span<std::byte> buffer) {
                   const std::size_t got = read(offset, buffer);
                   if (keeping_) {
                       kept_.insert(kept_.end(), buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(got));
                   }
                   return got;
               },
               source.size}) {}

std::optional<clip::ClipProblem> ClipTransfer::ReadHeader() {
    if (auto problem = reader_.ReadHeader()) {
        return problem;
    }
    const std::optional<std::uint64_t> size = reader_.Source().size;
    if (size && *size != Layout().TotalBytes()) {
        return Wrong("the file has " + std::to_string(*size) + " bytes, the clip in it " +
                     std::to_string(Layout().TotalBytes()));
    }
    DigestHeader();
    return std::nullopt;
}

std::optional<clip::ClipProblem> ClipTransfer::Run(const Sink& sink, const Watch& watch) {
    sink(0, kept_);
    for (std::uint32_t stream = 0; stream < Layout().DataChunks(); ++stream) {
        const std::uint64_t start = reader_.Offset();
        kept_.clear();
        keeping_ = true;
        if (auto problem = reader_.ReadDataChunkHeader(stream)) {
            return problem;
        }
        keeping_ = false;
        sink(start, kept_);
        if (auto problem = RunData(stream, sink, watch); problem || stopped_) {
            return problem;
        }
    }
    return reader_.CheckEnd();
}

std::optional<clip::ClipProblem> ClipTransfer::RunData(std::uint32_t stream, const Sink& sink, const Watch& watch) {
    RequestBuffer buffer;
    FieldWalk walk;
    for (std::uint64_t left = Layout().DataChunkBytes(stream); left > 0;) {
        const std::uint64_t offset = reader_.Offset();
        const auto piece = buffer.First(static_cast<std::size_t>(std::min<std::uint64_t>(left, kRequestBytes)));
        const std::size_t got = reader_.ReadData(piece);
        if (got != piece.size()) {
            return Wrong(std::string("the image ends inside the ") + clip::StreamName(stream) + " frame data, " +
                             std::to_string(left - got) + " bytes early",
                         offset + got);
        }
        sink(offset, piece);
        DigestData(stream, piece, walk);
        left -= got;
        if (!watch(reader_.Offset(), Layout().TotalBytes())) {
            stopped_ = true;
            return std::nullopt;
        }
    }
    return std::nullopt;
}

void ClipTransfer::DigestHeader() {
    std::uint64_t hash = MixBytes(Layout().frames, reader_.Application());
    for (std::uint32_t stream = 0; stream < Layout().DataChunks(); ++stream) {
        hash = Mix(hash, reader_.Parameters(stream).FrameRate);
        hash = Mix(hash, reader_.Parameters(stream).SdtiType);
        // Two nodes of a frame are one word.
        hash = MixBytes(hash, std::as_bytes(std::span(reader_.Nodes(stream))));
    }
    digest_.header = hash;
}

void ClipTransfer::DigestData(std::uint32_t stream, std::span<const std::byte> bytes, FieldWalk& walk) {
    if (!Layout().interleaved) {
        digest_.data[stream] = MixBytes(digest_.data[stream], bytes);
        return;
    }
    while (!bytes.empty()) {
        while (walk.left == 0) {
            const clip::SectorPlace place = Layout().FieldAt(stream, walk.position++);
            const BodyTableNode node = reader_.Nodes(place.stream)[place.field];
            walk.left = std::uint64_t{VrkFsBodyTableNodeSectors(node)} * VRKFS_SECTOR_SIZE;
        }
        const std::uint32_t owner = Layout().FieldAt(stream, walk.position - 1).stream;
        const auto run = bytes.first(static_cast<std::size_t>(std::min<std::uint64_t>(walk.left, bytes.size())));
        digest_.data[owner] = MixBytes(digest_.data[owner], run);
        walk.left -= run.size();
        bytes = bytes.subspan(run.size());
    }
}

}  // namespace tool
