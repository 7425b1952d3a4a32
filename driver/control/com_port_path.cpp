#include <algorithm>

#include "control/com_port.h"
#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/strings.h"
#include "fsd/ccb.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/name_tree.h"

namespace {

constexpr ULONG kDriveChars = 2;  // the letter and its colon

VOID VrkFsComPortWriteDrive(const ComPort* Port, PWCHAR Path) {
    Path[0] = VrkFsGlobDriveLetter(VrkFsDiskExtOfServiceChannel(Port->Channel)->Instance);
    Path[1] = VRKFS_W(':');
}

// Puts drive and folder in front of a path relative to the port's folder.
NTSTATUS VrkFsComPortPrefixPath(const ComPort* Port, PWCHAR Path) {
    const ULONG folderChars = Port->Folder.Length / sizeof(WCHAR);
    const ULONG pathChars = VrkFsRtlBoundedLength(Path, VRKFS_PORT_PATH_CHARS);
    const ULONG prefixChars = kDriveChars + folderChars;
    if (prefixChars + pathChars + 1 > VRKFS_PORT_PATH_CHARS) {
        return STATUS_UNSUCCESSFUL;
    }
    std::copy_backward(Path, Path + pathChars + 1, Path + prefixChars + pathChars + 1);
    VrkFsComPortWriteDrive(Port, Path);
    RtlCopyMemory(Path + kDriveChars, Port->Folder.Buffer, Port->Folder.Length);
    return STATUS_SUCCESS;
}

// Characters of the volume's path at the head of the folder's: "\TYPE\VOLUME", before the third backslash.
ULONG VrkFsComPortVolumeChars(PCUNICODE_STRING Folder) {
    const ULONG chars = Folder->Length / sizeof(WCHAR);
    ULONG backslashes = 0;
    for (ULONG index = 0; index < chars; ++index) {
        if (Folder->Buffer[index] == VRKFS_W('\\') && ++backslashes == 3) {
            return index;
        }
    }
    return chars;
}

}  // namespace

NTSTATUS VrkFsComPortCopyFolder(const CCB* Ccb, PUNICODE_STRING Folder) {
    FCB* fcb = Ccb->Fcb;
    const NTSTATUS status = VrkFsFCBSetupFullName(fcb->Common->Vcb, fcb);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    UNICODE_STRING folder = fcb->FullName;
    folder.Length = static_cast<USHORT>(folder.Length - VRKFS_PORT_NAME_CHARS * sizeof(WCHAR));
    return VrkFsRtlCopyUnicodeString(Folder, &folder);
}

NTSTATUS VrkFsComPortCreateFilePath(const ComPort* Port, VrkFsPortCreation* Creation) {
    if (Port->Ccb->Fcb->Level > kLevelFile) {
        return STATUS_UNSUCCESSFUL;
    }
    return VrkFsComPortPrefixPath(Port, Creation->Path);
}

NTSTATUS VrkFsComPortCreateVolumePath(const ComPort* Port, VrkFsPortSpaceQuery* Query) {
    if (Port->Ccb->Fcb->Level <= kLevelVolume) {
        return VrkFsComPortPrefixPath(Port, Query->Path);
    }
    const ULONG volumeChars = VrkFsComPortVolumeChars(&Port->Folder);
    if (volumeChars + kDriveChars + 1 > VRKFS_PORT_PATH_CHARS) {
        return STATUS_UNSUCCESSFUL;
    }
    VrkFsComPortWriteDrive(Port, Query->Path);
    RtlCopyMemory(Query->Path + kDriveChars, Port->Folder.Buffer, volumeChars * sizeof(WCHAR));
    Query->Path[kDriveChars + volumeChars] = 0;
    return STATUS_SUCCESS;
}
