#include <atomic>

#include "nt/object_internal.h"
#include "tests/nt/nt_system_fixture.h"

// Processes: the life of a file object, handles, cancel, and the end.

namespace {

using namespace nt_test;

// A posted read that ends after the last handle has gone: its completion drops the last reference, and the close runs
// beside the driver's completing thread, which still holds its lock.
TEST_F(SystemTest, ACloseRunsBesideTheCompletionThatCausedIt) {
    const nt::Handle handle = Open(u"\\??\\T:\\f", 0);
    std::atomic<PIRP> kept{nullptr};
    KMUTEX lock;
    KeInitializeMutex(&lock, 0);
    const auto acquire = [&] { KeWaitForSingleObject(&lock, Executive, KernelMode, FALSE, nullptr); };
    driver.on[IRP_MJ_READ] = [&](PDEVICE_OBJECT, PIRP irp) {
        IoMarkIrpPending(irp);
        kept = irp;
        return STATUS_PENDING;
    };
    std::atomic<bool> closed{false};
    driver.on[IRP_MJ_CLOSE] = [&](PDEVICE_OBJECT, PIRP irp) {
        acquire();
        KeReleaseMutex(&lock, FALSE);
        closed = true;
        return Complete(irp, STATUS_SUCCESS);
    };
    IO_STATUS_BLOCK status{};
    const LONGLONG offset = 0;
    KEVENT over;
    KeInitializeEvent(&over, NotificationEvent, FALSE);
    const nt::Overlapped overlapped{nullptr, nullptr, &over};
    ASSERT_EQ(process->Read(handle, &status, nullptr, 0, &offset, &overlapped), STATUS_PENDING);
    EXPECT_EQ(process->Close(handle), STATUS_SUCCESS);
    EXPECT_EQ(driver.Seen(), "read cleanup");
    acquire();
    Complete(kept, STATUS_SUCCESS, 0);
    EXPECT_FALSE(closed);
    KeReleaseMutex(&lock, FALSE);
    EXPECT_TRUE(Eventually([&] { return closed.load(); }));
    EXPECT_EQ(driver.Seen(), "read cleanup close");
    EXPECT_NE(KeReadStateEvent(&over), 0);
}

TEST_F(SystemTest, TheEndOfAProcessCancelsAwaitsThenClosesInOrder) {
    Open(u"\\??\\T:\\a");
    const nt::Handle handle = Open(u"\\??\\T:\\b", 0);
    const nt::Handle waiting = Open(u"\\??\\T:\\c");
    std::string order;
    std::mutex lock;
    const auto note = [&](const char* what, PIRP irp) {
        const PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
        std::lock_guard guard(lock);
        order += std::string(what) + static_cast<char>(file->FileName.Buffer[1]) + " ";
    };
    static std::function<void(const char*, PIRP)> noteCancel;
    noteCancel = note;
    driver.on[IRP_MJ_READ] = [&](PDEVICE_OBJECT, PIRP irp) {
        IoMarkIrpPending(irp);
        IoSetCancelRoutine(irp, [](PDEVICE_OBJECT, PIRP cancelled) {
            noteCancel("cancel", cancelled);
            IoReleaseCancelSpinLock(cancelled->CancelIrql);
            Complete(cancelled, STATUS_CANCELLED);
        });
        return STATUS_PENDING;
    };
    driver.on[IRP_MJ_CLEANUP] = [&](PDEVICE_OBJECT, PIRP irp) {
        note("cleanup", irp);
        return Complete(irp, STATUS_SUCCESS);
    };
    driver.on[IRP_MJ_CLOSE] = [&](PDEVICE_OBJECT, PIRP irp) {
        note("close", irp);
        return Complete(irp, STATUS_SUCCESS);
    };
    IO_STATUS_BLOCK status{};
    const LONGLONG offset = 0;
    std::atomic<int> routineCalls{0};
    const nt::Overlapped overlapped{[](void* context, const IO_STATUS_BLOCK& result) {
                                        EXPECT_EQ(result.Status, STATUS_CANCELLED);
                                        ++*static_cast<std::atomic<int>*>(context);
                                    },
                                    &routineCalls, nullptr};
    ASSERT_EQ(process->Read(handle, &status, nullptr, 0, &offset, &overlapped), STATUS_PENDING);
    std::thread blocked([&] { EXPECT_EQ(process->Read(waiting, nullptr, nullptr, 0), STATUS_CANCELLED); });
    EXPECT_TRUE(Eventually([&] { return process->OutstandingRequests() == 2; }));
    process->Exit();
    blocked.join();
    EXPECT_EQ(routineCalls, 1);
    EXPECT_EQ(order, "cancelb cancelc cleanupa closea cleanupb closeb cleanupc closec ");
    EXPECT_EQ(process->HandleCount(), 0u);
    nt::Handle late = 0;
    EXPECT_EQ(process->Open({.name = u"\\??\\T:"}, &late), STATUS_PROCESS_IS_TERMINATING);
    EXPECT_EQ(process->Read(handle, &status, nullptr, 0, &offset), STATUS_PROCESS_IS_TERMINATING);
}

TEST_F(SystemTest, HandlesAreOfTheirProcessTypeAndAccess) {
    const nt::Handle handle = Open(u"\\??\\T:\\f", FILE_SYNCHRONOUS_IO_NONALERT, FILE_READ_DATA | SYNCHRONIZE);
    nt::Process other("other");
    const auto reference = [](nt::Process& p, nt::Handle value, ACCESS_MASK access, POBJECT_TYPE type,
                              KPROCESSOR_MODE mode) {
        const nt::AttachProcess attach(p.Object());
        PVOID object = nullptr;
        const NTSTATUS status =
            ObReferenceObjectByHandle(nt::HandleFromValue(value), access, type, mode, &object, nullptr);
        if (NT_SUCCESS(status)) {
            ObfDereferenceObject(object);
        }
        return status;
    };
    EXPECT_EQ(reference(*process, handle, FILE_READ_DATA, *IoFileObjectType, UserMode), STATUS_SUCCESS);
    EXPECT_EQ(reference(*process, handle, FILE_WRITE_DATA, *IoFileObjectType, UserMode), STATUS_ACCESS_DENIED);
    EXPECT_EQ(reference(*process, handle, FILE_WRITE_DATA, *IoFileObjectType, KernelMode), STATUS_SUCCESS);
    EXPECT_EQ(reference(*process, handle, 0, *PsThreadType, UserMode), STATUS_OBJECT_TYPE_MISMATCH);
    EXPECT_EQ(reference(*process, handle, 0, nullptr, UserMode), STATUS_SUCCESS);      // without a type, anything
    EXPECT_EQ(reference(*process, 0xFFFFFFFF, 0, nullptr, UserMode), STATUS_SUCCESS);  // even the process itself
    EXPECT_EQ(reference(other, handle, 0, nullptr, UserMode), STATUS_INVALID_HANDLE);
    for (const nt::Handle wrong : {0u, 1u, handle + 1, handle + 4, 0x7FFFFFFCu, 0x80000004u}) {
        EXPECT_EQ(reference(*process, wrong, 0, nullptr, UserMode), STATUS_INVALID_HANDLE) << wrong;
    }
    // A closed handle's value rests for a while, so that a stale one does not find another file.
    EXPECT_EQ(process->Close(handle), STATUS_SUCCESS);
    for (int i = 0; i < 8; i++) {
        const nt::Handle next = Open(u"\\??\\T:\\g");
        EXPECT_NE(next, handle);
        process->Close(next);
    }
    EXPECT_EQ(reference(*process, handle, 0, nullptr, UserMode), STATUS_INVALID_HANDLE);
}

}  // namespace
