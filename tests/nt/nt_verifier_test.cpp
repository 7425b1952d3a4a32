#include <atomic>
#include <list>

#include "tests/nt/nt_kernel_fixture.h"

// What the verifier must find: each misdeed, and the words that its message must hold. Whatever a misdeed leaves behind
// is tidied up by it.

namespace {

using namespace nt_test;

constexpr ULONG kTag = 0x74736554;  // "Test"

NTSTATUS Poll(PVOID object) {
    LARGE_INTEGER now{};
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, &now);
}

struct Misdeed {
    const char* name;
    const char* message;
    void (*commit)();
};

void InPagedPool(void (*initialise)(PVOID)) {
    PVOID const memory = ExAllocatePoolWithTag(PagedPool, 512, kTag);
    initialise(static_cast<char*>(memory) + 64);  // embedded somewhere in a record
    ExFreePool(memory);
}

// Queued when it is made; it stays where it is until its routine has begun.
struct WorkItem : WORK_QUEUE_ITEM {
    WorkItem(void (*routine)(PVOID), PVOID context, WORK_QUEUE_TYPE queue) {
        ExInitializeWorkItem(this, routine, context);
        ExQueueWorkItem(this, queue);
    }
};

struct Resource : ERESOURCE {
    Resource() { ExInitializeResourceLite(this); }
    ~Resource() { ExDeleteResourceLite(this); }
};

struct DescriptorList {
    char buffer[64];
    PMDL mdl = IoAllocateMdl(buffer, sizeof(buffer), FALSE, FALSE, nullptr);
    DescriptorList() { MmProbeAndLockPages(mdl, KernelMode, IoReadAccess); }
    ~DescriptorList() {
        MmUnlockPages(mdl);
        IoFreeMdl(mdl);
    }
};

// On another thread, inside the same driver.
void Elsewhere(const std::function<void()>& work) {
    std::thread([&, driver = nt::CurrentDriver()] {
        const nt::DriverScope scope(driver);
        work();
    }).join();
}

const Misdeed kMisdeeds[] = {
    {"an event in paged pool", "an event at",
     [] { InPagedPool([](PVOID at) { KeInitializeEvent(static_cast<PKEVENT>(at), NotificationEvent, FALSE); }); }},
    {"a work item in paged pool", "a work item at",
     [] { InPagedPool([](PVOID at) { new (at) WorkItem([](PVOID) {}, nullptr, CriticalWorkQueue); }); }},
    {"freeing twice", "no allocated pool block",
     [] {
         PVOID const memory = ExAllocatePoolWithTag(PagedPool, 16, kTag);
         ExFreePool(memory);
         ExFreePool(memory);
     }},
    {"freeing with another tag", "with the tag 'Else'",
     [] { ExFreePoolWithTag(ExAllocatePoolWithTag(PagedPool, 16, kTag), 0x65736C45); }},
    {"freeing memory with a live resource in it", "with a live resource",
     [] {
         PVOID const memory = ExAllocatePoolWithTag(NonPagedPool, sizeof(ERESOURCE) + 32, kTag);
         auto* const resource = reinterpret_cast<PERESOURCE>(static_cast<char*>(memory) + 16);
         ExInitializeResourceLite(resource);
         ExFreePool(memory);
         ExDeleteResourceLite(resource);
         ExFreePool(memory);
     }},
    {"releasing a resource that another thread holds", "by a thread that does not hold it",
     [] {
         Resource resource;
         ExAcquireResourceExclusiveLite(&resource, TRUE);
         Elsewhere([&] { ExReleaseResourceLite(&resource); });
         ExReleaseResourceLite(&resource);
     }},
    {"wanting exclusively what one shares", "would wait for itself",
     [] {
         Resource resource;
         ExAcquireResourceSharedLite(&resource, TRUE);
         EXPECT_FALSE(ExAcquireResourceExclusiveLite(&resource, TRUE));
         ExReleaseResourceLite(&resource);
     }},
    {"deleting a held resource", "deleted while it is acquired 1 times",
     [] {
         ERESOURCE resource;
         ExInitializeResourceLite(&resource);
         ExAcquireResourceSharedLite(&resource, TRUE);
         ExDeleteResourceLite(&resource);
         ExReleaseResourceLite(&resource);
     }},
    {"releasing a mutex that another thread owns", "by a thread that does not own it",
     [] {
         KMUTEX mutex;
         KeInitializeMutex(&mutex, 0);
         Poll(&mutex);
         Elsewhere([&] { KeReleaseMutex(&mutex, FALSE); });
         KeReleaseMutex(&mutex, FALSE);
     }},
    {"acquiring a fast mutex twice", "by a thread that holds it",
     [] {
         FAST_MUTEX mutex;
         ExInitializeFastMutex(&mutex);
         ExAcquireFastMutex(&mutex);
         ExAcquireFastMutex(&mutex);
         ExReleaseFastMutex(&mutex);
     }},
    {"paged pool with a spin lock held", "allocating pool at IRQL 2",
     [] {
         KSPIN_LOCK lock;
         KIRQL irql;
         KeInitializeSpinLock(&lock);
         KeAcquireSpinLock(&lock, &irql);
         ExFreePool(ExAllocatePoolWithTag(NonPagedPool, 16, kTag));  // allowed
         EXPECT_EQ(Violations::Count(), 0u);
         ExFreePool(ExAllocatePoolWithTag(PagedPool, 16, kTag));
         EXPECT_EQ(Violations::Count(), 2u);  // the free as much as the allocation
         KeReleaseSpinLock(&lock, irql);
     }},
    {"any pool with the cancel lock held", "allocating pool with the cancel lock held",
     [] {
         KIRQL irql;
         IoAcquireCancelSpinLock(&irql);
         PVOID const memory = ExAllocatePoolWithTag(NonPagedPool, 16, kTag);
         IoReleaseCancelSpinLock(irql);
         ExFreePool(memory);
     }},
    {"a wait with the cancel lock held", "a wait with the cancel lock held",
     [] {
         KEVENT event;
         KeInitializeEvent(&event, NotificationEvent, TRUE);
         KIRQL irql;
         IoAcquireCancelSpinLock(&irql);
         EXPECT_EQ(Poll(&event), STATUS_SUCCESS);  // a poll is allowed
         EXPECT_EQ(Violations::Count(), 0u);
         KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
         IoReleaseCancelSpinLock(irql);
     }},
    {"releasing a token twice", "not live",
     [] {
         int target = 0;
         const ULONG token = NtTokenCreate(&target);
         NtTokenRelease(token);
         NtTokenRelease(token);
     }},
    {"freeing a locked descriptor list", "whose pages are locked",
     [] {
         const DescriptorList list;
         IoFreeMdl(list.mdl);
     }},
    {"mapping that may not fail", "MDL_MAPPING_CAN_FAIL",
     [] {
         const DescriptorList list;
         MmMapLockedPages(list.mdl, KernelMode);
     }},
    {"an uncaught probe of a bad address", "exception that nobody catches",
     [] {
         PMDL const mdl = IoAllocateMdl(reinterpret_cast<PVOID>(uintptr_t{64}), 16, FALSE, FALSE, nullptr);
         MmProbeAndLockPages(mdl, UserMode, IoReadAccess);
         IoFreeMdl(mdl);
     }},
    {"queueing a work item twice", "a second time",
     [] {
         struct Gate {
             KEVENT open;
             std::atomic<bool> left{false};
         } gate;
         KeInitializeEvent(&gate.open, NotificationEvent, FALSE);
         const auto wait = [](PVOID g) {
             KeWaitForSingleObject(&static_cast<Gate*>(g)->open, Executive, KernelMode, FALSE, nullptr);
         };
         std::list<WorkItem> blockers;  // keep all four threads busy, so that the item stays queued
         for (int thread = 0; thread < 4; ++thread) {
             blockers.emplace_back(wait, &gate, CriticalWorkQueue);
         }
         WorkItem item([](PVOID g) { static_cast<Gate*>(g)->left = true; }, &gate, CriticalWorkQueue);
         ExQueueWorkItem(&item, CriticalWorkQueue);
         KeSetEvent(&gate.open, 0, FALSE);
         EXPECT_TRUE(Eventually([&] { return gate.left.load(); }));
         // The blockers use the gate until their threads take another item.
         EXPECT_TRUE(Eventually([] { return nt::DescribeThreads().find("for 0x") == std::string::npos; }));
     }},
    {"a work routine that keeps a lock", "returned in 1 critical regions",
     [] {
         std::atomic<bool> over = false;
         WorkItem item([](PVOID) { KeEnterCriticalRegion(); }, nullptr, HyperCriticalWorkQueue);
         EXPECT_TRUE(Eventually([] { return Violations::Count() == 1; }));
         const auto leave = [](PVOID done) {
             KeLeaveCriticalRegion();
             *static_cast<std::atomic<bool>*>(done) = true;
         };
         WorkItem undo(leave, &over, HyperCriticalWorkQueue);  // there is one such thread
         EXPECT_TRUE(Eventually([&] { return over.load(); }));
     }},
};

using VerifierTest = KernelTest;

TEST_F(VerifierTest, FindsEachMisdeed) {
    const nt::DriverImage image{[](PDRIVER_OBJECT driver, PUNICODE_STRING) {
                                    driver->DriverUnload = [](PDRIVER_OBJECT) {};
                                    return STATUS_SUCCESS;
                                },
                                u"Evil", u""};
    PDRIVER_OBJECT driver = nullptr;
    ASSERT_EQ(nt::LoadDriver(image, &driver), STATUS_SUCCESS);
    for (const Misdeed& misdeed : kMisdeeds) {
        SCOPED_TRACE(misdeed.name);
        {
            const nt::DriverScope scope(driver);
            Violations violations;
            misdeed.commit();
            const size_t count = Violations::Count();
            const std::string said = Violations::Take();
            EXPECT_NE(said.find(misdeed.message), std::string::npos) << said;
            EXPECT_GE(count, 1u);
            EXPECT_NE(said.find("[in driver Evil]"), std::string::npos) << said;
        }
        EXPECT_EQ(nt::ToString(nt::Holdings(driver)), "");
    }
    EXPECT_EQ(nt::UnloadDriver(driver, nullptr), STATUS_SUCCESS);
}

// ---- the order of acquires ----

struct Locks {
    ERESOURCE outer;
    KMUTEX inner;
    FAST_MUTEX innermost;
    PERESOURCE files[2];  // in pool, like the locks of records that come and go

    [[gnu::noinline]] Locks() {
        ExInitializeResourceLite(&outer);
        KeInitializeMutex(&inner, 0);
        ExInitializeFastMutex(&innermost);
        for (PERESOURCE& file : files) {
            file = static_cast<PERESOURCE>(ExAllocatePoolWithTag(NonPagedPool, sizeof(ERESOURCE), kTag));
            ExInitializeResourceLite(file);
        }
    }
    ~Locks() {
        ExDeleteResourceLite(&outer);
        for (PERESOURCE const file : files) {
            ExDeleteResourceLite(file);
            ExFreePool(file);
        }
    }
    bool Outer(BOOLEAN wait = TRUE) { return ExAcquireResourceSharedLite(&outer, wait) != FALSE; }
    bool File(int i, BOOLEAN wait = TRUE) { return ExAcquireResourceExclusiveLite(files[i], wait) != FALSE; }
    bool Inner() { return KeWaitForSingleObject(&inner, Executive, KernelMode, FALSE, nullptr) == STATUS_SUCCESS; }
    void ReleaseAll() {
        for (PERESOURCE const resource : {&outer, files[0], files[1]}) {
            if (ExIsResourceAcquiredLite(resource) != 0) {
                ExReleaseResourceLite(resource);
            }
        }
        if (KeReadStateMutex(&inner) <= 0) {
            KeReleaseMutex(&inner, FALSE);
        }
    }
};

TEST_F(VerifierTest, AnAcquireOrderThatContradictsOneSeenBeforeIsRefused) {
    const struct {
        const char* name;
        void (*first)(Locks&);
        void (*then)(Locks&);
        bool refused;
    } cases[] = {
        {"the same order", [](Locks& l) { l.Outer() && l.Inner(); }, [](Locks& l) { l.Outer() && l.Inner(); }, false},
        {"the opposite", [](Locks& l) { l.Outer() && l.Inner(); }, [](Locks& l) { l.Inner() && l.Outer(); }, true},
        {"a circle of three",
         [](Locks& l) {
             l.Outer() && l.File(0);
             l.ReleaseAll();
             l.File(0) && l.Inner();
         },
         [](Locks& l) { l.Inner() && l.Outer(); }, true},
        {"two locks of one class both ways", [](Locks& l) { l.File(0) && l.File(1); },
         [](Locks& l) { l.File(1) && l.File(0); }, false},
        {"classes, not instances: another file the other way round", [](Locks& l) { l.Outer() && l.File(0); },
         [](Locks& l) { l.File(1) && l.Outer(); }, true},
        {"an attempt that does not wait cannot deadlock", [](Locks& l) { l.Outer() && l.File(0); },
         [](Locks& l) { l.File(1) && l.Outer(FALSE); }, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        {
            Violations violations;
            Locks before;
            c.first(before);
            before.ReleaseAll();
            Locks later;  // other instances of the same classes
            c.then(later);
            later.ReleaseAll();
            EXPECT_EQ(Violations::Take().find("acquire order") != std::string::npos, c.refused);
        }
        EXPECT_EQ(nt::ToString(nt::Shutdown()), "");
        nt::Boot();  // forgets the orders seen
    }
}

using VerifierDriverTest = DriverTest;

TEST_F(VerifierDriverTest, AUsersRequestMustAcquireInsideACriticalRegion) {
    Violations violations;
    Resource resource;
    EXPECT_TRUE(ExAcquireResourceSharedLite(&resource, TRUE));  // a thread of the system
    ExReleaseResourceLite(&resource);
    driver.on[IRP_MJ_READ] = [&](PDEVICE_OBJECT, PIRP irp) {
        KeEnterCriticalRegion();
        EXPECT_TRUE(ExAcquireResourceSharedLite(&resource, TRUE));
        ExReleaseResourceLite(&resource);
        KeLeaveCriticalRegion();
        EXPECT_EQ(Violations::Count(), 0u);
        EXPECT_FALSE(ExAcquireResourceSharedLite(&resource, TRUE));
        return Complete(irp, STATUS_SUCCESS);
    };
    nt::Process process("app");
    nt::Handle handle = 0;
    ASSERT_EQ(process.Open({.name = u"\\??\\T:\\f"}, &handle), STATUS_SUCCESS);
    EXPECT_EQ(process.Read(handle, nullptr, nullptr, 0), STATUS_SUCCESS);
    EXPECT_NE(Violations::Take().find("outside a critical region"), std::string::npos);
}

TEST_F(VerifierDriverTest, HoldsDispatchRoutinesToTheirWord) {
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
        const auto requests = nt::GetStatistics().requests;
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
        EXPECT_EQ(nt::GetStatistics().requests, requests);
    }
}

// ---- what is left over ----

TEST_F(VerifierTest, AnUnloadListsWhatTheDriverLeft) {
    static PAGED_LOOKASIDE_LIST list;
    static ERESOURCE resource;
    static KEVENT stop;
    static HANDLE thread;
    static PDEVICE_OBJECT device;
    const nt::DriverImage image{
        [](PDRIVER_OBJECT driver, PUNICODE_STRING) {
            driver->DriverUnload = [](PDRIVER_OBJECT) {};
            PVOID const memory = ExAllocatePoolWithTag(PagedPool, 100, kTag);
            ExInitializePagedLookasideList(&list, nullptr, nullptr, 0, 32, kTag, 4);
            ExInitializeResourceLite(&resource);
            KeInitializeEvent(&stop, NotificationEvent, FALSE);
            PsCreateSystemThread(
                &thread, 0, nullptr, nullptr, nullptr,
                [](PVOID) { KeWaitForSingleObject(&stop, Executive, KernelMode, FALSE, nullptr); }, nullptr);
            IoAllocateMdl(memory, 100, FALSE, FALSE, nullptr);
            IoAllocateIrp(1, FALSE);
            IoCreateDevice(driver, 0, Name(u"\\Device\\Left"), FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
            IoCreateSymbolicLink(Name(u"\\??\\Left"), Name(u"\\Device\\Left"));
            IoRegisterFileSystem(device);
            return IoRegisterShutdownNotification(device);
        },
        u"Messy", u""};
    PDRIVER_OBJECT driver = nullptr;
    ASSERT_EQ(nt::LoadDriver(image, &driver), STATUS_SUCCESS);
    nt::LeakList leaks;
    ASSERT_EQ(nt::UnloadDriver(driver, &leaks), STATUS_SUCCESS);
    const std::string text = nt::ToString(leaks);
    for (const char* const expected :
         {"paged pool Test, 100 bytes", "lookaside list 'Test'", "resource ", "running thread Messy thread",
          "descriptor list ", "request ", "device \\Device\\Left", "link \\??\\Left", "file system registration",
          "shutdown registration", "handle of thread object"}) {
        EXPECT_NE(text.find(expected), std::string::npos) << expected << " is not in:\n" << text;
    }
    const auto endThread = [] {
        KeSetEvent(&stop, 0, FALSE);
        EXPECT_TRUE(Eventually([] { return nt::DescribeThreads().find("Messy") == std::string::npos; }));
    };
    endThread();
    // At shutdown what is left is given back, and the next kernel starts clean: the names are free. The second time the
    // driver's thread still runs, and nothing of its driver may go.
    EXPECT_NE(nt::ToString(nt::Shutdown()), "");
    nt::Boot();
    EXPECT_EQ(nt::GetStatistics().requests + nt::GetStatistics().descriptorLists, 0u);
    EXPECT_EQ(nt::LoadDriver(image, &driver), STATUS_SUCCESS);
    EXPECT_EQ(nt::UnloadDriver(driver, nullptr), STATUS_SUCCESS);
    EXPECT_NE(nt::ToString(nt::Shutdown()).find("running thread"), std::string::npos);
    nt::Boot();
    endThread();
}

}  // namespace
