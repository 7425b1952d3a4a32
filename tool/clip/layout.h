// Where everything lies in one media file image, once its header is known.
#pragma once

#include <vrkfs/media.h>

#include <cstdint>

namespace clip {

// Which sector of a clip: the field is counted within its stream, the sector within its field.
struct SectorPlace {
    uint32_t stream = 0;
    uint64_t field = 0;
    uint64_t sector = 0;
};

struct ClipLayout {
    uint32_t frames = 0;
    bool hasAlpha = false;
    bool interleaved = false;
    uint64_t videoSectors = 0;
    uint64_t alphaSectors = 0;

    [[nodiscard]] uint64_t FieldsPerStream() const { return static_cast<uint64_t>(frames) * VRKFS_FIELDS_PER_FRAME; }
    [[nodiscard]] uint64_t BodyTableBytes() const { return VrkFsBodyTableBytes(frames); }
    [[nodiscard]] uint64_t HeaderBytes() const { return VrkFsMediaHeaderSize(BodyTableBytes(), hasAlpha); }
    [[nodiscard]] uint64_t VideoBytes() const { return videoSectors * VRKFS_SECTOR_SIZE; }
    [[nodiscard]] uint64_t AlphaBytes() const { return alphaSectors * VRKFS_SECTOR_SIZE; }

    // The same for both orders: an interleaved image ends with an alpha chunk that is only its header.
    [[nodiscard]] uint64_t TotalBytes() const {
        return VrkFsMediaTotalSize(BodyTableBytes(), VideoBytes(), AlphaBytes(), hasAlpha);
    }

    // The frame-data chunks: the video stream's, and with alpha the alpha stream's.
    [[nodiscard]] uint32_t DataChunks() const { return hasAlpha ? 2 : 1; }

    [[nodiscard]] uint64_t DataChunkFields(uint32_t stream) const {
        return !interleaved ? FieldsPerStream() : stream == VRKFS_STREAM_VIDEO ? 2 * FieldsPerStream() : 0;
    }

    [[nodiscard]] uint64_t DataChunkBytes(uint32_t stream) const {
        if (interleaved) {
            return stream == VRKFS_STREAM_VIDEO ? VideoBytes() + AlphaBytes() : 0;
        }
        return stream == VRKFS_STREAM_VIDEO ? VideoBytes() : AlphaBytes();
    }

    [[nodiscard]] ChunkHeader DataChunkHeader(uint32_t stream) const {
        return {DataChunkBytes(stream) + VRKFS_CHUNK_HEADER_SIZE, VRKFS_CHUNK_FRAME_DATA, stream};
    }

    // The field at a position of a data chunk, position < DataChunkFields.
    [[nodiscard]] SectorPlace FieldAt(uint32_t chunkStream, uint64_t position) const {
        if (interleaved) {
            return {VrkFsMediaInterleavedStream(position), VrkFsMediaInterleavedField(position), 0};
        }
        return {chunkStream, position, 0};
    }
};

}  // namespace clip
