#include "core/device_ext.h"

#include "core/global_data.h"

NTSTATUS VrkFsDeviceExtInit(DeviceExt* Ext, PDEVICE_OBJECT Device, CardInstance* Card) {
    *Ext = DeviceExt{};
    Ext->ExtType = kExtTypeControl;
    Ext->DeviceObject = Device;
    Ext->Instance = Card;
    return STATUS_SUCCESS;
}

VOID VrkFsDeviceExtFree(DeviceExt*) {}

NTSTATUS VrkFsDiskDeviceExtInit(DiskDeviceExt* Ext, PDEVICE_OBJECT Device, CardInstance* Card) {
    RtlZeroMemory(Ext, sizeof(*Ext));
    Ext->ExtType = kExtTypeDisk;
    Ext->DeviceObject = Device;
    Ext->Instance = Card;
    NTSTATUS status = VrkFsVCBInitialize(&Ext->Vcb, Device);
    if (!NT_SUCCESS(status)) {
        VrkFsGlobLogStartFailure("Init VCB failed", nullptr, 0);
        VrkFsDiskDeviceExtFree(Ext);
        return status;
    }
    Ext->Flags |= kDiskExtVcb;
    status = VrkFsSReqInitialize(&Ext->ServiceChannel);
    if (!NT_SUCCESS(status)) {
        VrkFsGlobLogStartFailure("Init. service channel failed", nullptr, 0);
        VrkFsDiskDeviceExtFree(Ext);
        return status;
    }
    Ext->Flags |= kDiskExtServiceChannel;
    return status;
}

VOID VrkFsDiskDeviceExtFree(DiskDeviceExt* Ext) {
    if ((Ext->Flags & kDiskExtServiceChannel) != 0) {
        Ext->Flags &= ~kDiskExtServiceChannel;
        VrkFsSReqCleanup(&Ext->ServiceChannel);
    }
    if ((Ext->Flags & kDiskExtVcb) != 0) {
        Ext->Flags &= ~kDiskExtVcb;
        VrkFsVCBFree(&Ext->Vcb);
    }
}
