// The two codes that a service keeps posted.
#include "control/ioctl.h"
#include "control/service_channel.h"
#include "core/card_instance.h"
#include "core/device_ext.h"

namespace {

ServiceChannel* ChannelOf(PDEVICE_OBJECT DeviceObject) {
    return &VrkFsDiskExtOfDevice(VrkFsCardOfDevice(DeviceObject)->DiskDevice)->ServiceChannel;
}

}  // namespace

NTSTATUS VrkFsIoctlSendServiceRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return VrkFsSReqRequestArrival(ChannelOf(DeviceObject), Irp);
}

NTSTATUS VrkFsIoctlSendServiceResponse(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    const NTSTATUS status = VrkFsIoctlCheckContentLength(Irp);
    return NT_SUCCESS(status) ? VrkFsSReqResponseArrival(ChannelOf(DeviceObject), Irp) : status;
}
