#include "tests/nt/nt_system_fixture.h"

// File and volume information of a process.

namespace {

using namespace nt_test;

TEST_F(SystemTest, LengthsAndRightsAreCheckedForUsersOnly) {
    const nt::Handle handle = Open(u"\\??\\T:\\f");
    const nt::Handle poor = Open(u"\\??\\T:\\f", FILE_SYNCHRONOUS_IO_NONALERT, FILE_READ_DATA | SYNCHRONIZE);
    char buffer[256] = {};
    enum Kind { kQuery, kSet, kQueryVolume, kSetVolume };
    struct Case {
        Kind kind;
        int informationClass;
        ULONG least;        // 0: no such class
        NTSTATUS withPoor;  // with hardly any right
    };
    const Case cases[] = {
        {kQuery, FileBasicInformation, 40, STATUS_ACCESS_DENIED},
        {kQuery, FileStandardInformation, 24, STATUS_SUCCESS},
        {kQuery, FileAllInformation, 104, STATUS_ACCESS_DENIED},
        {kQuery, FileRenameInformation, 0, STATUS_INVALID_INFO_CLASS},
        {kQuery, 99, 0, STATUS_INVALID_INFO_CLASS},
        {kSet, FileBasicInformation, 40, STATUS_ACCESS_DENIED},
        {kSet, FileDispositionInformation, 1, STATUS_ACCESS_DENIED},
        {kSet, FileEndOfFileInformation, 8, STATUS_ACCESS_DENIED},
        {kSet, FileStandardInformation, 0, STATUS_INVALID_INFO_CLASS},
        {kQueryVolume, FileFsVolumeInformation, 24, STATUS_SUCCESS},
        {kQueryVolume, FileFsAttributeInformation, 16, STATUS_SUCCESS},
        {kQueryVolume, FileFsLabelInformation, 0, STATUS_INVALID_INFO_CLASS},
        {kSetVolume, FileFsLabelInformation, 8, STATUS_ACCESS_DENIED},
        {kSetVolume, FileFsSizeInformation, 0, STATUS_INVALID_INFO_CLASS},
    };
    nt::Process trusted("trusted", KernelMode);
    nt::Handle trustedHandle = 0;
    ASSERT_EQ(trusted.Open({.name = u"\\??\\T:\\f", .desiredAccess = 0}, &trustedHandle), STATUS_SUCCESS);
    const auto ask = [&](nt::Process& p, nt::Handle h, const Case& c, ULONG length) {
        const auto fileClass = static_cast<FILE_INFORMATION_CLASS>(c.informationClass);
        const auto fsClass = static_cast<FS_INFORMATION_CLASS>(c.informationClass);
        IO_STATUS_BLOCK status{};
        switch (c.kind) {
            case kQuery:
                return p.QueryInformation(h, &status, buffer, length, fileClass);
            case kSet:
                return p.SetInformation(h, &status, buffer, length, fileClass);
            case kQueryVolume:
                return p.QueryVolumeInformation(h, &status, buffer, length, fsClass);
            default:
                return p.SetVolumeInformation(h, &status, buffer, length, fsClass);
        }
    };
    const char* const majors[] = {"query", "set", "queryvol", "setvol"};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(majors[c.kind]) + " " + std::to_string(c.informationClass));
        driver.Forget();
        if (c.least != 0) {
            EXPECT_EQ(ask(*process, handle, c, c.least - 1), STATUS_INFO_LENGTH_MISMATCH);
        }
        EXPECT_EQ(ask(*process, poor, c, 200), c.withPoor);
        EXPECT_EQ(driver.Seen(), c.withPoor == STATUS_SUCCESS ? majors[c.kind] : "");
        driver.Forget();
        EXPECT_EQ(ask(*process, handle, c, c.least), c.least != 0 ? STATUS_SUCCESS : STATUS_INVALID_INFO_CLASS);
        EXPECT_EQ(driver.Seen(), c.least != 0 ? majors[c.kind] : "");
        driver.Forget();
        EXPECT_EQ(ask(trusted, trustedHandle, c, 1), STATUS_SUCCESS);  // a trusted caller's go through as they are
        EXPECT_EQ(driver.Seen(), majors[c.kind]);
    }
}

}  // namespace
