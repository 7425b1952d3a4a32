#include <cstring>

#include "tests/nt/nt_system_fixture.h"

// Opening: what a name leads to, and what is refused before the driver hears of it.

namespace {

using namespace nt_test;

TEST_F(SystemTest, WhatAnOpenMayNotAskTheDriverNeverSees) {
    const nt::Handle root = Open(u"\\??\\T:\\folder");
    const PVOID bad = reinterpret_cast<PVOID>(uintptr_t{4096});
    struct Case {
        const char* name;
        nt::OpenParameters asked;
        NTSTATUS status;
    };
    const Case cases[] = {
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
    for (const Case& c : cases) {
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

}  // namespace
