#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "nt/system.h"
#include "station_fixture.h"

namespace {

// A driver whose files are watched directories: the name of the file object is the directory's.
struct Watcher {
    UNICODE_STRING name;
};

PDRIVER_OBJECT g_driver;
PDEVICE_OBJECT g_device;
PNOTIFY_SYNC g_sync;
LIST_ENTRY g_list;
Watcher* g_lastWatcher;

constexpr ULONG kTag = 0x20736649;

NTSTATUS Finish(PIRP irp, NTSTATUS status) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS NTAPI OnCreate(PDEVICE_OBJECT, PIRP irp) {
    const PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    auto* const watcher = static_cast<Watcher*>(ExAllocatePoolWithTag(PagedPool, sizeof(Watcher), kTag));
    watcher->name = file->FileName;
    watcher->name.Buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, file->FileName.Length + 2u, kTag));
    std::memcpy(watcher->name.Buffer, file->FileName.Buffer, file->FileName.Length);
    file->FsContext2 = g_lastWatcher = watcher;
    return Finish(irp, STATUS_SUCCESS);
}

NTSTATUS NTAPI OnCleanup(PDEVICE_OBJECT, PIRP irp) {
    FsRtlNotifyCleanup(g_sync, &g_list, IoGetCurrentIrpStackLocation(irp)->FileObject->FsContext2);
    return Finish(irp, STATUS_SUCCESS);
}

NTSTATUS NTAPI OnClose(PDEVICE_OBJECT, PIRP irp) {
    auto* const watcher = static_cast<Watcher*>(IoGetCurrentIrpStackLocation(irp)->FileObject->FsContext2);
    ExFreePoolWithTag(watcher->name.Buffer, kTag);
    ExFreePoolWithTag(watcher, kTag);
    return Finish(irp, STATUS_SUCCESS);
}

NTSTATUS NTAPI OnDirectoryControl(PDEVICE_OBJECT, PIRP irp) {
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    auto* const watcher = static_cast<Watcher*>(stack->FileObject->FsContext2);
    FsRtlNotifyFullChangeDirectory(g_sync, &g_list, watcher, reinterpret_cast<PSTRING>(&watcher->name),
                                   (stack->Flags & SL_WATCH_TREE) != 0, TRUE,
                                   stack->Parameters.NotifyDirectory.CompletionFilter, irp, nullptr, nullptr);
    return STATUS_PENDING;
}

void NTAPI Unload(PDRIVER_OBJECT) {
    FsRtlNotifyUninitializeSync(&g_sync);
    IoDeleteDevice(g_device);
}

NTSTATUS NTAPI Entry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    driver->DriverUnload = Unload;
    driver->MajorFunction[IRP_MJ_CREATE] = OnCreate;
    driver->MajorFunction[IRP_MJ_CLEANUP] = OnCleanup;
    driver->MajorFunction[IRP_MJ_CLOSE] = OnClose;
    driver->MajorFunction[IRP_MJ_DIRECTORY_CONTROL] = OnDirectoryControl;
    FsRtlNotifyInitializeSync(&g_sync);
    InitializeListHead(&g_list);
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, u"\\Device\\Watched");
    return IoCreateDevice(driver, 0, &name, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &g_device);
}

void Report(std::u16string_view path, ULONG filter = FILE_NOTIFY_CHANGE_FILE_NAME) {
    UNICODE_STRING name = nt::CountedString(path);
    const auto offset = static_cast<USHORT>((path.rfind(u'\\') + 1) * sizeof(WCHAR));
    FsRtlNotifyFullReportChange(g_sync, &g_list, reinterpret_cast<PSTRING>(&name), offset, nullptr, nullptr, filter,
                                FILE_ACTION_ADDED, nullptr);
}

int g_violations;

class NotifyTest : public tests::StationTest {
  protected:
    // One overlapped request; `done` is the status it ended with.
    struct Request {
        IO_STATUS_BLOCK block = {};
        std::atomic<int> ends{0};
        NTSTATUS done = STATUS_PENDING;
        ULONG_PTR information = 99;
        nt::Overlapped overlapped;
    };

    void SetUp() override {
        StationTest::SetUp();
        ASSERT_EQ(nt::LoadDriver({Entry, u"Watch", {}}, &g_driver), STATUS_SUCCESS);
        program_ = std::make_unique<nt::Process>("watcher");
    }

    void TearDown() override {
        program_.reset();
        nt::LeakList leaks;
        ASSERT_EQ(nt::UnloadDriver(g_driver, &leaks), STATUS_SUCCESS);
        EXPECT_EQ(nt::ToString(leaks), "");
        StationTest::TearDown();
    }

    nt::Handle Open(std::u16string_view directory) {
        const std::u16string name = std::u16string(u"\\Device\\Watched").append(directory);
        nt::OpenParameters parameters;
        parameters.name = name;
        parameters.options = 0;
        nt::Handle handle = 0;
        EXPECT_EQ(program_->Open(parameters, &handle), STATUS_SUCCESS);
        return handle;
    }

    void Watch(nt::Handle handle, Request* request, bool tree = false, ULONG filter = FILE_NOTIFY_CHANGE_NAME) {
        request->overlapped.context = request;
        request->overlapped.routine = [](void* context, const IO_STATUS_BLOCK& block) {
            auto* const ended = static_cast<Request*>(context);
            ended->done = block.Status;
            ended->information = block.Information;
            ++ended->ends;
        };
        const NTSTATUS status =
            program_->NotifyChangeDirectory(handle, &request->block, nullptr, 0, filter, tree, &request->overlapped);
        EXPECT_EQ(status, STATUS_PENDING);
    }

    static void ExpectEnded(const Request& request, NTSTATUS status) {
        EXPECT_EQ(request.ends, 1);
        EXPECT_EQ(request.done, status);
        EXPECT_EQ(request.information, 0u);
    }

    std::unique_ptr<nt::Process> program_;
};

TEST_F(NotifyTest, WhatADirectoryCovers) {
    struct Case {
        std::u16string_view directory;
        bool tree;
        std::u16string_view target;
        bool covered;
    };
    const Case cases[] = {
        {u"\\RZV\\VOL1", false, u"\\RZV\\VOL1\\CLIPS", true},
        {u"\\RZV\\VOL1", false, u"\\RZV\\VOL1\\CLIPS\\A", false},
        {u"\\RZV\\VOL1", false, u"\\RZV\\VOL1", false},
        {u"\\RZV\\VOL1", false, u"\\RZV\\VOL12\\CLIPS", false},
        {u"\\RZV\\VOL1", false, u"\\RZV\\vol1\\CLIPS", false},  // As the real kernel: not upcased.
        {u"\\RZV\\VOL1", true, u"\\RZV\\VOL1\\CLIPS", true},
        {u"\\RZV\\VOL1", true, u"\\RZV\\VOL1\\CLIPS\\A\\0001", true},
        {u"\\RZV\\VOL1", true, u"\\RZV\\VOL12\\CLIPS", false},
        {u"\\RZV\\VOL1", true, u"\\RZV\\VOL1", false},
        {u"\\RZV\\VOL1", true, u"\\RZV\\VOL", false},
        {u"\\", false, u"\\RZV", true},
        {u"\\", false, u"\\RZV\\VOL1", false},
        {u"\\", true, u"\\RZV\\VOL1\\CLIPS", true},
    };
    for (const Case& c : cases) {
        const nt::Handle handle = Open(c.directory);
        Request request;
        Watch(handle, &request, c.tree);
        Report(c.target);
        EXPECT_EQ(request.ends, c.covered ? 1 : 0)
            << nt::Utf8FromWide(c.directory) << (c.tree ? " tree " : " ") << nt::Utf8FromWide(c.target);
        program_->Close(handle);
        ExpectEnded(request, c.covered ? STATUS_NOTIFY_ENUM_DIR : STATUS_NOTIFY_CLEANUP);
    }
}

TEST_F(NotifyTest, FirstRequestFixesFilterAndTree) {
    const nt::Handle handle = Open(u"\\RZV");
    Request requests[3];
    Watch(handle, &requests[0], false, FILE_NOTIFY_CHANGE_FILE_NAME);
    Report(u"\\RZV\\VOL1", FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE);
    EXPECT_EQ(requests[0].ends, 0);
    Report(u"\\RZV\\VOL1", FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_FILE_NAME);
    ExpectEnded(requests[0], STATUS_NOTIFY_ENUM_DIR);
    // Asking for more later changes nothing.
    Watch(handle, &requests[1], true, FILE_NOTIFY_CHANGE_SIZE);
    Report(u"\\RZV\\VOL1", FILE_NOTIFY_CHANGE_SIZE);
    Report(u"\\RZV\\VOL1\\CLIPS", FILE_NOTIFY_CHANGE_FILE_NAME);
    EXPECT_EQ(requests[1].ends, 0);
    Report(u"\\RZV\\VOL1", FILE_NOTIFY_CHANGE_FILE_NAME);
    ExpectEnded(requests[1], STATUS_NOTIFY_ENUM_DIR);
}

TEST_F(NotifyTest, ChangesBetweenRequestsAreKept) {
    const nt::Handle handle = Open(u"\\RZV");
    const nt::Handle other = Open(u"\\RZV");
    Request first;
    Request second;
    Request third;
    Request otherRequest;
    Report(u"\\RZV\\VOL0");  // Nobody watches yet.
    Watch(handle, &first);
    Watch(other, &otherRequest);
    EXPECT_EQ(first.ends, 0);
    Report(u"\\RZV\\VOL1");
    ExpectEnded(first, STATUS_NOTIFY_ENUM_DIR);
    ExpectEnded(otherRequest, STATUS_NOTIFY_ENUM_DIR);
    Report(u"\\RZV\\VOL2");
    Report(u"\\RZV\\VOL3");
    Watch(handle, &second);
    ExpectEnded(second, STATUS_NOTIFY_ENUM_DIR);
    Watch(handle, &third);  // Both changes have been told.
    EXPECT_EQ(third.ends, 0);
    program_->Close(handle);
    ExpectEnded(third, STATUS_NOTIFY_CLEANUP);
}

TEST_F(NotifyTest, OneChangeEndsTheOldestRequest) {
    const nt::Handle handle = Open(u"\\RZV");
    Request requests[3];
    for (Request& request : requests) {
        Watch(handle, &request);
    }
    Report(u"\\RZV\\VOL1");
    EXPECT_EQ(requests[0].ends, 1);
    EXPECT_EQ(requests[1].ends, 0);
    EXPECT_EQ(program_->CancelRequest(&requests[1].block), STATUS_SUCCESS);
    ExpectEnded(requests[1], STATUS_CANCELLED);
    Report(u"\\RZV\\VOL1");
    ExpectEnded(requests[2], STATUS_NOTIFY_ENUM_DIR);
}

TEST_F(NotifyTest, EndOfTheProcessEndsRequests) {
    Request request;
    Watch(Open(u"\\RZV"), &request);
    program_->Exit();
    EXPECT_EQ(request.ends, 1);
    EXPECT_TRUE(request.done == STATUS_CANCELLED || request.done == STATUS_NOTIFY_CLEANUP);
}

TEST_F(NotifyTest, RequestIsEndedOnceWhoeverComesFirst) {
    // Report, cancel and cleanup race for the same requests.
    for (int round = 0; round < 200; ++round) {
        const nt::Handle handle = Open(u"\\RZV");
        Request requests[2];
        Watch(handle, &requests[0]);
        Watch(handle, &requests[1]);
        std::thread reporter([] {
            Report(u"\\RZV\\VOL1");
            Report(u"\\RZV\\VOL1");
        });
        std::thread canceller([&] { program_->CancelHandle(handle); });
        if (round % 2 == 0) {
            std::this_thread::yield();
        }
        program_->Close(handle);
        reporter.join();
        canceller.join();
        for (const Request& request : requests) {
            EXPECT_EQ(request.ends, 1);
        }
    }
}

TEST_F(NotifyTest, PagedListHeadIsRefused) {
    auto* const head = static_cast<PLIST_ENTRY>(ExAllocatePoolWithTag(PagedPool, sizeof(LIST_ENTRY), kTag));
    InitializeListHead(head);
    UNICODE_STRING name = nt::CountedString(u"\\RZV\\VOL1");
    const auto before = nt::SetViolationHandler([](const char*) { ++g_violations; });
    g_violations = 0;
    FsRtlNotifyFullReportChange(g_sync, head, reinterpret_cast<PSTRING>(&name), 10, nullptr, nullptr, 1, 1, nullptr);
    EXPECT_EQ(g_violations, 1);
    nt::SetViolationHandler(before);
    ExFreePoolWithTag(head, kTag);
}

TEST_F(NotifyTest, WatchedNameMustOutliveItsHandle) {
    const nt::Handle handle = Open(u"\\RZV");
    Request first;
    Watch(handle, &first);
    Report(u"\\RZV\\VOL1");
    ExpectEnded(first, STATUS_NOTIFY_ENUM_DIR);
    // Also between two requests: the next report looks at the name.
    const auto before = nt::SetViolationHandler([](const char*) { ++g_violations; });
    g_violations = 0;
    ExFreePoolWithTag(g_lastWatcher->name.Buffer, kTag);
    EXPECT_EQ(g_violations, 1);
    ExFreePoolWithTag(g_lastWatcher, kTag);
    EXPECT_EQ(g_violations, 2);
    FsRtlNotifyUninitializeSync(&g_sync);
    EXPECT_EQ(g_violations, 3);
    nt::SetViolationHandler(before);
    program_->Close(handle);  // The close frees both.
}

}  // namespace
