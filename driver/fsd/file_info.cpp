// File information: what an open folder or file is, and the little of it that can be set.
#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/driver_entry.h"
#include "core/guards.h"
#include "fsd/ccb.h"
#include "fsd/common.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/irp_context.h"
#include "fsd/vcb.h"
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

NTSTATUS QueryClass(FILE_INFORMATION_CLASS Class, const FCB* Fcb, PVOID Buffer, PULONG Length) {
    switch (Class) {
        case FileBasicInformation:
            return VrkFsQueryFileBasicInfo(Fcb, Buffer, Length);
        case FileStandardInformation:
            return VrkFsQueryFileStandardInfo(Fcb, Buffer, Length);
        case FileEaInformation:
            return NotImplemented(*Length, sizeof(FILE_EA_INFORMATION));
        case FileNameInformation:
            return NotImplemented(*Length, sizeof(FILE_NAME_INFORMATION));
        case FilePositionInformation:
            return NotImplemented(*Length, sizeof(FILE_POSITION_INFORMATION));
        case FileAllInformation:
            return NotImplemented(*Length, sizeof(FILE_ALL_INFORMATION));
        case FileNetworkOpenInformation:
            return NotImplemented(*Length, sizeof(FILE_NETWORK_OPEN_INFORMATION));
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

NTSTATUS SetClass(FILE_INFORMATION_CLASS Class, FCB* Fcb, PVOID Buffer, ULONG Length) {
    switch (Class) {
        case FileBasicInformation:
            return VrkFsSetFileBasicInfo(Fcb, Buffer, Length);
        case FileDispositionInformation:
            return VrkFsSetFileDispositionInfo(Fcb, Buffer, Length);
        case FileRenameInformation:
            return NotImplemented(Length, sizeof(FILE_RENAME_INFORMATION));
        case FilePositionInformation:
            return NotImplemented(Length, sizeof(FILE_POSITION_INFORMATION));
        case FileAllocationInformation:
            return NotImplemented(Length, sizeof(FILE_ALLOCATION_INFORMATION));
        case FileEndOfFileInformation:
            return NotImplemented(Length, sizeof(FILE_END_OF_FILE_INFORMATION));
        default:
            return STATUS_INVALID_PARAMETER;
    }
}

// The FCB of a folder or file open; null for any other, which has no file information.
FCB* FcbOf(PFILE_OBJECT FileObject) {
    VCB* vcb = nullptr;
    PVOID fcbOrVcb = nullptr;
    CCB* ccb = nullptr;
    const VrkFsRequestType type = VrkFsGetRequestType(FileObject, &vcb, &fcbOrVcb, &ccb);
    return type == kVrkFsFolderOpen || type == kVrkFsFileOpen ? static_cast<FCB*>(fcbOrVcb) : nullptr;
}

}  // namespace

NTSTATUS NTAPI VrkFsQueryInformation(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return VrkFsEnterRequest(DeviceObject, Irp, VrkFsCommonQueryInformation);
}

NTSTATUS NTAPI VrkFsSetInformation(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return VrkFsEnterRequest(DeviceObject, Irp, VrkFsCommonSetInformation);
}

NTSTATUS VrkFsCommonQueryInformation(IRPContext* Context) {
    if (VrkFsIRPContextMustPost(Context)) {
        return VrkFsIRPContextPost(Context);
    }
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Context->Irp);
    FCB* fcb = FcbOf(stack->FileObject);
    if (fcb == nullptr) {
        return VrkFsCompleteRequest(Context, STATUS_INVALID_PARAMETER, 0);
    }
    ResourceGuard volume;
    volume.Shared(&fcb->Common->Vcb->Resource);
    ResourceGuard common;
    common.Shared(fcb->Common->Resource);
    ULONG length = stack->Parameters.QueryFile.Length;
    const NTSTATUS status = QueryClass(stack->Parameters.QueryFile.FileInformationClass, fcb,
                                       Context->Irp->AssociatedIrp.SystemBuffer, &length);
    return VrkFsCompleteRequest(Context, status, NT_SUCCESS(status) ? length : 0);
}

NTSTATUS VrkFsCommonSetInformation(IRPContext* Context) {
    if (VrkFsIRPContextMustPost(Context)) {
        return VrkFsIRPContextPost(Context);
    }
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Context->Irp);
    FCB* fcb = FcbOf(stack->FileObject);
    if (fcb == nullptr) {
        return VrkFsCompleteRequest(Context, STATUS_INVALID_PARAMETER, 0);
    }
    ResourceGuard volume;
    volume.Exclusive(&fcb->Common->Vcb->Resource);
    ResourceGuard common;
    common.Exclusive(fcb->Common->Resource);
    NTSTATUS status = STATUS_FILE_DELETED;
    if ((fcb->Common->Flags & kFcbCommonDeleted) == 0) {
        status = SetClass(stack->Parameters.SetFile.FileInformationClass, fcb, Context->Irp->AssociatedIrp.SystemBuffer,
                          stack->Parameters.SetFile.Length);
    }
    return VrkFsCompleteRequest(Context, status, 0);
}
