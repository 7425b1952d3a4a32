#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "nt/kernel.h"
#include "nt/nt.h"
#include "nt/system.h"

// A kernel that boots and shuts down around each test, with nothing left over, and a driver whose requests a test
// answers.

namespace nt_test {

// Collects what the verifier says instead of stopping the process.
class Violations {
  public:
    Violations() {
        Messages().clear();
        nt::SetViolationHandler(&Record);
    }
    ~Violations() { nt::SetViolationHandler(nullptr); }

    static size_t Count() {
        std::lock_guard guard(Lock());
        return Messages().size();
    }
    // The messages so far, which it forgets.
    static std::string Take() {
        std::lock_guard guard(Lock());
        std::string text;
        for (const std::string& message : Messages()) {
            text += message + "\n";
        }
        Messages().clear();
        return text;
    }

  private:
    static std::mutex& Lock() {
        static std::mutex lock;
        return lock;
    }
    static std::vector<std::string>& Messages() {
        static std::vector<std::string> messages;
        return messages;
    }
    static void Record(const char* message) {
        std::lock_guard guard(Lock());
        Messages().push_back(message);
    }
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
        Current() = this;
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
    static TestDriver*& Current() {
        static TestDriver* current;
        return current;
    }
    static NTSTATUS NTAPI Entry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
        TestDriver& self = *Current();
        for (PDRIVER_DISPATCH& routine : driver->MajorFunction) {
            routine = Dispatch;
        }
        driver->DriverUnload = OnUnload;
        NTSTATUS status = IoCreateDevice(driver, self.extensionSize, Name(u"\\Device\\Test"), self.deviceType, 0, FALSE,
                                         &self.device);
        return NT_SUCCESS(status) ? IoCreateSymbolicLink(Name(u"\\DosDevices\\T:"), Name(u"\\Device\\Test")) : status;
    }
    static VOID NTAPI OnUnload(PDRIVER_OBJECT) {
        TestDriver& self = *Current();
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
        TestDriver& self = *Current();
        const UCHAR major = IoGetCurrentIrpStackLocation(irp)->MajorFunction;
        {
            std::lock_guard guard(self.lock_);
            self.seen_ += (self.seen_.empty() ? "" : " ") + std::string(kNames[major]);
        }
        return self.on[major] ? self.on[major](device, irp) : Complete(irp, STATUS_SUCCESS);
    }

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

class ManualClockTest : public KernelTest {
  protected:
    nt::BootOptions Options() override {
        nt::BootOptions options;
        options.manualClock = true;
        return options;
    }
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

// Waits for something that another thread does, at most ten seconds.
inline bool Eventually(const std::function<bool()>& condition) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace nt_test
