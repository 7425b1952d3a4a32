#include <cstring>

#include "tests/nt/nt_system_fixture.h"

// Opening: what a name leads to, and what is refused before the driver hears of it.

namespace {

using namespace nt_test;

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
        {u"\\Device\\Test\\", STATUS_SUCCESS, u"\\", false},
        {u"\\Device\\Test\\\\a\\", STATUS_SUCCESS, u"\\\\a\\", false},
        {u"\\DosDevices\\T:\\RZV\\Vol", STATUS_SUCCESS, u"\\RZV\\Vol", false},
        {u"\\dosdevices\\CHAIN\\x", STATUS_SUCCESS, u"\\sub\\x", false},
        {u"\\Device\\Test\\Inner", STATUS_SUCCESS, u"", true},
        {u"\\Device\\Test\\inner\\x", STATUS_SUCCESS, u"\\x", true},
        {u"\\Device\\Test\\Inner2", STATUS_SUCCESS, u"\\Inner2", false},
        {u"\\Device\\Test2", STATUS_OBJECT_NAME_NOT_FOUND, {}, false},
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
