#include "volume/backup.h"

#include "core/event_log.h"
#include "core/global_data.h"
#include "core/pool.h"
#include "core/strings.h"
#include "storage/hw_context.h"
#include "volume/hw_volume.h"

namespace {

constexpr const WCHAR* kBackupPath = VRKFS_W("\\SystemRoot\\system32\\drivers\\!RZVBKUP.!BT");
constexpr ULONG kDumpedNameBytes = 40;
constexpr WCHAR kSeparator = VRKFS_W("\\")[0];
constexpr ULONG kPathChars = RTL_NUMBER_OF(BackupFileHeader::Path);
// "P:\RZV\" stands before the volume's name.
constexpr ULONG kColonAt = 1;
constexpr ULONG kFirstSeparatorAt = 2;
constexpr ULONG kSecondSeparatorAt = 6;
constexpr ULONG kVolumeNameAt = 7;

// Closing the handle deletes the file.
NTSTATUS OpenBackup(PHANDLE File) {
    UNICODE_STRING path;
    RtlInitUnicodeString(&path, kBackupPath);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK ioStatus;
    return ZwCreateFile(
        File, GENERIC_READ | DELETE | SYNCHRONIZE, &attributes, &ioStatus, nullptr, FILE_ATTRIBUTE_NORMAL,
        FILE_SHARE_READ, FILE_OPEN,
        FILE_SYNCHRONOUS_IO_NONALERT | FILE_SEQUENTIAL_ONLY | FILE_NON_DIRECTORY_FILE | FILE_DELETE_ON_CLOSE, nullptr,
        0);
}

// Exactly Length bytes from where the last read ended.
BOOLEAN ReadExactly(HANDLE File, PVOID Buffer, ULONG Length) {
    IO_STATUS_BLOCK ioStatus = {};
    const NTSTATUS status = ZwReadFile(File, nullptr, nullptr, nullptr, &ioStatus, Buffer, Length, nullptr, nullptr);
    return NT_SUCCESS(status) && ioStatus.Information == Length;
}

// FALSE for a file that holds no table or is too long to be one.
BOOLEAN QueryDataLength(HANDLE File, PULONG DataLength) {
    IO_STATUS_BLOCK ioStatus;
    FILE_STANDARD_INFORMATION information;
    const NTSTATUS status =
        ZwQueryInformationFile(File, &ioStatus, &information, sizeof(information), FileStandardInformation);
    if (!NT_SUCCESS(status)) {
        return FALSE;
    }
    const LONGLONG bytes = information.EndOfFile.QuadPart - static_cast<LONGLONG>(sizeof(BackupFileHeader));
    if (bytes <= 0 || bytes > static_cast<LONGLONG>(kMaxTransferBlocks) * kBlockSize) {
        return FALSE;
    }
    *DataLength = static_cast<ULONG>(bytes);
    return TRUE;
}

// Copies the component at *At into a cleared name field and moves *At behind the separator after it. FALSE: it is
// empty, or longer than a name.
BOOLEAN TakeComponent(const WCHAR* Path, PULONG At, PWCHAR Name) {
    ULONG length = 0;
    while (*At + length < kPathChars && Path[*At + length] != 0 && Path[*At + length] != kSeparator) {
        ++length;
    }
    if (length == 0 || length > kRecordNameChars) {
        return FALSE;
    }
    RtlCopyMemory(Name, Path + *At, length * sizeof(WCHAR));
    *At += length;
    if (*At < kPathChars && Path[*At] == kSeparator) {
        ++*At;
    }
    return TRUE;
}

BOOLEAN SplitPath(const WCHAR* Path, BackupDetails* Details) {
    if (Path[kColonAt] != VRKFS_W(":")[0] || Path[kFirstSeparatorAt] != kSeparator ||
        Path[kSecondSeparatorAt] != kSeparator) {
        return FALSE;
    }
    ULONG at = kVolumeNameAt;
    return TakeComponent(Path, &at, Details->VolumeName) && TakeComponent(Path, &at, Details->FolderName) &&
           TakeComponent(Path, &at, Details->FileName);
}

BOOLEAN ReadHeader(HANDLE File, BackupDetails* Details) {
    auto* const header = static_cast<BackupFileHeader*>(VrkFsAllocatePool(PagedPool, sizeof(BackupFileHeader)));
    if (header == nullptr) {
        return FALSE;
    }
    const BOOLEAN good = ReadExactly(File, header, sizeof(BackupFileHeader)) && SplitPath(header->Path, Details);
    Details->EntryCount = header->EntryCount;
    Details->Stream = header->Stream;
    VrkFsFreePool(header);
    return good;
}

BOOLEAN ReadBackup(HANDLE File, BackupDetails* Details) {
    if (!QueryDataLength(File, &Details->DataLength) || !ReadHeader(File, Details) ||
        Details->DataLength < static_cast<ULONGLONG>(Details->EntryCount) * sizeof(BodyTableNode)) {
        return FALSE;
    }
    Details->Data = VrkFsAllocatePool(PagedPool, Details->DataLength);
    return Details->Data != nullptr && ReadExactly(File, Details->Data, Details->DataLength);
}

// Whole blocks of the backup, zeroes after its end. A table that is all in the backup is written from there.
NTSTATUS WriteBackup(HwContext* Hw, const HwVolume* Volume, const BackupDetails* Backup) {
    const ULONG id = Volume->Devices[0];
    const ULONG lba = Backup->TableLba;
    const ULONG blocks = Backup->TableBlocks;
    if (blocks <= Backup->DataLength / kBlockSize) {
        return VrkFsHwSCSIWriteEx(Hw, id, lba, blocks, Backup->Data, 0, kHwRecordBodyTable);
    }
    if (blocks > kMaxTransferBlocks) {
        return STATUS_INVALID_PARAMETER;
    }
    const SIZE_T bytes = static_cast<SIZE_T>(blocks) * kBlockSize;
    PUCHAR const padded = static_cast<PUCHAR>(VrkFsAllocatePool(PagedPool, bytes));
    if (padded == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(padded, Backup->Data, Backup->DataLength);
    RtlZeroMemory(padded + Backup->DataLength, bytes - Backup->DataLength);
    const NTSTATUS status = VrkFsHwSCSIWriteEx(Hw, id, lba, blocks, padded, 0, kHwRecordBodyTable);
    VrkFsFreePool(padded);
    return status;
}

bool IsBackupOf(const BackupDetails* Backup, const FileEntry* Entry) {
    return Entry->Kind == kFileKindMedia && VrkFsHwIsSameName(Backup->FileName, Entry->Name) &&
           Backup->EntryCount == static_cast<ULONGLONG>(Entry->FrameCount) * VRKFS_FIELDS_PER_FRAME;
}

}  // namespace

BOOLEAN VrkFsGetBTBackupFileDetails(BackupDetails* Details) {
    RtlZeroMemory(Details, sizeof(BackupDetails));
    HANDLE file;
    if (!NT_SUCCESS(OpenBackup(&file))) {
        return FALSE;
    }
    const BOOLEAN good = ReadBackup(file, Details);
    if (!good) {
        VrkFsHwFreeBackupDetails(Details);
    }
    static_cast<void>(ZwClose(file));
    return good;
}

VOID VrkFsHwFreeBackupDetails(BackupDetails* Details) {
    VrkFsFreePool(Details->Data);
    Details->Data = nullptr;
}

VOID VrkFsHwMatchBackup(BackupDetails* Backup, const FileEntry* Entry) {
    const bool isAlpha = Backup->Stream != 0;
    if (Backup->TableBlocks != 0 || !IsBackupOf(Backup, Entry) || (isAlpha && (Entry->Flags & kFileHasAlpha) == 0)) {
        return;
    }
    Backup->TableLba = isAlpha ? Entry->AlphaBodyTableLba : Entry->VideoBodyTableLba;
    Backup->TableBlocks = isAlpha ? Entry->AlphaBodyTableBlockCount : Entry->VideoBodyTableBlockCount;
}

VOID VrkFsHwRecoverBodyTable(HwContext* Hw, HwVolume* Volume, const BackupDetails* Backup) {
    if (!VrkFsVolAllocIsOwnedSpace(&Volume->Allocator, Backup->TableLba, Backup->TableBlocks) ||
        !NT_SUCCESS(WriteBackup(Hw, Volume, Backup))) {
        return;
    }
    VrkFsGlobLogEvent(pVrkFsGlobalData->DriverObject, kVrkFsEventBodyTableRecovered, 0, Backup->FileName,
                      kDumpedNameBytes, nullptr);
}
