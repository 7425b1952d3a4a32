#include "media/data_request.h"

#include "control/service_channel.h"
#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/global_data.h"
#include "core/pool.h"
#include "core/strings.h"
#include "fsd/ccb.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/irp_context.h"
#include "fsd/name_tree.h"
#include "media/frame_name.h"

namespace {

// A private copy of the media file's path: while the service is waited for, a rename may drop the cached one. The path
// of a file that is gone by now may be another file's.
NTSTATUS CopyMediaName(const DataRequest* Request, PUNICODE_STRING Name) {
    VCB* vcb = Request->Common->Vcb;
    ResourceGuard vcbLock;
    vcbLock.Shared(&vcb->Resource);
    if ((Request->Common->Flags & kFcbCommonDeleted) != 0) {
        return STATUS_FILE_DELETED;
    }
    const NTSTATUS status = VrkFsFCBCommonSetupFullName(vcb, Request->Fcb->Parent, Request->Common);
    return NT_SUCCESS(status) ? VrkFsRtlCopyUnicodeString(Name, &Request->Common->FullName) : status;
}

// None, or one of the connection that stands.
ServiceHandle LookUpServiceHandle(const DataRequest* Request) {
    ResourceGuard lock;
    lock.Shared(Request->Fcb->Resource);
    const ServiceHandle handle = Request->Fcb->ServiceHandle;
    return VrkFsSReqIsCurrent(&Request->Ext->ServiceChannel, handle) ? handle : ServiceHandle{};
}

// Two transfers may both find the file unopened and both ask the service: the first answer stays while it is good for
// anything. FALSE: another one does, which *Handle is now; *Close is the caller's if it comes back.
BOOLEAN PublishServiceHandle(ServiceChannel* Channel, FCB* Fcb, ServiceHandle* Handle, ServiceClose** Close) {
    ResourceGuard lock;
    lock.Exclusive(Fcb->Resource);
    if (Fcb->ServiceHandle.Value != 0 && VrkFsSReqIsCurrent(Channel, Fcb->ServiceHandle)) {
        *Handle = Fcb->ServiceHandle;
        return FALSE;
    }
    Fcb->ServiceHandle = *Handle;
    if (Fcb->ServiceClose == nullptr) {
        Fcb->ServiceClose = *Close;
        *Close = nullptr;
    }
    return TRUE;
}

NTSTATUS AskForHandle(const DataRequest* Request, ServiceHandle* Handle) {
    UNICODE_STRING name = {};
    NTSTATUS status = CopyMediaName(Request, &name);
    if (NT_SUCCESS(status)) {
        status = VrkFsSReqOpen(&Request->Ext->ServiceChannel, VrkFsGlobDriveLetter(Request->Card), &name, Handle);
        VrkFsRtlFreeUnicodeString(&name);
    }
    return status;
}

NTSTATUS OpenServiceHandle(const DataRequest* Request, ServiceHandle* Handle) {
    *Handle = LookUpServiceHandle(Request);
    if (Handle->Value != 0) {
        return STATUS_SUCCESS;
    }
    ServiceChannel* channel = &Request->Ext->ServiceChannel;
    ServiceClose* close = nullptr;
    NTSTATUS status = VrkFsSReqPrepareClose(channel, &close);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = AskForHandle(Request, Handle);
    const ServiceHandle opened = *Handle;
    if (NT_SUCCESS(status) && !PublishServiceHandle(channel, Request->Fcb, Handle, &close)) {
        static_cast<void>(VrkFsSReqClose(channel, opened));
    }
    VrkFsFreePool(close);
    return status;
}

// A service that has failed to read is not asked again through this FCB; one that could not open the file is.
NTSTATUS ReadThroughService(const DataRequest* Request, ServiceHandle Handle) {
    const NTSTATUS status = VrkFsSReqRead(
        &Request->Ext->ServiceChannel, Handle, Request->Type.TypeCode, static_cast<ULONG>(Request->Offset),
        static_cast<ULONG>(Request->Offset >> 32), Request->Count, Request->Fcb->EntryIndex, Request->Buffer);
    if (!NT_SUCCESS(status)) {
        Request->Fcb->Flags |= kFcbServiceReadFailed;
    }
    return status;
}

NTSTATUS WriteThroughService(const DataRequest* Request, ServiceHandle Handle) {
    return VrkFsSReqWrite(&Request->Ext->ServiceChannel, Handle, Request->Type.TypeCode,
                          static_cast<ULONG>(Request->Offset), static_cast<ULONG>(Request->Offset >> 32),
                          Request->Count, Request->Fcb->EntryIndex, Request->Buffer);
}

}  // namespace

NTSTATUS VrkFsPostDataRequest(IRPContext* Context) {
    VCB* vcb = nullptr;
    CCB* ccb = nullptr;
    PVOID fcbOrVcb = nullptr;
    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(Context->Irp)->FileObject;
    if (VrkFsGetRequestType(fileObject, &vcb, &fcbOrVcb, &ccb) != kVrkFsFileOpen) {
        return VrkFsIRPContextPost(Context);
    }
    const FCB* fcb = static_cast<const FCB*>(fcbOrVcb);
    const bool waits = VrkFsFCBIsFrame(fcb) || (fcb->Flags & kFcbCommandPort) != 0;
    return waits ? VrkFsIRPContextPostForService(Context) : VrkFsIRPContextPost(Context);
}

BOOLEAN VrkFsIsCommandPort(const DataRequest* Request) {
    return (Request->Fcb->Flags & kFcbCommandPort) != 0;
}

BOOLEAN VrkFsIsMediaPath(const DataRequest* Request) {
    return Request->Fcb->Level == kLevelFile && !VrkFsIsCommandPort(Request) &&
           Request->Type.TypeCode == VRKFS_FILE_TYPE_BUILT_IN;
}

NTSTATUS VrkFsBeginDataRequest(IRPContext* Context, ULONG Length, LARGE_INTEGER Offset, DataRequest* Request) {
    Request->Context = Context;
    Request->FileObject = IoGetCurrentIrpStackLocation(Context->Irp)->FileObject;
    if (Request->FileObject == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    VCB* vcb = nullptr;
    PVOID fcb = nullptr;
    if (VrkFsGetRequestType(Request->FileObject, &vcb, &fcb, &Request->Ccb) != kVrkFsFileOpen) {
        return STATUS_ACCESS_DENIED;
    }
    Request->Fcb = static_cast<FCB*>(fcb);
    Request->Common = Request->Fcb->Common;
    Request->Ext = VrkFsDiskExtOfDevice(Context->DeviceObject);
    Request->Card = Request->Ext->Instance;
    Request->Type = VrkFsGlobFileType(pVrkFsGlobalData, Request->Fcb->TypeIndex);
    Request->Length = Length;
    Request->Offset = static_cast<ULONGLONG>(Offset.QuadPart);
    Request->CommonLock.Exclusive(Request->Common->Resource);
    const bool isDeleted = (Request->Common->Flags & kFcbCommonDeleted) != 0 && !VrkFsIsCommandPort(Request);
    return Length != 0 && isDeleted ? STATUS_FILE_DELETED : STATUS_SUCCESS;
}

NTSTATUS VrkFsMapDataRequest(DataRequest* Request) {
    Request->Buffer = static_cast<PUCHAR>(VrkFsIRPContextGetRequestBuffer(Request->Context));
    return Request->Buffer != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

VOID VrkFsFinishDataRequest(DataRequest* Request) {
    Request->FileObject->CurrentByteOffset.QuadPart = static_cast<LONGLONG>(Request->Offset + Request->Count);
    Request->CommonLock.Release();
}

VOID VrkFsLockCommandPort(DataRequest* Request, ResourceGuard* PortLock) {
    Request->CommonLock.Release();
    PortLock->Exclusive(Request->Fcb->Resource);
}

NTSTATUS VrkFsMoveThroughService(DataRequest* Request, ServiceDirection Direction) {
    Request->CommonLock.Release();
    ServiceHandle handle = {};
    const NTSTATUS status = OpenServiceHandle(Request, &handle);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return Direction == ServiceDirection::Read ? ReadThroughService(Request, handle)
                                               : WriteThroughService(Request, handle);
}
