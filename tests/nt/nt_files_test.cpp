#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>

#include "nt_kernel_fixture.h"
#include "station_fixture.h"

namespace {

using tests::Attributes;
namespace fs = std::filesystem;

constexpr ULONG kSynchronous = FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE | FILE_SEQUENTIAL_ONLY;
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

    static NTSTATUS Open(std::u16string_view name, HANDLE* file) {
        IO_STATUS_BLOCK ioStatus;
        const NTSTATUS status =
            ZwCreateFile(file, GENERIC_READ | SYNCHRONIZE, Attributes(name), &ioStatus, nullptr, FILE_ATTRIBUTE_NORMAL,
                         FILE_SHARE_READ, FILE_OPEN, kSynchronous, nullptr, 0);
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
    const struct {
        std::u16string_view name;
        NTSTATUS status;
    } cases[] = {
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
    for (const auto& [name, status] : cases) {
        HANDLE file = nullptr;
        EXPECT_EQ(Open(name, &file), status) << nt::Utf8FromWide(name);
        if (file != nullptr) {
            ZwClose(file);
        }
    }
}

// ---- the event log ----

class ErrorLogTest : public tests::StationTest {
  protected:
    void SetUp() override {
        StationTest::SetUp();
        ASSERT_EQ(nt::AttachStation(files_), "");
        ASSERT_EQ(test_.Load(), STATUS_SUCCESS);
    }
    void TearDown() override {
        EXPECT_EQ(test_.Unload(), "");
        StationTest::TearDown();
    }

    // Writes an entry as the driver does: the string behind the fixed part.
    bool Log(ULONG eventId, const std::u16string& string) {
        const size_t bytes = (string.size() + 1) * sizeof(WCHAR);
        auto* const packet =
            static_cast<PIO_ERROR_LOG_PACKET>(IoAllocateErrorLogEntry(test_.object, static_cast<UCHAR>(48 + bytes)));
        if (packet == nullptr) {
            return false;
        }
        packet->ErrorCode = nt::StatusFromCode(eventId);
        packet->StringOffset = 44;
        packet->NumberOfStrings = 1;
        std::memcpy(reinterpret_cast<UCHAR*>(packet) + packet->StringOffset, string.c_str(), bytes);
        IoWriteErrorLogEntry(packet);
        return true;
    }

    nt_test::TestDriver test_;
};

TEST_F(ErrorLogTest, TornAndDamagedRecordsCostOnlyThemselves) {
    ASSERT_TRUE(Log(1, u"one"));
    ASSERT_TRUE(Log(2, u"two"));
    const std::string good = tests::ReadFile(files_.eventLog);
    for (const size_t cut : {size_t{1}, size_t{2}, size_t{40}, good.find('\n') + 1}) {
        tests::WriteFile(files_.eventLog, std::string_view(good).substr(0, good.size() - cut));
        const size_t before = nt::ReadEventLog(files_.eventLog).entries.size();
        EXPECT_EQ(before, cut == 1 ? 2u : 1u) << cut;
        EXPECT_EQ(nt::ReadEventLog(files_.eventLog).damagedRecords, 0u) << cut;
        ASSERT_TRUE(Log(3, u"three"));
        const nt::EventLogContents log = nt::ReadEventLog(files_.eventLog);
        ASSERT_EQ(log.entries.size(), before + 1) << cut;
        EXPECT_EQ(log.entries.back().strings[0], u"three");
    }
    const std::string line = good.substr(0, good.find('\n') + 1);
    std::string badPacket = line;
    badPacket[badPacket.find("\"packet\":\"") + 10] = 'x';
    tests::WriteFile(files_.eventLog, line + "\n" + "[1,2]\n" + std::string("\0\xFF\n", 3) + "{}\n" + badPacket +
                                          "{\"time\":1.5,\"packet\":\"00\"}\n" + std::string(100000, '[') + "\n" +
                                          line);
    const nt::EventLogContents log = nt::ReadEventLog(files_.eventLog);
    EXPECT_EQ(log.entries.size(), 2u);
    EXPECT_EQ(log.damagedRecords, 6u);
}

}  // namespace
