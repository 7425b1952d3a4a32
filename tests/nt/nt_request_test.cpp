#include <sys/mman.h>

#include <atomic>
#include <cstring>

#include "tests/nt/nt_kernel_fixture.h"

// The way of requests between drivers: completion, pending, completion routines, cancel, control buffers, and what a
// dispatch routine must not do.

namespace {

using namespace nt_test;

constexpr ULONG kBuffered = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG kOutDirect = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x801, METHOD_OUT_DIRECT, FILE_ANY_ACCESS);
constexpr ULONG kInDirect = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x802, METHOD_IN_DIRECT, FILE_ANY_ACCESS);
constexpr ULONG kNeither = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x803, METHOD_NEITHER, FILE_ANY_ACCESS);

// A control request as one driver sends it to another, with its status block and event.
struct ControlCall {
    KEVENT event;
    IO_STATUS_BLOCK status{};
    PIRP irp = nullptr;

    ControlCall() {
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        status.Status = STATUS_RETRY;  // "never written"
        status.Information = 77;
    }
    NTSTATUS Send(PDEVICE_OBJECT device, ULONG code, PVOID in = nullptr, ULONG inLength = 0, PVOID out = nullptr,
                  ULONG outLength = 0) {
        irp = IoBuildDeviceIoControlRequest(code, device, in, inLength, out, outLength, FALSE, &event, &status);
        return irp != nullptr ? IoCallDriver(device, irp) : STATUS_INSUFFICIENT_RESOURCES;
    }
    bool IsSet() { return KeReadStateEvent(&event) != 0; }
};

class RequestTest : public DriverTest {
  protected:
    void Answer(const TestDriver::Routine& routine) { driver.on[IRP_MJ_DEVICE_CONTROL] = routine; }
};

TEST_F(RequestTest, AControlRequestReportsWhenItSucceededOrWasPending) {
    struct Case {
        NTSTATUS status;
        bool pend;
        bool reported;
    };
    // A failure that the dispatch routine itself returns leaves status block and event alone.
    const Case cases[] = {{STATUS_SUCCESS, false, true},
                          {STATUS_BUFFER_OVERFLOW, false, true},
                          {STATUS_IO_DEVICE_ERROR, false, false},
                          {STATUS_SUCCESS, true, true},
                          {STATUS_IO_DEVICE_ERROR, true, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.status) + (c.pend ? " pending" : ""));
        Answer([&](PDEVICE_OBJECT, PIRP irp) {
            if (!c.pend) {
                return Complete(irp, c.status, 5);
            }
            IoMarkIrpPending(irp);
            std::thread([irp, &c] { Complete(irp, c.status, 5); }).detach();
            return STATUS_PENDING;
        });
        ControlCall call;
        const NTSTATUS status = call.Send(driver.device, kNeither);
        EXPECT_EQ(status, c.pend ? STATUS_PENDING : c.status);
        if (c.pend) {
            EXPECT_EQ(KeWaitForSingleObject(&call.event, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
        }
        EXPECT_EQ(call.IsSet(), c.reported);
        EXPECT_EQ(call.status.Status, c.reported ? c.status : STATUS_RETRY);
        EXPECT_EQ(call.status.Information, c.reported ? 5u : 77u);
        EXPECT_EQ(nt::GetStatistics().requests, 0u);
    }
}

TEST_F(RequestTest, BuffersTravelAsTheCodeSays) {
    // Lengths on both sides of what fits into the request itself.
    for (const ULONG length : {0u, 1u, 256u, 257u, 4096u}) {
        for (const ULONG outLength : {0u, 16u, 5000u}) {
            SCOPED_TRACE(std::to_string(length) + " in, " + std::to_string(outLength) + " out");
            std::vector<UCHAR> in(length + 1, 0x11);
            std::vector<UCHAR> out(outLength + 1, 0x22);
            const ULONG returned = std::min(outLength, 10u);
            Answer([&](PDEVICE_OBJECT, PIRP irp) {
                auto* const system = static_cast<UCHAR*>(irp->AssociatedIrp.SystemBuffer);
                for (ULONG i = 0; i < std::max(length, outLength); i++) {
                    EXPECT_TRUE(i >= length || system[i] == 0x11);  // the input comes first
                    system[i] = 0x33;                               // and all of it may be written
                }
                return Complete(irp, STATUS_SUCCESS, returned);
            });
            ControlCall call;
            EXPECT_EQ(call.Send(driver.device, kBuffered, in.data(), length, out.data(), outLength), STATUS_SUCCESS);
            for (ULONG i = 0; i <= outLength; i++) {
                ASSERT_EQ(out[i], i < returned ? 0x33 : 0x22) << i;
            }
        }
    }
    UCHAR out[5000];
    ULONG in = 42;
    Answer([&](PDEVICE_OBJECT, PIRP irp) {
        EXPECT_EQ(*static_cast<ULONG*>(irp->AssociatedIrp.SystemBuffer), 42u);
        EXPECT_NE(irp->MdlAddress->MdlFlags & MDL_PAGES_LOCKED, 0);
        EXPECT_EQ(MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority), out);
        EXPECT_EQ(MmGetMdlByteCount(irp->MdlAddress), sizeof(out));
        return Complete(irp, STATUS_SUCCESS);
    });
    for (const ULONG code : {kOutDirect, kInDirect}) {
        ControlCall call;
        EXPECT_EQ(call.Send(driver.device, code, &in, sizeof(in), out, sizeof(out)), STATUS_SUCCESS);
    }
    Answer([&](PDEVICE_OBJECT, PIRP irp) {
        EXPECT_EQ(irp->UserBuffer, out);
        EXPECT_EQ(IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.Type3InputBuffer, out + 1);
        return Complete(irp, STATUS_SUCCESS);
    });
    ControlCall call;
    EXPECT_EQ(call.Send(driver.device, kNeither, out + 1, 2, out, 3), STATUS_SUCCESS);
    EXPECT_EQ(nt::GetStatistics().descriptorLists, 0u);
}

NTSTATUS NTAPI TakeBack(PDEVICE_OBJECT device, PIRP irp, PVOID context) {
    EXPECT_EQ(device, nullptr);
    *static_cast<IO_STATUS_BLOCK*>(context) = irp->IoStatus;
    IoFreeIrp(irp);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

TEST_F(RequestTest, ADriversOwnRequestComesBackToItsCompletionRoutine) {
    for (const bool pend : {false, true}) {
        Answer([&](PDEVICE_OBJECT, PIRP irp) {
            if (pend) {
                IoMarkIrpPending(irp);
            }
            Complete(irp, STATUS_END_OF_FILE, 3);
            return pend ? STATUS_PENDING : STATUS_END_OF_FILE;
        });
        PIRP const irp = IoAllocateIrp(driver.device->StackSize, FALSE);
        IO_STATUS_BLOCK result{};
        IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_DEVICE_CONTROL;
        IoSetCompletionRoutine(irp, TakeBack, &result, TRUE, TRUE, TRUE);
        EXPECT_EQ(IoCallDriver(driver.device, irp), pend ? STATUS_PENDING : STATUS_END_OF_FILE);
        EXPECT_EQ(result.Status, STATUS_END_OF_FILE);
        EXPECT_EQ(result.Information, 3u);
        EXPECT_EQ(nt::GetStatistics().requests, 0u);
    }
}

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

TEST_F(RequestTest, ACancelCompletesWhatHasACancelRoutine) {
    Keeper keeper;
    Keeper::current = &keeper;
    Answer([&](PDEVICE_OBJECT, PIRP irp) { return keeper.Keep(irp); });
    ControlCall call;
    EXPECT_EQ(call.Send(driver.device, kNeither), STATUS_PENDING);
    EXPECT_TRUE(IoCancelIrp(call.irp));
    EXPECT_EQ(keeper.cancelled, 1);
    EXPECT_EQ(call.status.Status, STATUS_CANCELLED);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    {
        Violations violations;
        Answer([&](PDEVICE_OBJECT, PIRP irp) {
            IoMarkIrpPending(irp);
            IoSetCancelRoutine(irp, [](PDEVICE_OBJECT, PIRP) {});
            return STATUS_PENDING;
        });
        ControlCall forgetful;
        forgetful.Send(driver.device, kNeither);
        EXPECT_TRUE(IoCancelIrp(forgetful.irp));
        EXPECT_NE(Violations::Take().find("returned with the cancel lock held"), std::string::npos);
        Complete(forgetful.irp, STATUS_CANCELLED);
    }
    Answer([&](PDEVICE_OBJECT, PIRP irp) {
        IoMarkIrpPending(irp);
        keeper.kept = irp;
        return STATUS_PENDING;
    });
    ControlCall stubborn;
    EXPECT_EQ(stubborn.Send(driver.device, kNeither), STATUS_PENDING);
    EXPECT_FALSE(IoCancelIrp(stubborn.irp));  // no cancel routine: only the flag
    EXPECT_TRUE(stubborn.irp->Cancel);
    EXPECT_FALSE(stubborn.IsSet());
    Complete(keeper.kept, STATUS_SUCCESS);
    EXPECT_EQ(stubborn.status.Status, STATUS_SUCCESS);
}

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
        Answer([&](PDEVICE_OBJECT, PIRP irp) { return c.routine(irp); });
        Violations violations;
        ULONG out = 0;
        ControlCall call;
        call.Send(driver.device, kBuffered, nullptr, 0, &out, sizeof(out));
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

// ---- opening a device from a driver ----

TEST_F(RequestTest, IoGetDeviceObjectPointerShowsTheDriverAWholeLife) {
    PFILE_OBJECT file = nullptr;
    PDEVICE_OBJECT device = nullptr;
    driver.Forget();
    ASSERT_EQ(IoGetDeviceObjectPointer(Name(u"\\device\\TEST"), 0x001F01FF, &file, &device), STATUS_SUCCESS);
    EXPECT_EQ(device, driver.device);
    EXPECT_EQ(driver.Seen(), "create cleanup");
    EXPECT_EQ(nt::UnloadDriver(driver.object, nullptr), STATUS_DEVICE_BUSY);  // somebody has it open
    ObfDereferenceObject(file);
    EXPECT_EQ(driver.Seen(), "create cleanup close");
    EXPECT_EQ(IoGetDeviceObjectPointer(Name(u"\\Device\\Test1"), 0, &file, &device), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(file, nullptr);
    driver.on[IRP_MJ_CREATE] = [](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_ACCESS_DENIED); };
    driver.Forget();
    EXPECT_EQ(IoGetDeviceObjectPointer(Name(u"\\Device\\Test"), 0, &file, &device), STATUS_ACCESS_DENIED);
    EXPECT_EQ(driver.Seen(), "create");  // what was refused is neither cleaned up nor closed
}

TEST_F(RequestTest, ShutdownReachesEveryRegisteredDeviceOnceLatestFirst) {
    PDEVICE_OBJECT second = nullptr;
    ASSERT_EQ(IoCreateDevice(driver.object, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &second), STATUS_SUCCESS);
    std::string order;
    driver.on[IRP_MJ_SHUTDOWN] = [&](PDEVICE_OBJECT device, PIRP irp) {
        order += device == second ? "2" : "1";
        return Complete(irp, STATUS_SUCCESS);
    };
    EXPECT_EQ(IoRegisterShutdownNotification(driver.device), STATUS_SUCCESS);
    EXPECT_EQ(IoRegisterShutdownNotification(second), STATUS_SUCCESS);
    nt::SendShutdown();
    nt::SendShutdown();
    EXPECT_EQ(IoRegisterShutdownNotification(second), STATUS_SUCCESS);
    IoUnregisterShutdownNotification(second);
    nt::SendShutdown();
    EXPECT_EQ(order, "21");
    IoDeleteDevice(second);
}

// ---- ordered failures ----

// One allocation of each kind, and which of them were made: pool, request, descriptor list, two lookaside entries, the
// second of which would be the first again, were it not for the plan.
std::string AllocateOneOfEach() {
    std::string made;
    PVOID const pool = ExAllocatePoolWithTag(PagedPool, 8, 'a');
    PIRP const irp = IoAllocateIrp(1, FALSE);
    PMDL const mdl = IoAllocateMdl(&made, 8, FALSE, FALSE, nullptr);
    for (const void* const block : {pool, static_cast<PVOID>(irp), static_cast<PVOID>(mdl)}) {
        made += block != nullptr ? '1' : '0';
    }
    NPAGED_LOOKASIDE_LIST list;
    ExInitializeNPagedLookasideList(&list, nullptr, nullptr, 0, 16, 'l', 8);
    for (int i = 0; i < 2; i++) {
        PVOID const entry = ExAllocateFromNPagedLookasideList(&list);
        made += entry != nullptr ? '1' : '0';
        if (entry != nullptr) {
            ExFreeToNPagedLookasideList(&list, entry);
        }
    }
    ExDeleteNPagedLookasideList(&list);
    pool != nullptr ? ExFreePool(pool) : void();
    irp != nullptr ? IoFreeIrp(irp) : void();
    mdl != nullptr ? IoFreeMdl(mdl) : void();
    return made;
}

TEST_F(RequestTest, FailuresComeWhereTheyWereOrdered) {
    struct Case {
        nt::FaultPlan plan;
        const char* made;
        uint64_t seen;
        uint64_t fired;
    };
    PDRIVER_OBJECT const other = reinterpret_cast<PDRIVER_OBJECT>(this);
    const Case cases[] = {
        {{}, "11111", 5, 0},
        {{.failAt = 3}, "11011", 5, 1},
        {{.failAt = 5}, "11110", 5, 1},
        {{.failAt = 6}, "11111", 5, 0},
        {{.failAt = 2, .forEver = true}, "10000", 5, 4},
        {{.kinds = nt::FaultBit(nt::FaultKind::kPool), .failAt = 2}, "11101", 3, 1},
        {{.failAt = 1, .forEver = true, .driver = driver.object}, "00000", 5, 5},
        {{.failAt = 1, .forEver = true, .driver = other}, "11111", 0, 0},
    };
    const nt::FaultPlan all{.failAt = 1, .forEver = true};
    for (const Case& c : cases) {
        const nt::DriverScope scope(driver.object);
        nt::ArmFaults(c.plan);
        EXPECT_EQ(AllocateOneOfEach(), c.made);
        EXPECT_EQ(nt::DisarmFaults(), c.seen);
        EXPECT_EQ(nt::FaultsFired(), c.fired);
        const nt::FaultExempt exempt;
        nt::ArmFaults(all);
        EXPECT_EQ(AllocateOneOfEach(), "11111");
        nt::DisarmFaults();
    }
    nt::ArmFaults(all);
    EXPECT_EQ(AllocateOneOfEach(), "11111");  // outside any driver
    nt::Process process("app");
    nt::Handle handle = 0;
    EXPECT_EQ(process.Open({.name = u"\\??\\T:"}, &handle), STATUS_SUCCESS);  // the host's own allocations
    nt::DisarmFaults();
}

}  // namespace
