// The packets that VrkFsGlobLogEvent writes.
#include "core/event_log.h"

#include <cstring>

#include "tests/driver/core_rig.h"

namespace tests {
namespace {

class EventLogTest : public DriverRig {
  protected:
    void SetUp() override {
        DriverRig::SetUp();
        Boot();
        Plug(0);
        ASSERT_EQ(Load(), STATUS_SUCCESS);
        inside_ = std::make_unique<nt::DriverScope>(driver_);
    }
    void TearDown() override {
        inside_.reset();
        DriverRig::TearDown();
    }
    std::vector<nt::EventLogEntry> Entries() const { return nt::ReadEventLog(EventLog()).entries; }

    std::unique_ptr<nt::DriverScope> inside_;
};

TEST_F(EventLogTest, PacketsAreAsLongAsWhatTheyCarry) {
    UCHAR dump[40];
    for (UCHAR& byte : dump) {
        byte = static_cast<UCHAR>(&byte - dump + 1);
    }
    ASSERT_EQ(VrkFsGlobLogEvent(driver_, kVrkFsEventFile, 0, nullptr, 0, nullptr), STATUS_SUCCESS);
    ASSERT_EQ(VrkFsGlobLogEvent(driver_, kVrkFsEventBodyTableRecovered, 0, dump, 40, nullptr), STATUS_SUCCESS);
    ASSERT_EQ(VrkFsGlobLogEvent(driver_, kVrkFsEventChecksumFailed, 0, dump, 40, "1", "", "a\xE9", nullptr),
              STATUS_SUCCESS);
    ASSERT_EQ(VrkFsGlobLogEvent(driver_, kVrkFsEventFile, 0, nullptr, 4, nullptr), STATUS_SUCCESS);

    const std::vector<nt::EventLogEntry> entries = Entries();
    ASSERT_EQ(entries.size(), 4u);
    struct {
        std::uint32_t id;
        std::size_t size;
        USHORT dumpSize;
        USHORT stringOffset;
        std::vector<std::u16string> strings;
    } const wanted[] = {
        {0xC0050003, 48, 0, 44, {}},
        {0x4005000B, 88, 40, 84, {}},
        {0xC0050008, 88 + 4 + 2 + 6, 40, 84, {u"1", u"", u"a\u00E9"}},
        {0xC0050003, 52, 4, 48, {}},
    };
    for (std::size_t index = 0; index < entries.size(); ++index) {
        const nt::EventLogEntry& entry = entries[index];
        ASSERT_EQ(entry.packet.size(), wanted[index].size) << index;
        IO_ERROR_LOG_PACKET packet;
        std::memcpy(&packet, entry.packet.data(), sizeof(packet));
        EXPECT_EQ(static_cast<std::uint32_t>(packet.ErrorCode), wanted[index].id);
        EXPECT_EQ(packet.DumpDataSize, wanted[index].dumpSize);
        EXPECT_EQ(packet.StringOffset, wanted[index].stringOffset);
        EXPECT_EQ(packet.NumberOfStrings, wanted[index].strings.size());
        EXPECT_EQ(entry.strings, wanted[index].strings);
        EXPECT_EQ(packet.MajorFunctionCode | packet.RetryCount | packet.EventCategory, 0);
        EXPECT_EQ(packet.UniqueErrorValue | packet.SequenceNumber | packet.IoControlCode, 0u);
        EXPECT_EQ(packet.FinalStatus, 0);
    }
    EXPECT_EQ(entries[1].dumpData, std::vector<std::uint8_t>(dump, dump + 40));
    EXPECT_EQ(entries[3].dumpData, std::vector<std::uint8_t>(4));  // room, but no data
}

TEST_F(EventLogTest, WhatDoesNotFitAnEntryIsDropped) {
    const std::string fits(51, 'x');  // 48 + 104 bytes
    const std::string exceeds(52, 'x');
    const std::string huge(100'000, 'x');
    EXPECT_EQ(VrkFsGlobLogEvent(driver_, kVrkFsEventFile, 0, nullptr, 0, fits.c_str(), nullptr), STATUS_SUCCESS);
    EXPECT_EQ(VrkFsGlobLogEvent(driver_, kVrkFsEventFile, 0, nullptr, 0, exceeds.c_str(), nullptr),
              STATUS_UNSUCCESSFUL);
    EXPECT_EQ(VrkFsGlobLogEvent(driver_, kVrkFsEventFile, 0, nullptr, 0, huge.c_str(), nullptr), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(VrkFsGlobLogEvent(driver_, kVrkFsEventFile, 0, nullptr, 2, fits.c_str(), nullptr), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(VrkFsGlobLogEvent(driver_, kVrkFsEventFile, 0, nullptr, 0xFFFFFFF0, nullptr), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Entries().size(), 1u);

    nt::FaultPlan plan;
    plan.kinds = nt::FaultBit(nt::FaultKind::kErrorLog);
    plan.failAt = 1;
    nt::ArmFaults(plan);
    EXPECT_EQ(VrkFsGlobLogEvent(driver_, kVrkFsEventFile, 0, nullptr, 0, nullptr), STATUS_UNSUCCESSFUL);
    nt::DisarmFaults();
    EXPECT_EQ(Entries().size(), 1u);
}

}  // namespace
}  // namespace tests
