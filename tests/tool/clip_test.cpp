// The clip generator and its checker: what is made is right in every mix of options, what is damaged is found where it
// was damaged, and no header, however hostile, does more than earn its one line.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vrkfs/media.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "tool/clip/content.h"
#include "tool/clip/crc32.h"
#include "tool/clip/verifier.h"
#include "tool/clip/writer.h"

namespace {

using clip::ClipKind;
using clip::ClipRecipe;
using clip::ClipVerdict;
using Image = std::vector<std::byte>;
using testing::HasSubstr;

constexpr size_t kSector = 512;

ClipRecipe Tagged(uint32_t frames, uint32_t shortest, uint32_t longest, uint64_t seed = 1) {
    return {.kind = ClipKind::Tagged, .frames = frames, .minSectors = shortest, .maxSectors = longest, .seed = seed};
}

ClipRecipe WithAlpha(ClipRecipe recipe, bool interleave) {
    recipe.alpha = true;
    recipe.interleave = interleave;
    return recipe;
}

// A pipe does not know its size and cannot go back: the reader must never ask it to.
clip::ClipSource Source(const Image& image, bool asPipe) {
    clip::ClipSource source;
    auto next = std::make_shared<uint64_t>(0);
    source.read = [&image, asPipe, next](uint64_t offset, std::span<std::byte> buffer) -> size_t {
        if (asPipe) {
            EXPECT_EQ(offset, *next);
        }
        const size_t there = offset < image.size() ? image.size() - offset : 0;
        const size_t count = std::min(buffer.size(), there);
        std::copy_n(image.data() + std::min<uint64_t>(offset, image.size()), count, buffer.data());
        *next = offset + count;
        return count;
    };
    if (!asPipe) {
        source.size = image.size();
    }
    return source;
}

ClipVerdict Verify(const Image& image, bool asPipe = false) {
    return clip::ClipVerifier(Source(image, asPipe)).Run();
}

std::string Line(const ClipVerdict& verdict) {
    return verdict.problem ? verdict.problem->Line() : "nothing wrong";
}

template <class Value>
Value Get(const Image& image, size_t offset) {
    Value value;
    std::memcpy(&value, image.data() + offset, sizeof(value));
    return value;
}

template <class Value>
void Put(Image& image, size_t offset, Value value) {
    std::memcpy(image.data() + offset, &value, sizeof(value));
}

// Where the pieces of an image lie, worked out here from plain numbers so that the code under test is not its own
// judge.
struct Anatomy {
    explicit Anatomy(const Image& image) {
        hasAlpha = Get<uint32_t>(image, 8) == 7;
        frames = Get<uint32_t>(image, 320);
        interleaved = hasAlpha && (Get<uint32_t>(image, 364) & 8) != 0;
        tableBytes = (frames * 8 + 511) / 512 * 512;
        tables[0] = hasAlpha ? 384 : 344;
        tables[1] = tables[0] + tableBytes + 16;
        data = hasAlpha ? 2 * tableBytes + 400 : tableBytes + 344;
    }

    [[nodiscard]] size_t Sectors(const Image& image, uint32_t stream, size_t field) const {
        return size_t{Get<uint16_t>(image, tables[stream] + field * 4)} +
               Get<uint16_t>(image, tables[stream] + field * 4 + 2);
    }

    // Calls with stream, field, offset and bytes of every field in the order of the image; returns the image's end.
    size_t ForEachField(const Image& image, const std::function<void(uint32_t, size_t, size_t, size_t)>& visit) const {
        const size_t turn = interleaved ? 2 : 2 * frames;  // so many fields of one stream, then of the next
        size_t at = data + 16;
        for (size_t first = 0; first < 2 * frames; first += turn) {
            for (uint32_t stream = 0; stream < (hasAlpha ? 2u : 1u); ++stream) {
                at += stream == 1 && !interleaved ? 16 : 0;
                for (size_t index = first; index < first + turn; ++index) {
                    const size_t bytes = Sectors(image, stream, index) * kSector;
                    visit(stream, index, at, bytes);
                    at += bytes;
                }
            }
        }
        return at + (interleaved ? 16 : 0);
    }

    // Bytes after the last node of a body table, which mean nothing.
    [[nodiscard]] bool IsPadding(size_t offset) const {
        const size_t table = hasAlpha && offset >= tables[1] ? tables[1] : tables[0];
        return offset >= table + frames * 8 && offset < table + tableBytes;
    }

    bool hasAlpha = false;
    bool interleaved = false;
    size_t frames = 0;
    size_t tableBytes = 0;
    size_t tables[2] = {};
    size_t data = 0;
};

// The image that a drive gives back for an interleaved one: video, then alpha, the flag gone.
Image ReadBack(const Image& written) {
    const Anatomy anatomy(written);
    Image streams[2];
    anatomy.ForEachField(written, [&](uint32_t stream, size_t, size_t offset, size_t bytes) {
        streams[stream].insert(streams[stream].end(), written.begin() + offset, written.begin() + offset + bytes);
    });
    Image image(written.begin(), written.begin() + anatomy.data);
    Put(image, 364, Get<uint32_t>(image, 364) & ~8u);
    for (uint32_t stream = 0; stream < 2; ++stream) {
        const size_t chunk = image.size();
        image.resize(chunk + 16);
        Put<uint64_t>(image, chunk, streams[stream].size() + 16);
        Put<uint32_t>(image, chunk + 8, 3);
        Put<uint32_t>(image, chunk + 12, stream);
        image.insert(image.end(), streams[stream].begin(), streams[stream].end());
    }
    return image;
}

TEST(ClipTest, WhatIsMadeIsRightInEveryMixOfOptions) {
    std::vector<ClipRecipe> kinds = {Tagged(7, 0, 5), Tagged(65, 0, 1, 99), Tagged(3, 0, 0), Tagged(1, 4, 4, ~0ull)};
    kinds.push_back({.frames = 3, .seed = 12345678901});
    for (ClipRecipe recipe : kinds) {
        for (const uint32_t standard : {525u, 625u}) {
            for (const int alpha : {0, 1, 2}) {
                recipe.standard = standard;
                recipe.alpha = alpha != 0;
                recipe.interleave = alpha == 2;
                SCOPED_TRACE(clip::DescribeRecipe(recipe));
                const Image image = clip::MakeClipImage(recipe);
                const Anatomy anatomy(image);
                EXPECT_EQ(Get<uint32_t>(image, 12), anatomy.data);
                EXPECT_EQ(anatomy.ForEachField(image, [](auto...) {}), image.size());
                for (const bool asPipe : {false, true}) {
                    const ClipVerdict verdict = Verify(image, asPipe);
                    EXPECT_TRUE(verdict.Right() && verdict.compared) << Line(verdict);
                    EXPECT_EQ(verdict.signature.recipe, recipe);
                }
                if (recipe.interleave) {
                    const Image back = ReadBack(image);
                    EXPECT_EQ(back.size(), image.size());
                    EXPECT_TRUE(Verify(back).Right()) << Line(Verify(back));
                }
            }
        }
    }
}

TEST(ClipTest, LimitsOfLength) {
    const Image empty = clip::MakeClipImage(Tagged(0, 1, 2));
    EXPECT_EQ(empty.size(), 360u);
    EXPECT_TRUE(Verify(empty).Right()) << Line(Verify(empty));
    const Image longest = clip::MakeClipImage(Tagged(1, 65535, 65535));
    EXPECT_EQ(longest.size(), 2 * 65535 * kSector + 512 + 360);
    EXPECT_TRUE(Verify(longest).Right()) << Line(Verify(longest));
}

// Every single byte of an image in turn. A byte of frame data is reported at its very place; every other byte that
// means something is at least reported.
TEST(ClipTest, OneWrongByteAnywhereIsFound) {
    for (const ClipRecipe& recipe :
         {Tagged(4, 0, 3, 5), WithAlpha(Tagged(3, 0, 2, 6), false), WithAlpha(Tagged(3, 0, 2, 7), true)}) {
        SCOPED_TRACE(clip::DescribeRecipe(recipe));
        Image image = clip::MakeClipImage(recipe);
        const Anatomy anatomy(image);
        using Place = std::tuple<uint32_t, size_t, size_t>;  // stream, field, sector
        std::vector<std::optional<Place>> owners(image.size());
        anatomy.ForEachField(image, [&](uint32_t stream, size_t field, size_t offset, size_t bytes) {
            for (size_t at = 0; at < bytes; ++at) {
                owners[offset + at] = {stream, field, at / kSector};
            }
        });
        for (size_t at = 0; at < image.size(); ++at) {
            image[at] ^= std::byte{0x40};
            const ClipVerdict verdict = Verify(image, at % 2 == 1);
            image[at] ^= std::byte{0x40};
            if (anatomy.IsPadding(at)) {
                EXPECT_TRUE(verdict.Right()) << "byte " << at << ": " << Line(verdict);
                continue;
            }
            ASSERT_TRUE(verdict.problem) << "byte " << at;
            ASSERT_EQ(Line(verdict).find('\n'), std::string::npos);
            if (!owners[at]) {
                continue;
            }
            ASSERT_TRUE(verdict.problem->place) << "byte " << at << ": " << Line(verdict);
            const auto& [stream, field, sector] = *verdict.problem->place;
            EXPECT_EQ(verdict.problem->offset, at);
            EXPECT_EQ(Place(stream, field, sector), *owners[at]) << at;
            EXPECT_EQ(verdict.wrongSectors, 1u);
        }
        EXPECT_TRUE(Verify(image).Right());
    }
}

TEST(ClipTest, EveryTruncationAndEveryExtraByteIsFound) {
    for (const bool asPipe : {false, true}) {
        for (const bool isSigned : {true, false}) {
            Image whole = clip::MakeClipImage(WithAlpha(Tagged(2, 1, 3), false));
            std::fill_n(whole.begin() + 32, isSigned ? 0 : 256, std::byte{0x20});
            for (size_t length = 0; length < whole.size(); length += length < 1500 ? 1 : 37) {
                const Image image(whole.begin(), whole.begin() + length);
                const ClipVerdict verdict = Verify(image, asPipe);
                ASSERT_TRUE(verdict.problem) << length;
                EXPECT_THAT(Line(verdict), HasSubstr("ends")) << length;
                EXPECT_LE(verdict.problem->offset, length);
            }
            whole.push_back(std::byte{0});
            EXPECT_THAT(Line(Verify(whole, asPipe)), HasSubstr("the end of the clip"));
        }
    }
}

TEST(ClipTest, HostileHeadersEarnOneLine) {
    struct Case {
        size_t offset;
        uint64_t value;
        size_t width;
        const char* says;
    };
    // Offsets of a clip with alpha: 16 application chunk, 288 and 328 parameters, 368 body table, 1424 - 528 alpha
    // table.
    const Case cases[] = {
        {0, 0x31565A52, 4, "not a clip"},
        {4, 0xFFFFFFFF, 4, "file header size"},
        {8, 5, 4, "chunk count is 5"},
        {8, 4, 4, "header size is 1424"},  // the header of a clip without alpha is shorter
        {12, 0xFFFFFFFF, 4, "header size is 4294967295"},
        {16, 15, 8, "shorter than its own header"},
        {16, 0xFFFFFFFFFFFFFFFF, 8, "instead of 272"},
        {24, 2, 4, "has type 2"},
        {288, 0, 8, "shorter than its own header"},
        {304, 721, 2, "width is 721"},
        {308, 10, 2, "bits per component is 10"},
        {316, 2, 4, "SDTI type code 2"},
        {320, 0, 4, "the alpha stream has 3 frames"},
        {320, 0xFFFFFFFF, 4, "the alpha stream has 3 frames"},
        {324, 5, 4, "flags are 0x5"},
        {324, 0, 4, "at 30 frames per second"},
        {368, 15, 8, "shorter than its own header"},
        {368, 0x8000000000000010, 8, "instead of 528"},
        {384, 0xFFFFFFFF, 4, "131070 sectors"},
        {908, 0, 4, "stream 0 instead of 2 and 1"},
        {1424, 0xFFFFFFFFFFFFFE10, 8, "instead of"},
    };
    const Image right = clip::MakeClipImage(WithAlpha(Tagged(3, 1, 3), false));
    for (const Case& test : cases) {
        SCOPED_TRACE(std::to_string(test.offset) + " = " + std::to_string(test.value));
        Image image = right;
        std::memcpy(image.data() + test.offset, &test.value, test.width);
        for (const bool asPipe : {false, true}) {
            const std::string line = Line(Verify(image, asPipe));
            EXPECT_THAT(line, HasSubstr(test.says));
            EXPECT_EQ(line.find('\n'), std::string::npos);
        }
    }
}

// A header may claim millions of frames, consistently; that must not cost memory before the tables are there.
TEST(ClipTest, ClaimedFramesCostNothing) {
    for (const uint32_t frames : {0x0FFFFFC0u, 0x1FFFFFC0u, 0x20000000u, 0xFFFFFFFFu}) {
        Image image = clip::MakeClipImage(Tagged(1, 1, 1));
        const uint64_t tableBytes = (uint64_t{frames} * 8 + 511) / 512 * 512;
        Put(image, 320, frames);
        Put(image, 12, static_cast<uint32_t>(tableBytes + 344));
        Put(image, 328, tableBytes + 16);
        for (const bool asPipe : {false, true}) {
            EXPECT_THAT(Line(Verify(image, asPipe)), testing::AnyOf(HasSubstr("ends inside"), HasSubstr("need")))
                << frames;
        }
    }
}

TEST(ClipTest, AClipFromElsewhereIsCheckedInStructureOnly) {
    Image image = clip::MakeClipImage(WithAlpha(Tagged(5, 0, 3), true));
    std::fill_n(image.begin() + 32, 256, std::byte{'A'});
    image[image.size() - 700] ^= std::byte{1};
    for (const bool asPipe : {false, true}) {
        const ClipVerdict verdict = Verify(image, asPipe);
        EXPECT_TRUE(verdict.Right()) << Line(verdict);
        EXPECT_FALSE(verdict.compared);
    }
    Put<uint64_t>(image, image.size() - 16, 528);  // the alpha chunk of an interleaved image has no data
    EXPECT_THAT(Line(Verify(image)), HasSubstr("528 bytes long instead of 16"));
}

}  // namespace
