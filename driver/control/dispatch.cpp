// The way of a device-control request: by device, then by code. Posted codes come through twice: on the caller's
// thread, where their handler checks and posts them, and on a worker's, where it does the work.
#include "control/ioctl.h"
#include "core/device_ext.h"
#include "core/driver_entry.h"
#include "core/global_data.h"
#include "core/guards.h"
#include "fsd/common.h"
#include "fsd/irp_context.h"

namespace {

// Either pass of a posted code.
NTSTATUS VrkFsIoctlCallPosted(ULONG Code, IRPContext* Context) {
    switch (Code) {
        case IOCTL_VRKFS_REFERENCE_BODY_TABLE:
            return VrkFsIoctlReferenceBodyTable(Context);
        case IOCTL_VRKFS_DEREFERENCE_BODY_TABLE:
            return VrkFsIoctlDereferenceBodyTable(Context);
        case IOCTL_VRKFS_CREATE_NEW_BODY_TABLE:
            return VrkFsIoctlCreateNewBodyTable(Context);
        case IOCTL_VRKFS_ADD_VIDEO_NODES_TO_BODY_TABLE:
            return VrkFsIoctlAddVideoNodesToBodyTable(Context);
        case IOCTL_VRKFS_ADD_ALPHA_NODES_TO_BODY_TABLE:
            return VrkFsIoctlAddAlphaNodesToBodyTable(Context);
        case IOCTL_VRKFS_MOVE_FILE_SEGMENTS:
            return VrkFsIoctlMoveFileSegments(Context);
        default:
            return STATUS_UNSUCCESSFUL;
    }
}

NTSTATUS VrkFsIoctlStartPosted(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    IRPContext* context = nullptr;
    const NTSTATUS status =
        VrkFsIRPContextAllocate(&pVrkFsGlobalData->IrpContextLookaside, &context, Irp, DeviceObject);
    return NT_SUCCESS(status) ? VrkFsIoctlCallPosted(VrkFsIoctlCodeOf(Irp), context) : status;
}

}  // namespace

extern "C" NTSTATUS NTAPI VrkFsDeviceIOCTL(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    CriticalRegionGuard region;
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    Irp->IoStatus.Information = 0;
    switch (VrkFsExtTypeOfDevice(DeviceObject)) {
        case kExtTypeControl:
            status = VrkFsGenericDeviceIOCTL(DeviceObject, Irp);
            break;
        case kExtTypeDisk:
            status = VrkFsDiskDeviceIOCTL(DeviceObject, Irp);
            break;
        default:
            break;
    }
    // A pending request belongs to whoever completes it, and may be gone by now.
    if (status != STATUS_PENDING) {
        Irp->IoStatus.Status = status;
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
    }
    return status;
}

NTSTATUS VrkFsGenericDeviceIOCTL(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    // Before anything else, so that no handler has to.
    const NTSTATUS status = VrkFsIoctlCheckLengths(Irp);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    switch (VrkFsIoctlCodeOf(Irp)) {
        case IOCTL_VRKFS_FORMAT_VOLUME:
            return VrkFsIoctlFormatVolume(DeviceObject, Irp);
        case IOCTL_VRKFS_QUERY_VOLUME_INFO:
            return VrkFsIoctlQueryVolumeInfo(DeviceObject, Irp);
        case IOCTL_VRKFS_GET_VOLUME_SPACE_INFO:
            return VrkFsIoctlGetVolumeSpaceInfo(DeviceObject, Irp);

        case IOCTL_VRKFS_REFERENCE_BODY_TABLE:
        case IOCTL_VRKFS_DEREFERENCE_BODY_TABLE:
        case IOCTL_VRKFS_CREATE_NEW_BODY_TABLE:
        case IOCTL_VRKFS_ADD_VIDEO_NODES_TO_BODY_TABLE:
        case IOCTL_VRKFS_ADD_ALPHA_NODES_TO_BODY_TABLE:
        case IOCTL_VRKFS_MOVE_FILE_SEGMENTS:
            return VrkFsIoctlStartPosted(DeviceObject, Irp);

        case IOCTL_VRKFS_DISMOUNT_VOLUME:
            return VrkFsIoctlDismountVolume(DeviceObject, Irp);
        case IOCTL_VRKFS_ALLOCATE_VIDEO_SPACE:
            return VrkFsIoctlAllocateVideoSpace(DeviceObject, Irp);
        case IOCTL_VRKFS_UPDATE_VIDEO_FILE:
            return VrkFsIoctlUpdateVideoFile(DeviceObject, Irp);
        case IOCTL_VRKFS_GET_FILE_INFO:
            return VrkFsIoctlGetFileInfo(DeviceObject, Irp);
        case IOCTL_VRKFS_REGISTER_FILE_TYPES:
            return VrkFsIoctlRegisterFileTypes(DeviceObject, Irp);
        case IOCTL_VRKFS_UNREGISTER_FILE_TYPES:
            return VrkFsIoctlUnregisterFileTypes(DeviceObject, Irp);
        case IOCTL_VRKFS_GET_PREFERENCES:
            return VrkFsIoctlGetPreferences(DeviceObject, Irp);
        case IOCTL_VRKFS_SET_PREFERENCES:
            return VrkFsIoctlSetPreferences(DeviceObject, Irp);
        case IOCTL_VRKFS_GET_FILE_ENTRY:
            return VrkFsIoctlGetFileEntry(DeviceObject, Irp);
        case IOCTL_VRKFS_SET_APP_FILE_ENTRY_INFO:
            return VrkFsIoctlSetAppFileEntryInfo(DeviceObject, Irp);
        case IOCTL_VRKFS_GET_FILE_LOCATION_INFO:
            return VrkFsIoctlGetFileLocationInfo(DeviceObject, Irp);
        case IOCTL_VRKFS_REQUEST_BODY_TABLE_FLUSH_SUSPEND:
            return VrkFsIoctlRequestBodyTableFlushSuspend(DeviceObject, Irp);
        case IOCTL_VRKFS_REQUEST_BODY_TABLE_FLUSH_RESUME:
            return VrkFsIoctlRequestBodyTableFlushResume(DeviceObject, Irp);
        case IOCTL_VRKFS_GET_SCSI_PREFS:
            return VrkFsIoctlGetScsiPrefs(DeviceObject, Irp);
        case IOCTL_VRKFS_SET_SCSI_PREFS:
            return VrkFsIoctlSetScsiPrefs(DeviceObject, Irp);
        case IOCTL_VRKFS_SET_SDTI_TYPE:
            return VrkFsIoctlSetSDTIType(DeviceObject, Irp);
        case IOCTL_VRKFS_REGISTER_SDTI_FLAGS:
            return VrkFsIoctlRegisterSDTIFlags(DeviceObject, Irp);
        case IOCTL_VRKFS_LOCK_FILE_SYSTEM:
            return VrkFsIoctlLockFileSystem(DeviceObject, Irp);
        case IOCTL_VRKFS_UNLOCK_FILE_SYSTEM:
            return VrkFsIoctlUnlockFileSystem(DeviceObject, Irp);

        case IOCTL_VRKFS_SEND_SERVICE_REQUEST:
            return VrkFsIoctlSendServiceRequest(DeviceObject, Irp);
        case IOCTL_VRKFS_SEND_SERVICE_RESPONSE:
            return VrkFsIoctlSendServiceResponse(DeviceObject, Irp);

        default:
            return STATUS_INVALID_DEVICE_REQUEST;
    }
}

NTSTATUS VrkFsDiskDeviceIOCTL(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    UNREFERENCED_PARAMETER(DeviceObject);
    Irp->IoStatus.Information = 0;
    return STATUS_INVALID_DEVICE_REQUEST;
}

NTSTATUS VrkFsCommonDeviceIOCTL(IRPContext* Context) {
    const ULONG code = VrkFsIoctlCodeOf(Context->Irp);
    const NTSTATUS status = VrkFsIoctlCallPosted(code, Context);
    const bool moved = code == IOCTL_VRKFS_MOVE_FILE_SEGMENTS && NT_SUCCESS(status);
    return VrkFsCompleteRequest(Context, status, moved ? sizeof(VrkFsSegmentMove) : 0);
}
