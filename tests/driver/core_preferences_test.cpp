#include <cstring>

#include "core/preferences.h"
#include "core/strings.h"
#include "tests/driver/core_rig.h"

namespace tests {
namespace {

// No driver is loaded here: its routines work on a record of the test's own.
class CoreTables : public DriverRig {
  protected:
    void SetUp() override {
        DriverRig::SetUp();
        Boot();
        global_.RegistryPath = Counted(path_);
    }
    static void SetData(PCWSTR subkey, PCWSTR name, ULONG type, const void* data, ULONG size) {
        ASSERT_EQ(VrkFsRtlRegWriteData(kServiceKey, subkey, name, type, data, size), STATUS_SUCCESS);
    }
    static void SetNumber(PCWSTR subkey, PCWSTR name, ULONG value) {
        ASSERT_EQ(VrkFsRtlRegWriteULONG(kServiceKey, subkey, name, value), STATUS_SUCCESS);
    }
    static ULONG Number(PCWSTR subkey, PCWSTR name) {
        ULONG value = 0xDEADBEEF;
        EXPECT_EQ(VrkFsRtlRegReadULONG(kServiceKey, subkey, name, &value), STATUS_SUCCESS);
        return value;
    }
    Preferences Read(ULONG card) {
        Preferences prefs;
        std::memset(&prefs, 0xCC, sizeof(prefs));
        VrkFsGlobGetPreferences(&global_, card, &prefs);
        return prefs;
    }

    std::u16string path_ = kServiceKey;
    GlobalData global_{};
};

TEST_F(CoreTables, MissingPreferencesTakeTheirDefaults) {
    for (const ULONG card : {0u, 1u, 9u}) {  // cards 1 and 9 have no key at all
        SCOPED_TRACE(card);
        const Preferences prefs = Read(card);
        Preferences expected{};
        expected.MinFrameDigits = 4;
        expected.RAMFileMaxSize = 2097152;
        expected.TotalRAMFiles = 10;
        expected.DriveLetter = static_cast<UCHAR>('P' + card);
        EXPECT_EQ(std::memcmp(&prefs, &expected, sizeof(prefs)), 0);
    }
}

TEST_F(CoreTables, ValuesOfTheWrongTypeAreReadAsBytes) {
    const UCHAR bytes[] = {1, 2, 3, 4, 5};
    SetData(u"Parameters", u"HCrop", REG_BINARY, bytes, 5);
    SetData(u"Parameters", u"VCrop", REG_BINARY, bytes, 3);           // too short: missing
    SetData(u"Parameters", u"MinFrameDigits", REG_BINARY, bytes, 0);  // empty: missing
    SetData(u"Parameters", u"DriveLetter0", REG_BINARY, "K\0Z", 3);   // odd and not terminated
    const Preferences prefs = Read(0);
    EXPECT_EQ(prefs.HCrop, 0x04030201u);
    EXPECT_EQ(prefs.VCrop, 0u);
    EXPECT_EQ(prefs.MinFrameDigits, 4u);
    EXPECT_EQ(prefs.DriveLetter, 'K');
}

TEST_F(CoreTables, ScsiPreferencesAreCompletedInTheRegistry) {
    const ULONG none = 0xFFFFFFFF;  // as a stored value it counts as missing too
    const struct {
        bool store;
        ULONG retries, verify;
        ULONG retriesRead, verifyRead;
    } cases[] = {
        {false, 0, 0, 4, 1},
        {true, none, 0, 4, 0},
        {true, 7, none, 7, 1},
        {true, 0, 0, 0, 0},
        {true, 0xFFFFFFFE, 9, 0xFFFFFFFE, 9},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.retries);
        if (c.store) {
            SetNumber(u"Parameters", u"ScsiMaxRetries", c.retries);
            SetNumber(u"Parameters", u"ScsiVerifyWrite", c.verify);
        }
        ScsiPrefs prefs{};
        VrkFsGlobGetScsiPrefs(&global_, 0, &prefs);
        EXPECT_EQ(prefs.MaxRetries, c.retriesRead);
        EXPECT_EQ(prefs.VerifyWrite, c.verifyRead);
        EXPECT_EQ(Number(u"Parameters", u"ScsiMaxRetries"), c.retriesRead);
        EXPECT_EQ(Number(u"Parameters", u"ScsiVerifyWrite"), c.verifyRead);
    }
}

TEST_F(CoreTables, Strings) {
    for (const auto& [value, text] : {std::pair{0u, "0"}, {9u, "9"}, {10u, "10"}, {4294967295u, "4294967295"}}) {
        CHAR buffer[kIntegerStringBytes];
        VrkFsRtlIntegerToString(value, buffer);
        EXPECT_STREQ(buffer, text);
    }
    for (const USHORT length : {0, 2, 0xFFFC, 0xFFFE}) {
        std::u16string text(length / 2, u'x');
        UNICODE_STRING source = Counted(text);
        UNICODE_STRING copy{};
        const NTSTATUS status = VrkFsRtlCopyUnicodeString(&copy, &source);
        if (length == 0xFFFE) {  // no room for the terminator in a 16-bit capacity
            EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES);
            EXPECT_EQ(copy.Buffer, nullptr);
        } else {
            ASSERT_EQ(status, STATUS_SUCCESS);
            EXPECT_EQ(std::u16string(copy.Buffer), text);
        }
        VrkFsRtlFreeUnicodeString(&copy);
        VrkFsRtlFreeUnicodeString(&copy);
    }
    WCHAR field[4] = {'a', 'b', 'c', 'd'};  // no terminator
    EXPECT_EQ(VrkFsRtlBoundedString(field, 4).Length, 8);
    VrkFsRtlWidenText("12345", field, 4);
    EXPECT_EQ(std::u16string(field), u"123");
}

}  // namespace
}  // namespace tests
