// The checksum of records, the test of a record as read, names and the record helpers. None of it needs a kernel.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "storage/hw_context.h"
#include "volume/records.h"

namespace {

// The definition, byte by byte.
ULONG PlainChecksum(const std::vector<UCHAR>& bytes) {
    ULONG a = 1;
    ULONG b = 0;
    for (const UCHAR byte : bytes) {
        a += static_cast<ULONG>(static_cast<LONG>(static_cast<signed char>(byte)));
        b += a;
    }
    return (b << 16) + a;
}

UNICODE_STRING Counted(const std::u16string& text) {
    UNICODE_STRING string{};
    string.Buffer = const_cast<PWSTR>(text.data());
    string.Length = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    string.MaximumLength = string.Length;
    return string;
}

TEST(VolumeChecksum, KnownValues) {
    const struct {
        UCHAR fill;
        ULONG length;
        ULONG expected;
    } cases[] = {
        {0x00, 0, 0x00000001}, {0x00, 1024, 0x04000001}, {0x00, 9216, 0x24000001}, {0xFF, 1, 0x00000000},
        {0xFF, 2, 0xFFFEFFFF}, {0x7F, 1, 0x00800080},    {0x80, 1, 0xFF80FF81},    {0x80, 9216, 0x23EE0001},
    };
    for (const auto& c : cases) {
        const std::vector<UCHAR> bytes(c.length, c.fill);
        EXPECT_EQ(VrkFsHwCalcChecksum(bytes.data(), c.length), c.expected) << +c.fill << " x " << c.length;
    }
}

// Lengths around the block size of the fast path, odd addresses, and the bytes that load its lanes most.
TEST(VolumeChecksum, AgreesWithTheDefinition) {
    std::mt19937 random(7);
    for (ULONG round = 0; round < 400; ++round) {
        const ULONG length = round < 300 ? round : random() % 20000;
        const ULONG offset = random() % 8;
        std::vector<UCHAR> bytes(length);
        const int kind = static_cast<int>(random() % 4);
        for (UCHAR& byte : bytes) {
            byte = kind == 0 ? 0x7F : kind == 1 ? 0x80 : static_cast<UCHAR>(random());
        }
        std::vector<UCHAR> shifted(length + offset);
        std::copy(bytes.begin(), bytes.end(), shifted.begin() + offset);
        ASSERT_EQ(VrkFsHwCalcChecksum(shifted.data() + offset, length), PlainChecksum(bytes))
            << "length " << length << " kind " << kind;
    }
}

TEST(VolumeNames, Valid) {
    const struct {
        std::u16string name;
        bool valid;
    } cases[] = {
        {u"", false},
        {u"a", true},
        {std::u16string(u"\0a", 2), false},
        {std::u16string(u"a\0:", 3), true},  // what follows a NUL does not belong to the name
        {u"a:b", false},
        {u"a.b c-d_e", true},
        {u"a|", false},
        {u"a\"", false},
        {u"\\", false},
        {std::u16string(255, u'x'), true},
        {std::u16string(256, u'x'), true},
        {std::u16string(257, u'x'), false},
        {std::u16string(300, u'x').replace(100, 1, 1, u'\0'), true},
    };
    for (const auto& c : cases) {
        const UNICODE_STRING name = Counted(c.name);
        EXPECT_EQ(VrkFsHwIsValidFilename(&name) != FALSE, c.valid) << c.name.size();
    }
}

}  // namespace
