#include <atomic>
#include <cstring>

#include "nt/text.h"
#include "tests/nt/nt_system_fixture.h"

// Change notification, through a driver whose files are watched directories of the file objects' names.

namespace {

using namespace nt_test;

constexpr ULONG kTag = 0x20736649;

PNOTIFY_SYNC g_sync;
LIST_ENTRY g_list;
std::atomic<int> g_violations;

// A watched directory's name, as the driver keeps it for its handle.
struct Watcher {
    UNICODE_STRING name;
};
Watcher* g_lastWatcher;

void Report(std::u16string_view path, ULONG filter = FILE_NOTIFY_CHANGE_FILE_NAME, PLIST_ENTRY list = &g_list) {
    UNICODE_STRING name = nt::CountedString(path);
    const auto offset = static_cast<USHORT>((path.rfind(u'\\') + 1) * sizeof(WCHAR));
    FsRtlNotifyFullReportChange(g_sync, list, reinterpret_cast<PSTRING>(&name), offset, nullptr, nullptr, filter,
                                FILE_ACTION_ADDED, nullptr);
}

class NotifyTest : public SystemTest {
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
        SystemTest::SetUp();
        {
            const nt::DriverScope scope(driver.object);
            FsRtlNotifyInitializeSync(&g_sync);
        }
        InitializeListHead(&g_list);
        const auto watcherOf = [](PIRP irp) {
            return static_cast<Watcher*>(IoGetCurrentIrpStackLocation(irp)->FileObject->FsContext2);
        };
        driver.on[IRP_MJ_CREATE] = [](PDEVICE_OBJECT, PIRP irp) {
            const PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
            auto* const watcher = static_cast<Watcher*>(ExAllocatePoolWithTag(PagedPool, sizeof(Watcher), kTag));
            watcher->name = file->FileName;
            watcher->name.Buffer =
                static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, file->FileName.Length + 2u, kTag));
            std::memcpy(watcher->name.Buffer, file->FileName.Buffer, file->FileName.Length);
            file->FsContext2 = g_lastWatcher = watcher;
            return Complete(irp, STATUS_SUCCESS);
        };
        driver.on[IRP_MJ_CLEANUP] = [=](PDEVICE_OBJECT, PIRP irp) {
            FsRtlNotifyCleanup(g_sync, &g_list, watcherOf(irp));
            return Complete(irp, STATUS_SUCCESS);
        };
        driver.on[IRP_MJ_CLOSE] = [=](PDEVICE_OBJECT, PIRP irp) {
            ExFreePoolWithTag(watcherOf(irp)->name.Buffer, kTag);
            ExFreePoolWithTag(watcherOf(irp), kTag);
            return Complete(irp, STATUS_SUCCESS);
        };
        driver.on[IRP_MJ_DIRECTORY_CONTROL] = [=](PDEVICE_OBJECT, PIRP irp) {
            const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
            FsRtlNotifyFullChangeDirectory(g_sync, &g_list, watcherOf(irp),
                                           reinterpret_cast<PSTRING>(&watcherOf(irp)->name),
                                           (stack->Flags & SL_WATCH_TREE) != 0, TRUE,
                                           stack->Parameters.NotifyDirectory.CompletionFilter, irp, nullptr, nullptr);
            return STATUS_PENDING;
        };
        driver.onUnload = [] { FsRtlNotifyUninitializeSync(&g_sync); };
    }

    nt::Handle Open(std::u16string_view directory) {
        return SystemTest::Open(std::u16string(u"\\Device\\Test").append(directory), 0);
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
            process->NotifyChangeDirectory(handle, &request->block, nullptr, 0, filter, tree, &request->overlapped);
        EXPECT_EQ(status, STATUS_PENDING);
    }

    static void ExpectEnded(const Request& request, NTSTATUS status) {
        EXPECT_EQ(request.ends, 1);
        EXPECT_EQ(request.done, status);
        EXPECT_EQ(request.information, 0u);
    }
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
        {u"\\RZV\\VOL1", true, u"\\RZV\\VOL1\\CLIPS\\A\\0001", true},
        {u"\\RZV\\VOL1", true, u"\\RZV\\VOL12\\CLIPS", false},
        {u"\\RZV\\VOL1", true, u"\\RZV\\VOL", false},
        {u"\\", false, u"\\RZV", true},
        {u"\\", true, u"\\RZV\\VOL1\\CLIPS", true},
    };
    for (const Case& c : cases) {
        const nt::Handle handle = Open(c.directory);
        Request request;
        Watch(handle, &request, c.tree);
        Report(c.target);
        EXPECT_EQ(request.ends, c.covered ? 1 : 0)
            << nt::Utf8FromWide(c.directory) << (c.tree ? " tree " : " ") << nt::Utf8FromWide(c.target);
        process->Close(handle);
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
    Request requests[5];
    Request otherRequest;
    Report(u"\\RZV\\VOL0");  // Nobody watches yet.
    Watch(handle, &requests[0]);
    Watch(other, &otherRequest);
    EXPECT_EQ(requests[0].ends, 0);
    Report(u"\\RZV\\VOL1");
    ExpectEnded(requests[0], STATUS_NOTIFY_ENUM_DIR);
    ExpectEnded(otherRequest, STATUS_NOTIFY_ENUM_DIR);
    Report(u"\\RZV\\VOL2");
    Report(u"\\RZV\\VOL3");
    Watch(handle, &requests[1]);
    ExpectEnded(requests[1], STATUS_NOTIFY_ENUM_DIR);
    for (int i = 2; i < 5; i++) {
        Watch(handle, &requests[i]);  // Both changes have been told.
        EXPECT_EQ(requests[i].ends, 0);
    }
    // One change ends the oldest request.
    EXPECT_EQ(process->CancelRequest(&requests[2].block), STATUS_SUCCESS);
    ExpectEnded(requests[2], STATUS_CANCELLED);
    Report(u"\\RZV\\VOL1");
    ExpectEnded(requests[3], STATUS_NOTIFY_ENUM_DIR);
    EXPECT_EQ(requests[4].ends, 0);
    process->Close(handle);
    ExpectEnded(requests[4], STATUS_NOTIFY_CLEANUP);
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
        std::thread canceller([&] { process->CancelHandle(handle); });
        if (round % 2 == 0) {
            std::this_thread::yield();
        }
        process->Close(handle);
        reporter.join();
        canceller.join();
        for (const Request& request : requests) {
            EXPECT_EQ(request.ends, 1);
        }
    }
}

TEST_F(NotifyTest, ListHeadAndNamesMustStayWhereTheyAre) {
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
    auto* const paged = static_cast<PLIST_ENTRY>(ExAllocatePoolWithTag(PagedPool, sizeof(LIST_ENTRY), kTag));
    InitializeListHead(paged);
    Report(u"\\RZV\\VOL1", FILE_NOTIFY_CHANGE_NAME, paged);
    EXPECT_EQ(g_violations, 4);
    nt::SetViolationHandler(before);
    ExFreePoolWithTag(paged, kTag);
    process->Close(handle);  // The close frees the names.
}

}  // namespace
