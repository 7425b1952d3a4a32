// Requests as they reach the driver: those that the kernel's own checks keep from ordinary programs but not from other
// drivers, made by hand, and buffers that no transfer can use.
#include <sys/mman.h>

#include "tests/driver/fsd_fixture.h"

namespace tests {
namespace {

// A request to a device of the driver and the file object it is about, both of the test's own making.
class CraftedOpen {
  public:
    CraftedOpen(PDEVICE_OBJECT device, std::u16string name) : name_(std::move(name)) {
        file_.Type = IO_TYPE_FILE;
        file_.Size = sizeof(file_);
        file_.DeviceObject = device;
        file_.Flags = FO_SYNCHRONOUS_IO;
        file_.FileName = CountedName(name_);
    }
    ~CraftedOpen() { Close(); }
    CraftedOpen(const CraftedOpen&) = delete;
    CraftedOpen& operator=(const CraftedOpen&) = delete;

    NTSTATUS Create(ULONG disposition = FILE_OPEN, ULONG options = 0, UCHAR flags = 0, ULONG eaLength = 0) {
        IO_SECURITY_CONTEXT security{};
        security.DesiredAccess = FILE_READ_DATA;
        const NTSTATUS status = Send(IRP_MJ_CREATE, [&](PIO_STACK_LOCATION stack) {
            stack->Flags = flags;
            stack->Parameters.Create.SecurityContext = &security;
            stack->Parameters.Create.Options = disposition << 24 | options;
            stack->Parameters.Create.ShareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
            stack->Parameters.Create.EaLength = eaLength;
        });
        open_ = NT_SUCCESS(status);
        return status;
    }
    void Cleanup() {
        if (!cleanedUp_) {
            cleanedUp_ = true;
            EXPECT_EQ(Send(IRP_MJ_CLEANUP, [](PIO_STACK_LOCATION) {}), STATUS_SUCCESS);
        }
    }
    void Close() {
        if (open_) {
            Cleanup();
            open_ = false;
            EXPECT_EQ(Send(IRP_MJ_CLOSE, [](PIO_STACK_LOCATION) {}), STATUS_SUCCESS);
        }
    }
    std::u16string Name() const { return {file_.FileName.Buffer, file_.FileName.Length / sizeof(WCHAR)}; }
    ULONG_PTR Information() const { return information_; }
    PFILE_OBJECT File() { return &file_; }

    template <typename Fill>
    NTSTATUS Send(UCHAR major, Fill fill) {
        nt::FaultExempt exempt;
        PIRP irp = IoAllocateIrp(file_.DeviceObject->StackSize, FALSE);
        irp->Flags = IRP_SYNCHRONOUS_API;
        PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
        stack->MajorFunction = major;
        stack->FileObject = &file_;
        fill(stack);
        irp->UserBuffer = (stack->MinorFunction & IRP_MN_MDL) != 0 ? nullptr : buffer_;
        IoSetCompletionRoutine(irp, Keep, nullptr, TRUE, TRUE, TRUE);
        static_cast<void>(IofCallDriver(file_.DeviceObject, irp));
        const NTSTATUS status = irp->IoStatus.Status;
        EXPECT_EQ(irp->MdlAddress, nullptr);
        information_ = irp->IoStatus.Information;
        IoFreeIrp(irp);
        return status;
    }

  private:
    static NTSTATUS NTAPI Keep(PDEVICE_OBJECT, PIRP, PVOID) { return STATUS_MORE_PROCESSING_REQUIRED; }

    std::u16string name_;
    FILE_OBJECT file_{};
    std::byte buffer_[512]{};
    ULONG_PTR information_ = 0;
    bool open_ = false;
    bool cleanedUp_ = false;
};

class FsdRequest : public FsdTest {
  protected:
    static PDEVICE_OBJECT Disk() { return Card()->DiskDevice; }
};

TEST_F(FsdRequest, ParametersThatNoProgramCanSendAreRefused) {
    const struct {
        const char16_t* name;
        ULONG disposition, eaLength;
    } cases[] = {
        {u"\\RZV", FILE_OPEN, 1},
        {u"\\RZV\\VolA\\Clips\\New", 6, 0},
        {u"\\RZV\\VolA\\Clips\\New", 255, 0},
    };
    for (const auto& test : cases) {
        CraftedOpen open(Disk(), test.name);
        EXPECT_EQ(open.Create(test.disposition, 0, 0, test.eaLength), STATUS_INVALID_PARAMETER);
    }
    CraftedOpen odd(Disk(), u"\\RZV");
    odd.File()->FileName.Length = 7;
    EXPECT_EQ(odd.Create(), STATUS_OBJECT_NAME_INVALID);
    ExpectIdle("at the end");
}

TEST_F(FsdRequest, AWriteThatComesAfterItsHandlesCleanupIsRefused) {
    CraftedOpen open(Disk(), kTake1);
    ASSERT_EQ(open.Create(), STATUS_SUCCESS);
    const auto write = [&](ULONG length) {
        return open.Send(IRP_MJ_WRITE, [&](PIO_STACK_LOCATION stack) { stack->Parameters.Write.Length = length; });
    };
    open.Cleanup();
    EXPECT_EQ(write(0), STATUS_SUCCESS);
    EXPECT_EQ(write(16), STATUS_FILE_CLOSED);
}

TEST_F(FsdRequest, ABufferThatCannotBeUsedIsRefusedBeforeTheTransfer) {
    constexpr const char* kRefused = "STATUS_INVALID_USER_BUFFER";
    constexpr std::size_t kPage = 4096;
    void* const memory = ::mmap(nullptr, 2 * kPage, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    ASSERT_EQ(::mprotect(memory, kPage, PROT_NONE), 0);
    auto* const noAccess = static_cast<std::byte*>(memory);
    std::byte* const readOnly = noAccess + kPage;
    const host::ScopedHandle folder = Hold(u"\\RZV\\VolA\\Clips");
    for (const bool overlapped : {false, true}) {
        const host::OpenResult opened =
            User().Create({.path = std::u16string(u"P:") + kTake1, .access = kReadWrite, .overlapped = overlapped});
        const host::ScopedHandle file(User(), opened.handle);
        const auto read = [&](std::byte* buffer, std::size_t length) {
            const std::span<std::byte> span(buffer, length);
            const auto never = [](host::IoResult) { ADD_FAILURE() << "completed after its refusal"; };
            return host::StatusName(overlapped ? User().ReadOverlapped(file.Get(), span, 0, never, nullptr)
                                               : User().Read(file.Get(), span, 0).status);
        };
        EXPECT_EQ(read(noAccess, 512), kRefused);
        EXPECT_EQ(read(readOnly, 512), kRefused);
        EXPECT_EQ(read(noAccess + kPage - 16, 32), kRefused);
    }
    const host::ScopedHandle file = Hold(kTake1, kReadWrite);
    EXPECT_EQ(host::StatusName(User().Read(file.Get(), {noAccess, 0}, 0).status), "STATUS_SUCCESS");
    EXPECT_EQ(host::StatusName(User().Write(file.Get(), {noAccess, 512}, 0).status), kRefused);
    EXPECT_NE(host::StatusName(User().Write(file.Get(), {readOnly, 512}, 0).status), kRefused);
    EXPECT_EQ(host::StatusName(User().QueryDirectory(folder.Get(), {}, {readOnly, kPage}).status), kRefused);
    ::munmap(memory, 2 * kPage);
}

TEST_F(FsdRequest, OnlyOpensOfThisCardAreAPlaceToStartFrom) {
    CraftedOpen control(Card()->ControlDevice, u"");
    ASSERT_EQ(control.Create(), STATUS_SUCCESS);
    CraftedOpen unopened(Disk(), u"");
    CraftedOpen volume(Disk(), u"");
    ASSERT_EQ(volume.Create(), STATUS_SUCCESS);
    CraftedOpen folder(Disk(), u"\\RZV\\VolA\\Clips");
    ASSERT_EQ(folder.Create(), STATUS_SUCCESS);
    CraftedOpen elsewhere(Disk(), u"\\RZV\\VolA\\Clips");
    ASSERT_EQ(elsewhere.Create(), STATUS_SUCCESS);
    elsewhere.File()->DeviceObject = Card()->ControlDevice;  // as a handle of another card, whatever it carries

    const struct {
        CraftedOpen* related;
        const char16_t* name;
        NTSTATUS status;
    } cases[] = {
        {&control, u"Take1", STATUS_OBJECT_PATH_NOT_FOUND},
        {&control, u"", STATUS_OBJECT_PATH_NOT_FOUND},
        {&unopened, u"Take1", STATUS_OBJECT_PATH_NOT_FOUND},
        {&unopened, u"", STATUS_OBJECT_PATH_NOT_FOUND},
        {&elsewhere, u"Take1", STATUS_OBJECT_PATH_NOT_FOUND},
        {&volume, u"", STATUS_SUCCESS},
        {&volume, u"RZV", STATUS_OBJECT_PATH_NOT_FOUND},
        {&folder, u"\\", STATUS_OBJECT_NAME_INVALID},
        {&folder, u"Take1", STATUS_SUCCESS},
    };
    for (const auto& test : cases) {
        CraftedOpen open(Disk(), test.name);
        open.File()->RelatedFileObject = test.related->File();
        EXPECT_EQ(open.Create(), test.status) << "case " << (&test - cases);
    }
    elsewhere.File()->DeviceObject = Disk();
}

TEST_F(FsdRequest, ATargetFolderIsOpenedUnderTheNameThatItIsToHold) {
    const struct {
        const char16_t* path;
        NTSTATUS status;
        ULONG_PTR information;
        const char16_t* left;
    } cases[] = {
        {kTake1, STATUS_SUCCESS, FILE_EXISTS, u"Take1"},
        {u"\\RZV\\VolA\\Clips\\Next", STATUS_SUCCESS, FILE_DOES_NOT_EXIST, u"Next"},
        {u"\\RZV\\VolA\\Clips\\", STATUS_SUCCESS, FILE_EXISTS, u"Clips"},
        {u"\\RZV\\VolA\\Nowhere\\Next", STATUS_OBJECT_PATH_NOT_FOUND, 0, u"\\RZV\\VolA\\Nowhere\\Next"},
        {u"\\RZV", STATUS_SUCCESS, FILE_EXISTS, u"RZV"},
        {u"\\", STATUS_INVALID_PARAMETER, 0, u"\\"},
        {u"", STATUS_INVALID_PARAMETER, 0, u""},
    };
    for (const bool openAlready : {false, true}) {
        const host::ScopedHandle holder = openAlready ? Hold(kTake1) : host::ScopedHandle();
        for (const auto& test : cases) {
            CraftedOpen open(Disk(), test.path);
            EXPECT_EQ(open.Create(FILE_OPEN, 0, SL_OPEN_TARGET_DIRECTORY), test.status) << "case " << (&test - cases);
            EXPECT_EQ(open.Information(), test.information);
            EXPECT_EQ(open.Name(), test.left);
        }
    }
    ExpectIdle("at the end");
    // Nothing holds the root, also when it is reached from itself.
    CraftedOpen root(Disk(), u"\\");
    ASSERT_EQ(root.Create(), STATUS_SUCCESS);
    CraftedOpen open(Disk(), u"");
    open.File()->RelatedFileObject = root.File();
    EXPECT_EQ(open.Create(FILE_OPEN, 0, SL_OPEN_TARGET_DIRECTORY), STATUS_INVALID_PARAMETER);
}

}  // namespace
}  // namespace tests
