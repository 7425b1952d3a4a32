#include <atomic>

#include "tests/nt/nt_kernel_fixture.h"

// Requests: completion against cancel, and what a dispatch routine must not do.

namespace {

using namespace nt_test;

using RequestTest = DriverTest;

// ---- cancel ----

// A driver that keeps one request and gives it up when cancelled, as the kernel's rules want it.
struct Keeper {
    static Keeper* current;
    std::atomic<PIRP> kept{nullptr};
    std::atomic<int> cancelled{0};

    // The cancel lock guards `kept`: whoever takes the request out owns its completion, and until then it cannot go.
    NTSTATUS Keep(PIRP irp) {
        IoMarkIrpPending(irp);
        KIRQL irql;
        IoAcquireCancelSpinLock(&irql);
        const bool late = irp->Cancel != FALSE;
        if (!late) {
            kept = irp;
            IoSetCancelRoutine(irp, Cancel);
        }
        IoReleaseCancelSpinLock(irql);
        if (late) {
            Complete(irp, STATUS_CANCELLED);
        }
        return STATUS_PENDING;
    }
    // False: the cancel routine has it.
    bool Finish(NTSTATUS status) {
        KIRQL irql;
        IoAcquireCancelSpinLock(&irql);
        PIRP irp = kept;
        if (irp != nullptr && IoSetCancelRoutine(irp, nullptr) == nullptr) {
            irp = nullptr;
        }
        if (irp != nullptr) {
            kept = nullptr;
        }
        IoReleaseCancelSpinLock(irql);
        if (irp != nullptr) {
            Complete(irp, status);
        }
        return irp != nullptr;
    }
    static VOID NTAPI Cancel(PDEVICE_OBJECT, PIRP irp) {
        current->kept = nullptr;
        IoReleaseCancelSpinLock(irp->CancelIrql);
        current->cancelled++;
        Complete(irp, STATUS_CANCELLED);
    }
};
Keeper* Keeper::current = nullptr;

// Completion and cancel race for many requests; each is completed exactly once, by one of the two.
TEST_F(RequestTest, CompletionAndCancelExcludeEachOther) {
    Keeper keeper;
    Keeper::current = &keeper;
    driver.on[IRP_MJ_READ] = [&](PDEVICE_OBJECT, PIRP irp) { return keeper.Keep(irp); };
    nt::Process process("app");
    nt::Handle handle = 0;
    ASSERT_EQ(process.Open({.name = u"\\??\\T:", .options = 0}, &handle), STATUS_SUCCESS);
    std::atomic<bool> stop{false};
    std::atomic<int> finished{0};
    std::thread finisher([&] {
        while (!stop) {
            finished += keeper.Finish(STATUS_SUCCESS);
        }
    });
    constexpr int kRounds = 2000;
    int asCancelled = 0;
    for (int i = 0; i < kRounds; i++) {
        KEVENT over;
        KeInitializeEvent(&over, NotificationEvent, FALSE);
        const nt::Overlapped overlapped{nullptr, nullptr, &over};
        IO_STATUS_BLOCK status{};
        const LONGLONG offset = 0;
        ASSERT_EQ(process.Read(handle, &status, nullptr, 0, &offset, &overlapped), STATUS_PENDING);
        process.CancelRequest(&status);
        KeWaitForSingleObject(&over, Executive, KernelMode, FALSE, nullptr);
        asCancelled += status.Status == STATUS_CANCELLED;
    }
    stop = true;
    finisher.join();
    EXPECT_EQ(keeper.cancelled + finished, kRounds);
    EXPECT_EQ(asCancelled, keeper.cancelled);
}

// ---- what a dispatch routine must not do ----

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
