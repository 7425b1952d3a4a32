// What management applications and the service set for a card or for the driver: preferences, retries, file types.
#include "control/ioctl.h"
#include "control/service_channel.h"
#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/file_types.h"
#include "core/global_data.h"
#include "core/guards.h"

namespace {

ServiceChannel* ChannelOf(const CardInstance* Card) {
    return &VrkFsDiskExtOfDevice(Card->DiskDevice)->ServiceChannel;
}

// The drive appears under another letter; *Letter becomes the one that it could have. A link that cannot be taken away
// stays the only one. A drive that found no free letter the last time has none to take away: the link of the name tried
// last is somebody else's.
VOID ChangeDriveLetter(CardInstance* Card, PUCHAR Letter) {
    if ((Card->Flags & kCardDriveLetterLink) != 0) {
        if (!NT_SUCCESS(IoDeleteSymbolicLink(&Card->DriveLetterLinkName))) {
            return;
        }
        Card->Flags &= ~kCardDriveLetterLink;
    }
    if (NT_SUCCESS(VrkFsGlobLinkDriveLetter(Card, *Letter, Letter))) {
        Card->Flags |= kCardDriveLetterLink;
    }
}

}  // namespace

NTSTATUS VrkFsIoctlGetPreferences(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    CardInstance* card = VrkFsCardOfDevice(DeviceObject);
    *VrkFsIoctlSystemBuffer<VrkFsPreferences>(Irp) = VrkFsGlobPreferencesOf(card);
    Irp->IoStatus.Information = sizeof(VrkFsPreferences);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsIoctlSetPreferences(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    CardInstance* card = VrkFsCardOfDevice(DeviceObject);
    VrkFsPreferences prefs = *VrkFsIoctlSystemBuffer<const VrkFsPreferences>(Irp);
    const NTSTATUS status = VrkFsSReqUpdatePrefs(ChannelOf(card), &prefs);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    // One change at a time: link, record and registry agree afterwards.
    EventLockGuard lock(&card->SettingsLock);
    if (prefs.DriveLetter != card->Prefs.DriveLetter) {
        UCHAR letter = prefs.DriveLetter;
        ChangeDriveLetter(card, &letter);
        prefs.DriveLetter = letter;
    }
    {
        FastMutexGuard guard(&card->SettingsGuard);
        card->Prefs = prefs;
    }
    VrkFsGlobSetPreferences(pVrkFsGlobalData, card->CardIndex, &prefs);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsIoctlGetScsiPrefs(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    CardInstance* card = VrkFsCardOfDevice(DeviceObject);
    *VrkFsIoctlSystemBuffer<VrkFsScsiPrefs>(Irp) = VrkFsGlobScsiPrefsOf(card);
    Irp->IoStatus.Information = sizeof(VrkFsScsiPrefs);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsIoctlSetScsiPrefs(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    CardInstance* card = VrkFsCardOfDevice(DeviceObject);
    EventLockGuard lock(&card->SettingsLock);
    const VrkFsScsiPrefs prefs = *VrkFsIoctlSystemBuffer<const VrkFsScsiPrefs>(Irp);
    {
        FastMutexGuard guard(&card->SettingsGuard);
        card->ScsiPrefs = prefs;
    }
    VrkFsGlobSetScsiPrefs(pVrkFsGlobalData, card->CardIndex, &prefs);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsIoctlRegisterFileTypes(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    VrkFsSReqServiceConnect(ChannelOf(VrkFsCardOfDevice(DeviceObject)), TRUE);
    const NTSTATUS status = VrkFsIoctlCheckContentLength(Irp);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const auto* list = VrkFsIoctlSystemBuffer<const VrkFsFileTypeList>(Irp);
    return VrkFsGlobAddFileTypes(pVrkFsGlobalData, list->Rows, list->Count);
}

NTSTATUS VrkFsIoctlUnregisterFileTypes(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    UNREFERENCED_PARAMETER(Irp);
    VrkFsGlobRemoveFileTypes(pVrkFsGlobalData);
    VrkFsSReqServiceDisconnect(ChannelOf(VrkFsCardOfDevice(DeviceObject)));
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsIoctlRegisterSDTIFlags(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    VrkFsSReqServiceConnect(ChannelOf(VrkFsCardOfDevice(DeviceObject)), FALSE);
    // Every opener of a command port reads it, without a lock.
    __atomic_store_n(&pVrkFsGlobalData->SdtiFlags, VrkFsIoctlSystemBuffer<const VrkFsSdtiFlagsRequest>(Irp)->SdtiFlags,
                     __ATOMIC_RELAXED);
    return STATUS_SUCCESS;
}
