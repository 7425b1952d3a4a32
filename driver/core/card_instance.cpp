#include "core/card_instance.h"

#include "core/device_ext.h"
#include "core/global_data.h"
#include "core/guards.h"
#include "core/pool.h"
#include "core/strings.h"

namespace {

constexpr USHORT kDiskDeviceNameBytes = 52;
constexpr USHORT kDriveLetterLinkBytes = 30;
constexpr USHORT kControlDeviceNameBytes = 44;
constexpr USHORT kControlDeviceLinkBytes = 52;

// An allocated name of Capacity bytes that holds Text.
template <SIZE_T Chars>
NTSTATUS MakeName(PUNICODE_STRING Name, USHORT Capacity, const WCHAR (&Text)[Chars]) {
    const NTSTATUS status = VrkFsRtlAllocateUnicodeString(Name, Capacity);
    if (NT_SUCCESS(status)) {
        RtlCopyMemory(Name->Buffer, Text, sizeof(Text));
        Name->Length = sizeof(Text) - sizeof(WCHAR);
    }
    return status;
}

// The same with the card digit behind Text.
template <SIZE_T Chars>
NTSTATUS MakeCardName(PUNICODE_STRING Name, USHORT Capacity, const WCHAR (&Text)[Chars], ULONG CardIndex) {
    const NTSTATUS status = MakeName(Name, Capacity, Text);
    if (NT_SUCCESS(status)) {
        Name->Buffer[Chars - 1] = static_cast<WCHAR>('0' + CardIndex);
        Name->Buffer[Chars] = 0;
        Name->Length = Chars * sizeof(WCHAR);
    }
    return status;
}

// TRUE the first time: the flag is cleared.
bool TakeCardFlag(CardInstance* Card, ULONG Flag) {
    const bool set = (Card->Flags & Flag) != 0;
    Card->Flags &= ~Flag;
    return set;
}

NTSTATUS CreateControlDevice(CardInstance* Card) {
    NTSTATUS status = MakeCardName(&Card->ControlDeviceName, kControlDeviceNameBytes, VRKFS_W("\\Device\\VrkFsDevice"),
                                   Card->CardIndex);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = IoCreateDevice(pVrkFsGlobalData->DriverObject, sizeof(DeviceExt), &Card->ControlDeviceName,
                            FILE_DEVICE_UNKNOWN, 0, FALSE, &Card->ControlDevice);
    if (!NT_SUCCESS(status)) {
        VrkFsRtlFreeUnicodeString(&Card->ControlDeviceName);
        VrkFsGlobLogStartFailure("Create device obj. failed", nullptr, 0);
        return status;
    }
    Card->ControlDevice->Flags |= DO_DIRECT_IO;
    Card->Flags |= kCardControlDevice;
    status = VrkFsDeviceExtInit(VrkFsControlExtOfDevice(Card->ControlDevice), Card->ControlDevice, Card);
    if (NT_SUCCESS(status)) {
        Card->Flags |= kCardControlExtension;
    }
    return status;
}

NTSTATUS LinkControlDevice(CardInstance* Card) {
    NTSTATUS status = MakeCardName(&Card->ControlDeviceLinkName, kControlDeviceLinkBytes,
                                   VRKFS_W("\\DosDevices\\VrkFsDevice"), Card->CardIndex);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = IoCreateSymbolicLink(&Card->ControlDeviceLinkName, &Card->ControlDeviceName);
    if (!NT_SUCCESS(status)) {
        VrkFsRtlFreeUnicodeString(&Card->ControlDeviceLinkName);
        VrkFsGlobLogStartFailure("Create device symb. link failed", nullptr, 0);
        return status;
    }
    Card->Flags |= kCardControlLink;
    return status;
}

NTSTATUS CreateDiskDevice(CardInstance* Card) {
    NTSTATUS status = MakeCardName(&Card->DiskDeviceName, kDiskDeviceNameBytes, VRKFS_W("\\Device\\VrkFsDiskDevice"),
                                   Card->CardIndex);
    if (NT_SUCCESS(status)) {
        status = MakeName(&Card->DriveLetterLinkName, kDriveLetterLinkBytes, VRKFS_W("\\DosDevices\\P:"));
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = IoCreateDevice(pVrkFsGlobalData->DriverObject, sizeof(DiskDeviceExt), &Card->DiskDeviceName,
                            FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &Card->DiskDevice);
    if (!NT_SUCCESS(status)) {
        VrkFsGlobLogStartFailure("Create disk device obj. failed", nullptr, 0);
        return status;
    }
    Card->DiskDevice->Flags |= DO_DIRECT_IO;
    Card->Flags |= kCardDiskDevice;
    status = VrkFsDiskDeviceExtInit(VrkFsDiskExtOfDevice(Card->DiskDevice), Card->DiskDevice, Card);
    if (NT_SUCCESS(status)) {
        Card->Flags |= kCardDiskExtension;
    }
    return status;
}

// The letter in use after this is the first free one from the configured letter on, and the preferences say so.
NTSTATUS LinkDiskDevice(CardInstance* Card) {
    UCHAR letter = Card->Prefs.DriveLetter;
    const NTSTATUS status = VrkFsGlobLinkDriveLetter(Card, letter, &letter);
    Card->Prefs.DriveLetter = letter;
    if (!NT_SUCCESS(status)) {
        VrkFsGlobLogStartFailure("Create disk device symb. link failed", nullptr, 0);
        return status;
    }
    Card->Flags |= kCardDriveLetterLink;
    return status;
}

// Allocates and sets up the instance of one index and puts it on the list. *OutOfPool: there was no memory for it.
NTSTATUS AddCardInstance(GlobalData* Global, ULONG CardIndex, PBOOLEAN OutOfPool) {
    CardInstance* card = static_cast<CardInstance*>(VrkFsAllocatePool(NonPagedPool, sizeof(CardInstance)));
    *OutOfPool = card == nullptr;
    if (card == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const NTSTATUS status = VrkFsGlobInitializeCardInstance(card, CardIndex);
    if (!NT_SUCCESS(status)) {
        VrkFsGlobFreeCardInstance(card);
        VrkFsFreePool(card);
        return status;
    }
    InsertTailList(&Global->CardInstances, &card->Link);
    Global->Flags |= kGlobalCardFound;
    return status;
}

}  // namespace

NTSTATUS VrkFsGlobInitializeCardInstances(GlobalData* Global) {
    InitializeListHead(&Global->CardInstances);
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    BOOLEAN outOfPool = FALSE;
    for (ULONG index = 0; index < kMaxCards && !outOfPool; ++index) {
        status = AddCardInstance(Global, index, &outOfPool);
    }
    if (outOfPool) {
        VrkFsGlobFreeCardInstances(Global);
        return status;
    }
    return (Global->Flags & kGlobalCardFound) != 0 ? STATUS_SUCCESS : status;
}

VOID VrkFsGlobFreeCardInstances(GlobalData* Global) {
    if ((Global->Flags & kGlobalCardFound) == 0) {
        return;
    }
    while (!IsListEmpty(&Global->CardInstances)) {
        CardInstance* card = CONTAINING_RECORD(RemoveHeadList(&Global->CardInstances), CardInstance, Link);
        VrkFsGlobFreeCardInstance(card);
        VrkFsFreePool(card);
    }
    Global->Flags &= ~kGlobalCardFound;
}

NTSTATUS VrkFsGlobInitializeCardInstance(CardInstance* Card, ULONG CardIndex) {
    RtlZeroMemory(Card, sizeof(*Card));
    Card->CardIndex = CardIndex;
    ExInitializeFastMutex(&Card->SettingsGuard);
    KeInitializeEvent(&Card->SettingsLock, SynchronizationEvent, TRUE);
    VrkFsGlobGetPreferences(pVrkFsGlobalData, CardIndex, &Card->Prefs);
    // The SCSI preferences come after the link is up: until then records are read once and written without read-back.
    NTSTATUS status = VrkFsHwInitialize(&Card->Hw, CardIndex);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    VrkFsGlobGetScsiPrefs(pVrkFsGlobalData, CardIndex, &Card->ScsiPrefs);
    status = VrkFsGlobCreateDeviceObject(Card);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = VrkFsGlobCreateDiskDeviceObject(Card);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = VrkFsBTInitHandler(&Card->BodyTableCache);
    if (!NT_SUCCESS(status)) {
        VrkFsGlobLogStartFailure("Init. body table cache handler failed", nullptr, 0);
        return status;
    }
    Card->Flags |= kCardBodyTableCache;
    return status;
}

VOID VrkFsGlobFreeCardInstance(CardInstance* Card) {
    if (TakeCardFlag(Card, kCardBodyTableCache)) {
        VrkFsBTFreeHandler(&Card->BodyTableCache);
    }
    VrkFsHwFree(&Card->Hw);
    VrkFsGlobFreeDiskDeviceObject(Card);
    VrkFsGlobFreeDeviceObject(Card);
    VrkFsRtlFreeUnicodeString(&Card->ControlDeviceName);
    VrkFsRtlFreeUnicodeString(&Card->ControlDeviceLinkName);
    VrkFsRtlFreeUnicodeString(&Card->DiskDeviceName);
    VrkFsRtlFreeUnicodeString(&Card->DriveLetterLinkName);
}

NTSTATUS VrkFsGlobCreateDeviceObject(CardInstance* Card) {
    NTSTATUS status = CreateControlDevice(Card);
    if (NT_SUCCESS(status)) {
        status = LinkControlDevice(Card);
    }
    if (!NT_SUCCESS(status)) {
        VrkFsGlobFreeDeviceObject(Card);
    }
    return status;
}

VOID VrkFsGlobFreeDeviceObject(CardInstance* Card) {
    if (TakeCardFlag(Card, kCardControlLink)) {
        IoDeleteSymbolicLink(&Card->ControlDeviceLinkName);
    }
    if (TakeCardFlag(Card, kCardControlExtension)) {
        VrkFsDeviceExtFree(VrkFsControlExtOfDevice(Card->ControlDevice));
    }
    if (TakeCardFlag(Card, kCardControlDevice)) {
        IoDeleteDevice(Card->ControlDevice);
        Card->ControlDevice = nullptr;
    }
}

NTSTATUS VrkFsGlobCreateDiskDeviceObject(CardInstance* Card) {
    NTSTATUS status = CreateDiskDevice(Card);
    if (NT_SUCCESS(status)) {
        status = LinkDiskDevice(Card);
    }
    if (!NT_SUCCESS(status)) {
        VrkFsGlobFreeDiskDeviceObject(Card);
    }
    return status;
}

VOID VrkFsGlobFreeDiskDeviceObject(CardInstance* Card) {
    if (TakeCardFlag(Card, kCardDriveLetterLink)) {
        IoDeleteSymbolicLink(&Card->DriveLetterLinkName);
    }
    if (TakeCardFlag(Card, kCardDiskExtension)) {
        VrkFsDiskDeviceExtFree(VrkFsDiskExtOfDevice(Card->DiskDevice));
    }
    if (TakeCardFlag(Card, kCardDiskDevice)) {
        IoDeleteDevice(Card->DiskDevice);
        Card->DiskDevice = nullptr;
    }
}

NTSTATUS VrkFsGlobLinkDriveLetter(CardInstance* Card, UCHAR Letter, PUCHAR Used) {
    UCHAR letter = VrkFsGlobUsableDriveLetter(Letter, Card->CardIndex);
    PWCHAR place = &Card->DriveLetterLinkName.Buffer[Card->DriveLetterLinkName.Length / sizeof(WCHAR) - 2];
    for (ULONG attempt = 1;; ++attempt) {
        *place = letter;
        *Used = letter;
        const NTSTATUS status = IoCreateSymbolicLink(&Card->DriveLetterLinkName, &Card->DiskDeviceName);
        if (NT_SUCCESS(status) || attempt == kDriveLetterAttempts) {
            return status;
        }
        letter = letter == 'Z' ? 'A' : static_cast<UCHAR>(letter + 1);
    }
}

WCHAR VrkFsGlobDriveLetter(CardInstance* Card) {
    EventLockGuard lock(&Card->SettingsLock);
    const UNICODE_STRING& link = Card->DriveLetterLinkName;
    return link.Buffer[link.Length / sizeof(WCHAR) - 2];
}

Preferences VrkFsGlobPreferencesOf(CardInstance* Card) {
    FastMutexGuard guard(&Card->SettingsGuard);
    return Card->Prefs;
}

ScsiPrefs VrkFsGlobScsiPrefsOf(CardInstance* Card) {
    FastMutexGuard guard(&Card->SettingsGuard);
    return Card->ScsiPrefs;
}
