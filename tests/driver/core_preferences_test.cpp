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
        ULONG retries, verify;
        ULONG retriesRead, verifyRead;
    } cases[] = {{none, none, 4, 1}, {none, 0, 4, 0}, {7, none, 7, 1}, {0, 0, 0, 0}, {0xFFFFFFFE, 9, 0xFFFFFFFE, 9}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.retries);
        if (&c != cases) {  // at first nothing is stored
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

}  // namespace
}  // namespace tests
