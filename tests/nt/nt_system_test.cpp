#include <sys/mman.h>

#include <atomic>
#include <cstring>

#include "nt/object_internal.h"
#include "tests/nt/nt_kernel_fixture.h"

// What a process sees of the kernel: opens, transfers, information, cancel, handles, and its end.

namespace {

using namespace nt_test;

class SystemTest : public DriverTest {
  protected:
    void SetUp() override {
        driver.deviceType = FILE_DEVICE_DISK_FILE_SYSTEM;
        DriverTest::SetUp();
        process = std::make_unique<nt::Process>("app");
    }
    void TearDown() override {
        process.reset();
        DriverTest::TearDown();
    }
    nt::Handle Open(std::u16string_view name, ULONG options = FILE_SYNCHRONOUS_IO_NONALERT,
                    ACCESS_MASK access = FILE_ALL_ACCESS) {
        nt::Handle handle = 0;
        EXPECT_EQ(process->Open({.name = name, .desiredAccess = access, .options = options}, &handle), STATUS_SUCCESS);
        EXPECT_EQ(handle % 4, 0u);
        driver.Forget();
        return handle;
    }
    std::unique_ptr<nt::Process> process;
};

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

// ---- opening ----

TEST_F(SystemTest, NamesResolveThroughLinksToTheDeviceWithTheLongestName) {
    PDEVICE_OBJECT longer = nullptr;
    ASSERT_EQ(IoCreateDevice(driver.object, 0, Name(u"\\Device\\Test\\Inner"), FILE_DEVICE_UNKNOWN, 0, FALSE, &longer),
              STATUS_SUCCESS);
    longer->Flags &= ~DO_DEVICE_INITIALIZING;
    IoCreateSymbolicLink(Name(u"\\??\\Chain"), Name(u"\\DosDevices\\t:\\sub"));
    IoCreateSymbolicLink(Name(u"\\??\\Loop"), Name(u"\\??\\Loop"));
    std::u16string seenName;
    PDEVICE_OBJECT seenDevice = nullptr;
    driver.on[IRP_MJ_CREATE] = [&](PDEVICE_OBJECT device, PIRP irp) {
        const PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
        seenName.assign(file->FileName.Buffer, file->FileName.Length / 2);
        seenDevice = device;
        EXPECT_EQ(file->RelatedFileObject, nullptr);
        EXPECT_EQ((file->Flags & FO_VOLUME_OPEN) != 0, seenName.empty());
        return Complete(irp, STATUS_SUCCESS, FILE_OPENED);
    };
    struct Case {
        std::u16string_view name;
        NTSTATUS status;
        std::u16string_view rest;
        bool isLonger;
    };
    const Case cases[] = {
        {u"\\Device\\Test", STATUS_SUCCESS, u"", false},
        {u"\\DEVICE\\test", STATUS_SUCCESS, u"", false},
        {u"\\Device\\Test\\", STATUS_SUCCESS, u"\\", false},
        {u"\\Device\\Test\\a\\b", STATUS_SUCCESS, u"\\a\\b", false},
        {u"\\Device\\Test\\\\a\\", STATUS_SUCCESS, u"\\\\a\\", false},
        {u"\\DosDevices\\T:\\RZV\\Vol", STATUS_SUCCESS, u"\\RZV\\Vol", false},
        {u"\\??\\t:", STATUS_SUCCESS, u"", false},
        {u"\\dosdevices\\CHAIN\\x", STATUS_SUCCESS, u"\\sub\\x", false},
        {u"\\Device\\Test\\Inner", STATUS_SUCCESS, u"", true},
        {u"\\Device\\Test\\inner\\x", STATUS_SUCCESS, u"\\x", true},
        {u"\\Device\\Test\\Inner2", STATUS_SUCCESS, u"\\Inner2", false},
        {u"\\Device\\Test2", STATUS_OBJECT_NAME_NOT_FOUND, {}, false},
        {u"\\Device\\Tes", STATUS_OBJECT_NAME_NOT_FOUND, {}, false},
        {u"\\??\\X:", STATUS_OBJECT_NAME_NOT_FOUND, {}, false},
        {u"\\??\\X:\\a", STATUS_OBJECT_PATH_NOT_FOUND, {}, false},
        {u"\\Nowhere\\a", STATUS_OBJECT_PATH_NOT_FOUND, {}, false},
        {u"\\??\\Loop", STATUS_OBJECT_NAME_INVALID, {}, false},
        {u"T:\\a", STATUS_OBJECT_PATH_SYNTAX_BAD, {}, false},
        {u"", STATUS_OBJECT_PATH_SYNTAX_BAD, {}, false},
        {u"\\Driver\\Test", STATUS_OBJECT_TYPE_MISMATCH, {}, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.name.begin(), c.name.end()));
        seenDevice = nullptr;
        nt::Handle handle = 0;
        IO_STATUS_BLOCK status{};
        EXPECT_EQ(process->Open({.name = c.name}, &handle, &status), c.status);
        EXPECT_EQ(status.Status, c.status);
        EXPECT_EQ(handle != 0, c.status == STATUS_SUCCESS);
        if (handle != 0) {
            EXPECT_EQ(status.Information, FILE_OPENED);
            EXPECT_EQ(seenName, c.rest);
            EXPECT_EQ(seenDevice, c.isLonger ? longer : driver.device);
            EXPECT_EQ(process->Close(handle), STATUS_SUCCESS);
        } else {
            EXPECT_EQ(seenDevice, nullptr);
        }
    }
    IoDeleteSymbolicLink(Name(u"\\??\\Chain"));
    IoDeleteSymbolicLink(Name(u"\\??\\Loop"));
    IoDeleteDevice(longer);
}

TEST_F(SystemTest, TheCreateRequestCarriesWhatWasAsked) {
    const nt::Handle root = Open(u"\\??\\T:\\folder");
    int calls = 0;
    driver.on[IRP_MJ_CREATE] = [&](PDEVICE_OBJECT, PIRP irp) {
        const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        const auto& create = stack->Parameters.Create;
        const PFILE_OBJECT file = stack->FileObject;
        EXPECT_EQ(create.SecurityContext->DesiredAccess, FILE_GENERIC_WRITE | SYNCHRONIZE);
        EXPECT_EQ(create.Options, FILE_CREATE << 24 | FILE_SYNCHRONOUS_IO_NONALERT | FILE_WRITE_THROUGH);
        EXPECT_EQ(create.ShareAccess, FILE_SHARE_READ);
        EXPECT_EQ(create.FileAttributes, FILE_ATTRIBUTE_ARCHIVE);
        EXPECT_EQ(create.EaLength, 3u);
        EXPECT_EQ(std::memcmp(irp->AssociatedIrp.SystemBuffer, "ea!", 3), 0);
        EXPECT_EQ(irp->RequestorMode, UserMode);
        EXPECT_TRUE(IoIsOperationSynchronous(irp));
        EXPECT_NE(file->RelatedFileObject, nullptr);
        EXPECT_EQ(std::u16string_view(file->FileName.Buffer, file->FileName.Length / 2), u"child\\x");
        EXPECT_EQ(file->Flags, FO_SYNCHRONOUS_IO | FO_WRITE_THROUGH | FO_OPENED_CASE_SENSITIVE);
        calls++;
        return Complete(irp, STATUS_SUCCESS, FILE_CREATED);
    };
    nt::OpenParameters parameters{.name = u"child\\x",
                                  .rootDirectory = root,
                                  .desiredAccess = GENERIC_WRITE | SYNCHRONIZE,
                                  .fileAttributes = FILE_ATTRIBUTE_ARCHIVE,
                                  .shareAccess = FILE_SHARE_READ,
                                  .disposition = FILE_CREATE,
                                  .options = FILE_SYNCHRONOUS_IO_NONALERT | FILE_WRITE_THROUGH,
                                  .attributes = 0,
                                  .eaBuffer = "ea!",
                                  .eaLength = 3};
    nt::Handle handle = 0;
    IO_STATUS_BLOCK status{};
    EXPECT_EQ(process->Open(parameters, &handle, &status), STATUS_SUCCESS);
    EXPECT_EQ(status.Information, FILE_CREATED);
    parameters.name = u"\\absolute";
    EXPECT_EQ(process->Open(parameters, &handle, &status), STATUS_OBJECT_PATH_SYNTAX_BAD);
    parameters.name = u"x";
    parameters.rootDirectory = 0x7000;
    EXPECT_EQ(process->Open(parameters, &handle, &status), STATUS_INVALID_HANDLE);
    parameters.rootDirectory = root;
    parameters.eaBuffer = reinterpret_cast<void*>(uintptr_t{4096});
    EXPECT_EQ(process->Open(parameters, &handle, &status), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(calls, 1);
}

TEST_F(SystemTest, ContradictoryOpensAreRefusedBeforeTheDriverSeesThem) {
    const nt::OpenParameters good{.name = u"\\??\\T:\\f"};
    struct Case {
        const char* name;
        void (*spoil)(nt::OpenParameters&);
    };
    const Case cases[] = {
        {"disposition", [](nt::OpenParameters& p) { p.disposition = 6; }},
        {"share", [](nt::OpenParameters& p) { p.shareAccess = 8; }},
        {"options", [](nt::OpenParameters& p) { p.options = 0x01000000; }},
        {"both kinds of synchronous",
         [](nt::OpenParameters& p) { p.options = FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT; }},
        {"synchronous without the right to wait", [](nt::OpenParameters& p) { p.desiredAccess = FILE_READ_DATA; }},
        {"folder and no folder",
         [](nt::OpenParameters& p) { p.options |= FILE_DIRECTORY_FILE | FILE_NON_DIRECTORY_FILE; }},
        {"folder to overwrite",
         [](nt::OpenParameters& p) {
             p.options |= FILE_DIRECTORY_FILE;
             p.disposition = FILE_OVERWRITE;
         }},
        {"delete on close without the right", [](nt::OpenParameters& p) { p.options |= FILE_DELETE_ON_CLOSE; }},
    };
    driver.Forget();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        nt::OpenParameters parameters = good;
        c.spoil(parameters);
        nt::Handle handle = 0;
        EXPECT_EQ(process->Open(parameters, &handle), STATUS_INVALID_PARAMETER);
    }
    EXPECT_EQ(driver.Seen(), "");
}

// ---- the life of a file object ----

TEST_F(SystemTest, CleanupComesWithTheLastHandleAndCloseWithTheLastReference) {
    const nt::Handle first = Open(u"\\??\\T:\\f");
    nt::Process other("other");
    nt::Handle second = 0;
    ASSERT_EQ(process->Duplicate(first, other, &second), STATUS_SUCCESS);
    PVOID file = nullptr;
    {
        const nt::AttachProcess attach(other.Object());
        ASSERT_EQ(
            ObReferenceObjectByHandle(nt::HandleFromValue(second), 0, *IoFileObjectType, UserMode, &file, nullptr),
            STATUS_SUCCESS);
    }
    EXPECT_EQ(process->Close(first), STATUS_SUCCESS);
    EXPECT_EQ(driver.Seen(), "");
    EXPECT_EQ(process->Close(first), STATUS_INVALID_HANDLE);
    EXPECT_EQ(other.Close(second), STATUS_SUCCESS);
    EXPECT_EQ(driver.Seen(), "cleanup");
    EXPECT_EQ(driver.device->ReferenceCount, 1);
    ObfDereferenceObject(file);
    EXPECT_EQ(driver.Seen(), "cleanup close");
    EXPECT_EQ(driver.device->ReferenceCount, 0);
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
            IoReleaseCancelSpinLock(cancelled->CancelIrql);
            noteCancel("cancel", cancelled);
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

// ---- transfers ----

TEST_F(SystemTest, SynchronousHandlesKeepAPositionOverlappedOnesWantAnOffset) {
    LONGLONG seen = 0;
    const auto transfer = [&](PDEVICE_OBJECT, PIRP irp) {
        const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        seen = stack->Parameters.Read.ByteOffset.QuadPart;
        EXPECT_EQ(irp->MdlAddress, nullptr);
        if (IoIsOperationSynchronous(irp)) {
            stack->FileObject->CurrentByteOffset.QuadPart = seen + stack->Parameters.Read.Length;
        }
        return Complete(irp, STATUS_SUCCESS, stack->Parameters.Read.Length);
    };
    driver.on[IRP_MJ_READ] = transfer;
    driver.on[IRP_MJ_WRITE] = transfer;
    char buffer[64];
    IO_STATUS_BLOCK status{};
    const nt::Handle sync = Open(u"\\??\\T:\\f");
    const LONGLONG hundred = 100;
    const LONGLONG negative = -5;
    const auto position = [&] {
        FILE_POSITION_INFORMATION at{};
        driver.Forget();
        EXPECT_EQ(process->QueryInformation(sync, &status, &at, sizeof(at), FilePositionInformation), STATUS_SUCCESS);
        EXPECT_EQ(driver.Seen(), "");  // the driver is not asked
        return at.CurrentByteOffset.QuadPart;
    };
    EXPECT_EQ(process->Read(sync, &status, buffer, 10), STATUS_SUCCESS);
    EXPECT_EQ(seen, 0);
    EXPECT_EQ(status.Information, 10u);
    EXPECT_EQ(position(), 10);
    EXPECT_EQ(process->Write(sync, &status, buffer, 5, &hundred), STATUS_SUCCESS);
    EXPECT_EQ(seen, 100);
    EXPECT_EQ(position(), 105);
    FILE_POSITION_INFORMATION move{};
    move.CurrentByteOffset.QuadPart = 7;
    EXPECT_EQ(process->SetInformation(sync, &status, &move, sizeof(move), FilePositionInformation), STATUS_SUCCESS);
    EXPECT_EQ(process->Read(sync, &status, buffer, 1), STATUS_SUCCESS);
    EXPECT_EQ(seen, 7);
    EXPECT_EQ(process->Read(sync, &status, buffer, 1, &negative), STATUS_INVALID_PARAMETER);
    move.CurrentByteOffset.QuadPart = -1;
    EXPECT_EQ(process->SetInformation(sync, &status, &move, sizeof(move), FilePositionInformation),
              STATUS_INVALID_PARAMETER);
    const nt::Overlapped overlapped{};
    EXPECT_EQ(process->Read(sync, &status, buffer, 1, nullptr, &overlapped), STATUS_INVALID_PARAMETER);

    const nt::Handle async = Open(u"\\??\\T:\\f", 0);
    EXPECT_EQ(process->Read(async, &status, buffer, 1), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(process->Read(async, &status, buffer, 1, &hundred), STATUS_SUCCESS);
    EXPECT_EQ(seen, 100);
    const nt::Handle append = Open(u"\\??\\T:\\f", FILE_SYNCHRONOUS_IO_NONALERT, FILE_APPEND_DATA | SYNCHRONIZE);
    EXPECT_EQ(process->Write(append, &status, buffer, 1, &hundred), STATUS_SUCCESS);
    EXPECT_EQ(seen, -1);  // to the end of the file
    EXPECT_EQ(process->Read(append, &status, buffer, 1, &hundred), STATUS_ACCESS_DENIED);
    const nt::Handle whole = Open(u"\\??\\T:\\f", FILE_SYNCHRONOUS_IO_NONALERT | FILE_NO_INTERMEDIATE_BUFFERING);
    EXPECT_EQ(process->Read(whole, &status, buffer, 100), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(process->Read(whole, &status, buffer, 512, &hundred), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(process->Read(whole, &status, buffer, 512), STATUS_SUCCESS);
}

TEST_F(SystemTest, OverlappedRequestsReportTheirEndExactlyOnce) {
    const nt::Handle handle = Open(u"\\??\\T:\\f", 0);
    for (const bool pend : {false, true}) {
        for (const NTSTATUS end : {STATUS_SUCCESS, STATUS_IO_DEVICE_ERROR}) {
            SCOPED_TRACE(pend);
            driver.on[IRP_MJ_READ] = [&](PDEVICE_OBJECT, PIRP irp) {
                if (!pend) {
                    return Complete(irp, end, 1);
                }
                IoMarkIrpPending(irp);
                std::thread([irp, end] { Complete(irp, end, 1); }).detach();
                return STATUS_PENDING;
            };
            struct Seen {
                std::atomic<int> calls{0};
                IO_STATUS_BLOCK status{};
            } seen;
            KEVENT event;
            KeInitializeEvent(&event, NotificationEvent, TRUE);
            const nt::Overlapped overlapped{[](void* context, const IO_STATUS_BLOCK& status) {
                                                static_cast<Seen*>(context)->status = status;
                                                static_cast<Seen*>(context)->calls++;
                                            },
                                            &seen, &event};
            IO_STATUS_BLOCK status{};
            const LONGLONG offset = 0;
            const NTSTATUS answer = process->Read(handle, &status, nullptr, 0, &offset, &overlapped);
            EXPECT_EQ(answer, pend ? STATUS_PENDING : end);
            EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
            EXPECT_EQ(process->WaitForFile(handle), STATUS_SUCCESS);
            EXPECT_TRUE(Eventually([&] { return seen.calls == (pend ? 1 : 0); }));
            EXPECT_EQ(status.Status, end);
            EXPECT_EQ(status.Information, 1u);
            if (pend) {
                EXPECT_EQ(seen.status.Status, end);
            }
            EXPECT_TRUE(Eventually([&] { return process->OutstandingRequests() == 0; }));
        }
    }
}

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

// ---- control codes and bad addresses ----

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
        {"input at a hole", bad, 16, good, 16, "nnn", "yyy"},
        {"input runs into a hole", page.End() - 8, 16, good, 16, "nnn", "yyy"},
        {"output at a hole", good, 16, bad, 16, "ynn", "yyy"},
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
    EXPECT_EQ(process->FsControl(handle, nullptr, FSCTL_IS_VOLUME_MOUNTED, nullptr, 0, nullptr, 0), STATUS_SUCCESS);
    EXPECT_EQ(driver.Seen(), "ioctl fsctl");
    // Read-only memory is good for input and bad for output.
    mprotect(page.Base(), 4096, PROT_READ);
    EXPECT_EQ(process->DeviceControl(handle, nullptr, kCodes[1], good, 8, good, 8), STATUS_SUCCESS);
    EXPECT_EQ(process->DeviceControl(handle, nullptr, kCodes[2], good, 8, good, 8), STATUS_ACCESS_VIOLATION);
}

// ---- information ----

TEST_F(SystemTest, LengthsAndRightsAreCheckedForUsersOnly) {
    const nt::Handle handle = Open(u"\\??\\T:\\f");
    const nt::Handle poor = Open(u"\\??\\T:\\f", FILE_SYNCHRONOUS_IO_NONALERT, FILE_READ_DATA | SYNCHRONIZE);
    char buffer[256] = {};
    enum Kind { kQuery, kSet, kQueryVolume, kSetVolume };
    struct Case {
        Kind kind;
        int informationClass;
        ULONG least;        // 0: no such class
        NTSTATUS withPoor;  // with hardly any right
    };
    const Case cases[] = {
        {kQuery, FileBasicInformation, 40, STATUS_ACCESS_DENIED},
        {kQuery, FileStandardInformation, 24, STATUS_SUCCESS},
        {kQuery, FileNameInformation, 8, STATUS_SUCCESS},
        {kQuery, FileAllInformation, 104, STATUS_ACCESS_DENIED},
        {kQuery, FileNetworkOpenInformation, 56, STATUS_ACCESS_DENIED},
        {kQuery, FileInternalInformation, 8, STATUS_SUCCESS},
        {kQuery, FileEaInformation, 4, STATUS_SUCCESS},
        {kQuery, FileStreamInformation, 32, STATUS_SUCCESS},
        {kQuery, FileCompressionInformation, 16, STATUS_SUCCESS},
        {kQuery, FileRenameInformation, 0, STATUS_INVALID_INFO_CLASS},
        {kQuery, FileBothDirectoryInformation, 0, STATUS_INVALID_INFO_CLASS},
        {kQuery, 99, 0, STATUS_INVALID_INFO_CLASS},
        {kSet, FileBasicInformation, 40, STATUS_ACCESS_DENIED},
        {kSet, FileDispositionInformation, 1, STATUS_ACCESS_DENIED},
        {kSet, FileAllocationInformation, 8, STATUS_ACCESS_DENIED},
        {kSet, FileEndOfFileInformation, 8, STATUS_ACCESS_DENIED},
        {kSet, FileStandardInformation, 0, STATUS_INVALID_INFO_CLASS},
        {kQueryVolume, FileFsVolumeInformation, 24, STATUS_SUCCESS},
        {kQueryVolume, FileFsSizeInformation, 24, STATUS_SUCCESS},
        {kQueryVolume, FileFsDeviceInformation, 8, STATUS_SUCCESS},
        {kQueryVolume, FileFsAttributeInformation, 16, STATUS_SUCCESS},
        {kQueryVolume, FileFsLabelInformation, 0, STATUS_INVALID_INFO_CLASS},
        {kSetVolume, FileFsLabelInformation, 8, STATUS_ACCESS_DENIED},
        {kSetVolume, FileFsSizeInformation, 0, STATUS_INVALID_INFO_CLASS},
    };
    nt::Process trusted("trusted", KernelMode);
    nt::Handle trustedHandle = 0;
    ASSERT_EQ(trusted.Open({.name = u"\\??\\T:\\f", .desiredAccess = 0}, &trustedHandle), STATUS_SUCCESS);
    const auto ask = [&](nt::Process& p, nt::Handle h, const Case& c, ULONG length) {
        const auto fileClass = static_cast<FILE_INFORMATION_CLASS>(c.informationClass);
        const auto fsClass = static_cast<FS_INFORMATION_CLASS>(c.informationClass);
        IO_STATUS_BLOCK status{};
        switch (c.kind) {
            case kQuery:
                return p.QueryInformation(h, &status, buffer, length, fileClass);
            case kSet:
                return p.SetInformation(h, &status, buffer, length, fileClass);
            case kQueryVolume:
                return p.QueryVolumeInformation(h, &status, buffer, length, fsClass);
            default:
                return p.SetVolumeInformation(h, &status, buffer, length, fsClass);
        }
    };
    const char* const majors[] = {"query", "set", "queryvol", "setvol"};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(majors[c.kind]) + " " + std::to_string(c.informationClass));
        driver.Forget();
        if (c.least != 0) {
            EXPECT_EQ(ask(*process, handle, c, c.least - 1), STATUS_INFO_LENGTH_MISMATCH);
        }
        EXPECT_EQ(ask(*process, poor, c, 200), c.withPoor);
        EXPECT_EQ(driver.Seen(), c.withPoor == STATUS_SUCCESS ? majors[c.kind] : "");
        driver.Forget();
        EXPECT_EQ(ask(*process, handle, c, c.least), c.least != 0 ? STATUS_SUCCESS : STATUS_INVALID_INFO_CLASS);
        EXPECT_EQ(driver.Seen(), c.least != 0 ? majors[c.kind] : "");
        driver.Forget();
        EXPECT_EQ(ask(trusted, trustedHandle, c, 1), STATUS_SUCCESS);  // a trusted caller's go through as they are
        EXPECT_EQ(driver.Seen(), majors[c.kind]);
    }
}

TEST_F(SystemTest, RepliesComeBackAlsoWithAWarningAndNeverBeyondTheirLength) {
    const nt::Handle handle = Open(u"\\??\\T:\\f");
    for (const NTSTATUS end : {STATUS_SUCCESS, STATUS_BUFFER_OVERFLOW, STATUS_INVALID_PARAMETER}) {
        driver.on[IRP_MJ_QUERY_INFORMATION] = [&](PDEVICE_OBJECT, PIRP irp) {
            std::memset(irp->AssociatedIrp.SystemBuffer, 7, 24);
            return Complete(irp, end, 20);
        };
        UCHAR buffer[25] = {};
        IO_STATUS_BLOCK status{};
        EXPECT_EQ(process->QueryInformation(handle, &status, buffer, 24, FileStandardInformation), end);
        for (int i = 0; i < 25; i++) {
            EXPECT_EQ(buffer[i], !NT_ERROR(end) && i < 20 ? 7 : 0) << i;
        }
    }
}

TEST_F(SystemTest, ARenameWithAPathOpensTheTargetsParentFirst) {
    const nt::Handle handle = Open(u"\\??\\T:\\dir\\old");
    const nt::Handle folder = Open(u"\\??\\T:\\other");
    struct Rename {
        FILE_RENAME_INFORMATION info;
        WCHAR rest[64];
    };
    struct Case {
        const char* name;
        std::u16string_view to;
        bool inFolder;
        ULONG length;  // of the name as told; 0: as it is
        NTSTATUS status;
        const char* seen;
        std::u16string_view target;  // the name that the parent's open carries
    };
    const Case cases[] = {
        {"a plain name", u"new", false, 0, STATUS_SUCCESS, "set", {}},
        {"a full path", u"\\??\\T:\\dir2\\new", false, 0, STATUS_SUCCESS, "create set cleanup close", u"\\dir2\\new"},
        {"below an open folder", u"sub\\new", true, 0, STATUS_SUCCESS, "create set cleanup close", u"sub\\new"},
        {"a path to nowhere", u"\\??\\X:\\new", false, 0, STATUS_OBJECT_PATH_NOT_FOUND, "", {}},
        {"another device", u"\\Device\\Second\\new", false, 0, STATUS_NOT_SAME_DEVICE, "create cleanup close",
         u"\\new"},
        {"no name", u"", false, 0, STATUS_INVALID_PARAMETER, "", {}},
        {"half a character", u"new", false, 3, STATUS_INVALID_PARAMETER, "", {}},
        {"a name beyond the buffer", u"new", false, 600, STATUS_INVALID_PARAMETER, "", {}},
    };
    PDEVICE_OBJECT second = nullptr;
    ASSERT_EQ(IoCreateDevice(driver.object, 0, Name(u"\\Device\\Second"), FILE_DEVICE_UNKNOWN, 0, FALSE, &second),
              STATUS_SUCCESS);
    second->Flags &= ~DO_DEVICE_INITIALIZING;
    std::u16string target;
    PFILE_OBJECT parent = nullptr;
    driver.on[IRP_MJ_CREATE] = [&](PDEVICE_OBJECT, PIRP irp) {
        const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        EXPECT_NE(stack->Flags & SL_OPEN_TARGET_DIRECTORY, 0);
        parent = stack->FileObject;
        target.assign(parent->FileName.Buffer, parent->FileName.Length / 2);
        return Complete(irp, STATUS_SUCCESS, FILE_DOES_NOT_EXIST);
    };
    driver.on[IRP_MJ_SET_INFORMATION] = [&](PDEVICE_OBJECT, PIRP irp) {
        const auto& set = IoGetCurrentIrpStackLocation(irp)->Parameters.SetFile;
        EXPECT_EQ(set.FileObject, parent);
        EXPECT_TRUE(set.ReplaceIfExists);
        return Complete(irp, STATUS_SUCCESS);
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        parent = nullptr;
        target.clear();
        driver.Forget();
        Rename rename{};
        rename.info.ReplaceIfExists = TRUE;
        rename.info.RootDirectory = c.inFolder ? folder : 0;
        rename.info.FileNameLength = c.length != 0 ? c.length : static_cast<ULONG>(c.to.size() * 2);
        std::copy(c.to.begin(), c.to.end(), rename.info.FileName);
        EXPECT_EQ(process->SetInformation(handle, nullptr, &rename, sizeof(rename), FileRenameInformation), c.status);
        EXPECT_EQ(driver.Seen(), c.seen);
        EXPECT_EQ(target, c.target);
    }
    IoDeleteDevice(second);
}

TEST_F(SystemTest, ListingsAndWatchesCarryWhatWasAsked) {
    const nt::Handle handle = Open(u"\\??\\T:\\dir");
    char buffer[128];
    const std::u16string pattern = u"*.RZV";
    const ULONG index = 5;
    driver.on[IRP_MJ_DIRECTORY_CONTROL] = [&](PDEVICE_OBJECT, PIRP irp) {
        const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        EXPECT_EQ(irp->UserBuffer, buffer);
        EXPECT_EQ(irp->MdlAddress, nullptr);
        if (stack->MinorFunction == IRP_MN_QUERY_DIRECTORY) {
            const auto& query = stack->Parameters.QueryDirectory;
            EXPECT_EQ(std::u16string(query.FileName->Buffer, query.FileName->Length / 2), pattern);
            EXPECT_EQ(query.FileIndex, index);
            EXPECT_EQ(stack->Flags, SL_RESTART_SCAN | SL_RETURN_SINGLE_ENTRY | SL_INDEX_SPECIFIED);
        } else {
            EXPECT_EQ(stack->Parameters.NotifyDirectory.CompletionFilter, FILE_NOTIFY_CHANGE_NAME);
            EXPECT_EQ(stack->Flags, SL_WATCH_TREE);
        }
        return Complete(irp, STATUS_NO_MORE_FILES);
    };
    const nt::Process::DirectoryQuery query{FileNamesInformation, true, true, &index, &pattern};
    EXPECT_EQ(process->QueryDirectory(handle, nullptr, buffer, sizeof(buffer), query), STATUS_NO_MORE_FILES);
    EXPECT_EQ(process->NotifyChangeDirectory(handle, nullptr, buffer, 8, FILE_NOTIFY_CHANGE_NAME, true),
              STATUS_NO_MORE_FILES);
    driver.Forget();
    struct Case {
        FILE_INFORMATION_CLASS informationClass;
        ULONG least;
    };
    for (const Case& c : {Case{FileDirectoryInformation, 64}, Case{FileFullDirectoryInformation, 68},
                          Case{FileBothDirectoryInformation, 94}, Case{FileNamesInformation, 12}}) {
        EXPECT_EQ(process->QueryDirectory(handle, nullptr, buffer, c.least, {c.informationClass}),
                  STATUS_INFO_LENGTH_MISMATCH);
    }
    EXPECT_EQ(process->QueryDirectory(handle, nullptr, buffer, 128, {FileBasicInformation}), STATUS_INVALID_INFO_CLASS);
    EXPECT_EQ(process->NotifyChangeDirectory(handle, nullptr, buffer, 8, 0, true), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(process->NotifyChangeDirectory(handle, nullptr, buffer, 8, 0x1000, true), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(driver.Seen(), "");
}

// ---- cancel ----

TEST_F(SystemTest, CancelFindsItsRequestsByStatusBlockHandleAndThread) {
    const nt::Handle a = Open(u"\\??\\T:\\a", 0);
    const nt::Handle b = Open(u"\\??\\T:\\b", 0);
    driver.on[IRP_MJ_READ] = [](PDEVICE_OBJECT, PIRP irp) {
        IoMarkIrpPending(irp);
        IoSetCancelRoutine(irp, [](PDEVICE_OBJECT, PIRP cancelled) {
            IoReleaseCancelSpinLock(cancelled->CancelIrql);
            Complete(cancelled, STATUS_CANCELLED);
        });
        return STATUS_PENDING;
    };
    IO_STATUS_BLOCK blocks[5] = {};
    const LONGLONG offset = 0;
    for (int i = 0; i < 5; i++) {
        const auto read = [&] {
            blocks[i].Status = STATUS_PENDING;
            EXPECT_EQ(process->Read(i < 3 ? a : b, &blocks[i], nullptr, 0, &offset), STATUS_PENDING);
        };
        i == 4 ? std::thread(read).join() : read();
    }
    const auto left = [&] {
        std::string text;
        for (const IO_STATUS_BLOCK& block : blocks) {
            text += block.Status == STATUS_PENDING ? 'p' : 'c';
        }
        return text;
    };
    EXPECT_EQ(process->CancelRequest(&blocks[1]), STATUS_SUCCESS);
    EXPECT_EQ(left(), "pcppp");
    EXPECT_EQ(process->CancelRequest(&blocks[1]), STATUS_NOT_FOUND);
    EXPECT_EQ(process->CancelHandle(a), STATUS_SUCCESS);
    EXPECT_EQ(left(), "cccpp");
    EXPECT_EQ(process->CancelHandle(a), STATUS_NOT_FOUND);
    EXPECT_EQ(process->CancelThread(), STATUS_SUCCESS);
    EXPECT_EQ(left(), "ccccp");
    EXPECT_EQ(process->CancelThread(), STATUS_NOT_FOUND);
    EXPECT_EQ(process->CancelHandle(b), STATUS_SUCCESS);
    EXPECT_EQ(left(), "ccccc");
}

// ---- handles ----

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
    EXPECT_EQ(reference(*process, 0xFFFFFFFF, 0, *IoFileObjectType, UserMode), STATUS_OBJECT_TYPE_MISMATCH);
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

TEST_F(SystemTest, AKernelHandleIsGoodInEveryProcessForTheKernelOnly) {
    static KEVENT stop;
    KeInitializeEvent(&stop, NotificationEvent, FALSE);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE handle = nullptr;
    ASSERT_EQ(PsCreateSystemThread(
                  &handle, 0, &attributes, nullptr, nullptr,
                  [](PVOID) { KeWaitForSingleObject(&stop, Executive, KernelMode, FALSE, nullptr); }, nullptr),
              STATUS_SUCCESS);
    PVOID thread = nullptr;
    {
        const nt::AttachProcess attach(process->Object());
        EXPECT_EQ(ObReferenceObjectByHandle(handle, 0, *PsThreadType, UserMode, &thread, nullptr),
                  STATUS_INVALID_HANDLE);
        EXPECT_EQ(ObReferenceObjectByHandle(handle, 0, *PsThreadType, KernelMode, &thread, nullptr), STATUS_SUCCESS);
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    }
    KeSetEvent(&stop, 0, FALSE);
    KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
    ObfDereferenceObject(thread);
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

}  // namespace
