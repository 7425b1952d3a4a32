#include "service/frame.h"

#include <algorithm>
#include <cstring>

#include "service/jpeg.h"

namespace service {
namespace {

std::string NameOf(std::uint32_t stream, std::uint32_t field) {
    return std::string("the ") + (field == 0 ? "first " : "second ") +
           (stream == VRKFS_STREAM_ALPHA ? "alpha field" : "field");
}

std::uint32_t ChannelsOf(std::uint32_t stream) {
    return stream == VRKFS_STREAM_ALPHA ? 1 : 3;
}

bool Decode(const Frame& frame, std::uint32_t stream, std::uint32_t field, JpegImage& image, std::string& problem,
            std::string& note) {
    std::string why;
    if (!DecodeJpeg(frame.fields[stream][field], frame.FieldLines(), ChannelsOf(stream), image, why)) {
        problem = NameOf(stream, field) + " is a JPEG image that cannot be shown: " + why;
        return false;
    }
    if (image.damaged) {
        note = NameOf(stream, field) + " is a damaged JPEG image: " + why;
    }
    return true;
}

// ---- A JPEG image's rows and a picture's ----

void RowToPicture(const std::uint8_t* row, std::uint32_t stream, std::uint8_t* pixels, std::uint32_t step) {
    for (std::uint32_t pixel = 0; pixel < kWidth; ++pixel, pixels += step) {
        if (stream == VRKFS_STREAM_ALPHA) {
            pixels[3] = row[pixel];
        } else {
            std::memcpy(pixels, row + 3 * pixel, 3);
        }
    }
}

bool PictureToRow(const std::uint8_t* pixels, std::uint32_t step, std::uint32_t stream, std::uint8_t* row) {
    bool changed = false;
    for (std::uint32_t pixel = 0; pixel < kWidth; ++pixel, pixels += step) {
        const std::uint32_t channels = ChannelsOf(stream);
        const std::uint8_t* const wanted = stream == VRKFS_STREAM_ALPHA ? pixels + 3 : pixels;
        changed = changed || std::memcmp(row + channels * pixel, wanted, channels) != 0;
        std::memcpy(row + channels * pixel, wanted, channels);
    }
    return changed;
}

bool Encode(const JpegImage& image, std::uint32_t stream, std::uint32_t field, Bytes& place, std::string& problem) {
    if (EncodeJpeg(image, place)) {
        return true;
    }
    problem = NameOf(stream, field) + " has no room for the picture as a JPEG image";
    return false;
}

// What a field holds; `image` is the one it holds as JPEG. False: nothing that can be read.
bool ReadField(const Frame& frame, std::uint32_t stream, std::uint32_t field, FieldContent& content, JpegImage& image,
               std::string& problem, std::string& note) {
    content = ContentOf(frame, stream, field);
    if (content == FieldContent::kUnknown) {
        problem = NameOf(stream, field) + " is neither lines of 4:2:2 nor a JPEG image";
        return false;
    }
    return content != FieldContent::kJpeg || Decode(frame, stream, field, image, problem, note);
}

// ---- Fields and a picture ----

bool FieldToPicture(const Frame& frame, std::uint32_t stream, std::uint32_t field, Picture& picture,
                    std::string& problem, std::string& note) {
    const Bytes& bytes = frame.fields[stream][field];
    JpegImage image;
    FieldContent content{};
    if (!ReadField(frame, stream, field, content, image, problem, note)) {
        return false;
    }
    for (std::uint32_t line = 0; line < frame.FieldLines(); ++line) {
        std::uint8_t* const row = picture.Row(frame.LineOf(field, line));
        if (content == FieldContent::kJpeg) {
            RowToPicture(image.Row(line), stream, row, picture.step);
        } else if (stream == VRKFS_STREAM_ALPHA) {
            KeyToPicture(bytes.data() + line * kLineBytes, row);
        } else {
            LineToPicture(bytes.data() + line * kLineBytes, row, picture.step);
        }
    }
    return true;
}

bool PictureToJpegField(const Picture& picture, JpegImage& image, Frame& frame, std::uint32_t stream,
                        std::uint32_t field, std::string& problem) {
    bool changed = false;
    for (std::uint32_t line = 0; line < image.height; ++line) {
        changed |= PictureToRow(picture.Row(frame.LineOf(field, line)), picture.step, stream, image.Row(line));
    }
    return !changed || Encode(image, stream, field, frame.fields[stream][field], problem);
}

bool PictureToField(const Picture& picture, Frame& frame, std::uint32_t stream, std::uint32_t field,
                    std::string& problem) {
    JpegImage image;
    std::string note;
    FieldContent content{};
    if (!ReadField(frame, stream, field, content, image, problem, note)) {
        return false;
    }
    if (content == FieldContent::kJpeg) {
        return PictureToJpegField(picture, image, frame, stream, field, problem);
    }
    for (std::uint32_t line = 0; line < frame.FieldLines(); ++line) {
        const std::uint8_t* const row = picture.Row(frame.LineOf(field, line));
        std::uint8_t* const place = frame.fields[stream][field].data() + line * kLineBytes;
        stream == VRKFS_STREAM_ALPHA ? PictureToKey(row, place) : PictureToLine(row, picture.step, place);
    }
    return true;
}

// ---- A JPEG image and lines ----

constexpr std::uint8_t kBlackPair[4] = {128, 16, 128, 16};

void FillBlack(std::uint8_t* line) {
    for (std::uint32_t at = 0; at < kLineBytes; at += sizeof(kBlackPair)) {
        std::memcpy(line + at, kBlackPair, sizeof(kBlackPair));
    }
}

void RowToLine(const std::uint8_t* row, std::uint32_t stream, std::uint8_t* line) {
    FillBlack(line);
    if (stream == VRKFS_STREAM_VIDEO) {
        PictureToLine(row, 3, line);
        return;
    }
    for (std::uint32_t pixel = 0; pixel < kWidth; ++pixel) {
        line[2 * pixel + 1] = colour::LumaOfAlpha(row[pixel]);
    }
}

void LineToRow(const std::uint8_t* line, std::uint32_t stream, std::uint8_t* row) {
    if (stream == VRKFS_STREAM_VIDEO) {
        LineToPicture(line, row, 3);
        return;
    }
    for (std::uint32_t pixel = 0; pixel < kWidth; ++pixel) {
        row[pixel] = colour::AlphaOf(line[2 * pixel + 1]);
    }
}

bool FieldToLines(const Frame& frame, std::uint32_t stream, std::uint32_t field, std::uint8_t* lines,
                  std::string& problem, std::string& note) {
    JpegImage image;
    FieldContent content{};
    if (!ReadField(frame, stream, field, content, image, problem, note)) {
        return false;
    }
    for (std::uint32_t line = 0; line < frame.FieldLines(); ++line) {
        std::uint8_t* const place = lines + std::size_t{frame.LineOf(field, line)} * kLineBytes;
        if (content == FieldContent::kJpeg) {
            RowToLine(image.Row(line), stream, place);
        } else {
            std::memcpy(place, frame.fields[stream][field].data() + line * kLineBytes, kLineBytes);
        }
    }
    return true;
}

bool LinesToField(const std::uint8_t* lines, Frame& frame, std::uint32_t stream, std::uint32_t field,
                  std::string& problem) {
    Bytes& bytes = frame.fields[stream][field];
    JpegImage image;
    std::string note;
    FieldContent content{};
    if (!ReadField(frame, stream, field, content, image, problem, note)) {
        return false;
    }
    const std::uint32_t rows = content == FieldContent::kJpeg ? image.height : frame.FieldLines();
    bool changed = false;
    Bytes before(kLineBytes);
    for (std::uint32_t line = 0; line < rows; ++line) {
        const std::uint8_t* const wanted = lines + std::size_t{frame.LineOf(field, line)} * kLineBytes;
        if (content == FieldContent::kLines) {
            std::memcpy(bytes.data() + line * kLineBytes, wanted, kLineBytes);
            continue;
        }
        RowToLine(image.Row(line), stream, before.data());
        if (std::memcmp(before.data(), wanted, kLineBytes) != 0) {
            LineToRow(wanted, stream, image.Row(line));
            changed = true;
        }
    }
    return !changed || Encode(image, stream, field, bytes, problem);
}

}  // namespace

FieldContent ContentOf(const Frame& frame, std::uint32_t stream, std::uint32_t field) {
    const Bytes& bytes = frame.fields[stream][field];
    if (IsJpeg(bytes)) {
        return FieldContent::kJpeg;
    }
    return bytes.size() >= frame.PictureBytes() ? FieldContent::kLines : FieldContent::kUnknown;
}

bool FrameToPicture(const Frame& frame, Picture& picture, std::string& problem, std::string& note) {
    picture = Picture(frame.Height(), frame.alpha ? 4 : 3);
    for (std::uint32_t stream = 0; stream < frame.Streams(); ++stream) {
        for (std::uint32_t field = 0; field < kFields; ++field) {
            if (!FieldToPicture(frame, stream, field, picture, problem, note)) {
                return false;
            }
        }
    }
    return true;
}

bool PictureToFrame(const Picture& picture, Frame& frame, std::string& problem) {
    const std::uint32_t streams = picture.step == 4 ? frame.Streams() : 1;
    for (std::uint32_t stream = 0; stream < streams; ++stream) {
        for (std::uint32_t field = 0; field < kFields; ++field) {
            if (!PictureToField(picture, frame, stream, field, problem)) {
                return false;
            }
        }
    }
    return true;
}

bool FrameToLines(const Frame& frame, Bytes& lines, std::string& problem, std::string& note) {
    const std::size_t bytes = std::size_t{frame.Height()} * kLineBytes;
    lines.resize(bytes * frame.Streams());
    for (std::uint32_t stream = 0; stream < frame.Streams(); ++stream) {
        for (std::uint32_t field = 0; field < kFields; ++field) {
            if (!FieldToLines(frame, stream, field, lines.data() + stream * bytes, problem, note)) {
                return false;
            }
        }
    }
    return true;
}

bool LinesToFrame(ByteView lines, Frame& frame, std::string& problem) {
    const std::size_t bytes = std::size_t{frame.Height()} * kLineBytes;
    for (std::uint32_t stream = 0; stream < frame.Streams(); ++stream) {
        for (std::uint32_t field = 0; field < kFields; ++field) {
            if (!LinesToField(lines.data() + stream * bytes, frame, stream, field, problem)) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace service
