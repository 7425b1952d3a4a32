// Volume information: the card's file-system device as one volume. The label also is the file system's name, and is
// kept in memory only.
#include <algorithm>

#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/driver_entry.h"
#include "fsd/common.h"
#include "fsd/information.h"
#include "fsd/irp_context.h"
#include "fsd/vcb.h"
#include "volume/hw_volume.h"

namespace {

constexpr ULONG kLabelOffset = offsetof(FILE_FS_VOLUME_INFORMATION, VolumeLabel);
constexpr ULONG kNameOffset = offsetof(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName);
static_assert(sizeof(FILE_FS_VOLUME_INFORMATION) == 24 && kLabelOffset == 18);
static_assert(sizeof(FILE_FS_ATTRIBUTE_INFORMATION) == 16 && kNameOffset == 12);
static_assert(sizeof(FILE_FS_SIZE_INFORMATION) == 24 && sizeof(FILE_FS_DEVICE_INFORMATION) == 8);
static_assert(sizeof(FILE_FS_LABEL_INFORMATION) == 8);

constexpr ULONG kMaxComponentChars = 255;
constexpr LONGLONG kMinFreeUnits = 409600;  // the drive never reports less: programs refuse to write to a full one

// Copies the label as far as it fits; *Length becomes Offset and the bytes copied.
NTSTATUS PutLabel(const VCB* Vcb, PVOID Buffer, ULONG Offset, PULONG Length) {
    const ULONG label = Vcb->Vpb.VolumeLabelLength;
    const ULONG copied = std::min<ULONG>(label, *Length - Offset);
    RtlCopyMemory(static_cast<PUCHAR>(Buffer) + Offset, Vcb->Vpb.VolumeLabel, copied);
    *Length = Offset + copied;
    return copied < label ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

NTSTATUS VrkFsQueryFsVolumeInfo(VCB* Vcb, PVOID Buffer, PULONG Length) {
    if (*Length < sizeof(FILE_FS_VOLUME_INFORMATION)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    auto* info = static_cast<PFILE_FS_VOLUME_INFORMATION>(Buffer);
    RtlZeroMemory(info, sizeof(*info));
    info->VolumeSerialNumber = Vcb->Vpb.SerialNumber;
    info->VolumeLabelLength = Vcb->Vpb.VolumeLabelLength;
    return PutLabel(Vcb, Buffer, kLabelOffset, Length);
}

NTSTATUS VrkFsQueryFsSizeInfo(VCB* Vcb, PVOID Buffer, PULONG Length) {
    if (*Length < sizeof(FILE_FS_SIZE_INFORMATION)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    ULONGLONG total = 0;
    ULONGLONG free = 0;
    VrkFsHwGetTotalVolumeSpaceInfo(&VrkFsCardOfVcb(Vcb)->Hw, &total, &free);
    auto* info = static_cast<PFILE_FS_SIZE_INFORMATION>(Buffer);
    RtlZeroMemory(info, sizeof(*info));
    info->TotalAllocationUnits.QuadPart = std::max<LONGLONG>(static_cast<LONGLONG>(total), 1);
    info->AvailableAllocationUnits.QuadPart = std::max<LONGLONG>(static_cast<LONGLONG>(free), kMinFreeUnits);
    info->SectorsPerAllocationUnit = 1;
    info->BytesPerSector = kBlockSize;
    *Length = sizeof(*info);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsQueryFsDeviceInfo(PVOID Buffer, PULONG Length) {
    if (*Length < sizeof(FILE_FS_DEVICE_INFORMATION)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    auto* info = static_cast<PFILE_FS_DEVICE_INFORMATION>(Buffer);
    info->DeviceType = FILE_DEVICE_DISK;
    info->Characteristics = FILE_DEVICE_IS_MOUNTED;
    *Length = sizeof(*info);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsQueryFsAttributeInfo(VCB* Vcb, PVOID Buffer, PULONG Length) {
    if (*Length < sizeof(FILE_FS_ATTRIBUTE_INFORMATION)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    auto* info = static_cast<PFILE_FS_ATTRIBUTE_INFORMATION>(Buffer);
    RtlZeroMemory(info, sizeof(*info));
    info->FileSystemAttributes = FILE_CASE_PRESERVED_NAMES | FILE_UNICODE_ON_DISK;
    info->MaximumComponentNameLength = kMaxComponentChars;
    info->FileSystemNameLength = Vcb->Vpb.VolumeLabelLength;
    return PutLabel(Vcb, Buffer, kNameOffset, Length);
}

NTSTATUS VrkFsSetFsLabelInfo(VCB* Vcb, PVOID Buffer, ULONG Length) {
    if (Length < sizeof(FILE_FS_LABEL_INFORMATION)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    auto* info = static_cast<PFILE_FS_LABEL_INFORMATION>(Buffer);
    const ULONG label = info->VolumeLabelLength;
    const ULONG given = Length - offsetof(FILE_FS_LABEL_INFORMATION, VolumeLabel);
    if (label > given || label > sizeof(Vcb->Vpb.VolumeLabel) || label % sizeof(WCHAR) != 0) {
        return STATUS_INVALID_VOLUME_LABEL;
    }
    RtlCopyMemory(Vcb->Vpb.VolumeLabel, info->VolumeLabel, label);
    Vcb->Vpb.VolumeLabelLength = static_cast<USHORT>(label);
    return STATUS_SUCCESS;
}

NTSTATUS QueryClass(InformationRequest* Request) {
    PULONG length = &Request->Length;
    switch (Request->Class) {
        case FileFsVolumeInformation:
            return VrkFsQueryFsVolumeInfo(Request->Vcb, Request->Buffer, length);
        case FileFsSizeInformation:
            return VrkFsQueryFsSizeInfo(Request->Vcb, Request->Buffer, length);
        case FileFsDeviceInformation:
            return VrkFsQueryFsDeviceInfo(Request->Buffer, length);
        case FileFsAttributeInformation:
            return VrkFsQueryFsAttributeInfo(Request->Vcb, Request->Buffer, length);
        default:
            return STATUS_INVALID_PARAMETER;
    }
}

NTSTATUS SetClass(InformationRequest* Request) {
    return Request->Class == FileFsLabelInformation
               ? VrkFsSetFsLabelInfo(Request->Vcb, Request->Buffer, Request->Length)
               : STATUS_INVALID_PARAMETER;
}

}  // namespace

NTSTATUS NTAPI VrkFsQueryVolumeInformation(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return VrkFsEnterRequest(DeviceObject, Irp, VrkFsCommonQueryVolumeInformation);
}

NTSTATUS NTAPI VrkFsSetVolumeInformation(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return VrkFsEnterRequest(DeviceObject, Irp, VrkFsCommonSetVolumeInformation);
}

NTSTATUS VrkFsCommonQueryVolumeInformation(IRPContext* Context) {
    const auto& asked = IoGetCurrentIrpStackLocation(Context->Irp)->Parameters.QueryVolume;
    return VrkFsServeInformation(Context, asked.FsInformationClass, asked.Length, QueryClass);
}

NTSTATUS VrkFsCommonSetVolumeInformation(IRPContext* Context) {
    const auto& asked = IoGetCurrentIrpStackLocation(Context->Irp)->Parameters.SetVolume;
    return VrkFsServeInformation(Context, asked.FsInformationClass, asked.Length, SetClass);
}
