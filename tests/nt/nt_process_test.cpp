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

}  // namespace
