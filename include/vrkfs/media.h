/*
 * The media file image: the byte stream that an application reads and writes when it opens a clip under the built-in
 * type folder. The driver, the tools and client applications share this header; it needs no run-time library and
 * compiles as C11 and C++20.
 *
 * All integers are little-endian. With B bytes of body table per stream, V bytes of video and A bytes of alpha data:
 *
 *   0            MediaFileHeader        "RZV0", 16, chunk count, header size H
 *   16           ChunkHeader            {272, application block, 0}
 *   32           256 bytes              application block
 *   288          VideoParameters        of the video stream
 *   328          VideoParameters        of the alpha stream           (with alpha only)
 *   328 or 368   ChunkHeader            {B + 16, body table, video}
 *                B bytes                video body table
 *                ChunkHeader            {B + 16, body table, alpha}   (with alpha only)
 *                B bytes                alpha body table              (with alpha only)
 *   H            ChunkHeader            {V + 16, frame data, video}
 *   H + 16       V bytes                video frame data
 *   H + 16 + V   ChunkHeader            {A + 16, frame data, alpha}   (with alpha only)
 *   H + 32 + V   A bytes                alpha frame data              (with alpha only)
 *
 * A writer may instead interleave the streams (VRKFS_PARAMETERS_INTERLEAVED in the alpha parameters): then the video
 * frame data region is V + A bytes long and holds, frame by frame, video field 2f, video field 2f + 1, alpha field 2f,
 * alpha field 2f + 1; the alpha frame-data chunk that follows is only its header, so both orders are equally long.
 * Images that are read back are never interleaved.
 */
#ifndef VRKFS_MEDIA_H
#define VRKFS_MEDIA_H

#include <vrkfs/layout.h>

#ifdef __cplusplus
extern "C" {
#else
#include <stdbool.h>
#endif

/* ---- Units and limits ---------------------------------------------------------------------------------------- */

#define VRKFS_SECTOR_SIZE 512u             /* frame data and body tables come in whole sectors */
#define VRKFS_FIELDS_PER_FRAME 2u          /* body-table nodes 2f and 2f + 1 belong to frame f */
#define VRKFS_FIELD_MAX_SECTORS 65535u     /* an image with a longer field is refused */
#define VRKFS_MEDIA_MAX_FRAMES 0x1FFFFFFFu /* 8 bytes of nodes per frame still fit 32 bits */

/* ---- File header --------------------------------------------------------------------------------------------- */

#define VRKFS_MEDIA_MAGIC 0x30565A52u /* the bytes 'R' 'Z' 'V' '0' */
#define VRKFS_MEDIA_FILE_HEADER_SIZE 16u
#define VRKFS_MEDIA_CHUNKS_VIDEO_ONLY 4u
#define VRKFS_MEDIA_CHUNKS_WITH_ALPHA 7u

typedef struct MediaFileHeader {
    uint32_t Magic;          /* VRKFS_MEDIA_MAGIC */
    uint32_t FileHeaderSize; /* VRKFS_MEDIA_FILE_HEADER_SIZE */
    uint32_t ChunkCount;     /* VRKFS_MEDIA_CHUNKS_VIDEO_ONLY or VRKFS_MEDIA_CHUNKS_WITH_ALPHA */
    uint32_t HeaderSize;     /* H: bytes before the first frame-data chunk */
} MediaFileHeader;

VRKFS_ASSERT_SIZE(MediaFileHeader, VRKFS_MEDIA_FILE_HEADER_SIZE);
VRKFS_ASSERT_OFFSET(MediaFileHeader, Magic, 0);
VRKFS_ASSERT_OFFSET(MediaFileHeader, FileHeaderSize, 4);
VRKFS_ASSERT_OFFSET(MediaFileHeader, ChunkCount, 8);
VRKFS_ASSERT_OFFSET(MediaFileHeader, HeaderSize, 12);

/* ---- Chunks -------------------------------------------------------------------------------------------------- */

#define VRKFS_CHUNK_PARAMETERS 0u
#define VRKFS_CHUNK_APPLICATION 1u
#define VRKFS_CHUNK_BODY_TABLE 2u
#define VRKFS_CHUNK_FRAME_DATA 3u

#define VRKFS_STREAM_VIDEO 0u
#define VRKFS_STREAM_ALPHA 1u

#define VRKFS_CHUNK_HEADER_SIZE 16u

typedef struct ChunkHeader {
    uint64_t Size;   /* bytes, this header included, so never below 16 */
    uint32_t Type;   /* VRKFS_CHUNK_... */
    uint32_t Stream; /* VRKFS_STREAM_..., 0 for the application block */
} ChunkHeader;

VRKFS_ASSERT_SIZE(ChunkHeader, VRKFS_CHUNK_HEADER_SIZE);
VRKFS_ASSERT_OFFSET(ChunkHeader, Size, 0);
VRKFS_ASSERT_OFFSET(ChunkHeader, Type, 8);
VRKFS_ASSERT_OFFSET(ChunkHeader, Stream, 12);

/* ---- Application block: 256 bytes that applications set and read as a whole ---------------------------------- */

#define VRKFS_APPLICATION_BLOCK_SIZE 256u
#define VRKFS_APPLICATION_CHUNK_SIZE (VRKFS_CHUNK_HEADER_SIZE + VRKFS_APPLICATION_BLOCK_SIZE)

/* ---- Video parameters ---------------------------------------------------------------------------------------- */

#define VRKFS_VIDEO_PARAMETERS_SIZE 40u

#define VRKFS_VIDEO_WIDTH 720u
#define VRKFS_VIDEO_HEIGHT_525 486u
#define VRKFS_VIDEO_HEIGHT_625 576u
#define VRKFS_VIDEO_BITS 8u
#define VRKFS_VIDEO_ASPECT_NUMERATOR 4u
#define VRKFS_VIDEO_ASPECT_DENOMINATOR 3u
#define VRKFS_VIDEO_RATE_525 30u
#define VRKFS_VIDEO_RATE_625 25u

#define VRKFS_LINE_STANDARD_525 525u
#define VRKFS_LINE_STANDARD_625 625u

/* VideoParameters.Flags */
#define VRKFS_PARAMETERS_RESERVED 0x1u    /* must be clear */
#define VRKFS_PARAMETERS_ALPHA 0x2u       /* the parameters of the alpha stream */
#define VRKFS_PARAMETERS_RATE_30 0x4u     /* must be set at rate 30, free at rate 25 */
#define VRKFS_PARAMETERS_INTERLEAVED 0x8u /* alpha parameters of a written image only: fields are interleaved */

/* VideoParameters.SdtiType: 0, 1 or 3 to 15. A file's record keeps it as "format set" and a type of 0 to 13. */
#define VRKFS_SDTI_CODE_UNSET 0u        /* format not set */
#define VRKFS_SDTI_CODE_UNCOMPRESSED 1u /* format set, type 0 */
#define VRKFS_SDTI_CODE_INVALID 2u      /* never valid in an image */
#define VRKFS_SDTI_CODE_FIRST 3u        /* type 1 */
#define VRKFS_SDTI_CODE_LAST 15u        /* type 13 */
#define VRKFS_SDTI_CODE_BIAS 2u         /* code = type + 2, from type 1 up */
#define VRKFS_SDTI_TYPE_LAST 13u

typedef struct VideoParameters {
    ChunkHeader Header;         /* {40, VRKFS_CHUNK_PARAMETERS, stream} */
    uint16_t Width;             /* pixels */
    uint16_t Height;            /* lines per frame */
    uint16_t BitsPerComponent;  /* 8 */
    uint16_t AspectNumerator;   /* 4 */
    uint16_t AspectDenominator; /* 3 */
    uint16_t FrameRate;         /* frames per second: 30 or 25 */
    uint32_t SdtiType;          /* VRKFS_SDTI_CODE_... */
    uint32_t FrameCount;        /* of this stream */
    uint32_t Flags;             /* VRKFS_PARAMETERS_... */
} VideoParameters;

VRKFS_ASSERT_SIZE(VideoParameters, VRKFS_VIDEO_PARAMETERS_SIZE);
VRKFS_ASSERT_OFFSET(VideoParameters, Header, 0);
VRKFS_ASSERT_OFFSET(VideoParameters, Width, 16);
VRKFS_ASSERT_OFFSET(VideoParameters, Height, 18);
VRKFS_ASSERT_OFFSET(VideoParameters, BitsPerComponent, 20);
VRKFS_ASSERT_OFFSET(VideoParameters, AspectNumerator, 22);
VRKFS_ASSERT_OFFSET(VideoParameters, AspectDenominator, 24);
VRKFS_ASSERT_OFFSET(VideoParameters, FrameRate, 26);
VRKFS_ASSERT_OFFSET(VideoParameters, SdtiType, 28);
VRKFS_ASSERT_OFFSET(VideoParameters, FrameCount, 32);
VRKFS_ASSERT_OFFSET(VideoParameters, Flags, 36);

static inline bool VrkFsSdtiCodeIsValid(uint32_t Code) {
    return Code <= VRKFS_SDTI_CODE_LAST && Code != VRKFS_SDTI_CODE_INVALID;
}

/* Whether a code says that the stream's format is set. */
static inline bool VrkFsSdtiCodeIsSet(uint32_t Code) {
    return Code != VRKFS_SDTI_CODE_UNSET && Code != VRKFS_SDTI_CODE_INVALID;
}

/* The type that a file's record keeps for a valid code. */
static inline uint32_t VrkFsSdtiTypeFromCode(uint32_t Code) {
    return Code < VRKFS_SDTI_CODE_FIRST ? 0u : Code - VRKFS_SDTI_CODE_BIAS;
}

/* The code that an image carries for what a file's record keeps; a type that no code stands for counts as unset. */
static inline uint32_t VrkFsSdtiCodeFromType(bool FormatSet, uint32_t Type) {
    if (!FormatSet || Type > VRKFS_SDTI_TYPE_LAST) {
        return VRKFS_SDTI_CODE_UNSET;
    }
    return Type == 0u ? VRKFS_SDTI_CODE_UNCOMPRESSED : Type + VRKFS_SDTI_CODE_BIAS;
}

/* ---- Body table: one node per field -------------------------------------------------------------------------- */

typedef struct BodyTableNode {
    uint16_t First;  /* sectors */
    uint16_t Second; /* sectors */
} BodyTableNode;

VRKFS_ASSERT_SIZE(BodyTableNode, 4);
VRKFS_ASSERT_OFFSET(BodyTableNode, First, 0);
VRKFS_ASSERT_OFFSET(BodyTableNode, Second, 2);

/* What recording and playback applications and the driver share in memory: a node with its field's place. Two per
 * frame, in the order of the table on disk. An application may fill them while the driver writes the table back. */
typedef struct VrkFsPlacedNode {
    uint32_t ScsiId; /* disk that holds the field */
    uint32_t Lba;    /* first sector of the field on that disk; 0: not recorded yet */
    BodyTableNode Node;
} VrkFsPlacedNode;

VRKFS_ASSERT_SIZE(VrkFsPlacedNode, 12);
VRKFS_ASSERT_OFFSET(VrkFsPlacedNode, Lba, 4);
VRKFS_ASSERT_OFFSET(VrkFsPlacedNode, Node, 8);

/* Length of a field in sectors, 0 to 131070; more than VRKFS_FIELD_MAX_SECTORS is to be refused. */
static inline uint32_t VrkFsBodyTableNodeSectors(BodyTableNode Node) {
    const uint32_t first = Node.First;
    return first + Node.Second;
}

/* Sectors and bytes of the body table of a stream with that many frames. 64 bits, so that no frame count wraps. */
static inline uint64_t VrkFsBodyTableSectors(uint32_t Frames) {
    const uint64_t frames = Frames;
    return (frames * VRKFS_FIELDS_PER_FRAME * sizeof(BodyTableNode) + VRKFS_SECTOR_SIZE - 1u) / VRKFS_SECTOR_SIZE;
}

static inline uint64_t VrkFsBodyTableBytes(uint32_t Frames) {
    return VrkFsBodyTableSectors(Frames) * VRKFS_SECTOR_SIZE;
}

/* ---- Layout of the image ------------------------------------------------------------------------------------- */
/* All offsets are from the start of the image, in bytes. BodyTableBytes is B, VideoBytes V and AlphaBytes A.       */

#define VRKFS_MEDIA_APPLICATION_CHUNK_OFFSET 16u
#define VRKFS_MEDIA_APPLICATION_BLOCK_OFFSET 32u
#define VRKFS_MEDIA_VIDEO_PARAMETERS_OFFSET 288u
#define VRKFS_MEDIA_ALPHA_PARAMETERS_OFFSET 328u

/* Offset of the ChunkHeader of the video body table; the table follows its header. */
static inline uint32_t VrkFsMediaVideoBodyTableChunkOffset(bool HasAlpha) {
    return VRKFS_MEDIA_VIDEO_PARAMETERS_OFFSET + VRKFS_VIDEO_PARAMETERS_SIZE * (HasAlpha ? 2u : 1u);
}

static inline uint32_t VrkFsMediaVideoBodyTableOffset(bool HasAlpha) {
    return VrkFsMediaVideoBodyTableChunkOffset(HasAlpha) + VRKFS_CHUNK_HEADER_SIZE;
}

/* Offset of the ChunkHeader of the alpha body table, in an image with alpha. */
static inline uint64_t VrkFsMediaAlphaBodyTableChunkOffset(uint64_t BodyTableBytes) {
    return VrkFsMediaVideoBodyTableOffset(true) + BodyTableBytes;
}

static inline uint64_t VrkFsMediaAlphaBodyTableOffset(uint64_t BodyTableBytes) {
    return VrkFsMediaAlphaBodyTableChunkOffset(BodyTableBytes) + VRKFS_CHUNK_HEADER_SIZE;
}

/* H: B + 344, or 2B + 400 with alpha. It is also the offset of the video frame-data ChunkHeader. */
static inline uint64_t VrkFsMediaHeaderSize(uint64_t BodyTableBytes, bool HasAlpha) {
    return HasAlpha ? VrkFsMediaAlphaBodyTableOffset(BodyTableBytes) + BodyTableBytes
                    : VrkFsMediaVideoBodyTableOffset(false) + BodyTableBytes;
}

/* Size of the whole image: B + V + 360, or 2B + V + A + 432 with alpha. Sizes summed from body tables cannot wrap it.
 */
static inline uint64_t VrkFsMediaTotalSize(uint64_t BodyTableBytes, uint64_t VideoBytes, uint64_t AlphaBytes,
                                           bool HasAlpha) {
    const uint64_t videoEnd = VrkFsMediaHeaderSize(BodyTableBytes, HasAlpha) + VRKFS_CHUNK_HEADER_SIZE + VideoBytes;
    return HasAlpha ? videoEnd + VRKFS_CHUNK_HEADER_SIZE + AlphaBytes : videoEnd;
}

VRKFS_STATIC_ASSERT(VRKFS_MEDIA_APPLICATION_CHUNK_OFFSET == sizeof(MediaFileHeader), "chunks follow the file header");
VRKFS_STATIC_ASSERT(VRKFS_MEDIA_VIDEO_PARAMETERS_OFFSET ==
                        VRKFS_MEDIA_APPLICATION_CHUNK_OFFSET + VRKFS_APPLICATION_CHUNK_SIZE,
                    "the video parameters follow the application block");
VRKFS_STATIC_ASSERT(VRKFS_MEDIA_ALPHA_PARAMETERS_OFFSET ==
                        VRKFS_MEDIA_VIDEO_PARAMETERS_OFFSET + VRKFS_VIDEO_PARAMETERS_SIZE,
                    "the alpha parameters follow the video parameters");

/* ---- Interleaved order: position k of 4F, four per frame ------------------------------------------------------ */

static inline uint32_t VrkFsMediaInterleavedStream(uint64_t Position) {
    return Position / 2u % 2u == 0u ? VRKFS_STREAM_VIDEO : VRKFS_STREAM_ALPHA;
}

/* Index of the field within its stream. */
static inline uint64_t VrkFsMediaInterleavedField(uint64_t Position) {
    return Position / 4u * 2u + Position % 2u;
}

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VRKFS_MEDIA_H */
