#include <atomic>

#include "tests/nt/nt_kernel_fixture.h"

// Requests: completion against cancel, and what a dispatch routine must not do.

namespace {

using namespace nt_test;

using RequestTest = DriverTest;

TEST_F(RequestTest, TheVerifierHoldsDispatchRoutinesToTheirWord) {
    struct Case {
        const char* name;
        const char* message;
        std::function<NTSTATUS(PIRP)> routine;
    };
    constexpr ULONG kBuffered = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS);
    static std::atomic<PIRP> left;
    static KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    const auto cancelRoutine = [](PDEVICE_OBJECT, PIRP) {};
    const Case cases[] = {
        {"completes twice", "does not exist or has been completed",
         [](PIRP irp) {
             Complete(irp, STATUS_SUCCESS);
             IofCompleteRequest(irp, IO_NO_INCREMENT);
             return STATUS_SUCCESS;
         }},
        {"never completes", "never completed request",
         [](PIRP irp) {
             left = irp;
             return STATUS_SUCCESS;
         }},
        {"returns pending unannounced", "STATUS_PENDING without IoMarkIrpPending",
         [](PIRP irp) {
             left = irp;
             return STATUS_PENDING;
         }},
        {"announces pending and completes", "marked the request pending and returned 0x00000000",
         [](PIRP irp) {
             IoMarkIrpPending(irp);
             return Complete(irp, STATUS_SUCCESS);
         }},
        {"completes with its cancel routine set", "with its cancel routine still set",
         [&](PIRP irp) {
             IoSetCancelRoutine(irp, cancelRoutine);
             return Complete(irp, STATUS_SUCCESS);
         }},
        {"keeps the cancel lock in its cancel routine", "returned with the cancel lock held",
         [&](PIRP irp) {
             IoMarkIrpPending(irp);
             IoSetCancelRoutine(irp, cancelRoutine);
             IoCancelIrp(irp);
             left = irp;
             return STATUS_PENDING;
         }},
        {"completes with a spin lock held", "with a spin lock held",
         [](PIRP irp) {
             KIRQL irql;
             KeAcquireSpinLock(&lock, &irql);
             Complete(irp, STATUS_SUCCESS);
             KeReleaseSpinLock(&lock, irql);
             return STATUS_SUCCESS;
         }},
        {"keeps a critical region", "returned in 1 critical regions (entered in 0)",
         [](PIRP irp) {
             KeEnterCriticalRegion();
             return Complete(irp, STATUS_SUCCESS);
         }},
        {"returns more than the buffer holds", "returned 5 bytes to a buffer of 4",
         [](PIRP irp) { return Complete(irp, STATUS_SUCCESS, 5); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        left = nullptr;
        driver.on[IRP_MJ_DEVICE_CONTROL] = [&](PDEVICE_OBJECT, PIRP irp) { return c.routine(irp); };
        Violations violations;
        ULONG out = 0;
        IO_STATUS_BLOCK status{};
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        IoCallDriver(driver.device, IoBuildDeviceIoControlRequest(kBuffered, driver.device, nullptr, 0, &out,
                                                                  sizeof(out), FALSE, &event, &status));
        const std::string said = Violations::Take();
        EXPECT_NE(said.find(c.message), std::string::npos) << said;
        if (KeAreApcsDisabled()) {
            KeLeaveCriticalRegion();
        }
        if (left != nullptr) {
            Complete(left, STATUS_SUCCESS);
        }
        EXPECT_EQ(nt::GetStatistics().requests, 0u);
    }
}

}  // namespace
