#include <atomic>
#include <cstring>

#include "nt/object_internal.h"
#include "tests/nt/nt_kernel_fixture.h"

// Processes: what an open leads to and what is refused before the driver hears of it, the life of a file object,
// handles, cancel, and the end.

namespace {

using namespace nt_test;

TEST_F(SystemTest, WhatAnOpenMayNotAskTheDriverNeverSees) {
    const nt::Handle root = Open(u"\\??\\T:\\folder");
    const PVOID bad = reinterpret_cast<PVOID>(uintptr_t{4096});
    const struct {
        const char* name;
        nt::OpenParameters asked;
        NTSTATUS status;
    } cases[] = {
        {"synchronous without the right to wait", {.name = u"\\??\\T:", .desiredAccess = 1}, STATUS_INVALID_PARAMETER},
        {"delete on close without the right",
         {.name = u"\\??\\T:", .options = FILE_SYNCHRONOUS_IO_NONALERT | FILE_DELETE_ON_CLOSE},
         STATUS_INVALID_PARAMETER},
        {"an absolute name below a folder", {.name = u"\\x", .rootDirectory = root}, STATUS_OBJECT_PATH_SYNTAX_BAD},
        {"below no folder", {.name = u"x", .rootDirectory = 0x7000}, STATUS_INVALID_HANDLE},
        {"attributes at a hole", {.name = u"\\??\\T:", .eaBuffer = bad, .eaLength = 3}, STATUS_ACCESS_VIOLATION},
        {"attributes without end",
         {.name = u"\\??\\T:", .eaBuffer = bad, .eaLength = 0xFFFFFFFF},
         STATUS_INSUFFICIENT_RESOURCES},
    };
    for (const auto& c : cases) {
        nt::Handle handle = 0;
        EXPECT_EQ(process->Open(c.asked, &handle), c.status) << c.name;
    }
    EXPECT_EQ(driver.Seen(), "");
    const auto seen = [&](PDEVICE_OBJECT, PIRP irp) {
        const PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
        EXPECT_EQ(std::u16string_view(file->FileName.Buffer, file->FileName.Length / 2), u"child\\x");
        EXPECT_NE(file->RelatedFileObject, nullptr);
        EXPECT_EQ(file->Flags, FO_SYNCHRONOUS_IO | FO_OPENED_CASE_SENSITIVE);
        return Complete(irp, STATUS_SUCCESS, FILE_OPENED);
    };
    driver.on[IRP_MJ_CREATE] = seen;
    nt::Handle handle = 0;
    EXPECT_EQ(process->Open({.name = u"child\\x", .rootDirectory = root, .attributes = 0}, &handle), STATUS_SUCCESS);
}

TEST_F(SystemTest, ADeletedDeviceStaysForTheFilesOpenOnIt) {
    PDEVICE_OBJECT device = nullptr;
    ASSERT_EQ(IoCreateDevice(driver.object, 32, Name(u"\\Device\\Gone"), FILE_DEVICE_UNKNOWN, 0, FALSE, &device),
              STATUS_SUCCESS);
    PDEVICE_OBJECT same = nullptr;
    EXPECT_EQ(IoCreateDevice(driver.object, 0, Name(u"\\device\\gone"), FILE_DEVICE_UNKNOWN, 0, FALSE, &same),
              STATUS_OBJECT_NAME_COLLISION);
    nt::Handle handle = 0;
    EXPECT_EQ(process->Open({.name = u"\\Device\\Gone"}, &handle), STATUS_NO_SUCH_DEVICE);  // still being set up
    device->Flags &= ~DO_DEVICE_INITIALIZING;
    ASSERT_EQ(process->Open({.name = u"\\Device\\Gone"}, &handle), STATUS_SUCCESS);
    IoDeleteDevice(device);
    nt::Handle late = 0;
    EXPECT_EQ(process->Open({.name = u"\\Device\\Gone"}, &late), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(process->Read(handle, nullptr, nullptr, 0), STATUS_SUCCESS);
    driver.on[IRP_MJ_CLOSE] = [](PDEVICE_OBJECT closing, PIRP irp) {
        std::memset(closing->DeviceExtension, 1, 32);
        return Complete(irp, STATUS_SUCCESS);
    };
    EXPECT_EQ(process->Close(handle), STATUS_SUCCESS);
}

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
