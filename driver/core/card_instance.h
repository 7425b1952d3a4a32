#pragma once

#include "nt.h"

#include "core/preferences.h"
#include "media/body_table_cache.h"
#include "storage/hw_context.h"

struct GlobalData;

// One card: its two devices with their names and links, the link to its main board, its volumes, its preferences. Made
// at start-up in non-paged pool for every card index whose board answers, on GlobalData.CardInstances until unload.
// Everything but Prefs, ScsiPrefs, DriveLetterLinkName and what the embedded records guard themselves is constant after
// start-up.
struct CardInstance {
    LIST_ENTRY Link;
    UNICODE_STRING DiskDeviceName;         // capacity 52 bytes
    UNICODE_STRING DriveLetterLinkName;    // capacity 30 bytes, the letter in use before the colon
    UNICODE_STRING ControlDeviceName;      // capacity 44 bytes
    UNICODE_STRING ControlDeviceLinkName;  // capacity 52 bytes
    PDEVICE_OBJECT DiskDevice;
    PDEVICE_OBJECT ControlDevice;
    HwContext Hw;
    VrkFsScsiPrefs ScsiPrefs;
    struct BodyTableCache BodyTableCache;
    Preferences Prefs;
    FAST_MUTEX SettingsGuard;  // the two records of settings, for moments
    KEVENT SettingsLock;       // auto-reset: one change of them, their registry values and the drive's link at a time
    ULONG CardIndex;           // 0 to 9
    ULONG Flags;               // kCard...: what VrkFsGlobFreeCardInstance has to undo
};

inline constexpr ULONG kMaxCards = 10;

inline constexpr ULONG kCardControlDevice = 0x01;
inline constexpr ULONG kCardControlExtension = 0x02;
inline constexpr ULONG kCardControlLink = 0x04;
inline constexpr ULONG kCardDiskDevice = 0x08;
inline constexpr ULONG kCardDiskExtension = 0x10;
inline constexpr ULONG kCardDriveLetterLink = 0x20;
inline constexpr ULONG kCardBodyTableCache = 0x40;

inline constexpr ULONG kDriveLetterAttempts = 27;

// Start-up and teardown, on the driver-load thread. Every Free undoes exactly the flagged pieces and may be called on a
// half-built record and twice. Every failed start-up step has logged itself.
[[nodiscard]] NTSTATUS VrkFsGlobInitializeCardInstances(GlobalData* Global);
VOID VrkFsGlobFreeCardInstances(GlobalData* Global);
[[nodiscard]] NTSTATUS VrkFsGlobInitializeCardInstance(CardInstance* Card, ULONG CardIndex);
VOID VrkFsGlobFreeCardInstance(CardInstance* Card);
[[nodiscard]] NTSTATUS VrkFsGlobCreateDeviceObject(CardInstance* Card);
VOID VrkFsGlobFreeDeviceObject(CardInstance* Card);
[[nodiscard]] NTSTATUS VrkFsGlobCreateDiskDeviceObject(CardInstance* Card);
VOID VrkFsGlobFreeDiskDeviceObject(CardInstance* Card);

// Makes the drive-letter link: the first free letter from Letter on (made usable first, 'A' after 'Z', at most
// kDriveLetterAttempts attempts). Returns the last attempt's status; *Used is the letter tried last, and stands in
// DriveLetterLinkName. Flags are the caller's.
[[nodiscard]] NTSTATUS VrkFsGlobLinkDriveLetter(CardInstance* Card, UCHAR Letter, PUCHAR Used);

// The letter that the drive is reached by now: it stands before the colon that ends the link's name.
[[nodiscard]] WCHAR VrkFsGlobDriveLetter(CardInstance* Card);
// Copies of the settings as they stand now.
[[nodiscard]] Preferences VrkFsGlobPreferencesOf(CardInstance* Card);
[[nodiscard]] ScsiPrefs VrkFsGlobScsiPrefsOf(CardInstance* Card);

// The card that an embedded record belongs to.
[[nodiscard]] inline CardInstance* VrkFsCardOfHw(HwContext* Hw) {
    return CONTAINING_RECORD(Hw, CardInstance, Hw);
}
