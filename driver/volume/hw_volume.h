#pragma once

#include <nt.h>
#include <vrkfs/control.h>

#include <cstddef>

#include "media/ram_files.h"
#include "volume/allocator.h"
#include "volume/entry_cache.h"
#include "volume/name_index.h"
#include "volume/records.h"
#include "volume/unread_records.h"

struct FCB;
struct HwContext;
struct ScsiDevice;
struct VCB;

using VolumeInfoRecord = VrkFsVolumeInfoRecord;

// One volume of a card, in the card's list. Made by discovery or by format, freed with its last device or with the
// card; non-paged, it holds locks. The list and the fields up to Flags change only under the card's VCB resource held
// exclusively (or while the card starts). An incomplete volume has no allocator, no cache and no folders in memory.
struct HwVolume {
    // The first four fields are the VolumeInfoRecord that applications see.
    WCHAR Name[kRecordNameChars];      // may lack its terminator
    ULONG DeviceCount;                 // 1 to 16
    ULONG Devices[kMaxVolumeDevices];  // SCSI IDs by position, kNoDevice where missing; records lie on position 0
    ULONG Flags;                       // kVolume...
    ScsiDevice* DeviceTable;           // the card's, indexed by SCSI ID
    AllocObject Allocator;
    RamFileSet RamFiles;
    LIST_ENTRY Link;
    ULONG LastDataLba;
    ULONG FirstDirLba;
    ULONG OpenCount;         // opens by name; guarded by the VCB resource
    UCHAR FolderBitmap[32];  // bit i: slot i is in use
    ULONG FolderCount;
    VolCache EntryCache;
    ULONG InitFlags;  // kVolumeInit...
    NameIndex Names;
    UnreadRecords Unread;
};
static_assert(offsetof(HwVolume, DeviceCount) == offsetof(VolumeInfoRecord, DeviceCount));
static_assert(offsetof(HwVolume, Devices) == offsetof(VolumeInfoRecord, Devices));
static_assert(offsetof(HwVolume, Flags) == offsetof(VolumeInfoRecord, Flags));

inline constexpr ULONG kVolumeIncomplete = 0x01;    // a device is missing, or the volume could not be brought up
inline constexpr ULONG kVolumeNameConflict = 0x02;  // an earlier volume of the card has the name
inline constexpr ULONG kVolumeHidden = kVolumeIncomplete | kVolumeNameConflict;

inline constexpr ULONG kVolumeInitAllocator = 0x01;
inline constexpr ULONG kVolumeInitRemovalReported = 0x02;
inline constexpr ULONG kVolumeInitRamFiles = 0x04;
inline constexpr ULONG kVolumeInitEntryCache = 0x08;
inline constexpr ULONG kVolumeInitUnread = 0x10;

// ---- Discovery (discovery.cpp) ----

// Turns the volume entries that the bus scan read into volumes. A device whose entry fails its checksum or names no
// possible place carries no volume. The first allocation that fails ends discovery with its status; the volumes brought
// up so far stay, the one at hand stays hidden.
[[nodiscard]] NTSTATUS VrkFsHwInitializeVolumes(HwContext* Hw);
VOID VrkFsHwFreeVolumes(HwContext* Hw);
// The volume must be out of the card's list.
VOID VrkFsHwFreeVolume(HwVolume* Volume);
// LastDataLba and FirstDirLba from the smallest last LBA of the volume's devices, which is at least kMinLastLba.
VOID VrkFsHwSetGeometry(HwVolume* Volume, ULONG LastLba);
// Geometry, allocator, RAM files, cache and unread records of a volume whose devices are complete. On failure nothing
// of it is kept.
[[nodiscard]] NTSTATUS VrkFsHwBringUpVolume(HwVolume* Volume, ULONG LastLba);
VOID VrkFsHwTearDownVolume(HwVolume* Volume);
// An empty volume over the card's device table, in no list, or null.
[[nodiscard]] HwVolume* VrkFsHwAllocateVolume(HwContext* Hw);

// ---- Membership, names, opens, space (volume.cpp). The VCB resource is held, exclusively by what changes something.
// ----

// May free the volume. ScsiId is one of its devices.
VOID VrkFsHwRemoveDeviceFromVolume(HwContext* Hw, HwVolume* Volume, VCB* Vcb, ULONG ScsiId);
[[nodiscard]] BOOLEAN VrkFsHwCheckVolumeNameConflict(HwContext* Hw, const VolumeInfoRecord* Request);
VOID VrkFsHwMarkVolumeNameConflict(HwContext* Hw, HwVolume* Volume);
VOID VrkFsHwResolveVolumeNameConflicts(HwContext* Hw, VCB* Vcb, PCUNICODE_STRING FreedName);
[[nodiscard]] BOOLEAN VrkFsHwOpenVolume(HwContext* Hw, PCUNICODE_STRING Name, HwVolume** Volume);
VOID VrkFsHwCloseVolume(HwContext* Hw, HwVolume* Volume);
// Leaves *Time alone when the card has no usable volume.
VOID VrkFsHwGetLatestVolumeTime(HwContext* Hw, PLONGLONG Time);
VOID VrkFsHwGetVolumeSpaceInfo(HwVolume* Volume, PULONGLONG Total, PULONGLONG Free);
VOID VrkFsHwGetTotalVolumeSpaceInfo(HwContext* Hw, PULONGLONG Total, PULONGLONG Free);
// The name as a counted string over the volume's own field.
[[nodiscard]] UNICODE_STRING VrkFsHwVolumeName(const HwVolume* Volume);
// Whether the range, of at least one block, lies in the volume's data area and so may be read. Whoever writes through a
// record also asks VrkFsVolAllocIsOwnedSpace.
[[nodiscard]] BOOLEAN VrkFsHwIsDataAreaRange(const HwVolume* Volume, ULONG Start, ULONG Count);

// ---- Flush and rebuild (volume_flush.cpp). The VCB resource is held exclusively. ----

[[nodiscard]] NTSTATUS VrkFsHwFlushVolumeCache(HwContext* Hw, VCB* Vcb);
[[nodiscard]] NTSTATUS VrkFsHwRebuildVolumeCache(HwContext* Hw, VCB* Vcb);

// ---- Change reports (change_report.cpp) ----
// One report per registered file type, since each shows the volumes in a folder of its own. Without memory nothing is
// reported; without a Vcb neither.

VOID VrkFsHwVolumeChangeNotify(HwContext* Hw, PCUNICODE_STRING VolumeName, VCB* Vcb, ULONG Filter, ULONG Action);
VOID VrkFsHwFolderChangeNotify(HwContext* Hw, HwVolume* Volume, PCUNICODE_STRING FolderName, VCB* Vcb, ULONG Filter,
                               ULONG Action);
VOID VrkFsHwFileChangeNotify(HwContext* Hw, FCB* FolderFCB, PCUNICODE_STRING FileName, VCB* Vcb, ULONG Filter,
                             ULONG Action);
