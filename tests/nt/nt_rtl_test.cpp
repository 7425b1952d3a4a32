#include "nt/rtl.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "nt/fsrtl.h"
#include "nt/kernel.h"
#include "nt/text.h"

namespace {

TEST(Upcase, SimpleOneToOne) {
    const struct {
        WCHAR from;
        WCHAR to;
    } cases[] = {
        {u'a', u'A'},   {u'z', u'Z'},     {u'A', u'A'},     {u'`', u'`'},     {u'{', u'{'},     {0xE0, 0xC0},
        {0xF7, 0xF7},   {0xDF, 0xDF},     {0xFF, 0x178},    {0x3C2, 0x3A3},   {0x451, 0x401},   {0x1C6, 0x1C4},
        {0x149, 0x149}, {0xFF41, 0xFF21}, {0x1F80, 0x1F88}, {0x10D0, 0x1C90}, {0xD801, 0xD801}, {0xFFFF, 0xFFFF},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(RtlUpcaseUnicodeChar(c.from), c.to) << std::hex << unsigned{c.from};
    }
    for (ULONG code = 0; code < 0x10000; ++code) {
        const WCHAR upper = RtlUpcaseUnicodeChar(static_cast<WCHAR>(code));
        ASSERT_EQ(RtlUpcaseUnicodeChar(upper), upper) << std::hex << code;
    }
}

// ---- splay trees ----

struct Node {
    RTL_SPLAY_LINKS links;
    int key;
};

Node* NodeOf(PRTL_SPLAY_LINKS links) {
    return CONTAINING_RECORD(links, Node, links);
}

// The keys in order; fails the test where a link is not answered by its counterpart.
void Walk(PRTL_SPLAY_LINKS links, std::vector<int>* keys) {
    if (links == nullptr) {
        return;
    }
    for (const PRTL_SPLAY_LINKS child : {links->LeftChild, links->RightChild}) {
        if (child != nullptr) {
            ASSERT_EQ(child->Parent, links);
        }
    }
    Walk(links->LeftChild, keys);
    keys->push_back(NodeOf(links)->key);
    Walk(links->RightChild, keys);
}

// Equal keys go to the right, as the driver inserts them.
void Insert(PRTL_SPLAY_LINKS* root, Node* node) {
    RtlInitializeSplayLinks(&node->links);
    if (*root == nullptr) {
        *root = &node->links;
        return;
    }
    PRTL_SPLAY_LINKS at = *root;
    while (true) {
        const bool left = NodeOf(at)->key > node->key;
        const PRTL_SPLAY_LINKS next = left ? RtlLeftChild(at) : RtlRightChild(at);
        if (next == nullptr) {
            left ? RtlInsertAsLeftChild(at, &node->links) : RtlInsertAsRightChild(at, &node->links);
            return;
        }
        at = next;
    }
}

TEST(Splay, RandomOperationsKeepOrderAndLinks) {
    std::mt19937 random(20240117);
    PRTL_SPLAY_LINKS root = nullptr;
    std::vector<std::unique_ptr<Node>> nodes;
    std::multiset<int> model;
    for (int step = 0; step < 6000; ++step) {
        const unsigned choice = random() % 4;
        if (choice < 2 && nodes.size() < 300) {
            nodes.push_back(std::make_unique<Node>(Node{{}, static_cast<int>(random() % 200)}));
            Insert(&root, nodes.back().get());
            model.insert(nodes.back()->key);
        } else if (!nodes.empty()) {
            const size_t index = random() % nodes.size();
            if (choice == 2) {
                root = RtlSplay(&nodes[index]->links);
                ASSERT_EQ(root, &nodes[index]->links);
            } else {
                root = RtlDelete(&nodes[index]->links);
                model.erase(model.find(nodes[index]->key));
                nodes.erase(nodes.begin() + static_cast<long>(index));  // Freed: a link left to it would be seen.
            }
        }
        ASSERT_EQ(root == nullptr, model.empty());
        if (root != nullptr) {
            ASSERT_TRUE(RtlIsRoot(root)) << step;
        }
        std::vector<int> keys;
        Walk(root, &keys);
        ASSERT_EQ(keys, std::vector<int>(model.begin(), model.end())) << step;
    }
}

// ---- names against patterns ----

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
