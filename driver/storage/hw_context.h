#pragma once

#include <vrkfs/board.h>
#include "nt.h"

#include "volume/records.h"

struct HwVolume;
struct HwRequest;

// A card's link to its main board, the disks on its bus and the volumes found on them. Embedded in CardInstance, so in
// non-paged pool. Set up by VrkFsHwInitialize, torn down by VrkFsHwFree. The volume list and the device table change at
// start-up and under the VCB resource held exclusively. Everything here runs at PASSIVE_LEVEL.

using ScsiDeviceInfo = VrkScsiDeviceInfo;
using ScsiRequest = VrkScsiRequest;

inline constexpr ULONG kBlockSize = VRK_BLOCK_SIZE;
inline constexpr ULONG kMaxTransferBlocks = VRK_MAX_TRANSFER_BLOCKS;
inline constexpr ULONG kScsiIdCount = VRK_SCSI_ID_COUNT;
inline constexpr ULONG kScsiIdReserved = VRK_SCSI_ID_RESERVED;
inline constexpr ULONG kScratchBytes = 9216;      // one DirEntry
inline constexpr ULONG kFileScratchBytes = 1024;  // one FileEntry
inline constexpr ULONG kVerifyBlocks = 256;
inline constexpr ULONG kVerifyBytes = kVerifyBlocks * kBlockSize;
inline constexpr ULONG kMoveChunkBlocks = VRK_CARD_MEMORY_BLOCKS;
inline constexpr ULONG kMaxErrorsLogged = 20;  // SCSI, checksum and verify events of one card, over its life
// A registry may ask for billions of retries; a record that has failed this often is not going to be read.
inline constexpr ULONG kMaxRetriesUsed = 100;

struct ScsiDevice {
    ScsiDeviceInfo DeviceInfo;       // as the board returned it: State and LastLba are hints, not promises
    struct VolumeEntry VolumeEntry;  // blocks 0 and 1 as the scan read them; checked by whoever uses it
    HwVolume* Volume;                // the volume this device belongs to, or null
};

struct HwContext {
    ULONG CardIndex;  // 0 to 9, also the digit of the board's device name
    PDEVICE_OBJECT BoardDevice;
    PFILE_OBJECT BoardFileObject;
    ScsiDevice Devices[kScsiIdCount];  // indexed by SCSI ID
    PUCHAR ScratchBuffer;              // kScratchBytes
    KEVENT ScratchLock;
    PUCHAR FileScratchBuffer;  // kFileScratchBytes
    KEVENT FileScratchLock;
    PUCHAR VerifyBuffer;  // kVerifyBytes, only inside VrkFsHwSCSIWriteEx
    KEVENT VerifyLock;
    ULONG Flags;                 // kHw...
    LIST_ENTRY Volumes;          // HwVolume, in discovery order
    LONG volatile ErrorsLogged;  // never above kMaxErrorsLogged
    HwRequest* SpareRequest;     // for when the system has no memory for a request: one at a time, under SpareLock
    KEVENT SpareLock;
};

inline constexpr ULONG kHwBoardReferenced = 0x01;
inline constexpr ULONG kHwScratch = 0x02;
inline constexpr ULONG kHwFileScratch = 0x04;
inline constexpr ULONG kHwVolumeList = 0x08;
inline constexpr ULONG kHwVerify = 0x10;
inline constexpr ULONG kHwSpareRequest = 0x20;

// What a record transfer moves; also the index of the record's name in the events.
enum HwRecordType : ULONG {
    kHwRecordVolumeEntry = 0,
    kHwRecordDirEntry = 1,
    kHwRecordFileEntry = 2,
    kHwRecordBodyTable = 3,
};

// ---- Set-up and teardown (hw_init.cpp) ----

// Stops at the first failure and returns its status, leaving what it obtained for VrkFsHwFree.
[[nodiscard]] NTSTATUS VrkFsHwInitialize(HwContext* Hw, ULONG CardIndex);
// Releases what Flags says; harmless on a zeroed record and when called again.
VOID VrkFsHwFree(HwContext* Hw);
[[nodiscard]] NTSTATUS VrkFsHwGetVRKDeviceObject(HwContext* Hw, ULONG CardIndex);
VOID VrkFsHwFreeVRKDeviceObject(HwContext* Hw);
// FLEX and board initialisation. A board that does not answer in time: STATUS_DEVICE_CONFIGURATION_ERROR.
[[nodiscard]] NTSTATUS VrkFsHwInitializeVRK(HwContext* Hw);
// Scans the bus, queries every SCSI ID, reads the volume entry of every usable disk and runs the volume discovery,
// whose status is ignored. Also used when volumes are found again: VCB resource held exclusively.
[[nodiscard]] NTSTATUS VrkFsHwSCSIScan(HwContext* Hw);

// ---- Requests to the board (board_request.cpp) ----

// Sends one request and waits for it. Timeout is relative (negative, 100 ns) or null for no limit.
// STATUS_TIMEOUT: the time-out passed; the board has been asked to cancel the request, and may still complete it at any
// later time without harm: none of the caller's memory is involved any more.
// STATUS_INSUFFICIENT_RESOURCES: the request could not be made. A request without time-out whose buffers hold at most
// one ScsiRequest never fails so once the board is open, unless it claims the SCSI path: the card keeps a spare request
// for it.
[[nodiscard]] NTSTATUS VrkFsHwDevIOCTL(HwContext* Hw, ULONG ControlCode, PVOID InBuffer, ULONG InLength,
                                       PVOID OutBuffer, ULONG OutLength, const LARGE_INTEGER* Timeout);

// ---- Plain transfers (transfer.cpp) ----

// One request, no check of what was moved. Buffer: BlockCount * 512 bytes at a system address, or null with
// CardMemoryFlag 1. Any number of threads at once. 0 blocks: success, nothing is sent. ScsiId above 15, more than
// kMaxTransferBlocks blocks, or blocks beyond the 32-bit address space: STATUS_INVALID_PARAMETER, nothing is sent.
[[nodiscard]] NTSTATUS VrkFsHwSCSIRead(HwContext* Hw, ULONG ScsiId, ULONG Lba, ULONG BlockCount, PVOID Buffer,
                                       ULONG CardMemoryFlag);
[[nodiscard]] NTSTATUS VrkFsHwSCSIWrite(HwContext* Hw, ULONG ScsiId, ULONG Lba, ULONG BlockCount, PVOID Buffer,
                                        ULONG CardMemoryFlag);

// ---- Record transfers (record_transfer.cpp) ----

// Reads a record with the card's retries and tests its checksum. Always succeeds where Buffer is given: when every
// attempt failed, Buffer is zeroed, or holds a substitute "BAD_DIR_<lba>" or "BAD_FILE_<lba>" record for the types 1
// and 2, and *Substituted (may be null) is TRUE. Such a record is shown but never cached and never written.
// BlockCount must cover the record (2, 18, 2 blocks for types 0 to 2).
[[nodiscard]] NTSTATUS VrkFsHwSCSIReadEx(HwContext* Hw, ULONG ScsiId, ULONG Lba, ULONG BlockCount, PVOID Buffer,
                                         ULONG CardMemoryFlag, ULONG RecordType, BOOLEAN AllowEmpty,
                                         PBOOLEAN Substituted);
// Writes a record; with the card's VerifyWrite each attempt is read back and compared, with the card's retries. Takes
// the verify lock; the caller may hold one of the two scratch locks.
[[nodiscard]] NTSTATUS VrkFsHwSCSIWriteEx(HwContext* Hw, ULONG ScsiId, ULONG Lba, ULONG BlockCount, PVOID Buffer,
                                          ULONG CardMemoryFlag, ULONG RecordType);

// ---- Block move inside the card (block_move.cpp) ----

[[nodiscard]] NTSTATUS VrkFsHwAcquireSCSI(HwContext* Hw);
[[nodiscard]] NTSTATUS VrkFsHwReleaseSCSI(HwContext* Hw);
// Copies a block range on one device through the card's memory, in an order that makes overlapping ranges right.
// Same place: success. BlockCount 0, or a range that passes the 32-bit address space: STATUS_UNSUCCESSFUL. After each
// chunk *Progress += chunk * Weight and *ProgressOut = *Progress / Divisor; both may be null, a Divisor of 0 leaves
// *ProgressOut alone.
[[nodiscard]] NTSTATUS VrkFsHwMoveBlocks(HwContext* Hw, ULONG ScsiId, ULONG SourceLba, ULONG BlockCount,
                                         ULONG DestinationLba, PULONGLONG Progress, ULONG Weight, ULONG Divisor,
                                         PULONG ProgressOut);

// ---- Scratch buffers ----
// The holder of a scratch lock owns the buffer for one whole read-modify-write of a record. At most one of the two at a
// time; the verify lock comes after them. EventLockGuard(&Hw->ScratchLock) does the same.
VOID VrkFsHwObtainSCSIScratchLock(HwContext* Hw);
VOID VrkFsHwReleaseSCSIScratchLock(HwContext* Hw);
VOID VrkFsHwObtainFileSCSIScratchLock(HwContext* Hw);  // released by setting FileScratchLock
