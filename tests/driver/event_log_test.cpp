// The packets that VrkFsGlobLogEvent writes.
#include "core/event_log.h"

#include "tests/driver/core_rig.h"

namespace tests {
namespace {

using EventLogTest = LoadedRig;

TEST_F(EventLogTest, WhatDoesNotFitAnEntryIsDropped) {
    const struct {
        std::size_t chars;
        ULONG dump;
        NTSTATUS status;
    } cases[] = {
        {51, 0, STATUS_SUCCESS},  // 48 + 104 bytes
        {52, 0, STATUS_UNSUCCESSFUL}, {100'000, 0, STATUS_UNSUCCESSFUL},
        {51, 2, STATUS_UNSUCCESSFUL}, {0, 0xFFFFFFF0, STATUS_UNSUCCESSFUL},
    };
    const auto log = [&](const std::string& text, ULONG dump) {
        return VrkFsGlobLogEvent(driver_, kVrkFsEventFile, 0, nullptr, dump, text.c_str(), nullptr);
    };
    for (const auto& test : cases) {
        EXPECT_EQ(log(std::string(test.chars, 'x'), test.dump), test.status) << test.chars << " " << test.dump;
    }
    nt::ArmFaults({.kinds = nt::FaultBit(nt::FaultKind::kErrorLog), .failAt = 1});
    EXPECT_EQ(log("", 0), STATUS_UNSUCCESSFUL);
    nt::DisarmFaults();
    EXPECT_EQ(Events().size(), 1u);
}

}  // namespace
}  // namespace tests
