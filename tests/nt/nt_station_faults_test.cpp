#include <gtest/gtest.h>

#include <cstring>

#include "station_fixture.h"

namespace {

using tests::Attributes;

// A driver whose entry touches everything a station keeps in files, undoes each step whatever becomes of the next one,
// and ends with the first failure.
NTSTATUS UseRegistry() {
    HANDLE key = nullptr;
    NTSTATUS status = ZwOpenKey(&key, KEY_ALL_ACCESS, Attributes(u"\\Registry\\Machine\\Faults"));
    if (!NT_SUCCESS(status)) {
        return status;
    }
    UNICODE_STRING name = nt::CountedString(u"Value");
    ULONG value = 7;
    status = ZwSetValueKey(key, &name, 0, REG_DWORD, &value, sizeof(value));
    if (NT_SUCCESS(status)) {
        UCHAR buffer[64];
        ULONG needed = 0;
        status = ZwQueryValueKey(key, &name, KeyValuePartialInformation, buffer, sizeof(buffer), &needed);
    }
    ZwClose(key);
    return status;
}

NTSTATUS UseFile() {
    HANDLE file = nullptr;
    IO_STATUS_BLOCK ioStatus;
    NTSTATUS status =
        ZwCreateFile(&file, GENERIC_READ | DELETE | SYNCHRONIZE, Attributes(u"\\SystemRoot\\file"), &ioStatus, nullptr,
                     0, FILE_SHARE_READ, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT | FILE_DELETE_ON_CLOSE, nullptr, 0);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    FILE_STANDARD_INFORMATION information;
    status = ZwQueryInformationFile(file, &ioStatus, &information, sizeof(information), FileStandardInformation);
    if (NT_SUCCESS(status)) {
        char byte = 0;
        status = ZwReadFile(file, nullptr, nullptr, nullptr, &ioStatus, &byte, 1, nullptr, nullptr);
    }
    ZwClose(file);
    return status;
}

NTSTATUS UseSection() {
    HANDLE section = nullptr;
    LARGE_INTEGER size;
    size.QuadPart = 4800;
    NTSTATUS status =
        ZwCreateSection(&section, SECTION_ALL_ACCESS, Attributes(u"\\BaseNamedObjects\\faults", OBJ_OPENIF), &size,
                        PAGE_READWRITE, SEC_COMMIT, nullptr);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    void* view = nullptr;
    SIZE_T viewSize = 0;
    status =
        ZwMapViewOfSection(section, NtCurrentProcess(), &view, 0, 0, nullptr, &viewSize, ViewShare, 0, PAGE_READWRITE);
    if (NT_SUCCESS(status)) {
        std::memset(view, 1, 4800);
        status = ZwUnmapViewOfSection(NtCurrentProcess(), view);
    }
    ZwClose(section);
    return status;
}

NTSTATUS NTAPI Entry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    driver->DriverUnload = [](PDRIVER_OBJECT) {};
    for (NTSTATUS (*const use)() : {UseRegistry, UseFile, UseSection}) {
        const NTSTATUS status = use();
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    PVOID const entry = IoAllocateErrorLogEntry(driver, sizeof(IO_ERROR_LOG_PACKET));
    if (entry == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    IoWriteErrorLogEntry(entry);
    return STATUS_SUCCESS;
}

class StationFaultsTest : public tests::StationTest {};

TEST_F(StationFaultsTest, EachCallFailsInTurnAndLeavesNothing) {
    ASSERT_EQ(nt::AttachStation(files_), "");
    ASSERT_EQ(nt::CreateRegistryKey(u"\\Registry\\Machine\\Faults"), STATUS_SUCCESS);
    constexpr uint64_t kCallsAtLeast = 9;  // Three of the registry, three of files, two of sections, one of the log.
    uint64_t failAt = 0;
    while (true) {
        tests::WriteFile(std::filesystem::path(files_.systemRoot) / "file", "x");
        nt::FaultPlan plan;
        plan.kinds = nt::kAllFaults;
        plan.failAt = ++failAt;
        nt::ArmFaults(plan);
        PDRIVER_OBJECT driver = nullptr;
        nt::LeakList leaks;
        const NTSTATUS status = nt::LoadDriver({Entry, u"Faults", {}}, &driver, &leaks);
        const bool fired = nt::FaultsFired() != 0;
        nt::DisarmFaults();
        EXPECT_EQ(NT_SUCCESS(status), !fired) << failAt;
        EXPECT_EQ(nt::ToString(leaks), "") << failAt;
        if (!fired) {
            ASSERT_EQ(nt::UnloadDriver(driver, &leaks), STATUS_SUCCESS);
            EXPECT_EQ(nt::ToString(leaks), "");
            break;
        }
    }
    EXPECT_GT(failAt, kCallsAtLeast);
}

}  // namespace
