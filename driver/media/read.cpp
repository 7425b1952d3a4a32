// IRP_MJ_READ of the file-system device. There is no cache: every read goes to the path that serves the handle's
// object.
#include <nt.h>
#include <vrkfs/port.h>

#include <algorithm>

#include "control/com_port.h"
#include "core/card_instance.h"
#include "core/driver_entry.h"
#include "core/strings.h"
#include "fsd/ccb.h"
#include "fsd/common.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/irp_context.h"
#include "fsd/name_tree.h"
#include "fsd/vcb.h"
#include "media/body_table_cache.h"
#include "media/data_request.h"
#include "media/frame_name.h"
#include "media/media_file.h"
#include "media/ram_files.h"
#include "volume/entries.h"

namespace {

constexpr ULONGLONG kCommandPortSize = 256;  // bytes
constexpr ULONG kFlushAttempts = 4;

// The size that the read is measured by. A file without a record in memory has none.
ULONGLONG ReadableSize(const DataRequest* Request) {
    const FCB* fcb = Request->Fcb;
    if (VrkFsIsCommandPort(Request)) {
        return kCommandPortSize;
    }
    if ((fcb->Flags & kFcbRamFile) != 0) {
        return fcb->RamFile != nullptr ? fcb->RamFile->EndOfFile : 0;
    }
    const FileEntry* entry = Request->Common->FileEntry;
    if (entry == nullptr) {
        return 0;
    }
    return fcb->Level == kLevelFile ? VrkFsHwGetFileAllocationSize(entry)
                                    : VrkFsGetFrameFileSize(fcb->TypeIndex, entry);
}

BOOLEAN HasUsableMediaObject(const FCB* Fcb) {
    return (Fcb->Flags & kFcbMediaObject) != 0 && VrkFsRZVIsReadable(&Fcb->MediaFileObject);
}

// Has the body tables that applications share written back, so that the disk holds the latest. This may wait for a
// thread, so it runs without the file's lock.
VOID FlushSharedTables(DataRequest* Request) {
    Request->CommonLock.Release();
    VCB* vcb = Request->Common->Vcb;
    UNICODE_STRING name = {};
    ResourceGuard vcbLock;
    vcbLock.Shared(&vcb->Resource);
    NTSTATUS status = VrkFsFCBCommonSetupFullName(vcb, Request->Fcb, Request->Common);
    if (NT_SUCCESS(status)) {
        status = VrkFsRtlCopyUnicodeString(&name, &Request->Common->FullName);
    }
    vcbLock.Release();
    if (NT_SUCCESS(status)) {
        VrkFsBTFlushObjectByName(&Request->Card->BodyTableCache, &name);
        VrkFsRtlFreeUnicodeString(&name);
    }
    Request->CommonLock.Exclusive(Request->Common->Resource);
}

BOOLEAN IsMediaFile(const DataRequest* Request) {
    const FileEntry* entry = Request->Common->FileEntry;
    return entry != nullptr && entry->Kind == kFileKindMedia;
}

// Whether the image has to be set up: on the first read, and again when the file has got another layout since. An
// object that serves nothing any more is dropped.
BOOLEAN NeedsMediaObject(DataRequest* Request) {
    if (!VrkFsIsMediaPath(Request) || HasUsableMediaObject(Request->Fcb)) {
        return FALSE;
    }
    VrkFsFCBDropMediaObject(Request->Fcb);
    return IsMediaFile(Request);
}

NTSTATUS PrepareMediaObject(DataRequest* Request) {
    FCB* fcb = Request->Fcb;
    if (!NeedsMediaObject(Request)) {
        return STATUS_SUCCESS;
    }
    // Tables that were settled during the flush are not the ones that it wrote. Who changes them without end is not
    // waited for.
    ULONG generation = 0;
    for (ULONG attempt = 0;
         attempt < kFlushAttempts && (attempt == 0 || generation != Request->Common->LayoutGeneration); attempt++) {
        generation = Request->Common->LayoutGeneration;
        FlushSharedTables(Request);
        if ((Request->Common->Flags & kFcbCommonDeleted) != 0) {
            return STATUS_FILE_DELETED;
        }
        if (!NeedsMediaObject(Request)) {
            return STATUS_SUCCESS;
        }
    }
    const NTSTATUS status = VrkFsRZVInitializeFileObjectForRead(&fcb->MediaFileObject, fcb);
    if (NT_SUCCESS(status)) {
        fcb->Flags |= kFcbMediaObject;
    }
    return status;
}

NTSTATUS ReadCommandPort(DataRequest* Request) {
    ResourceGuard portLock;
    VrkFsLockCommandPort(Request, &portLock);
    return VrkFsComPortRead(Request->Ccb->ComPort, Request->Buffer, static_cast<ULONG>(Request->Offset),
                            static_cast<ULONG>(Request->Offset >> 32), &Request->Count);
}

NTSTATUS TransferRead(DataRequest* Request) {
    FCB* fcb = Request->Fcb;
    const bool isBuiltIn = Request->Type.TypeCode == VRKFS_FILE_TYPE_BUILT_IN;
    if (VrkFsIsCommandPort(Request)) {
        return ReadCommandPort(Request);
    }
    if (isBuiltIn && (fcb->Flags & kFcbMediaObject) != 0) {
        return VrkFsRZVFileRead(&fcb->MediaFileObject, Request->Buffer, Request->Offset, &Request->Count,
                                &Request->Ccb->MediaCursor);
    }
    if ((fcb->Flags & kFcbRamFile) != 0) {
        return VrkFsVFReadFile(fcb->RamFile, Request->Buffer, Request->Offset, &Request->Count);
    }
    if (isBuiltIn && !IsMediaFile(Request)) {
        return STATUS_ACCESS_DENIED;
    }
    // The file itself under another type has no data path; only its frame files have.
    if (fcb->Level != kLevelFrame) {
        return STATUS_ACCESS_DENIED;
    }
    return VrkFsMoveThroughService(Request, ServiceDirection::Read);
}

NTSTATUS PerformRead(IRPContext* Context, DataRequest* Request) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Context->Irp);
    NTSTATUS status =
        VrkFsBeginDataRequest(Context, stack->Parameters.Read.Length, stack->Parameters.Read.ByteOffset, Request);
    if (!NT_SUCCESS(status) || Request->Length == 0) {
        return status;
    }
    if ((Request->Fcb->Flags & kFcbServiceReadFailed) != 0) {
        return STATUS_UNSUCCESSFUL;
    }
    status = PrepareMediaObject(Request);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const ULONGLONG size = ReadableSize(Request);
    if (Request->Offset >= size) {
        return STATUS_END_OF_FILE;
    }
    Request->Count = static_cast<ULONG>(std::min<ULONGLONG>(Request->Length, size - Request->Offset));
    status = VrkFsMapDataRequest(Request);
    if (NT_SUCCESS(status)) {
        status = TransferRead(Request);
    }
    if (NT_SUCCESS(status)) {
        VrkFsFinishDataRequest(Request);
    }
    return status;
}

}  // namespace

NTSTATUS VrkFsCommonRead(IRPContext* Context) {
    if (VrkFsIRPContextMustPost(Context)) {
        return VrkFsPostDataRequest(Context);
    }
    DataRequest request = {};
    const NTSTATUS status = PerformRead(Context, &request);
    return VrkFsCompleteRequest(Context, status, NT_SUCCESS(status) ? request.Count : 0);
}

NTSTATUS NTAPI VrkFsRead(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return VrkFsEnterRequest(DeviceObject, Irp, VrkFsCommonRead);
}
