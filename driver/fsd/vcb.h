// The volume control block: what one card's file-system device presents as its mounted volume.
#pragma once

#include "nt.h"

struct FCB;
struct IRPContext;

inline constexpr ULONG kVcbNodeType = 0;

// VCB::Flags
inline constexpr ULONG kVcbMounted = 0x01;
inline constexpr ULONG kVcbRegistered = 0x02;  // registered as a file system
inline constexpr ULONG kVcbResourceInitialised = 0x04;
inline constexpr ULONG kVcbRootMade = 0x08;
inline constexpr ULONG kVcbLocked = 0x10;  // a control handle holds the file-system lock
inline constexpr ULONG kVcbNotifyInitialised = 0x20;
inline constexpr ULONG kVcbVolumesFlushed = 0x40;  // the card's volumes are forgotten until they are rebuilt

// The label that a volume starts with; it also is the file system's name.
inline constexpr ULONG kVcbInitialLabelBytes = 14;

// Embedded in DiskDeviceExt (non-paged), one per card. Resource is the outermost lock of the file-system device: it
// guards every field below it, the name tree and all counts in it. Create, cleanup, close and the set requests take it
// exclusively, queries shared, reads and writes not at all.
struct VCB {
    ULONG NodeType;  // kVcbNodeType; tells a VCB from an FCB behind a file object's first context field
    PDEVICE_OBJECT DeviceObject;
    VPB Vpb;
    ERESOURCE Resource;
    ULONG VolumeOpenCount;    // file objects open on the volume itself, not yet closed
    ULONG FileOpenCount;      // file objects open on folders, files and the command port, not yet closed
    ULONG ReadOnlyOpenCount;  // those of them opened with neither write nor delete access
    LIST_ENTRY NotifyList;    // pending change-notification requests
    PNOTIFY_SYNC NotifySync;
    FCB* RootFcb;
    SHARE_ACCESS ShareAccess;        // of the volume opens
    PFILE_OBJECT LockingFileObject;  // the control handle that holds the file-system lock, or null
    ULONG Flags;
    FAST_MUTEX NameLock;  // innermost: who stores a cached full name, among those that share Resource
};

// Builds the VCB in its zeroed or unused place. A failure leaves nothing behind.
[[nodiscard]] NTSTATUS VrkFsVCBInitialize(VCB* Vcb, PDEVICE_OBJECT DeviceObject);
VOID VrkFsVCBFree(VCB* Vcb);
VOID VrkFsVCBInitializeVPB(VCB* Vcb, PDEVICE_OBJECT DeviceObject);

// Takes Resource itself. STATUS_UNSUCCESSFUL while anything below the root is open and Force is FALSE.
[[nodiscard]] NTSTATUS VrkFsVCBDismountVolume(VCB* Vcb, BOOLEAN Force);

// The file-system lock. The caller holds Resource exclusively (shared for the two questions).
// STATUS_ACCESS_DENIED while it is held, or while the root is referenced or has children.
[[nodiscard]] NTSTATUS VrkFsVCBLockVolume(VCB* Vcb, PFILE_OBJECT FileObject);
NTSTATUS VrkFsVCBUnlockVolume(VCB* Vcb);
[[nodiscard]] BOOLEAN VrkFsVCBIsVolumeLocked(const VCB* Vcb, PFILE_OBJECT FileObject);
[[nodiscard]] BOOLEAN VrkFsVCBIsVolumeCacheFlushed(const VCB* Vcb);

// Which handles ReadOnlyOpenCount counts.
[[nodiscard]] inline bool VrkFsIsReadOnlyOpen(PFILE_OBJECT FileObject) {
    return !FileObject->WriteAccess && !FileObject->DeleteAccess;
}

[[nodiscard]] NTSTATUS VrkFsUserFsRequest(IRPContext* Context);
