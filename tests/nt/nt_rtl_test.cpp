#include "nt/rtl.h"

#include <gtest/gtest.h>

#include <ctime>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "nt/kernel.h"
#include "nt/text.h"

namespace {

using nt::CountedString;
using nt::View;

TEST(Upcase, SimpleOneToOne) {
    struct Case {
        WCHAR from;
        WCHAR to;
    };
    const Case cases[] = {
        {u'a', u'A'},     {u'z', u'Z'},     {u'A', u'A'},     {u'`', u'`'},     {u'{', u'{'},     {0xE0, 0xC0},
        {0xF6, 0xD6},     {0xF7, 0xF7},     {0xDF, 0xDF},     {0xFF, 0x178},    {0x3B1, 0x391},   {0x3C2, 0x3A3},
        {0x430, 0x410},   {0x451, 0x401},   {0x1C6, 0x1C4},   {0x149, 0x149},   {0xFF41, 0xFF21}, {0x24D0, 0x24B6},
        {0x1F80, 0x1F88}, {0x1FB3, 0x1FBC}, {0x10D0, 0x1C90}, {0xAB70, 0x13A0}, {0xD801, 0xD801}, {0xDC28, 0xDC28},
        {0xFFFF, 0xFFFF}, {0, 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(RtlUpcaseUnicodeChar(c.from), c.to) << std::hex << unsigned{c.from};
    }
    for (ULONG code = 0; code < 0x10000; ++code) {
        const WCHAR upper = RtlUpcaseUnicodeChar(static_cast<WCHAR>(code));
        ASSERT_EQ(RtlUpcaseUnicodeChar(upper), upper) << std::hex << code;
    }
}

TEST(UnicodeString, CompareByUnitThenLength) {
    struct Case {
        std::u16string_view left;
        std::u16string_view right;
        int exact;  // Sign of the case-sensitive order.
        int insensitive;
    };
    const Case cases[] = {
        {u"", u"", 0, 0},
        {u"a", u"", 1, 1},
        {u"Take1", u"take1", -1, 0},
        {u"take1", u"TAKE10", 1, -1},
        {u"a", u"B", 1, -1},
        {u"_", u"a", -1, 1},  // Between the cases: upcasing turns the order.
        {std::u16string_view(u"a\0b", 3), std::u16string_view(u"A\0C", 3), 1, -1},
        {std::u16string_view(u"a\0", 2), u"a", 1, 1},
        {u"stra\u00DFe", u"STRASSE", 1, 1},
        {u"\u00FF", u"\u0178", -1, 0},
        {u"\uFFFF", u"a", 1, 1},  // Units are unsigned.
        {u"\u0131", u"I", 1, 0},
    };
    const auto sign = [](LONG value) { return value < 0 ? -1 : value > 0 ? 1 : 0; };
    for (const Case& c : cases) {
        const UNICODE_STRING left = CountedString(c.left);
        const UNICODE_STRING right = CountedString(c.right);
        EXPECT_EQ(sign(RtlCompareUnicodeString(&left, &right, FALSE)), c.exact) << nt::Utf8FromWide(c.left);
        EXPECT_EQ(sign(RtlCompareUnicodeString(&right, &left, FALSE)), -c.exact) << nt::Utf8FromWide(c.left);
        EXPECT_EQ(sign(RtlCompareUnicodeString(&left, &right, TRUE)), c.insensitive) << nt::Utf8FromWide(c.left);
        EXPECT_EQ(RtlEqualUnicodeString(&left, &right, TRUE) != FALSE, c.insensitive == 0);
        EXPECT_EQ(RtlEqualUnicodeString(&left, &right, FALSE) != FALSE, c.exact == 0);
    }
}

// Copies and appends into exactly as much heap memory as the string claims, so that a byte too many is seen.
struct ExactString : UNICODE_STRING {
    explicit ExactString(USHORT characters, std::u16string_view text = {}) : storage(characters, u'#') {
        Length = static_cast<USHORT>(text.size() * sizeof(WCHAR));
        MaximumLength = static_cast<USHORT>(characters * sizeof(WCHAR));
        Buffer = storage.data();
        std::copy(text.begin(), text.end(), storage.begin());
    }
    std::vector<WCHAR> storage;
};

TEST(UnicodeString, CopyCutsAndTerminates) {
    struct Case {
        USHORT room;  // Characters.
        std::u16string_view source;
        std::u16string_view result;
        std::u16string_view memory;  // The buffer afterwards; '#' is untouched.
    };
    const Case cases[] = {
        {4, u"ab", u"ab", std::u16string_view(u"ab\0#", 4)},
        {2, u"ab", u"ab", u"ab"},
        {1, u"ab", u"a", u"a"},
        {0, u"ab", u"", u""},
        {2, u"", u"", std::u16string_view(u"\0#", 2)},
    };
    for (const Case& c : cases) {
        ExactString destination(c.room);
        const UNICODE_STRING source = CountedString(c.source);
        RtlCopyUnicodeString(&destination, &source);
        EXPECT_EQ(View(&destination), c.result);
        EXPECT_EQ(std::u16string_view(destination.storage.data(), c.room), c.memory);
    }
    ExactString destination(2, u"ab");
    RtlCopyUnicodeString(&destination, nullptr);
    EXPECT_EQ(destination.Length, 0);
    EXPECT_EQ(destination.storage[0], 0);
}

TEST(UnicodeString, AppendFitsWholeOrNotAtAll) {
    struct Case {
        USHORT room;
        std::u16string_view before;
        std::u16string_view source;
        NTSTATUS status;
        std::u16string_view memory;
    };
    const Case cases[] = {
        {5, u"ab", u"cd", STATUS_SUCCESS, std::u16string_view(u"abcd\0", 5)},
        {4, u"ab", u"cd", STATUS_SUCCESS, u"abcd"},
        {3, u"ab", u"cd", STATUS_BUFFER_TOO_SMALL, u"ab#"},
        {2, u"ab", u"", STATUS_SUCCESS, u"ab"},
        {0, u"", u"c", STATUS_BUFFER_TOO_SMALL, u""},
    };
    for (const Case& c : cases) {
        ExactString destination(c.room, c.before);
        const UNICODE_STRING source = CountedString(c.source);
        EXPECT_EQ(RtlAppendUnicodeStringToString(&destination, &source), c.status);
        EXPECT_EQ(std::u16string_view(destination.storage.data(), c.room), c.memory);
    }
    // Two strings whose lengths add up past 16 bits.
    ExactString destination(32767, std::u16string(32000, u'x'));
    const std::u16string more(1000, u'y');
    const UNICODE_STRING source = CountedString(more);
    EXPECT_EQ(RtlAppendUnicodeStringToString(&destination, &source), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(RtlAppendUnicodeToString(&destination, u"zz"), STATUS_SUCCESS);
    EXPECT_EQ(destination.Length, 32002 * sizeof(WCHAR));
}

TEST(UnicodeString, InitCountsUpToTheLimit) {
    UNICODE_STRING string;
    RtlInitUnicodeString(&string, nullptr);
    EXPECT_EQ(string.Buffer, nullptr);
    EXPECT_EQ(string.MaximumLength, 0);
    RtlInitUnicodeString(&string, u"abc");
    EXPECT_EQ(string.Length, 6);
    EXPECT_EQ(string.MaximumLength, 8);
    const std::u16string longText(40000, u'x');
    RtlInitUnicodeString(&string, longText.c_str());
    EXPECT_EQ(string.Length, 65532);
    EXPECT_EQ(string.MaximumLength, 65534);
}

TEST(UnicodeString, UpcaseInPlaceAndAllocated) {
    nt::Boot();
    const UNICODE_STRING source = CountedString(u"take \u00E9\u00DF\u00FF");
    ExactString exact(static_cast<USHORT>(source.Length / sizeof(WCHAR)));
    EXPECT_EQ(RtlUpcaseUnicodeString(&exact, &source, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(View(&exact), u"TAKE \u00C9\u00DF\u0178");
    ExactString small(3, u"abc");
    EXPECT_EQ(RtlUpcaseUnicodeString(&small, &source, FALSE), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(View(&small), u"abc");

    UNICODE_STRING allocated;
    ASSERT_EQ(RtlUpcaseUnicodeString(&allocated, &source, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(View(&allocated), u"TAKE \u00C9\u00DF\u0178");
    EXPECT_EQ(allocated.MaximumLength, allocated.Length);
    RtlFreeUnicodeString(&allocated);
    EXPECT_EQ(allocated.Buffer, nullptr);
    RtlFreeUnicodeString(&allocated);

    const UNICODE_STRING empty = {};
    ASSERT_EQ(RtlUpcaseUnicodeString(&allocated, &empty, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(allocated.Length, 0);
    RtlFreeUnicodeString(&allocated);
    EXPECT_TRUE(nt::Shutdown().empty());
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

TEST(Splay, LongBranchBecomesShallow) {
    constexpr int kCount = 4096;
    std::vector<Node> nodes(kCount);
    PRTL_SPLAY_LINKS root = nullptr;
    PRTL_SPLAY_LINKS last = nullptr;
    for (int i = 0; i < kCount; ++i) {
        nodes[i].key = i;
        RtlInitializeSplayLinks(&nodes[i].links);
        if (last == nullptr) {
            root = &nodes[i].links;
        } else {
            RtlInsertAsRightChild(last, &nodes[i].links);
        }
        last = &nodes[i].links;
    }
    root = RtlSplay(last);
    const std::function<int(PRTL_SPLAY_LINKS)> depth = [&](PRTL_SPLAY_LINKS links) {
        return links == nullptr ? 0 : 1 + std::max(depth(links->LeftChild), depth(links->RightChild));
    };
    EXPECT_LE(depth(root), kCount / 2 + 2);
}

TEST(Splay, DeleteGivesTheNewRoot) {
    Node nodes[3] = {{{}, 1}, {{}, 0}, {{}, 2}};
    PRTL_SPLAY_LINKS root = nullptr;
    for (Node& node : nodes) {
        Insert(&root, &node);
    }
    root = RtlDelete(root);
    ASSERT_NE(root, nullptr);
    EXPECT_TRUE(RtlIsRoot(root));
    root = RtlDelete(root);
    ASSERT_NE(root, nullptr);
    EXPECT_TRUE(RtlIsRoot(root));
    EXPECT_EQ(RtlDelete(root), nullptr);
}

TEST(SecurityDescriptor, OpenToEverybody) {
    SECURITY_DESCRIPTOR descriptor;
    EXPECT_EQ(RtlCreateSecurityDescriptor(&descriptor, 2), STATUS_UNKNOWN_REVISION);
    ASSERT_EQ(RtlCreateSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION), STATUS_SUCCESS);
    ASSERT_EQ(RtlSetDaclSecurityDescriptor(&descriptor, TRUE, nullptr, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(descriptor.Control, SE_DACL_PRESENT);
    EXPECT_EQ(descriptor.Dacl, nullptr);
    ASSERT_EQ(RtlSetDaclSecurityDescriptor(&descriptor, FALSE, nullptr, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(descriptor.Control, 0);
    descriptor.Revision = 0;
    EXPECT_EQ(RtlSetDaclSecurityDescriptor(&descriptor, TRUE, nullptr, FALSE), STATUS_UNKNOWN_REVISION);
}

TEST(Time, FieldsAgreeWithTheCalendar) {
    // Every 1000th day or so over five centuries, with leap days and century ends among them, against the C library.
    for (LONGLONG day = 0; day < 366 * 600; day += day % 1461 == 1459 ? 1 : 97) {
        LARGE_INTEGER time;
        time.QuadPart = (day * 86400 + 45296) * nt::kTicksPerSecond + 789 * nt::kTicksPerMillisecond;
        TIME_FIELDS fields;
        RtlTimeToTimeFields(&time, &fields);
        const time_t unixTime = static_cast<time_t>(
            (time.QuadPart - nt::kTicksFrom1601To1970 - 789 * nt::kTicksPerMillisecond) / nt::kTicksPerSecond);
        tm expected;
        ASSERT_NE(gmtime_r(&unixTime, &expected), nullptr);
        ASSERT_EQ(fields.Year, expected.tm_year + 1900) << day;
        ASSERT_EQ(fields.Month, expected.tm_mon + 1) << day;
        ASSERT_EQ(fields.Day, expected.tm_mday) << day;
        ASSERT_EQ(fields.Weekday, expected.tm_wday) << day;
        ASSERT_EQ(fields.Hour, 12);
        ASSERT_EQ(fields.Minute, 34);
        ASSERT_EQ(fields.Second, 56);
        ASSERT_EQ(fields.Milliseconds, 789);
    }
}

TEST(Text, Utf8RoundTripAndRefusals) {
    const std::u16string wide = u"a\u00E9\u20AC\U0001F3AC\uFFFD";
    const std::string narrow = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x8E\xAC\xEF\xBF\xBD";
    EXPECT_EQ(nt::Utf8FromWideExactly(wide), narrow);
    EXPECT_EQ(nt::WideFromUtf8(narrow), wide);
    EXPECT_EQ(nt::Utf8FromWideExactly(std::u16string(1, 0xD800)), std::nullopt);
    EXPECT_EQ(nt::Utf8FromWideExactly(std::u16string(1, 0xDC00)), std::nullopt);
    EXPECT_EQ(nt::Utf8FromWide(std::u16string(1, 0xDC00)), "\xEF\xBF\xBD");
    for (const char* const bad : {"\x80", "\xC0\xAF", "\xC3", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80",
                                  "\xF8\x88\x80\x80\x80", "\xE2\x82", "\xC3\x28"}) {
        EXPECT_EQ(nt::WideFromUtf8(bad), std::nullopt);
    }
}

}  // namespace
