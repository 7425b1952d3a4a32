// Frames as files and back, without any station.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

#include <jpeglib.h>

#include "service/jpeg.h"
#include "tests/service/frames.h"

namespace tests {
namespace {

using service::Bytes;
using service::ByteView;
using service::FileKind;
using service::Frame;
using service::Outcome;

constexpr FileKind kAllKinds[] = {FileKind::kTga, FileKind::kBmp, FileKind::kYuv, FileKind::kRaw};

bool SameFields(const Frame& one, const Frame& other) {
    return one.fields[0][0] == other.fields[0][0] && one.fields[0][1] == other.fields[0][1] &&
           one.fields[1][0] == other.fields[1][0] && one.fields[1][1] == other.fields[1][1];
}

// Puts a file's picture into the frame; empty, or why that cannot be.
std::string Take(FileKind kind, const Bytes& file, Frame& frame) {
    std::string problem;
    const bool taken = service::FileToFrame(kind, file, frame, problem);
    EXPECT_EQ(taken, problem.empty());
    return problem;
}

TEST(Pictures, AnIndependentReaderSeesWhatWasDrawn) {
    for (const std::uint32_t standard : {525u, 625u}) {
        for (const bool alpha : {false, true}) {
            const Frame frame = BarsFrame(BarsRecipe(standard, alpha), 7);
            for (const FileKind kind : {FileKind::kTga, FileKind::kBmp}) {
                SCOPED_TRACE(std::to_string(standard) + (alpha ? " alpha" : "") +
                             (kind == FileKind::kTga ? " T" : " B"));
                ExpectShows(FileOf(kind, frame), kind, frame);
            }
        }
    }
}

TEST(Pictures, WritingBackWhatWasReadChangesNothing) {
    for (const FileKind kind : kAllKinds) {
        for (const std::uint32_t standard : {525u, 625u}) {
            Frame frame = BarsFrame(BarsRecipe(standard, true), 0);
            std::minstd_rand draw(standard);
            for (Bytes* const field :
                 {&frame.fields[0][0], &frame.fields[0][1], &frame.fields[1][0], &frame.fields[1][1]}) {
                std::ranges::generate(*field, [&] { return static_cast<std::uint8_t>(draw() >> 8); });
                field->front() = 0x80;  // not a JPEG image by chance
            }
            const Frame before = frame;
            EXPECT_EQ(Take(kind, FileOf(kind, frame), frame), "");
            EXPECT_TRUE(SameFields(frame, before)) << static_cast<int>(kind) << ", " << standard;
        }
    }
}

// A red square of 16 by 8 pixels at (100, 50), on the pairs and lines that it covers and no others.
TEST(Pictures, OnlyWhatIsPaintedChanges) {
    Frame frame = BarsFrame(BarsRecipe(625, false), 3);
    const Frame before = frame;
    Bytes file = FileOf(FileKind::kTga, frame);
    for (std::uint32_t row = 50; row < 58; ++row) {
        for (std::uint32_t x = 100; x < 116; ++x) {
            std::memcpy(&file[18 + ((575 - row) * 720 + x) * 3], "\0\0\xFF", 3);
        }
    }
    EXPECT_EQ(Take(FileKind::kTga, file, frame), "");
    for (std::uint32_t row = 0; row < 576; ++row) {
        const std::size_t line = std::size_t{row / 2} * 1440;
        for (std::uint32_t pair = 0; pair < 360; ++pair) {
            const std::uint8_t* const now = &frame.fields[0][row % 2][line + pair * 4];
            const bool painted = row >= 50 && row < 58 && pair >= 50 && pair < 58;
            const std::uint8_t red[] = {90, 81, 240, 81};
            ASSERT_EQ(std::memcmp(now, painted ? red : &before.fields[0][row % 2][line + pair * 4], 4), 0) << row;
        }
    }
    const NetPicture shown = ExpectedPicture(frame, false);
    EXPECT_EQ(shown.samples.substr((52 * 720 + 104) * 3, 3), std::string("\xFE\0\0", 3));
}

TEST(Pictures, ColoursComeBackNearly) {
    for (int r = 0; r < 256; r += 15) {
        for (int g = 0; g < 256; g += 15) {
            for (int b = 0; b < 256; b += 15) {
                const service::colour::Bgr pixel{static_cast<std::uint8_t>(b), static_cast<std::uint8_t>(g),
                                                 static_cast<std::uint8_t>(r)};
                const service::colour::Chroma chroma(service::colour::UOf(2 * r, 2 * g, 2 * b),
                                                     service::colour::VOf(2 * r, 2 * g, 2 * b));
                const auto back = service::colour::ToBgr(service::colour::LumaOf(pixel), chroma);
                EXPECT_LE(std::max({std::abs(back.r - r), std::abs(back.g - g), std::abs(back.b - b)}), 3);
                if (r == g && g == b) {
                    EXPECT_TRUE(back.r == back.g && back.g == back.b) << r;
                }
            }
        }
    }
}

// ---- Files from other programs ----

// From the top, with a comment and without alpha; in runs; a bitmap from the top.
TEST(Pictures, TakesTheUsualVariants) {
    const Frame frame = BarsFrame(BarsRecipe(525, true), 2);
    const Bytes plain = FileOf(FileKind::kTga, frame);
    Bytes noAlpha(plain.begin(), plain.begin() + 18);
    noAlpha[0] = 5;
    noAlpha[16] = 24;
    noAlpha[17] = 0x20;
    noAlpha.resize(18 + 5);
    Bytes packed(plain.begin(), plain.begin() + 18);
    packed[2] = 10;
    Bytes downward = FileOf(FileKind::kBmp, frame);
    const std::int32_t height = -486;
    std::memcpy(&downward[22], &height, 4);
    for (std::uint32_t row = 0; row < 486; ++row) {
        const std::uint8_t* const upward = &plain[18 + (485 - row) * 2880];
        std::memcpy(&downward[122 + row * 2880], upward, 2880);
        for (std::uint32_t x = 0; x < 720; ++x) {
            noAlpha.insert(noAlpha.end(), upward + 4 * x, upward + 4 * x + 3);
        }
        const std::uint8_t* const pixels = &plain[18 + row * 2880];
        for (std::uint32_t x = 0, count = 0; x < 720; x += count) {  // runs where there are some, else a pixel as it is
            for (count = 1;
                 count < 128 && x + count < 720 && std::memcmp(pixels + 4 * x, pixels + 4 * (x + count), 4) == 0;) {
                ++count;
            }
            packed.push_back(static_cast<std::uint8_t>(count > 1 ? 0x80 | (count - 1) : 0));
            packed.insert(packed.end(), pixels + 4 * x, pixels + 4 * x + 4);
        }
    }
    const struct {
        FileKind kind;
        const Bytes& file;
        bool alpha;
    } files[] = {{FileKind::kTga, noAlpha, false}, {FileKind::kTga, packed, true}, {FileKind::kBmp, downward, true}};
    for (const auto& each : files) {
        Frame other = BarsFrame(BarsRecipe(525, true), 9);
        const Frame before = other;
        std::string problem;
        std::size_t end = 0;
        EXPECT_EQ(service::CheckFile(each.kind, each.file, frame, end, problem), Outcome::kDone) << problem;
        EXPECT_EQ(service::CheckFile(each.kind, ByteView(each.file).first(end - 1), frame, end, problem),
                  Outcome::kMore);
        EXPECT_EQ(Take(each.kind, each.file, other), "");
        EXPECT_TRUE(FileOf(FileKind::kTga, other) == plain || !each.alpha);
        EXPECT_TRUE(other.fields[0][1] == frame.fields[0][1]);
        EXPECT_TRUE(other.fields[1][0] == (each.alpha ? frame : before).fields[1][0]);
    }
}

TEST(Pictures, RefusesHeadersOfOtherThings) {
    const Frame frame = BarsFrame(BarsRecipe(625, false), 0);
    const struct {
        FileKind kind;
        std::size_t at;
        std::vector<std::uint8_t> bytes;
        Outcome outcome;
    } cases[] = {
        {FileKind::kTga, 1, {1}, Outcome::kRefused},                        // a colour map
        {FileKind::kTga, 2, {3}, Outcome::kRefused},                        // grey
        {FileKind::kTga, 12, {0xFF, 0xFF}, Outcome::kRefused},              // wide
        {FileKind::kTga, 14, {0, 0}, Outcome::kRefused},                    // without height
        {FileKind::kTga, 14, {0xE6, 0x01}, Outcome::kRefused},              // of the other standard
        {FileKind::kTga, 16, {16}, Outcome::kRefused},                      //
        {FileKind::kTga, 17, {0x10}, Outcome::kRefused},                    // from the right
        {FileKind::kBmp, 0, {'P', 'N'}, Outcome::kRefused},                 //
        {FileKind::kBmp, 10, {0xFF, 0xFF, 0xFF, 0xFF}, Outcome::kRefused},  // pixels past any file
        {FileKind::kBmp, 10, {13, 0, 0, 0}, Outcome::kRefused},             // pixels inside the header
        {FileKind::kBmp, 14, {0xFF, 0xFF, 0xFF, 0xFF}, Outcome::kRefused},  // a header past any file
        {FileKind::kBmp, 18, {0, 0, 0, 0x80}, Outcome::kRefused},           // width
        {FileKind::kBmp, 22, {0, 0, 0, 0x80}, Outcome::kRefused},           // height that has no opposite
        {FileKind::kBmp, 28, {8}, Outcome::kRefused},                       //
        {FileKind::kBmp, 30, {1}, Outcome::kRefused},                       // run lengths
        {FileKind::kBmp, 30, {3}, Outcome::kRefused},                       // masks with 24 bits
        {FileKind::kBmp, 10, {0, 0xFF, 0, 0}, Outcome::kMore},              // pixels far behind, but not there
        {FileKind::kTga, 0, {0xFF}, Outcome::kDone},                        // a comment into the pixels
    };
    for (const auto& each : cases) {
        Bytes file = FileOf(each.kind, frame);
        file.resize(file.size() + (each.outcome == Outcome::kDone ? 255 : 0));
        std::ranges::copy(each.bytes, file.begin() + static_cast<std::ptrdiff_t>(each.at));
        std::size_t end = 0;
        std::string problem;
        EXPECT_EQ(service::CheckFile(each.kind, file, frame, end, problem), each.outcome) << each.at;
        EXPECT_EQ(problem.empty(), each.outcome != Outcome::kRefused) << each.at;
        Frame changed = frame;
        EXPECT_EQ(Take(each.kind, file, changed).empty(), each.outcome == Outcome::kDone) << each.at;
    }
}

// ---- JPEG fields ----

Frame JpegFrame(std::uint32_t room) {
    const Frame bars = BarsFrame(BarsRecipe(625, true), 4);
    service::Picture picture;
    std::string problem;
    std::string note;
    EXPECT_TRUE(service::FrameToPicture(bars, picture, problem, note));
    Frame frame = bars;
    for (std::uint32_t stream = 0; stream < 2; ++stream) {
        for (std::uint32_t field = 0; field < 2; ++field) {
            service::JpegImage image;
            image.height = 288;
            image.channels = stream == 0 ? 3 : 1;
            for (std::uint32_t row = field; row < 576; row += 2) {
                for (std::uint32_t x = 0; x < 720; ++x) {
                    const std::uint8_t* const pixel = picture.Row(row) + 4 * x;
                    image.pixels.insert(image.pixels.end(), pixel + (stream == 0 ? 0 : 3),
                                        pixel + (stream == 0 ? 3 : 4));
                }
            }
            frame.fields[stream][field].assign(std::size_t{room} * 512, 0xEE);
            EXPECT_TRUE(service::EncodeJpeg(image, frame.fields[stream][field]));
        }
    }
    return frame;
}

double Distance(const Bytes& one, const Bytes& other) {
    double sum = 0;
    for (std::size_t at = 0; at < one.size(); ++at) {
        sum += std::abs(one[at] - other[at]);
    }
    return sum / static_cast<double>(one.size());
}

TEST(Pictures, JpegFieldsAreShownAndMadeAnew) {
    Frame frame = JpegFrame(100);
    const Frame before = frame;
    const Frame bars = BarsFrame(BarsRecipe(625, true), 4);
    EXPECT_LT(Distance(FileOf(FileKind::kTga, frame), FileOf(FileKind::kTga, bars)), 1.0);
    EXPECT_LT(Distance(FileOf(FileKind::kYuv, frame), FileOf(FileKind::kYuv, bars)), 1.0);

    for (const FileKind kind : kAllKinds) {
        EXPECT_EQ(Take(kind, FileOf(kind, frame), frame), "");
        EXPECT_TRUE(SameFields(frame, before)) << static_cast<int>(kind);
    }
    Bytes file = FileOf(FileKind::kTga, frame);
    for (std::uint32_t row = 100; row < 200; row += 2) {  // lines of the first field
        for (std::uint32_t x = 100; x < 200; ++x) {
            std::memcpy(&file[18 + ((575 - row) * 720 + x) * 4], "\x10\xC0\x40", 3);
        }
    }
    EXPECT_EQ(Take(FileKind::kTga, file, frame), "");
    EXPECT_FALSE(frame.fields[0][0] == before.fields[0][0]);
    EXPECT_TRUE(frame.fields[0][1] == before.fields[0][1]);
    EXPECT_TRUE(frame.fields[1][0] == before.fields[1][0]);
    EXPECT_TRUE(service::IsJpeg(frame.fields[0][0]));
    EXPECT_LT(Distance(FileOf(FileKind::kTga, frame), file), 1.0);

    // Noise does not fit into a place for bars, and is told so.
    std::minstd_rand draw(1);
    std::generate(file.begin() + 18, file.end(), [&] { return static_cast<std::uint8_t>(draw() >> 8); });
    Frame full = before;
    const std::string problem = Take(FileKind::kTga, file, full);
    EXPECT_NE(problem.find("no room"), std::string::npos) << problem;
}

// A grey image of a field's size.
Bytes Progressive() {
    jpeg_compress_struct codec;
    jpeg_error_mgr errors;
    codec.err = jpeg_std_error(&errors);
    jpeg_create_compress(&codec);
    unsigned char* made = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&codec, &made, &size);
    codec.image_width = 720;
    codec.image_height = 288;
    codec.input_components = 1;
    codec.in_color_space = JCS_GRAYSCALE;
    jpeg_set_defaults(&codec);
    jpeg_simple_progression(&codec);
    jpeg_start_compress(&codec, TRUE);
    for (int line = 0; line < 288; ++line) {
        Bytes row(720, static_cast<std::uint8_t>(line));
        JSAMPROW rows = row.data();
        jpeg_write_scanlines(&codec, &rows, 1);
    }
    jpeg_finish_compress(&codec);
    Bytes image(made, made + size);
    jpeg_destroy_compress(&codec);
    std::free(made);
    return image;
}

TEST(Pictures, HostileFieldsAreToldApart) {
    const Frame good = JpegFrame(100);
    const std::size_t used = 100 * 512;
    std::minstd_rand draw(7);
    int shown = 0;
    int damaged = 0;
    int refused = 0;
    for (int round = 0; round < 120; ++round) {
        Frame frame = good;
        Bytes& field = frame.fields[round % 4 / 2][round % 2];
        if (round % 3 == 0) {
            field.resize(draw() % used + 4);
        }
        for (int change = 0; change < (round % 3 == 0 ? 0 : 1 + round % 7); ++change) {
            field[2 + draw() % (round % 5 == 0 ? used - 2 : 700)] = static_cast<std::uint8_t>(draw() >> 8);
        }
        Bytes file;
        std::string problem;
        std::string note;
        const bool made = service::FrameToFile(FileKind::kTga, frame, file, problem, note);
        shown += made ? 1 : 0;
        damaged += made && !note.empty() ? 1 : 0;
        refused += made ? 0 : 1;
        EXPECT_NE(made, !problem.empty());
        if (made && round % 4 == 0) {
            std::fill_n(file.begin() + 18 + 400'000, 3000, std::uint8_t{0x55});
            (void)Take(FileKind::kTga, file, frame);
        }
    }
    EXPECT_GT(shown, 10);
    EXPECT_GT(damaged, 10);
    EXPECT_GT(refused, 10);

    // A progressive image whose last scan comes again and again: little to read, and no end of work.
    Frame endless = good;
    Bytes image = Progressive();
    const std::uint8_t mark[] = {0xFF, 0xDA};
    const Bytes again(std::find_end(image.begin(), image.end(), std::begin(mark), std::end(mark)), image.end() - 2);
    for (int copy = 0; copy < 3000; ++copy) {
        image.insert(image.end() - 2, again.begin(), again.end());
    }
    endless.fields[0][0] = image;
    Bytes file;
    std::string problem;
    std::string note;
    EXPECT_FALSE(service::FrameToFile(FileKind::kTga, endless, file, problem, note));
    EXPECT_NE(problem.find("too many scans"), std::string::npos) << problem;

    Frame frame = BarsFrame(BarsRecipe(525, false), 0);
    frame.fields[0][1].resize(243 * 1440 / 512 * 512);  // ends before its last line does
    EXPECT_FALSE(service::FrameToFile(FileKind::kTga, frame, file, problem, note));
    EXPECT_EQ(problem, "the second field is neither lines of 4:2:2 nor a JPEG image");
    EXPECT_TRUE(service::FrameToFile(FileKind::kRaw, frame, file, problem, note));
}

}  // namespace
}  // namespace tests
