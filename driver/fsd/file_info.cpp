// File information: what an open folder or file is, and the little of it that can be set.
#include "core/driver_entry.h"
#include "fsd/common.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/information.h"
#include "fsd/irp_context.h"
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

// A class that this driver is yet to answer.
NTSTATUS NotImplemented(ULONG Length, ULONG Minimum) {
    return Length < Minimum ? STATUS_BUFFER_TOO_SMALL : STATUS_NOT_IMPLEMENTED;
}

NTSTATUS QueryClass(InformationRequest* Request) {
    PULONG length = &Request->Length;
    switch (Request->Class) {
        case FileBasicInformation:
            return VrkFsQueryFileBasicInfo(Request->Fcb, Request->Buffer, length);
        case FileStandardInformation:
            return VrkFsQueryFileStandardInfo(Request->Fcb, Request->Buffer, length);
        case FileEaInformation:
            return NotImplemented(*length, sizeof(FILE_EA_INFORMATION));
        case FileNameInformation:
            return NotImplemented(*length, sizeof(FILE_NAME_INFORMATION));
        case FilePositionInformation:
            return NotImplemented(*length, sizeof(FILE_POSITION_INFORMATION));
        case FileAllInformation:
            return NotImplemented(*length, sizeof(FILE_ALL_INFORMATION));
        case FileNetworkOpenInformation:
            return NotImplemented(*length, sizeof(FILE_NETWORK_OPEN_INFORMATION));
        case FileInternalInformation:
        case FileAlternateNameInformation:
        case FileStreamInformation:
        case FileCompressionInformation:
            return STATUS_NOT_IMPLEMENTED;
        default:
            return STATUS_INVALID_PARAMETER;
    }
}

// Of all times only the last write can be set; the record reaches the disk when the handle is cleaned up.
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
    } else if (VrkFsFCBIsFile(Fcb) && VrkFsFCBTypeAllowsChanges(Fcb)) {
        Fcb->Common->Time = time;
        Fcb->Common->FileEntry->CreationTime = static_cast<ULONGLONG>(time);
    }
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsSetFileDispositionInfo(FCB* Fcb, PVOID Buffer, ULONG Length) {
    if (Length < sizeof(FILE_DISPOSITION_INFORMATION)) {
        return STATUS_BUFFER_TOO_SMALL;
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

NTSTATUS SetClass(InformationRequest* Request) {
    FCB* fcb = Request->Fcb;
    const ULONG length = Request->Length;
    if ((fcb->Common->Flags & kFcbCommonDeleted) != 0) {
        return STATUS_FILE_DELETED;
    }
    switch (Request->Class) {
        case FileBasicInformation:
            return VrkFsSetFileBasicInfo(fcb, Request->Buffer, length);
        case FileDispositionInformation:
            return VrkFsSetFileDispositionInfo(fcb, Request->Buffer, length);
        case FileRenameInformation:
            return NotImplemented(length, sizeof(FILE_RENAME_INFORMATION));
        case FilePositionInformation:
            return NotImplemented(length, sizeof(FILE_POSITION_INFORMATION));
        case FileAllocationInformation:
            return NotImplemented(length, sizeof(FILE_ALLOCATION_INFORMATION));
        case FileEndOfFileInformation:
            return NotImplemented(length, sizeof(FILE_END_OF_FILE_INFORMATION));
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
    return VrkFsServeInformation(Context, asked.FileInformationClass, asked.Length, SetClass);
}
