#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "nt_kernel_fixture.h"
#include "station_fixture.h"

namespace {

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
