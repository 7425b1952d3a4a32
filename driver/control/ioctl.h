// Device-control requests: the private control codes of the control device, their dispatch and their handlers.
#pragma once

#include "nt.h"

#include <vrkfs/control.h>

struct CardInstance;
struct FCB;
struct IRPContext;

// ---- Codes and lengths (control_codes.cpp) ----

// What a code demands of its buffers before its handler changes anything.
struct ControlCodeRule {
    ULONG Code;
    USHORT InLength;   // smallest input in bytes
    USHORT OutLength;  // smallest output in bytes
    BOOLEAN Posted;    // its work is done on a worker thread
};

// The rule of a code, or null for a code that does not exist.
[[nodiscard]] const ControlCodeRule* VrkFsIoctlFindRule(ULONG Code);
// STATUS_BUFFER_TOO_SMALL when the request's buffers are shorter than its code demands; STATUS_INVALID_DEVICE_REQUEST
// for a code that does not exist. The dispatch asks this once for every request: handlers rely on their lengths.
[[nodiscard]] NTSTATUS VrkFsIoctlCheckLengths(PIRP Irp);
// The same for the two codes whose buffers must also be as long as the input says (a list of file types, a service
// response). After VrkFsIoctlCheckLengths; the other codes pass.
[[nodiscard]] NTSTATUS VrkFsIoctlCheckContentLength(PIRP Irp);

// ---- Dispatch (dispatch.cpp); VrkFsDeviceIOCTL, the entry point, and VrkFsCommonDeviceIOCTL, the worker's pass of a
// posted code, are declared with their kind ----

[[nodiscard]] NTSTATUS VrkFsGenericDeviceIOCTL(PDEVICE_OBJECT DeviceObject, PIRP Irp);
// The file-system device accepts no code at all.
[[nodiscard]] NTSTATUS VrkFsDiskDeviceIOCTL(PDEVICE_OBJECT DeviceObject, PIRP Irp);

[[nodiscard]] inline ULONG VrkFsIoctlCodeOf(PIRP Irp) {
    return IoGetCurrentIrpStackLocation(Irp)->Parameters.DeviceIoControl.IoControlCode;
}
template <typename Record>
[[nodiscard]] inline Record* VrkFsIoctlSystemBuffer(PIRP Irp) {
    return static_cast<Record*>(Irp->AssociatedIrp.SystemBuffer);
}

// ---- Handles (file_handle.cpp) ----

// What a code takes: one or both.
inline constexpr ULONG kIoctlWantFolder = 0x1;
inline constexpr ULONG kIoctlWantFile = 0x2;

// Resolves a handle of the calling process to an open folder or file of the card's drive. The look-up's failure as it
// is; STATUS_UNSUCCESSFUL for an object of another kind, card or driver. On success *FileObject is referenced: the
// caller dereferences it when it holds none of the driver's locks any more, since the last reference closes the file.
// The caller holds the card's VCB resource, so the file is not cleaned up meanwhile.
[[nodiscard]] NTSTATUS VrkFsIoctlReferenceFile(const CardInstance* Card, ULONG Handle, ULONG Wanted,
                                               PFILE_OBJECT* FileObject, FCB** Fcb);

// The same for a media or plain file at its own level, which is what the codes for recorders and players take.
[[nodiscard]] NTSTATUS VrkFsIoctlReferenceMediaFile(const CardInstance* Card, ULONG Handle, PFILE_OBJECT* FileObject,
                                                    FCB** Fcb);
// The FCBCommon's Resource is held. STATUS_FILE_DELETED; STATUS_FILE_CORRUPT_ERROR for a change of a file whose record
// could not be read.
[[nodiscard]] NTSTATUS VrkFsIoctlCheckFile(const FCB* Fcb, BOOLEAN Changes);

// ---- Handlers: they set IoStatus.Information and leave status and completion to the dispatch ----

// volume_codes.cpp
[[nodiscard]] NTSTATUS VrkFsIoctlDismountVolume(PDEVICE_OBJECT DeviceObject, PIRP Irp);
[[nodiscard]] NTSTATUS VrkFsIoctlFormatVolume(PDEVICE_OBJECT DeviceObject, PIRP Irp);
[[nodiscard]] NTSTATUS VrkFsIoctlQueryVolumeInfo(PDEVICE_OBJECT DeviceObject, PIRP Irp);
[[nodiscard]] NTSTATUS VrkFsIoctlLockFileSystem(PDEVICE_OBJECT DeviceObject, PIRP Irp);
[[nodiscard]] NTSTATUS VrkFsIoctlUnlockFileSystem(PDEVICE_OBJECT DeviceObject, PIRP Irp);
// space_estimate.cpp
[[nodiscard]] NTSTATUS VrkFsIoctlGetVolumeSpaceInfo(PDEVICE_OBJECT DeviceObject, PIRP Irp);
// settings_codes.cpp
[[nodiscard]] NTSTATUS VrkFsIoctlGetPreferences(PDEVICE_OBJECT DeviceObject, PIRP Irp);
[[nodiscard]] NTSTATUS VrkFsIoctlSetPreferences(PDEVICE_OBJECT DeviceObject, PIRP Irp);
[[nodiscard]] NTSTATUS VrkFsIoctlGetScsiPrefs(PDEVICE_OBJECT DeviceObject, PIRP Irp);
[[nodiscard]] NTSTATUS VrkFsIoctlSetScsiPrefs(PDEVICE_OBJECT DeviceObject, PIRP Irp);
[[nodiscard]] NTSTATUS VrkFsIoctlRegisterFileTypes(PDEVICE_OBJECT DeviceObject, PIRP Irp);
[[nodiscard]] NTSTATUS VrkFsIoctlUnregisterFileTypes(PDEVICE_OBJECT DeviceObject, PIRP Irp);
[[nodiscard]] NTSTATUS VrkFsIoctlRegisterSDTIFlags(PDEVICE_OBJECT DeviceObject, PIRP Irp);
// service_codes.cpp; STATUS_PENDING until the driver has used what was posted
[[nodiscard]] NTSTATUS VrkFsIoctlSendServiceRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp);
[[nodiscard]] NTSTATUS VrkFsIoctlSendServiceResponse(PDEVICE_OBJECT DeviceObject, PIRP Irp);
// media_file_codes.cpp
[[nodiscard]] NTSTATUS VrkFsIoctlAllocateVideoSpace(PDEVICE_OBJECT DeviceObject, PIRP Irp);
[[nodiscard]] NTSTATUS VrkFsIoctlUpdateVideoFile(PDEVICE_OBJECT DeviceObject, PIRP Irp);
[[nodiscard]] NTSTATUS VrkFsIoctlGetFileInfo(PDEVICE_OBJECT DeviceObject, PIRP Irp);
[[nodiscard]] NTSTATUS VrkFsIoctlGetFileLocationInfo(PDEVICE_OBJECT DeviceObject, PIRP Irp);
[[nodiscard]] NTSTATUS VrkFsIoctlGetFileEntry(PDEVICE_OBJECT DeviceObject, PIRP Irp);
[[nodiscard]] NTSTATUS VrkFsIoctlSetAppFileEntryInfo(PDEVICE_OBJECT DeviceObject, PIRP Irp);
[[nodiscard]] NTSTATUS VrkFsIoctlSetSDTIType(PDEVICE_OBJECT DeviceObject, PIRP Irp);
// body_table_codes.cpp; the first five are posted (either pass)
[[nodiscard]] NTSTATUS VrkFsIoctlReferenceBodyTable(IRPContext* Context);
[[nodiscard]] NTSTATUS VrkFsIoctlDereferenceBodyTable(IRPContext* Context);
[[nodiscard]] NTSTATUS VrkFsIoctlCreateNewBodyTable(IRPContext* Context);
[[nodiscard]] NTSTATUS VrkFsIoctlAddVideoNodesToBodyTable(IRPContext* Context);
[[nodiscard]] NTSTATUS VrkFsIoctlAddAlphaNodesToBodyTable(IRPContext* Context);
[[nodiscard]] NTSTATUS VrkFsIoctlRequestBodyTableFlushSuspend(PDEVICE_OBJECT DeviceObject, PIRP Irp);
[[nodiscard]] NTSTATUS VrkFsIoctlRequestBodyTableFlushResume(PDEVICE_OBJECT DeviceObject, PIRP Irp);
// segment_move.cpp, posted
[[nodiscard]] NTSTATUS VrkFsIoctlMoveFileSegments(IRPContext* Context);
