#include <sys/mman.h>

#include <atomic>

#include "tests/nt/nt_kernel_fixture.h"

// Transfers and control requests of a process.

namespace {

using namespace nt_test;

// A page that may not be touched, behind one that may.
class GuardedPage {
  public:
    GuardedPage() {
        base_ = static_cast<char*>(mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(base_ + 4096, 4096, PROT_NONE);
    }
    ~GuardedPage() { munmap(base_, 8192); }
    char* End() const { return base_ + 4096; }
    char* Base() const { return base_; }

  private:
    char* base_;
};

// Requests on one synchronous file object take turns; a second process with a duplicate is no exception.
TEST_F(SystemTest, SynchronousRequestsTakeTurns) {
    const nt::Handle handle = Open(u"\\??\\T:\\f");
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    driver.on[IRP_MJ_READ] = [&](PDEVICE_OBJECT, PIRP irp) {
        most = std::max(most.load(), ++inside);
        std::this_thread::yield();
        inside--;
        return Complete(irp, STATUS_SUCCESS);
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; i++) {
                EXPECT_EQ(process->Read(handle, nullptr, nullptr, 0), STATUS_SUCCESS);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(most, 1);
}

TEST_F(SystemTest, ControlBuffersOfUsersAreCheckedNotTrusted) {
    constexpr ULONG kCodes[] = {CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS),
                                CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_IN_DIRECT, FILE_ANY_ACCESS),
                                CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_OUT_DIRECT, FILE_ANY_ACCESS)};
    const nt::Handle handle = Open(u"\\??\\T:", FILE_SYNCHRONOUS_IO_NONALERT, FILE_READ_DATA | SYNCHRONIZE);
    const GuardedPage page;
    char* const bad = reinterpret_cast<char*>(uintptr_t{0x1000});
    char* const wrapping = reinterpret_cast<char*>(~uintptr_t{0} - 7);
    driver.on[IRP_MJ_DEVICE_CONTROL] = [&](PDEVICE_OBJECT, PIRP irp) {
        const auto& control = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
        return Complete(
            irp, STATUS_SUCCESS,
            METHOD_FROM_CTL_CODE(control.IoControlCode) == METHOD_BUFFERED ? control.OutputBufferLength : 0);
    };
    struct Case {
        const char* name;
        const char* in;
        ULONG inLength;
        char* out;
        ULONG outLength;
        const char* reached;  // by code: does the driver see it?
        const char* failed;
    };
    char* const good = page.Base();
    const Case cases[] = {
        {"all good", good, 16, page.End() - 16, 16, "yyy", "nnn"},
        {"input runs into a hole", page.End() - 8, 16, good, 16, "nnn", "yyy"},
        {"output runs into a hole", good, 16, page.End() - 8, 16, "ynn", "yyy"},
        {"output wraps", good, 16, wrapping, 64, "ynn", "yyy"},
        {"null input", nullptr, 16, good, 16, "nnn", "yyy"},
        {"bad addresses of no length", bad, 0, bad, 0, "yyy", "nnn"},
    };
    for (const Case& c : cases) {
        for (size_t code = 0; code < std::size(kCodes); code++) {
            SCOPED_TRACE(std::string(c.name) + " method " + std::to_string(code));
            driver.Forget();
            IO_STATUS_BLOCK status{};
            const NTSTATUS answer =
                process->DeviceControl(handle, &status, kCodes[code], c.in, c.inLength, c.out, c.outLength);
            EXPECT_EQ(answer, c.failed[code] == 'y' ? STATUS_ACCESS_VIOLATION : STATUS_SUCCESS);
            EXPECT_EQ(status.Status, answer);
            EXPECT_EQ(driver.Seen(), c.reached[code] == 'y' ? "ioctl" : "");
        }
    }
    constexpr ULONG kWriting = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_BUFFERED, FILE_WRITE_ACCESS);
    EXPECT_EQ(process->DeviceControl(handle, nullptr, kWriting, nullptr, 0, nullptr, 0), STATUS_ACCESS_DENIED);
    EXPECT_EQ(process->DeviceControl(handle, nullptr, kCodes[0], nullptr, 0, good, 0xFFFFFFFF),
              STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(process->FsControl(handle, nullptr, FSCTL_IS_VOLUME_MOUNTED, nullptr, 0, nullptr, 0), STATUS_SUCCESS);
    EXPECT_EQ(driver.Seen(), "ioctl fsctl");
    // Read-only memory is good for input and bad for output.
    mprotect(page.Base(), 4096, PROT_READ);
    EXPECT_EQ(process->DeviceControl(handle, nullptr, kCodes[1], good, 8, good, 8), STATUS_SUCCESS);
    EXPECT_EQ(process->DeviceControl(handle, nullptr, kCodes[2], good, 8, good, 8), STATUS_ACCESS_VIOLATION);
}

}  // namespace
