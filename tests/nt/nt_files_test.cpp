#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "station_fixture.h"

namespace {

using tests::Attributes;
namespace fs = std::filesystem;

constexpr ULONG kSynchronous = FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE | FILE_SEQUENTIAL_ONLY;
constexpr ACCESS_MASK kRead = GENERIC_READ | SYNCHRONIZE;
constexpr std::u16string_view kBackup = u"\\SystemRoot\\system32\\drivers\\!RZVBKUP.!BT";

class FilesTest : public tests::StationTest {
  protected:
    void SetUp() override {
        StationTest::SetUp();
        root_ = files_.systemRoot;
        fs::create_directories(root_ / "system32" / "drivers");
        backup_ = root_ / "system32" / "drivers" / "!RZVBKUP.!BT";
        ASSERT_EQ(nt::AttachStation(files_), "");
    }

    static NTSTATUS Open(std::u16string_view name, HANDLE* file, ACCESS_MASK access = kRead,
                         ULONG options = kSynchronous, ULONG share = FILE_SHARE_READ, ULONG disposition = FILE_OPEN) {
        IO_STATUS_BLOCK ioStatus;
        const NTSTATUS status = ZwCreateFile(file, access, Attributes(name), &ioStatus, nullptr, FILE_ATTRIBUTE_NORMAL,
                                             share, disposition, options, nullptr, 0);
        EXPECT_EQ(ioStatus.Status, status);
        return status;
    }

    fs::path root_;
    fs::path backup_;
};

TEST_F(FilesTest, NamesLeadNowhereElse) {
    tests::WriteFile(backup_, "content");
    tests::WriteFile(directory_ / "registry.json", "{}");
    tests::WriteFile(directory_ / "outside" / "secret", "secret");
    fs::create_symlink(directory_ / "outside" / "secret", root_ / "link");
    fs::create_symlink(directory_ / "outside", root_ / "linkdir");
    ASSERT_EQ(mkfifo((root_ / "pipe").c_str(), 0600), 0);
    tests::WriteFile(root_ / "a b" / "\u00C4rger.txt", "umlaut");
    tests::WriteFile(root_ / "both" / "FILE", "upper");
    tests::WriteFile(root_ / "both" / "file", "lower");
    struct Case {
        std::u16string_view name;
        NTSTATUS status;
    };
    const Case cases[] = {
        {kBackup, STATUS_SUCCESS},
        {u"\\systemroot\\SYSTEM32\\Drivers\\!rzvbkup.!bt", STATUS_SUCCESS},
        {u"\\SystemRoot\\A B\\\u00E4RGER.TXT", STATUS_SUCCESS},
        {u"\\SystemRoot\\both\\file", STATUS_SUCCESS},
        {u"\\SystemRoot\\nothing", STATUS_OBJECT_NAME_NOT_FOUND},
        {u"\\SystemRoot\\nothing\\file", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"\\SystemRoot\\both\\file\\more", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"\\SystemRoot\\..\\registry.json", STATUS_OBJECT_NAME_INVALID},
        {u"\\SystemRoot\\both/file", STATUS_OBJECT_NAME_INVALID},
        {u"\\SystemRoot\\\\both\\file", STATUS_OBJECT_NAME_INVALID},
        {u"\\SystemRoot\\both\\", STATUS_OBJECT_NAME_INVALID},
        {u"\\SystemRoot\\link", STATUS_ACCESS_DENIED},
        {u"\\SystemRoot\\linkdir\\secret", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"\\SystemRoot\\pipe", STATUS_ACCESS_DENIED},
        {u"\\SystemRoot\\both", STATUS_FILE_IS_A_DIRECTORY},
        {u"\\SystemRoot", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"\\DosDevices\\C:\\both\\file", STATUS_OBJECT_PATH_NOT_FOUND},
        {std::u16string_view(u"\\SystemRoot\\both\\file\0", 22), STATUS_OBJECT_NAME_INVALID},
    };
    for (const Case& c : cases) {
        HANDLE file = nullptr;
        EXPECT_EQ(Open(c.name, &file), c.status) << nt::Utf8FromWide(c.name);
        if (file != nullptr) {
            ZwClose(file);
        }
    }
}

TEST_F(FilesTest, ReadsMoveThePosition) {
    std::string content;
    for (int i = 0; i < 3000; ++i) {
        content += static_cast<char>(i * 7);
    }
    tests::WriteFile(backup_, content);
    HANDLE file = nullptr;
    ASSERT_EQ(Open(kBackup, &file), STATUS_SUCCESS);

    IO_STATUS_BLOCK ioStatus;
    FILE_STANDARD_INFORMATION information;
    EXPECT_EQ(ZwQueryInformationFile(file, &ioStatus, &information, 23, FileStandardInformation),
              STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(ZwQueryInformationFile(file, &ioStatus, &information, 24, FileBasicInformation),
              STATUS_INVALID_INFO_CLASS);
    ASSERT_EQ(ZwQueryInformationFile(file, &ioStatus, &information, 24, FileStandardInformation), STATUS_SUCCESS);
    EXPECT_EQ(information.EndOfFile.QuadPart, 3000);
    EXPECT_EQ(information.AllocationSize.QuadPart, 4096);
    EXPECT_FALSE(information.Directory);

    struct Case {
        LONGLONG offset;  // -1: none given.
        ULONG length;
        NTSTATUS status;
        size_t first;
        size_t count;
    };
    const Case cases[] = {
        {-1, 1056, STATUS_SUCCESS, 0, 1056},     {-1, 100, STATUS_SUCCESS, 1056, 100},
        {-2, 5, STATUS_SUCCESS, 1156, 5},        {2990, 100, STATUS_SUCCESS, 2990, 10},
        {-1, 1, STATUS_END_OF_FILE, 0, 0},       {3000, 0, STATUS_SUCCESS, 0, 0},
        {-5, 1, STATUS_INVALID_PARAMETER, 0, 0}, {INT64_MAX, 10, STATUS_END_OF_FILE, 0, 0},
    };
    for (const Case& c : cases) {
        std::string buffer(c.length, '#');
        LARGE_INTEGER offset;
        offset.QuadPart = c.offset;
        const NTSTATUS status = ZwReadFile(file, nullptr, nullptr, nullptr, &ioStatus, buffer.data(), c.length,
                                           c.offset == -1 ? nullptr : &offset, nullptr);
        if (c.offset == INT64_MAX) {
            EXPECT_FALSE(NT_SUCCESS(status));
            continue;
        }
        EXPECT_EQ(status, c.status) << c.offset;
        EXPECT_EQ(ioStatus.Information, c.count) << c.offset;
        EXPECT_EQ(buffer.substr(0, c.count), content.substr(c.first, c.count));
        EXPECT_EQ(buffer.substr(c.count), std::string(c.length - c.count, '#'));
    }
    ZwClose(file);
    EXPECT_EQ(ZwReadFile(file, nullptr, nullptr, nullptr, &ioStatus, &ioStatus, 0, nullptr, nullptr),
              STATUS_INVALID_HANDLE);
}

TEST_F(FilesTest, DeleteOnClose) {
    tests::WriteFile(backup_, "once");
    HANDLE file = nullptr;
    EXPECT_EQ(Open(kBackup, &file, kRead, kSynchronous | FILE_DELETE_ON_CLOSE), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Open(kBackup, &file, kRead | GENERIC_WRITE), STATUS_NOT_IMPLEMENTED);
    ASSERT_EQ(Open(kBackup, &file, kRead | DELETE, kSynchronous | FILE_DELETE_ON_CLOSE), STATUS_SUCCESS);
    EXPECT_TRUE(fs::exists(backup_));
    HANDLE second = nullptr;
    EXPECT_EQ(Open(kBackup, &second), STATUS_SHARING_VIOLATION);  // it does not share the right to delete
    ZwClose(file);
    EXPECT_FALSE(fs::exists(backup_));
    EXPECT_EQ(Open(kBackup, &file, kRead | DELETE, kSynchronous | FILE_DELETE_ON_CLOSE), STATUS_OBJECT_NAME_NOT_FOUND);

    // Another file that took the name meanwhile stays.
    tests::WriteFile(backup_, "first");
    ASSERT_EQ(Open(kBackup, &file, kRead | DELETE, kSynchronous | FILE_DELETE_ON_CLOSE), STATUS_SUCCESS);
    fs::rename(backup_, directory_ / "moved");
    tests::WriteFile(backup_, "second");
    ZwClose(file);
    EXPECT_EQ(tests::ReadFile(backup_), "second");

    files_.readOnly = true;
    ASSERT_EQ(Reboot(), "");
    EXPECT_EQ(Open(kBackup, &file, kRead | DELETE, kSynchronous | FILE_DELETE_ON_CLOSE), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(tests::ReadFile(backup_), "second");
}

}  // namespace
