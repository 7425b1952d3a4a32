// What the cases of the service know without it: frames as `vrkfs clip make` draws them, and what picture those are.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "service/picture_file.h"
#include "tests/support/machine_fixture.h"
#include "tool/clip/content.h"

namespace tests {

inline clip::ClipRecipe BarsRecipe(std::uint32_t standard, bool alpha, std::uint32_t frames = 10) {
    return {.standard = standard, .frames = frames, .alpha = alpha, .seed = 17};
}

inline service::Frame BarsFrame(const clip::ClipRecipe& recipe, std::uint32_t index) {
    const clip::ClipContent content(recipe);
    service::Frame frame;
    frame.standard = recipe.standard;
    frame.alpha = recipe.alpha;
    for (std::uint32_t stream = 0; stream < frame.Streams(); ++stream) {
        for (std::uint32_t field = 0; field < 2; ++field) {
            service::Bytes& bytes = frame.fields[stream][field];
            bytes.resize(std::size_t{content.FieldSectors(stream, 2 * index + field)} * VRKFS_SECTOR_SIZE);
            content.FillField(stream, 2 * index + field, std::as_writable_bytes(std::span(bytes)));
        }
    }
    return frame;
}

inline service::Bytes FileOf(service::FileKind kind, const service::Frame& frame) {
    service::Bytes file;
    std::string problem;
    std::string note;
    EXPECT_TRUE(service::FrameToFile(kind, frame, file, problem, note)) << problem;
    EXPECT_EQ(note, "");
    EXPECT_EQ(file.size(), service::FileSize(kind, frame.alpha));
    return file;
}

// A binary PPM or PGM: its samples; `channels` is 3 or 1.
struct NetPicture {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::uint32_t channels = 0;
    std::string samples;
};

inline NetPicture ReadNetPicture(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::string magic;
    std::uint32_t maximum = 0;
    NetPicture picture;
    in >> magic >> picture.width >> picture.height >> maximum;
    in.get();
    picture.channels = magic == "P6" ? 3 : magic == "P5" ? 1 : 0;
    EXPECT_EQ(maximum, 255u);
    picture.samples.assign(std::istreambuf_iterator<char>(in), {});
    return picture;
}

// By the recommendation's own formulas, in floating point.
inline NetPicture ExpectedPicture(const service::Frame& frame, bool ofAlpha) {
    NetPicture picture{720, frame.Height(), ofAlpha ? 1u : 3u, {}};
    for (std::uint32_t row = 0; row < picture.height; ++row) {
        const bool evenLinesFirst = frame.standard == 625;
        const std::uint32_t field = row % 2 == (evenLinesFirst ? 0u : 1u) ? 0 : 1;
        const std::uint8_t* const line = frame.fields[ofAlpha ? 1 : 0][field].data() + std::size_t{row / 2} * 1440;
        for (std::uint32_t x = 0; x < 720; ++x) {
            const double y = (line[2 * x + 1] - 16) / 219.0;
            const double u = (line[x / 2 * 4] - 128) / 224.0;
            const double v = (line[x / 2 * 4 + 2] - 128) / 224.0;
            const double r = y + 2 * (1 - 0.299) * v;
            const double b = y + 2 * (1 - 0.114) * u;
            const double g = (y - 0.299 * r - 0.114 * b) / 0.587;
            for (const double sample : ofAlpha ? std::vector{y} : std::vector{r, g, b}) {
                picture.samples += static_cast<char>(std::lround(std::clamp(sample, 0.0, 1.0) * 255));
            }
        }
    }
    return picture;
}

// What an independent reader makes of a picture file.
inline void ExpectShows(const service::Bytes& file, service::FileKind kind, const service::Frame& frame) {
    const TemporaryDirectory directory;
    const std::string from = (directory.Path() / "file").string();
    const std::string to = (directory.Path() / "picture").string();
    std::ofstream(from, std::ios::binary).write(reinterpret_cast<const char*>(file.data()), std::ssize(file));
    const bool tga = kind == service::FileKind::kTga;
    for (const bool ofAlpha : {false, true}) {
        if (ofAlpha && !(frame.alpha && tga)) {
            continue;
        }
        const std::string reader = !tga      ? "bmptopnm -quiet "
                                   : ofAlpha ? "tgatoppm -quiet -alphaout=- "
                                             : "tgatoppm -quiet ";
        ASSERT_EQ(std::system((reader + from + " > " + to).c_str()), 0);
        const NetPicture seen = ReadNetPicture(to);
        const NetPicture expected = ExpectedPicture(frame, ofAlpha);
        EXPECT_EQ(seen.width, expected.width);
        EXPECT_EQ(seen.height, expected.height);
        EXPECT_EQ(seen.channels, expected.channels);
        EXPECT_TRUE(seen.samples == expected.samples) << reader;
    }
}

}  // namespace tests
