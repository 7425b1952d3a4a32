#include "service/picture_file.h"

#include <algorithm>
#include <cstring>

#include "service/bmp.h"
#include "service/tga.h"

namespace service {
namespace {

constexpr std::size_t kMaxPixels = std::size_t{kWidth} * kMaxHeight;
constexpr std::size_t kMaxLinesBytes = std::size_t{kLineBytes} * kMaxHeight;  // whole sectors in both standards' fields

constexpr std::u16string_view kExtensions[kFileKinds] = {u"TGA", u"BMP", u"YUV", u"RAW"};

std::size_t RawBytes(const Frame& frame) {
    std::size_t bytes = 0;
    for (std::uint32_t stream = 0; stream < frame.Streams(); ++stream) {
        for (const Bytes& field : frame.fields[stream]) {
            bytes += field.size();
        }
    }
    return bytes;
}

bool FrameToRaw(const Frame& frame, Bytes& file, std::string& problem) {
    if (RawBytes(frame) > FileSize(FileKind::kRaw, frame.alpha)) {
        problem = "its fields are longer than a RAW file";
        return false;
    }
    for (std::uint32_t stream = 0; stream < frame.Streams(); ++stream) {
        for (const Bytes& field : frame.fields[stream]) {
            file.insert(file.end(), field.begin(), field.end());
        }
    }
    return true;
}

void RawToFrame(ByteView file, Frame& frame) {
    for (std::uint32_t stream = 0; stream < frame.Streams(); ++stream) {
        for (Bytes& field : frame.fields[stream]) {
            std::copy_n(file.begin(), field.size(), field.begin());
            file = file.subspan(field.size());
        }
    }
}

Outcome CheckPicture(FileKind kind, ByteView beginning, std::uint32_t height, Picture* picture, std::size_t& end,
                     std::string& problem) {
    return kind == FileKind::kTga ? ReadTga(beginning, height, picture, end, problem)
                                  : ReadBmp(beginning, height, picture, end, problem);
}

}  // namespace

bool IsWantedSize(std::int64_t width, std::int64_t height, std::uint32_t wanted, std::string& problem) {
    if (width == kWidth && height == wanted) {
        return true;
    }
    problem = "the picture has " + std::to_string(width) + " by " + std::to_string(height) + " pixels, the frame " +
              std::to_string(kWidth) + " by " + std::to_string(wanted);
    return false;
}

std::size_t FileSize(FileKind kind, bool alpha) {
    switch (kind) {
        case FileKind::kTga:
        case FileKind::kBmp:
            return HeaderSize(kind, alpha) + kMaxPixels * (alpha ? 4 : 3);
        case FileKind::kYuv:
        case FileKind::kRaw:
            break;
    }
    return kMaxLinesBytes * (alpha ? 2 : 1);
}

std::size_t HeaderSize(FileKind kind, bool alpha) {
    switch (kind) {
        case FileKind::kTga:
            return kTgaHeaderSize;
        case FileKind::kBmp:
            return BmpHeaderSize(alpha);
        case FileKind::kYuv:
        case FileKind::kRaw:
            break;
    }
    return 0;
}

std::array<VrkFsFileType, kFileKinds> FileTypes() {
    std::array<VrkFsFileType, kFileKinds> rows{};
    for (std::uint32_t index = 0; index < kFileKinds; ++index) {
        VrkFsFileType& row = rows[index];
        const FileKind kind{index + 1};
        row.TypeCode = index + 1;
        row.AccessMode = VRKFS_FILE_TYPE_FRAME_FOLDERS;
        kExtensions[index].copy(row.Extension, VRKFS_FILE_TYPE_EXTENSION_CHARS);
        row.Dot = VRKFS_FILE_TYPE_DOT;
        row.FrameSize = row.FrameSizeSdti1 = row.FrameSizeSdti12 = static_cast<std::uint32_t>(FileSize(kind, false));
        row.FrameSizeWithAlpha = row.FrameSizeSdti1WithAlpha = row.FrameSizeSdti12WithAlpha =
            static_cast<std::uint32_t>(FileSize(kind, true));
    }
    return rows;
}

bool FrameToFile(FileKind kind, const Frame& frame, Bytes& file, std::string& problem, std::string& note) {
    file.clear();
    file.reserve(FileSize(kind, frame.alpha));
    bool made = false;
    if (kind == FileKind::kRaw) {
        made = FrameToRaw(frame, file, problem);
    } else if (kind == FileKind::kYuv) {
        made = FrameToLines(frame, file, problem, note);
    } else {
        Picture picture;
        made = FrameToPicture(frame, picture, problem, note);
        if (made) {
            kind == FileKind::kTga ? WriteTga(picture, file) : WriteBmp(picture, FileSize(kind, frame.alpha), file);
        }
    }
    file.resize(FileSize(kind, frame.alpha));
    return made;
}

Outcome CheckFile(FileKind kind, ByteView beginning, const Frame& frame, std::size_t& end, std::string& problem) {
    if (kind == FileKind::kTga || kind == FileKind::kBmp) {
        return CheckPicture(kind, beginning, frame.Height(), nullptr, end, problem);
    }
    end = kind == FileKind::kRaw ? RawBytes(frame) : std::size_t{frame.Height()} * kLineBytes * frame.Streams();
    return beginning.size() >= end ? Outcome::kDone : Outcome::kMore;
}

bool FileToFrame(FileKind kind, ByteView file, Frame& frame, std::string& problem) {
    std::size_t end = 0;
    const Outcome checked = CheckFile(kind, file, frame, end, problem);
    if (checked != Outcome::kDone) {
        problem = checked == Outcome::kMore ? "the file is too short" : problem;
        return false;
    }
    if (kind == FileKind::kRaw) {
        RawToFrame(file, frame);
        return true;
    }
    if (kind == FileKind::kYuv) {
        return LinesToFrame(file, frame, problem);
    }
    Picture picture;
    return CheckPicture(kind, file, frame.Height(), &picture, end, problem) == Outcome::kDone &&
           PictureToFrame(picture, frame, problem);
}

}  // namespace service
