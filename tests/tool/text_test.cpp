// Names, sizes and times on their way between the drive and a person.
#include "tool/text.h"

#include <gtest/gtest.h>

#include "tool/paths.h"

namespace {

using namespace std::string_literals;

TEST(Text, EveryNameCanBeShownAndTypedBack) {
    const struct {
        std::u16string name;
        std::string shown;
    } cases[] = {
        {u"Clip 1.rzv", "Clip 1.rzv"},
        {u"\u00DC\u4E16\u754C", "\u00DC\u4E16\u754C"},
        {{0xD83C, 0xDFAC}, "\U0001F3AC"},
        {{0xDBFF, 0xDFFF}, "\U0010FFFF"},
        {{0xD83C}, "<D83C>"},                       // half a pair at the end
        {{0xDFAC, 0xD83C, u'a'}, "<DFAC><D83C>a"},  // the halves in the wrong order
        {{0xD83C, 0xD83C, 0xDFAC}, "<D83C>\U0001F3AC"},
        {u"a\nb\x1B[2J\x7F"s + u'\0', "a<000A>b<001B>[2J<007F><0000>"},
        {u"a/b\\c:d<e>|", "a<002F>b<005C>c<003A>d<003C>e<003E><007C>"},
        {u"<0041>", "<003C>0041<003E>"},  // a name that looks like an escape is not taken for one
    };
    for (const auto& test : cases) {
        EXPECT_EQ(tool::DisplayName(test.name), test.shown);
        EXPECT_EQ(tool::ParseName(test.shown), test.name) << test.shown;
    }
    for (char32_t unit = 0; unit < 0x10000; ++unit) {
        const std::u16string name(1, static_cast<char16_t>(unit));
        EXPECT_EQ(tool::ParseName(tool::DisplayName(name)), name) << std::uint32_t{unit};
    }
    for (const char* broken : {"\xFF", "\xC0\x80", "\xE2\x82", "\xED\xA0\x80", "\xF4\x90\x80\x80", "a\x80"}) {
        EXPECT_FALSE(tool::ParseName(broken)) << broken;
    }
    for (const char* plain : {"<D8>", "<D80G>", "<D8000", "<", "<D800"}) {
        EXPECT_EQ(tool::ParseName(plain), std::u16string(plain, plain + std::string(plain).size()));
    }
}

TEST(Text, TimesAsTyped) {
    constexpr std::int64_t kLeapDay = 133'536'855'590'000'000;  // 2024-02-29 13:05:59
    const std::pair<const char*, std::optional<std::int64_t>> cases[] = {
        {"2024-02-29 13:05:59", kLeapDay},
        {"2024-02-29T13:05:59Z", kLeapDay},
        {"@1709211959", kLeapDay},
        {"2024-02-29", kLeapDay - 471'590'000'000},
        {"@-11644473599", 10'000'000},
        {"9999-12-31T23:59:59", 2'650'467'743'990'000'000},
        {"@-11644473600", std::nullopt},  // stands for "no time"
        {"@9223372036854775807", std::nullopt},
        {"2023-02-29", std::nullopt},
        {"1600-01-01", std::nullopt},
        {"2024-02-29T24:00:00", std::nullopt},
        {"2024-02-29T13:05:60", std::nullopt},
        {"2024-02-29 13:05:59 ", std::nullopt},
        {"24-2-29", std::nullopt},
        {"@", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& [typed, time] : cases) {
        EXPECT_EQ(tool::ParseTime(typed), time) << typed;
    }
    EXPECT_GT(tool::ParseTime("now"), kLeapDay);
}

}  // namespace
