// What reads and writes of the file-system device have in common: what the handle stands for, which locks the transfer
// runs under, and the transfer through the user-mode service.
#pragma once

#include <nt.h>

#include "core/file_types.h"
#include "core/guards.h"

struct CardInstance;
struct CCB;
struct DiskDeviceExt;
struct FCB;
struct FCBCommon;
struct IRPContext;

// One read or write request on its way. The FCBCommon's Resource is held exclusively from VrkFsBeginDataRequest to
// wherever CommonLock is released, so one transfer at a time runs per file on disk, whichever of its paths the handle
// uses.
struct DataRequest {
    IRPContext* Context;
    PFILE_OBJECT FileObject;
    struct FCB* Fcb;
    struct CCB* Ccb;
    FCBCommon* Common;
    CardInstance* Card;
    DiskDeviceExt* Ext;
    FileType Type;     // row of the FCB's type folder; not meaningful for a command port
    ULONG Length;      // bytes asked for
    ULONGLONG Offset;  // bytes
    ULONG Count;       // bytes to move, then bytes moved
    PUCHAR Buffer;     // system address, or null until it is needed
    ResourceGuard CommonLock;
};

// Posts the request: where it may have to wait for the service, to the service's worker, so that enough of the system's
// are left for the service's own requests.
[[nodiscard]] NTSTATUS VrkFsPostDataRequest(IRPContext* Context);

// Fills the request (zeroed by the caller) and takes the lock. STATUS_UNSUCCESSFUL without a file object,
// STATUS_ACCESS_DENIED for anything but a file, STATUS_FILE_DELETED for a file that is gone. A length of 0 succeeds
// whatever the file: the caller answers it at once.
[[nodiscard]] NTSTATUS VrkFsBeginDataRequest(IRPContext* Context, ULONG Length, LARGE_INTEGER Offset,
                                             DataRequest* Request);
// Finds the caller's buffer. STATUS_INSUFFICIENT_RESOURCES when it cannot be mapped.
[[nodiscard]] NTSTATUS VrkFsMapDataRequest(DataRequest* Request);
// The success of a transfer: moves the file object's byte offset behind what was moved and releases CommonLock. After a
// failure the lock goes when the request has been completed.
VOID VrkFsFinishDataRequest(DataRequest* Request);

[[nodiscard]] BOOLEAN VrkFsIsCommandPort(const DataRequest* Request);
// A file under the built-in type, which the driver serves as one image.
[[nodiscard]] BOOLEAN VrkFsIsMediaPath(const DataRequest* Request);

// A command port's transfer runs under the FCB's own lock: its commands may have to wait for the service.
VOID VrkFsLockCommandPort(DataRequest* Request, ResourceGuard* PortLock);

// Releases CommonLock and moves the data of a frame file through the service. No lock is held while the service is
// waited for: its own requests need them. STATUS_UNSUCCESSFUL when there is no service or it fails; a read that fails
// marks the FCB, so that no later one is tried.
enum class ServiceDirection { Read, Write };
[[nodiscard]] NTSTATUS VrkFsMoveThroughService(DataRequest* Request, ServiceDirection Direction);
