// File information: what an open folder or file is, and the little of it that can be set.
#include <algorithm>

#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/driver_entry.h"
#include "fsd/common.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/information.h"
#include "fsd/irp_context.h"
#include "fsd/name_tree.h"
#include "fsd/rename.h"
#include "media/frame_name.h"
#include "media/ram_files.h"
#include "volume/entries.h"

namespace {

constexpr ULONG kComPortSize = 2048;  // of its command buffer

static_assert(sizeof(FILE_BASIC_INFORMATION) == 40 && sizeof(FILE_STANDARD_INFORMATION) == 24);
static_assert(sizeof(FILE_ALL_INFORMATION) == 104 && sizeof(FILE_NETWORK_OPEN_INFORMATION) == 56);

// Bytes; allocation and end of file are the same number.
LONGLONG SizeOf(const FCB* Fcb) {
    const FCBCommon* common = Fcb->Common;
    if ((Fcb->Flags & kFcbFolder) != 0) {
        return 0;
    }
    if ((Fcb->Flags & kFcbCommandPort) != 0) {
        return kComPortSize;
    }
    if (Fcb->Level == kLevelFile) {
        return static_cast<LONGLONG>(VrkFsHwGetFileAllocationSize(common->FileEntry));
    }
    if ((Fcb->Flags & kFcbRamFile) != 0) {
        return Fcb->RamFile != nullptr ? Fcb->RamFile->Allocation : 0;
    }
    if (Fcb->Level == kLevelFrame) {
        return static_cast<LONGLONG>(VrkFsGetFrameFileSize(Fcb->TypeIndex, common->FileEntry));
    }
    return 0;
}

LONGLONG WriteTimeOf(const FCB* Fcb) {
    return Fcb->RamFile != nullptr ? Fcb->RamFile->Time : Fcb->Common->Time;
}

NTSTATUS VrkFsQueryFileBasicInfo(const FCB* Fcb, PVOID Buffer, PULONG Length) {
    if (*Length < sizeof(FILE_BASIC_INFORMATION)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    auto* info = static_cast<PFILE_BASIC_INFORMATION>(Buffer);
    RtlZeroMemory(info, sizeof(*info));
    info->FileAttributes = FILE_ATTRIBUTE_NORMAL;
    info->LastWriteTime.QuadPart = WriteTimeOf(Fcb);
    if ((Fcb->Flags & kFcbFolder) != 0) {
        info->FileAttributes |= FILE_ATTRIBUTE_DIRECTORY;
        info->CreationTime.QuadPart = Fcb->Common->Time;
    }
    *Length = sizeof(*info);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsQueryFileStandardInfo(const FCB* Fcb, PVOID Buffer, PULONG Length) {
    if (*Length < sizeof(FILE_STANDARD_INFORMATION)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    auto* info = static_cast<PFILE_STANDARD_INFORMATION>(Buffer);
    RtlZeroMemory(info, sizeof(*info));
    info->AllocationSize.QuadPart = SizeOf(Fcb);
    info->EndOfFile = info->AllocationSize;
    info->NumberOfLinks = 1;
    info->DeletePending = static_cast<BOOLEAN>(Fcb->Flags & kFcbDeletePending);
    info->Directory = (Fcb->Flags & kFcbFolder) != 0;
    *Length = sizeof(*info);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsQueryFileNetworkOpenInfo(const FCB* Fcb, PVOID Buffer, PULONG Length) {
    if (*Length < sizeof(FILE_NETWORK_OPEN_INFORMATION)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    FILE_BASIC_INFORMATION basic;
    ULONG basicLength = sizeof(basic);
    const NTSTATUS status = VrkFsQueryFileBasicInfo(Fcb, &basic, &basicLength);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    auto* info = static_cast<PFILE_NETWORK_OPEN_INFORMATION>(Buffer);
    RtlZeroMemory(info, sizeof(*info));
    info->CreationTime = basic.CreationTime;
    info->LastWriteTime = basic.LastWriteTime;
    info->AllocationSize.QuadPart = SizeOf(Fcb);
    info->EndOfFile = info->AllocationSize;
    info->FileAttributes = basic.FileAttributes;
    *Length = sizeof(*info);
    return STATUS_SUCCESS;
}

// A name that does not fit is cut; the length says how long it is.
NTSTATUS VrkFsQueryFileNameInfo(FCB* Fcb, PVOID Buffer, PULONG Length) {
    if (*Length < sizeof(FILE_NAME_INFORMATION)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    const NTSTATUS status = VrkFsFCBSetupFullName(Fcb->Common->Vcb, Fcb);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    constexpr ULONG kNameOffset = FIELD_OFFSET(FILE_NAME_INFORMATION, FileName);
    auto* info = static_cast<PFILE_NAME_INFORMATION>(Buffer);
    const ULONG bytes = std::min<ULONG>(Fcb->FullName.Length + sizeof(WCHAR), *Length - kNameOffset);
    info->FileNameLength = Fcb->FullName.Length;
    RtlCopyMemory(info->FileName, Fcb->FullName.Buffer, bytes);
    *Length = kNameOffset + bytes;
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsQueryFilePositionInfo(PFILE_OBJECT FileObject, PVOID Buffer, PULONG Length) {
    if (*Length < sizeof(FILE_POSITION_INFORMATION)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    static_cast<PFILE_POSITION_INFORMATION>(Buffer)->CurrentByteOffset = FileObject->CurrentByteOffset;
    *Length = sizeof(FILE_POSITION_INFORMATION);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsQueryEaInformation(PVOID Buffer, PULONG Length) {
    if (*Length < sizeof(FILE_EA_INFORMATION)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    static_cast<PFILE_EA_INFORMATION>(Buffer)->EaSize = 0;
    *Length = sizeof(FILE_EA_INFORMATION);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsQueryFileAllInfo(const InformationRequest* Request, PVOID Buffer, PULONG Length) {
    if (*Length < sizeof(FILE_ALL_INFORMATION)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    auto* info = static_cast<PFILE_ALL_INFORMATION>(Buffer);
    RtlZeroMemory(info, sizeof(*info));
    ULONG length = sizeof(info->BasicInformation);
    NTSTATUS status = VrkFsQueryFileBasicInfo(Request->Fcb, &info->BasicInformation, &length);
    if (NT_SUCCESS(status)) {
        length = sizeof(info->StandardInformation);
        status = VrkFsQueryFileStandardInfo(Request->Fcb, &info->StandardInformation, &length);
    }
    if (NT_SUCCESS(status)) {
        length = sizeof(info->PositionInformation);
        status = VrkFsQueryFilePositionInfo(Request->FileObject, &info->PositionInformation, &length);
    }
    if (NT_SUCCESS(status)) {
        length = *Length - FIELD_OFFSET(FILE_ALL_INFORMATION, NameInformation);
        status = VrkFsQueryFileNameInfo(Request->Fcb, &info->NameInformation, &length);
    }
    *Length = FIELD_OFFSET(FILE_ALL_INFORMATION, NameInformation) + length;
    return status;
}

NTSTATUS QueryClass(InformationRequest* Request) {
    PULONG length = &Request->Length;
    switch (Request->Class) {
        case FileBasicInformation:
            return VrkFsQueryFileBasicInfo(Request->Fcb, Request->Buffer, length);
        case FileStandardInformation:
            return VrkFsQueryFileStandardInfo(Request->Fcb, Request->Buffer, length);
        case FileEaInformation:
            return VrkFsQueryEaInformation(Request->Buffer, length);
        case FileNameInformation:
            return VrkFsQueryFileNameInfo(Request->Fcb, Request->Buffer, length);
        case FilePositionInformation:
            return VrkFsQueryFilePositionInfo(Request->FileObject, Request->Buffer, length);
        case FileAllInformation:
            return VrkFsQueryFileAllInfo(Request, Request->Buffer, length);
        case FileNetworkOpenInformation:
            return VrkFsQueryFileNetworkOpenInfo(Request->Fcb, Request->Buffer, length);
        case FileInternalInformation:
        case FileAlternateNameInformation:
        case FileStreamInformation:
        case FileCompressionInformation:
            return STATUS_NOT_IMPLEMENTED;
        default:
            return STATUS_INVALID_PARAMETER;
    }
}

// Of all times only the last write can be set; the record reaches the disk when the handle is cleaned up. A stand-in
// for an unreadable record is left alone: with a time of its own it would pass for the record.
NTSTATUS VrkFsSetFileBasicInfo(FCB* Fcb, PVOID Buffer, ULONG Length) {
    if (Length < sizeof(FILE_BASIC_INFORMATION)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    const LONGLONG time = static_cast<PFILE_BASIC_INFORMATION>(Buffer)->LastWriteTime.QuadPart;
    if (time == 0) {
        return STATUS_SUCCESS;
    }
    if (Fcb->RamFile != nullptr) {
        Fcb->RamFile->Time = time;
    } else if (VrkFsFCBIsFile(Fcb) && VrkFsFCBTypeAllowsChanges(Fcb) &&
               (Fcb->Common->Flags & kFcbCommonSubstitute) == 0) {
        Fcb->Common->Time = time;
        Fcb->Common->FileEntry->CreationTime = static_cast<ULONGLONG>(time);
    }
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsSetFileDispositionInfo(FCB* Fcb, PVOID Buffer, ULONG Length) {
    if (Length < sizeof(FILE_DISPOSITION_INFORMATION)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    if ((Fcb->Common->Flags & kFcbCommonDeleted) != 0 && Fcb->Level != kLevelFrame) {
        return STATUS_FILE_DELETED;
    }
    if (!VrkFsFCBCanSetDisposition(Fcb)) {
        return STATUS_CANNOT_DELETE;
    }
    if (static_cast<PFILE_DISPOSITION_INFORMATION>(Buffer)->DeleteFile) {
        return VrkFsFCBSetDeletePending(Fcb);
    }
    VrkFsFCBClearDeletePending(Fcb);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsSetFilePositionInfo(PFILE_OBJECT FileObject, PVOID Buffer, ULONG Length) {
    if (Length < sizeof(FILE_POSITION_INFORMATION)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    FileObject->CurrentByteOffset = static_cast<PFILE_POSITION_INFORMATION>(Buffer)->CurrentByteOffset;
    return STATUS_SUCCESS;
}

// Only RAM files have a size that can be set; everything else accepts the request and keeps its size.
NTSTATUS VrkFsSetFileAllocationInfo(FCB* Fcb, PVOID Buffer, ULONG Length) {
    if (Length < sizeof(FILE_ALLOCATION_INFORMATION)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (Fcb->RamFile == nullptr) {
        return STATUS_SUCCESS;
    }
    const auto size = static_cast<PFILE_ALLOCATION_INFORMATION>(Buffer)->AllocationSize.QuadPart;
    const ULONG maximum = VrkFsGlobPreferencesOf(VrkFsCardOfVcb(Fcb->Common->Vcb)).RAMFileMaxSize;
    return VrkFsVFSetFileAllocation(Fcb->RamFile, maximum, static_cast<ULONGLONG>(size));
}

NTSTATUS VrkFsSetFileEndOfFileInfo(FCB* Fcb, PVOID Buffer, ULONG Length) {
    if (Length < sizeof(FILE_END_OF_FILE_INFORMATION)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (Fcb->RamFile == nullptr) {
        return STATUS_SUCCESS;
    }
    const auto end = static_cast<PFILE_END_OF_FILE_INFORMATION>(Buffer)->EndOfFile.QuadPart;
    const ULONG maximum = VrkFsGlobPreferencesOf(VrkFsCardOfVcb(Fcb->Common->Vcb)).RAMFileMaxSize;
    return VrkFsVFSetEndOfFile(Fcb->RamFile, maximum, static_cast<ULONGLONG>(end));
}

NTSTATUS SetClass(InformationRequest* Request) {
    FCB* fcb = Request->Fcb;
    const ULONG length = Request->Length;
    switch (Request->Class) {
        case FileBasicInformation:
            return VrkFsSetFileBasicInfo(fcb, Request->Buffer, length);
        case FileDispositionInformation:
            return VrkFsSetFileDispositionInfo(fcb, Request->Buffer, length);
        case FileRenameInformation:
            return VrkFsSetFileRenameInfo(Request);
        case FilePositionInformation:
            return VrkFsSetFilePositionInfo(Request->FileObject, Request->Buffer, length);
        case FileAllocationInformation:
            return VrkFsSetFileAllocationInfo(fcb, Request->Buffer, length);
        case FileEndOfFileInformation:
            return VrkFsSetFileEndOfFileInfo(fcb, Request->Buffer, length);
        default:
            return STATUS_INVALID_PARAMETER;
    }
}

}  // namespace

NTSTATUS NTAPI VrkFsQueryInformation(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return VrkFsEnterRequest(DeviceObject, Irp, VrkFsCommonQueryInformation);
}

NTSTATUS NTAPI VrkFsSetInformation(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return VrkFsEnterRequest(DeviceObject, Irp, VrkFsCommonSetInformation);
}

NTSTATUS VrkFsCommonQueryInformation(IRPContext* Context) {
    const auto& asked = IoGetCurrentIrpStackLocation(Context->Irp)->Parameters.QueryFile;
    return VrkFsServeInformation(Context, asked.FileInformationClass, asked.Length, QueryClass);
}

NTSTATUS VrkFsCommonSetInformation(IRPContext* Context) {
    const auto& asked = IoGetCurrentIrpStackLocation(Context->Irp)->Parameters.SetFile;
    FrameImport* import = nullptr;
    const NTSTATUS status = VrkFsServeInformation(Context, asked.FileInformationClass, asked.Length, SetClass, &import);
    VrkFsImportFrame(import);
    return status;
}
