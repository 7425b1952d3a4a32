#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "nt/fsrtl.h"
#include "nt/text.h"

namespace {

using nt::CountedString;

bool Matches(std::u16string_view expression, std::u16string_view name, bool ignoreCase = false) {
    UNICODE_STRING expressionString = CountedString(expression);
    UNICODE_STRING nameString = CountedString(name);
    return FsRtlIsNameInExpression(&expressionString, &nameString, ignoreCase, nullptr) != FALSE;
}

TEST(NameInExpression, IgnoringCaseUpcasesTheNameOnly) {
    EXPECT_TRUE(Matches(u"T*1", u"take1", true));
    EXPECT_FALSE(Matches(u"t*1", u"TAKE1", true));
    EXPECT_TRUE(Matches(u"\u0178", u"\u00FF", true));
    std::u16string toX(0x10000, u'x');
    UNICODE_STRING expression = CountedString(u"xx");
    UNICODE_STRING name = CountedString(u"ab");
    EXPECT_TRUE(FsRtlIsNameInExpression(&expression, &name, TRUE, toX.data()));
    EXPECT_FALSE(FsRtlIsNameInExpression(&expression, &name, FALSE, toX.data()));
    EXPECT_TRUE(FsRtlAreNamesEqual(&expression, &name, TRUE, toX.data()));
    EXPECT_FALSE(FsRtlAreNamesEqual(&expression, &name, FALSE, nullptr));
}

// The answer of every short pattern on every short name, against a matcher that tries everything.
bool Slow(std::u16string_view expression, std::u16string_view name, size_t at, size_t lastDot) {
    if (expression.empty()) {
        return at == name.size();
    }
    const char16_t first = expression[0];
    const std::u16string_view rest = expression.substr(1);
    const bool end = at == name.size();
    const bool dot = !end && name[at] == u'.';
    switch (first) {
        case u'*':
            return Slow(rest, name, at, lastDot) || (!end && Slow(expression, name, at + 1, lastDot));
        case u'<':
            return Slow(rest, name, at, lastDot) ||
                   (!end && Slow(at == lastDot ? rest : expression, name, at + 1, lastDot));
        case u'>':
            return end || dot ? Slow(rest, name, at, lastDot) : Slow(rest, name, at + 1, lastDot);
        case u'"':
            return dot ? Slow(rest, name, at + 1, lastDot) : end && Slow(rest, name, at, lastDot);
        default:
            return !end && (first == u'?' || first == name[at]) && Slow(rest, name, at + 1, lastDot);
    }
}

void ForEachText(std::u16string_view alphabet, size_t length, const std::function<void(const std::u16string&)>& visit) {
    std::u16string text(length, alphabet[0]);
    std::vector<size_t> digits(length, 0);
    while (true) {
        visit(text);
        size_t place = 0;
        while (place < length && ++digits[place] == alphabet.size()) {
            digits[place] = 0;
            text[place] = alphabet[0];
            ++place;
        }
        if (place == length) {
            return;
        }
        text[place] = alphabet[digits[place]];
    }
}

TEST(NameInExpression, AgreesWithExhaustiveSearch) {
    std::vector<std::u16string> names;
    for (size_t length = 1; length <= 4; ++length) {
        ForEachText(u"ab.", length, [&names](const std::u16string& name) { names.push_back(name); });
    }
    for (size_t length = 1; length <= 4; ++length) {
        ForEachText(u"a.*?<>\"", length, [&names](const std::u16string& expression) {
            for (const std::u16string& name : names) {
                ASSERT_EQ(Matches(expression, name), Slow(expression, name, 0, name.rfind(u'.')))
                    << nt::Utf8FromWide(expression) << " on " << nt::Utf8FromWide(name);
            }
        });
    }
}

TEST(NameInExpression, HostilePatternsEndSoon) {
    std::u16string expression;
    for (int i = 0; i < 120; ++i) {
        expression += u"*a<";
    }
    const std::u16string name(255, u'a');
    EXPECT_FALSE(Matches(expression + u"b", name));
    EXPECT_TRUE(Matches(expression, name));
    // The longest strings there are.
    EXPECT_FALSE(Matches(std::u16string(2000, u'*') + u"b", std::u16string(32767, u'a')));
    EXPECT_FALSE(Matches(std::u16string(32767, u'a'), std::u16string(32766, u'a')));
}

}  // namespace
