// A clip on its way to or from a drive: streamed once, checked as it passes, and remembered well enough to tell later
// whether what is read back is the same clip.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "tool/clip/reader.h"

namespace tool {

// What a clip is, whatever order its fields were written in. Against faults of disks and programs, not against forgers.
struct ClipDigest {
    std::uint64_t header = 0;    // what the header says that a drive gives back
    std::uint64_t data[2] = {};  // the frame data by stream

    bool operator==(const ClipDigest&) const = default;
};

class ClipTransfer {
  public:
    // Takes the next bytes of the image: the header in one piece, then the frame data in runs of whole sectors. Throws
    // to end the transfer.
    using Sink = std::function<void(std::uint64_t offset, std::span<const std::byte>)>;
    // As clip::ClipProgress: false stops.
    using Watch = std::function<bool(std::uint64_t done, std::uint64_t total)>;

    explicit ClipTransfer(clip::ClipSource source);
    ClipTransfer(const ClipTransfer&) = delete;
    ClipTransfer& operator=(const ClipTransfer&) = delete;

    // First. What is wrong with the image up to its frame data; nothing has gone to a sink yet.
    [[nodiscard]] std::optional<clip::ClipProblem> ReadHeader();

    // Then, once. What is wrong with the rest. Stopped() says whether the watch ended it.
    [[nodiscard]] std::optional<clip::ClipProblem> Run(const Sink& sink, const Watch& watch);

    [[nodiscard]] bool Stopped() const { return stopped_; }
    [[nodiscard]] const clip::ClipLayout& Layout() const { return reader_.Layout(); }
    // Of a transfer that ran to its end.
    [[nodiscard]] const ClipDigest& Digest() const { return digest_; }

  private:
    // Follows the fields of an interleaved chunk.
    struct FieldWalk {
        std::uint64_t position = 0;
        std::uint64_t left = 0;  // bytes of the field before `position`
    };

    [[nodiscard]] std::optional<clip::ClipProblem> RunData(std::uint32_t stream, const Sink& sink, const Watch& watch);
    void DigestHeader();
    void DigestData(std::uint32_t stream, std::span<const std::byte> bytes, FieldWalk& walk);

    std::vector<std::byte> kept_;  // header bytes on their way to the sink
    bool keeping_ = true;
    clip::ClipImageReader reader_;
    ClipDigest digest_;
    bool stopped_ = false;
};

}  // namespace tool
