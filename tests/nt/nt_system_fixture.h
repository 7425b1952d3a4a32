#pragma once

#include <memory>

#include "tests/nt/nt_kernel_fixture.h"

// A process beside the test driver.

namespace nt_test {

class SystemTest : public DriverTest {
  protected:
    void SetUp() override {
        driver.deviceType = FILE_DEVICE_DISK_FILE_SYSTEM;
        DriverTest::SetUp();
        process = std::make_unique<nt::Process>("app");
    }
    void TearDown() override {
        process.reset();
        DriverTest::TearDown();
    }
    nt::Handle Open(std::u16string_view name, ULONG options = FILE_SYNCHRONOUS_IO_NONALERT,
                    ACCESS_MASK access = FILE_ALL_ACCESS) {
        nt::Handle handle = 0;
        EXPECT_EQ(process->Open({.name = name, .desiredAccess = access, .options = options}, &handle), STATUS_SUCCESS);
        EXPECT_EQ(handle % 4, 0u);
        driver.Forget();
        return handle;
    }
    std::unique_ptr<nt::Process> process;
};

}  // namespace nt_test
