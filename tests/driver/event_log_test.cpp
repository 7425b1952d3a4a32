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
