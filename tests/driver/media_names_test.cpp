// What frame files are called, and which video parameters a media file may have.
#include <gtest/gtest.h>
#include <vrkfs/media.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>

#include "core/global_data.h"
#include "media/directory.h"
#include "media/frame_name.h"
#include "volume/records.h"

namespace tests {
namespace {

class MediaNames : public testing::Test {
  protected:
    void SetUp() override {
        saved_ = pVrkFsGlobalData;
        std::memset(static_cast<void*>(&global_), 0, sizeof(global_));
        ExInitializeFastMutex(&global_.FileTypesLock);
        SetRow(0, u"RZV", 0);
        SetRow(1, u"XYZ", 0);
        SetRow(2, u"xyz", 1);
        SetRow(3, u"TGA", 7);
        global_.FileTypeCount = 4;
        pVrkFsGlobalData = &global_;
    }
    void TearDown() override { pVrkFsGlobalData = saved_; }

    void SetRow(ULONG row, const char16_t* extension, ULONG dot) {
        FileType& type = global_.FileTypes[row];
        std::memcpy(type.Extension, extension, 6);
        type.Dot = dot;
    }
    static std::u16string Name(const std::u16string& base, ULONG type, ULONG frames, ULONG index, ULONG first,
                               ULONG digits) {
        FoundEntry found;
        std::memset(&found, 0xEE, sizeof(found));
        VrkFsConstructFileFrameName(base.c_str(), type, frames, index, first, digits, &found);
        EXPECT_EQ(found.Name[found.NameLength / 2], 0);
        return std::u16string(found.Name, found.NameLength / 2);
    }

    GlobalData global_;
    GlobalData* saved_ = nullptr;
};

TEST_F(MediaNames, NumbersAndExtensions) {
    const std::u16string long252(252, u'n');
    struct {
        std::u16string base;
        ULONG type, frames, index, first, digits;
        std::u16string name;
    } const cases[] = {
        {u"clip.RZV", 1, 100, 7, 0, 4, u"clip0007.XYZ"},
        {u"clip.rzv", 2, 100, 7, 0, 4, u"clip.0007.xyz"},
        {u"clip.RZV", 3, 100, 7, 0, 4, u"clip0007.TGA"},  // a dot field other than 1 asks for none
        {u"clip.RZV", 1, 250, 7, 0, 0, u"clip007.XYZ"},
        {u"c", 1, 20000, 12345, 0, 4, u"c12345.XYZ"},
        {u"c", 1, 1000, 0, 1, 0, u"c0001.XYZ"},
        {u"c", 1, 1, 0, 0, 0, u"c.XYZ"},
        {u"clip.rzvx", 1, 9, 3, 0, 1, u"clip.rzvx3.XYZ"},
        {u".RZV", 1, 9, 3, 0, 1, u"3.XYZ"},
        {u"c", 1, 9, 3, 0xFFFFFFFF, 1, u"c4294967298.XYZ"},  // numbers do not wrap
        {long252, 1, 100, 7, 0, 4, std::u16string(247, u'n') + u"0007.XYZ"},
        {long252, 2, 100, 7, 0, 4, std::u16string(246, u'n') + u".0007.xyz"},
        {std::u16string(256, u'n'), 1, 100, 7, 0, 4, std::u16string(247, u'n') + u"0007.XYZ"},
        {u"c", 2, 100, 7, 0, 4000000000, std::u16string(250, u'0') + u"7.xyz"},
    };
    for (const auto& test : cases) {
        EXPECT_TRUE(Name(test.base, test.type, test.frames, test.index, test.first, test.digits) == test.name)
            << "case " << &test - cases;
    }
}

TEST_F(MediaNames, LookingANameUpFindsWhatBuildingEveryNameFinds) {
    std::mt19937 random(5);
    const std::u16string bases[] = {u"clip.rzv", u"take1", u"00", u"7.007", std::u16string(251, u'0'), u"x.1.RZV"};
    const ULONG digitChoices[] = {0, 1, 2, 4, 9, 12, 300};
    const ULONG firsts[] = {0, 1, 95, 999999990, 0xFFFFFFF0};
    std::uint32_t found = 0;
    for (int round = 0; round < 400; ++round) {
        const std::u16string& base = bases[random() % std::size(bases)];
        const ULONG type = random() % 4;
        const ULONG frames = 1 + random() % 120;
        const ULONG first = firsts[random() % std::size(firsts)];
        const ULONG digits = digitChoices[random() % std::size(digitChoices)];
        const auto upcased = [&](ULONG index, ULONG minDigits) {
            std::u16string name = Name(base, type, frames, index, first, minDigits);
            std::ranges::transform(name, name.begin(), [](char16_t c) { return RtlUpcaseUnicodeChar(c); });
            return name;
        };
        // A name of this or of a slightly different clip.
        std::u16string wanted = upcased(random() % frames, digits + random() % 2);
        if (random() % 3 == 0) {
            wanted[random() % wanted.size()] = u"01289.XZ"[random() % 8];
        }
        const ULONG start = random() % 2 == 0 ? 0 : random() % frames;
        ULONG expected = start;
        while (expected < frames && upcased(expected, digits) != wanted) {
            ++expected;
        }
        UNICODE_STRING counted{static_cast<USHORT>(wanted.size() * 2), static_cast<USHORT>(wanted.size() * 2),
                               wanted.data()};
        FoundEntry entry;
        ULONG index = frames;
        const BOOLEAN got =
            VrkFsFindFrameByName(base.c_str(), type, frames, start, first, digits, &counted, &index, &entry);
        ASSERT_EQ(got ? index : frames, expected) << "round " << round;
        found += got;
    }
    EXPECT_GT(found, 100u);
}

TEST(MediaParameters, EachFieldIsChecked) {
    struct Change {
        std::size_t offset, size;
        std::uint32_t value;
        bool valid;
    } const changes[] = {
        {28, 4, 0, true},   {28, 4, 1, true},   {28, 4, 2, false},   {28, 4, 3, true},          {28, 4, 15, true},
        {28, 4, 16, false}, {22, 2, 5, false},  {24, 2, 4, false},   {20, 2, 10, false},        {26, 2, 25, true},
        {26, 2, 24, false}, {26, 2, 60, false}, {16, 2, 719, false}, {18, 2, 576, true},        {18, 2, 480, false},
        {36, 4, 0, false},  {36, 4, 5, false},  {36, 4, 6, true},    {36, 4, 0xFFFFFFF4, true},
    };
    for (const Change& change : changes) {
        VideoParameters parameters{{40, 0, 0}, 720, 486, 8, 4, 3, 30, 1, 10, 4};
        std::memcpy(reinterpret_cast<char*>(&parameters) + change.offset, &change.value, change.size);
        EXPECT_EQ(NT_SUCCESS(VrkFsRZVVerifyVideoParameters(&parameters)), change.valid)
            << "offset " << change.offset << " value " << change.value;
    }
}

}  // namespace
}  // namespace tests
