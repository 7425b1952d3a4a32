// The checksum of records, the test of a record as read, names and the record helpers. None of it needs a kernel.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "storage/hw_context.h"
#include "tests/support/driver_fixture.h"
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

TEST(VolumeChecksum, KnownValues) {
    const std::vector<UCHAR> high(9216, 0x80);
    EXPECT_EQ(VrkFsHwCalcChecksum(high.data(), 9216), 0x23EE0001u);
    EXPECT_EQ(VrkFsHwCalcChecksum(high.data(), 1), 0xFF80FF81u);
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
    const std::u16string valid[] = {u"a",
                                    u"a.b c-d_e",
                                    std::u16string(255, u'x'),
                                    std::u16string(256, u'x'),
                                    std::u16string(u"a\0:", 3),  // what follows a NUL does not belong to the name
                                    std::u16string(300, u'x').replace(100, 1, 1, u'\0')};
    const std::u16string invalid[] = {u"",   std::u16string(u"\0a", 2), u"a:b", u"a|", u"a\"",
                                      u"\\", std::u16string(257, u'x')};
    for (const std::u16string& text : valid) {
        const UNICODE_STRING name = tests::CountedName(text);
        EXPECT_TRUE(VrkFsHwIsValidFilename(&name)) << text.size();
    }
    for (const std::u16string& text : invalid) {
        const UNICODE_STRING name = tests::CountedName(text);
        EXPECT_FALSE(VrkFsHwIsValidFilename(&name)) << text.size();
    }
}

}  // namespace
