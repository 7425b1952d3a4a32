#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "nt/kernel.h"
#include "nt/nt.h"
#include "nt/system.h"
#include "tests/support/eventually.h"

// A kernel that boots and shuts down around each test, with nothing left over, and a driver whose requests a test
// answers.

namespace nt_test {

using tests::Eventually;

// Collects what the verifier says instead of stopping the process.
class Violations {
  public:
    Violations() {
        messages_.clear();
        nt::SetViolationHandler(&Record);
    }
    ~Violations() { nt::SetViolationHandler(nullptr); }

    static size_t Count() {
        std::lock_guard guard(lock_);
        return messages_.size();
    }
    // The messages so far, which it forgets.
    static std::string Take() {
        std::lock_guard guard(lock_);
        std::string text;
        for (const std::string& message : messages_) {
            text += message + "\n";
        }
        messages_.clear();
        return text;
    }

  private:
    static void Record(const char* message) {
        std::lock_guard guard(lock_);
        messages_.push_back(message);
    }

    static inline std::mutex lock_;
    static inline std::vector<std::string> messages_;
};

// Device names and the like, as the kernel wants them.
class Name {
  public:
    explicit Name(std::u16string text) : text_(std::move(text)) {
        string_ = {static_cast<USHORT>(text_.size() * 2), static_cast<USHORT>(text_.size() * 2), text_.data()};
    }
    operator PUNICODE_STRING() { return &string_; }

  private:
    std::u16string text_;
    UNICODE_STRING string_;
};

inline NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

// A driver with one device, "\Device\Test" ("T:"), that succeeds at everything a test does not answer itself.
class TestDriver {
  public:
    using Routine = std::function<NTSTATUS(PDEVICE_OBJECT, PIRP)>;
    Routine on[IRP_MJ_MAXIMUM_FUNCTION + 1];
    PDRIVER_OBJECT object = nullptr;
    PDEVICE_OBJECT device = nullptr;
    std::function<void()> onUnload;
    ULONG extensionSize = 64;
    DEVICE_TYPE deviceType = FILE_DEVICE_UNKNOWN;

    NTSTATUS Load() {
        current_ = this;
        return nt::LoadDriver({&Entry, u"Test", u""}, &object);
    }
    // What it left over, as text.
    std::string Unload() {
        nt::LeakList leaks;
        const NTSTATUS status = nt::UnloadDriver(object, &leaks);
        EXPECT_EQ(status, STATUS_SUCCESS);
        object = nullptr;
        return nt::ToString(leaks);
    }
    // The majors seen so far, in order.
    std::string Seen() {
        std::lock_guard guard(lock_);
        return seen_;
    }
    void Forget() {
        std::lock_guard guard(lock_);
        seen_.clear();
    }

  private:
    static NTSTATUS NTAPI Entry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
        TestDriver& self = *current_;
        for (PDRIVER_DISPATCH& routine : driver->MajorFunction) {
            routine = Dispatch;
        }
        driver->DriverUnload = OnUnload;
        NTSTATUS status = IoCreateDevice(driver, self.extensionSize, Name(u"\\Device\\Test"), self.deviceType, 0, FALSE,
                                         &self.device);
        return NT_SUCCESS(status) ? IoCreateSymbolicLink(Name(u"\\DosDevices\\T:"), Name(u"\\Device\\Test")) : status;
    }
    static VOID NTAPI OnUnload(PDRIVER_OBJECT) {
        TestDriver& self = *current_;
        IoDeleteSymbolicLink(Name(u"\\??\\T:"));
        IoDeleteDevice(self.device);
        if (self.onUnload) {
            self.onUnload();
        }
    }
    static NTSTATUS NTAPI Dispatch(PDEVICE_OBJECT device, PIRP irp) {
        static const char* const kNames[] = {"create",  "pipe",   "close",    "read",     "write",  "query", "set",
                                             "queryea", "setea",  "flush",    "queryvol", "setvol", "dir",   "fsctl",
                                             "ioctl",   "iioctl", "shutdown", "lock",     "cleanup"};
        TestDriver& self = *current_;
        const UCHAR major = IoGetCurrentIrpStackLocation(irp)->MajorFunction;
        {
            std::lock_guard guard(self.lock_);
            self.seen_ += (self.seen_.empty() ? "" : " ") + std::string(kNames[major]);
        }
        return self.on[major] ? self.on[major](device, irp) : Complete(irp, STATUS_SUCCESS);
    }

    static inline TestDriver* current_ = nullptr;
    std::mutex lock_;
    std::string seen_;
};

class KernelTest : public ::testing::Test {
  protected:
    void SetUp() override { nt::Boot(Options()); }
    void TearDown() override {
        nt::SetViolationHandler(nullptr);
        EXPECT_EQ(nt::ToString(nt::Shutdown()), "");
    }
    virtual nt::BootOptions Options() { return {}; }
};

// A kernel with the test driver loaded.
class DriverTest : public KernelTest {
  protected:
    void SetUp() override {
        KernelTest::SetUp();
        ASSERT_EQ(driver.Load(), STATUS_SUCCESS);
    }
    void TearDown() override {
        nt::SetViolationHandler(nullptr);
        EXPECT_EQ(driver.Unload(), "");
        KernelTest::TearDown();
    }
    TestDriver driver;
};

// A process beside the driver.
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
