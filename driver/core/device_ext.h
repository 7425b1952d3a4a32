#pragma once

#include "nt.h"

#include <type_traits>

#include "control/service_channel.h"
#include "fsd/vcb.h"

struct CardInstance;

// The extensions of a card's two devices. They live as long as their device objects; the first field, common to both,
// tells them apart.
inline constexpr ULONG kExtTypeControl = 0;
inline constexpr ULONG kExtTypeDisk = 1;

struct DeviceExt {
    ULONG ExtType;  // kExtTypeControl
    PDEVICE_OBJECT DeviceObject;
    CardInstance* Instance;
};

struct DiskDeviceExt {
    ULONG ExtType;  // kExtTypeDisk
    PDEVICE_OBJECT DeviceObject;
    VCB Vcb;
    CardInstance* Instance;
    struct ServiceChannel ServiceChannel;
    ULONG Flags;  // kDiskExt...
};
static_assert(std::is_standard_layout_v<DeviceExt> && std::is_standard_layout_v<DiskDeviceExt>);

inline constexpr ULONG kDiskExtVcb = 0x01;             // Vcb initialised
inline constexpr ULONG kDiskExtServiceChannel = 0x02;  // ServiceChannel initialised

[[nodiscard]] NTSTATUS VrkFsDeviceExtInit(DeviceExt* Ext, PDEVICE_OBJECT Device, CardInstance* Card);
VOID VrkFsDeviceExtFree(DeviceExt* Ext);
// Fails with the VCB's or the service channel's status (logged) and is then released again.
[[nodiscard]] NTSTATUS VrkFsDiskDeviceExtInit(DiskDeviceExt* Ext, PDEVICE_OBJECT Device, CardInstance* Card);
// May be called on a half-built extension and twice.
VOID VrkFsDiskDeviceExtFree(DiskDeviceExt* Ext);

[[nodiscard]] inline ULONG VrkFsExtTypeOfDevice(PDEVICE_OBJECT Device) {
    return *static_cast<const ULONG*>(Device->DeviceExtension);
}
[[nodiscard]] inline DeviceExt* VrkFsControlExtOfDevice(PDEVICE_OBJECT Device) {
    return static_cast<DeviceExt*>(Device->DeviceExtension);
}
[[nodiscard]] inline DiskDeviceExt* VrkFsDiskExtOfDevice(PDEVICE_OBJECT Device) {
    return static_cast<DiskDeviceExt*>(Device->DeviceExtension);
}
[[nodiscard]] inline DiskDeviceExt* VrkFsDiskExtOfVcb(VCB* Vcb) {
    return CONTAINING_RECORD(Vcb, DiskDeviceExt, Vcb);
}
[[nodiscard]] inline DiskDeviceExt* VrkFsDiskExtOfServiceChannel(ServiceChannel* Channel) {
    return CONTAINING_RECORD(Channel, DiskDeviceExt, ServiceChannel);
}
// The card of either device.
[[nodiscard]] inline CardInstance* VrkFsCardOfDevice(PDEVICE_OBJECT Device) {
    return VrkFsExtTypeOfDevice(Device) == kExtTypeControl ? VrkFsControlExtOfDevice(Device)->Instance
                                                           : VrkFsDiskExtOfDevice(Device)->Instance;
}
[[nodiscard]] inline CardInstance* VrkFsCardOfVcb(VCB* Vcb) {
    return VrkFsDiskExtOfVcb(Vcb)->Instance;
}
