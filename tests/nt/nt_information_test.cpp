#include "tests/nt/nt_system_fixture.h"

// File and volume information and renames of a process.

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

TEST_F(SystemTest, ARenameWithAPathOpensTheTargetsParentFirst) {
    const nt::Handle handle = Open(u"\\??\\T:\\dir\\old");
    const nt::Handle folder = Open(u"\\??\\T:\\other");
    struct Rename {
        FILE_RENAME_INFORMATION info;
        WCHAR rest[64];
    };
    struct Case {
        const char* name;
        std::u16string_view to;
        bool inFolder;
        ULONG length;  // of the name as told; 0: as it is
        NTSTATUS status;
        const char* seen;
        std::u16string_view target;  // the name that the parent's open carries
    };
    const Case cases[] = {
        {"a plain name", u"new", false, 0, STATUS_SUCCESS, "set", {}},
        {"a full path", u"\\??\\T:\\dir2\\new", false, 0, STATUS_SUCCESS, "create set cleanup close", u"\\dir2\\new"},
        {"below an open folder", u"sub\\new", true, 0, STATUS_SUCCESS, "create set cleanup close", u"sub\\new"},
        {"a path to nowhere", u"\\??\\X:\\new", false, 0, STATUS_OBJECT_PATH_NOT_FOUND, "", {}},
        {"another device", u"\\Device\\Second\\new", false, 0, STATUS_NOT_SAME_DEVICE, "create cleanup close",
         u"\\new"},
        {"no name", u"", false, 0, STATUS_INVALID_PARAMETER, "", {}},
        {"half a character", u"new", false, 3, STATUS_INVALID_PARAMETER, "", {}},
        {"a name beyond the buffer", u"new", false, 600, STATUS_INVALID_PARAMETER, "", {}},
    };
    PDEVICE_OBJECT second = nullptr;
    ASSERT_EQ(IoCreateDevice(driver.object, 0, Name(u"\\Device\\Second"), FILE_DEVICE_UNKNOWN, 0, FALSE, &second),
              STATUS_SUCCESS);
    second->Flags &= ~DO_DEVICE_INITIALIZING;
    std::u16string target;
    PFILE_OBJECT parent = nullptr;
    driver.on[IRP_MJ_CREATE] = [&](PDEVICE_OBJECT, PIRP irp) {
        const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        EXPECT_NE(stack->Flags & SL_OPEN_TARGET_DIRECTORY, 0);
        parent = stack->FileObject;
        target.assign(parent->FileName.Buffer, parent->FileName.Length / 2);
        return Complete(irp, STATUS_SUCCESS, FILE_DOES_NOT_EXIST);
    };
    driver.on[IRP_MJ_SET_INFORMATION] = [&](PDEVICE_OBJECT, PIRP irp) {
        const auto& set = IoGetCurrentIrpStackLocation(irp)->Parameters.SetFile;
        EXPECT_EQ(set.FileObject, parent);
        EXPECT_TRUE(set.ReplaceIfExists);
        return Complete(irp, STATUS_SUCCESS);
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        parent = nullptr;
        target.clear();
        driver.Forget();
        Rename rename{};
        rename.info.ReplaceIfExists = TRUE;
        rename.info.RootDirectory = c.inFolder ? folder : 0;
        rename.info.FileNameLength = c.length != 0 ? c.length : static_cast<ULONG>(c.to.size() * 2);
        std::copy(c.to.begin(), c.to.end(), rename.info.FileName);
        EXPECT_EQ(process->SetInformation(handle, nullptr, &rename, sizeof(rename), FileRenameInformation), c.status);
        EXPECT_EQ(driver.Seen(), c.seen);
        EXPECT_EQ(target, c.target);
    }
    IoDeleteDevice(second);
}

}  // namespace
