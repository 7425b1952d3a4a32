#include "control/ioctl.h"

#include <vrkfs/service.h>

#include <cstddef>

namespace {

// Function numbers run without a gap, so a code's rule stands at its function's distance from the first.
constexpr ControlCodeRule kRules[VRKFS_CONTROL_CODE_COUNT] = {
    {IOCTL_VRKFS_DISMOUNT_VOLUME, sizeof(VrkFsDismountRequest), 0, FALSE},
    {IOCTL_VRKFS_FORMAT_VOLUME, sizeof(VrkFsVolumeInfoRecord), sizeof(LONG), FALSE},
    {IOCTL_VRKFS_QUERY_VOLUME_INFO, sizeof(ULONG), offsetof(VrkFsVolumeList, Volumes), FALSE},
    {IOCTL_VRKFS_ALLOCATE_VIDEO_SPACE, sizeof(VrkFsVideoSpace), sizeof(VrkFsVideoSpace), FALSE},
    {IOCTL_VRKFS_UPDATE_VIDEO_FILE, sizeof(VrkFsVideoFileUpdate), sizeof(VrkFsVideoFileUpdate), FALSE},
    {IOCTL_VRKFS_GET_FILE_INFO, sizeof(VrkFsFileInfo), sizeof(VrkFsFileInfo), FALSE},
    {IOCTL_VRKFS_REGISTER_FILE_TYPES, sizeof(VrkFsFileTypeList), 0, FALSE},
    {IOCTL_VRKFS_UNREGISTER_FILE_TYPES, 0, 0, FALSE},
    {IOCTL_VRKFS_SEND_SERVICE_REQUEST, 0, sizeof(VrkFsServiceRequest), FALSE},
    {IOCTL_VRKFS_SEND_SERVICE_RESPONSE, sizeof(VrkFsServiceResponse), 0, FALSE},
    {IOCTL_VRKFS_GET_PREFERENCES, 0, sizeof(VrkFsPreferences), FALSE},
    {IOCTL_VRKFS_SET_PREFERENCES, sizeof(VrkFsPreferences), 0, FALSE},
    {IOCTL_VRKFS_GET_FILE_ENTRY, sizeof(VrkFsHandleRequest), VRKFS_FILE_ENTRY_SIZE, FALSE},
    {IOCTL_VRKFS_SET_APP_FILE_ENTRY_INFO, sizeof(VrkFsApplicationInfoRequest), 0, FALSE},
    {IOCTL_VRKFS_GET_VOLUME_SPACE_INFO, sizeof(VrkFsVolumeSpaceInfo), sizeof(VrkFsVolumeSpaceInfo), FALSE},
    {IOCTL_VRKFS_REFERENCE_BODY_TABLE, sizeof(VrkFsBodyTableReference), 0, TRUE},
    {IOCTL_VRKFS_DEREFERENCE_BODY_TABLE, sizeof(VrkFsBodyTableDereference), 0, TRUE},
    {IOCTL_VRKFS_CREATE_NEW_BODY_TABLE, sizeof(VrkFsBodyTableCreation), 0, TRUE},
    {IOCTL_VRKFS_ADD_VIDEO_NODES_TO_BODY_TABLE, sizeof(VrkFsBodyTableNodes), 0, TRUE},
    {IOCTL_VRKFS_ADD_ALPHA_NODES_TO_BODY_TABLE, sizeof(VrkFsBodyTableNodes), 0, TRUE},
    {IOCTL_VRKFS_GET_FILE_LOCATION_INFO, sizeof(VrkFsFileLocation), sizeof(VrkFsFileLocation), FALSE},
    // Results that are not written go back as the caller sent them, so they must have been sent.
    {IOCTL_VRKFS_MOVE_FILE_SEGMENTS, offsetof(VrkFsSegmentMove, ScratchFile), sizeof(VrkFsSegmentMove), TRUE},
    {IOCTL_VRKFS_REQUEST_BODY_TABLE_FLUSH_SUSPEND, 0, 0, FALSE},
    {IOCTL_VRKFS_REQUEST_BODY_TABLE_FLUSH_RESUME, 0, 0, FALSE},
    {IOCTL_VRKFS_GET_SCSI_PREFS, 0, sizeof(VrkFsScsiPrefs), FALSE},
    {IOCTL_VRKFS_SET_SCSI_PREFS, sizeof(VrkFsScsiPrefs), 0, FALSE},
    {IOCTL_VRKFS_SET_SDTI_TYPE, sizeof(VrkFsSdtiTypeRequest), 0, FALSE},
    {IOCTL_VRKFS_REGISTER_SDTI_FLAGS, sizeof(VrkFsSdtiFlagsRequest), 0, FALSE},
    {IOCTL_VRKFS_LOCK_FILE_SYSTEM, sizeof(VrkFsLockRequest), 0, FALSE},
    {IOCTL_VRKFS_UNLOCK_FILE_SYSTEM, 0, 0, FALSE},
};

constexpr ULONG VrkFsIoctlRuleIndex(ULONG Code) {
    return (Code - IOCTL_VRKFS_DISMOUNT_VOLUME) / 4;
}

constexpr bool VrkFsIoctlRulesAreInOrder() {
    for (ULONG index = 0; index < VRKFS_CONTROL_CODE_COUNT; ++index) {
        if (VrkFsIoctlRuleIndex(kRules[index].Code) != index) {
            return false;
        }
    }
    return true;
}
static_assert(VrkFsIoctlRulesAreInOrder());

ULONG VrkFsIoctlInLength(PIRP Irp) {
    return IoGetCurrentIrpStackLocation(Irp)->Parameters.DeviceIoControl.InputBufferLength;
}

ULONG VrkFsIoctlOutLength(PIRP Irp) {
    return IoGetCurrentIrpStackLocation(Irp)->Parameters.DeviceIoControl.OutputBufferLength;
}

// All rows of the list lie inside the input.
bool VrkFsIoctlHoldsFileTypes(PIRP Irp) {
    const ULONG rows = (VrkFsIoctlInLength(Irp) - offsetof(VrkFsFileTypeList, Rows)) / sizeof(VrkFsFileType);
    return VrkFsIoctlSystemBuffer<const VrkFsFileTypeList>(Irp)->Count <= rows;
}

// The data that a response brings or asks for fits its output buffer.
bool VrkFsIoctlHoldsResponseData(PIRP Irp) {
    const auto* response = VrkFsIoctlSystemBuffer<const VrkFsServiceResponse>(Irp);
    const bool carriesData = response->Type == VRKFS_SERVICE_READ || response->Type == VRKFS_SERVICE_WRITE;
    return !carriesData || response->Payload.ByteCount <= VrkFsIoctlOutLength(Irp);
}

}  // namespace

const ControlCodeRule* VrkFsIoctlFindRule(ULONG Code) {
    const ULONG index = VrkFsIoctlRuleIndex(Code);
    return index < VRKFS_CONTROL_CODE_COUNT && kRules[index].Code == Code ? &kRules[index] : nullptr;
}

NTSTATUS VrkFsIoctlCheckLengths(PIRP Irp) {
    const ControlCodeRule* rule = VrkFsIoctlFindRule(VrkFsIoctlCodeOf(Irp));
    if (rule == nullptr) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (VrkFsIoctlInLength(Irp) < rule->InLength || VrkFsIoctlOutLength(Irp) < rule->OutLength) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsIoctlCheckContentLength(PIRP Irp) {
    switch (VrkFsIoctlCodeOf(Irp)) {
        case IOCTL_VRKFS_REGISTER_FILE_TYPES:
            return VrkFsIoctlHoldsFileTypes(Irp) ? STATUS_SUCCESS : STATUS_BUFFER_TOO_SMALL;
        case IOCTL_VRKFS_SEND_SERVICE_RESPONSE:
            return VrkFsIoctlHoldsResponseData(Irp) ? STATUS_SUCCESS : STATUS_BUFFER_TOO_SMALL;
        default:
            return STATUS_SUCCESS;
    }
}
