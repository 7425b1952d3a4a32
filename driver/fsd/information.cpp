#include "fsd/information.h"

#include "core/guards.h"
#include "fsd/ccb.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/irp_context.h"
#include "fsd/vcb.h"

namespace {

bool IsQuery(const IRPContext* Context) {
    return Context->MajorFunction == IRP_MJ_QUERY_INFORMATION ||
           Context->MajorFunction == IRP_MJ_QUERY_VOLUME_INFORMATION;
}

bool IsAboutFile(const IRPContext* Context) {
    return Context->MajorFunction == IRP_MJ_QUERY_INFORMATION || Context->MajorFunction == IRP_MJ_SET_INFORMATION;
}

// FALSE for a handle that the request cannot be about.
bool FindObject(const IRPContext* Context, InformationRequest* Request) {
    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(Context->Irp)->FileObject;
    PVOID fcbOrVcb = nullptr;
    CCB* ccb = nullptr;
    switch (VrkFsGetRequestType(fileObject, &Request->Vcb, &fcbOrVcb, &ccb)) {
        case kVrkFsVolumeOpen:
            return !IsAboutFile(Context);
        case kVrkFsFolderOpen:
        case kVrkFsFileOpen:
            Request->Fcb = static_cast<FCB*>(fcbOrVcb);
            return true;
        default:
            return false;
    }
}

VOID Lock(ResourceGuard* Guard, PERESOURCE Resource, bool Shared) {
    if (Shared) {
        Guard->Shared(Resource);
    } else {
        Guard->Exclusive(Resource);
    }
}

}  // namespace

NTSTATUS VrkFsServeInformation(IRPContext* Context, ULONG Class, ULONG Length, VrkFsInformationRoutine Routine,
                               FrameImport** Import) {
    if (VrkFsIRPContextMustPost(Context)) {
        return VrkFsIRPContextPost(Context);
    }
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Context->Irp);
    InformationRequest request = {};
    request.Class = Class;
    request.Buffer = Context->Irp->AssociatedIrp.SystemBuffer;
    request.Length = Length;
    request.FileObject = stack->FileObject;
    if (Context->MajorFunction == IRP_MJ_SET_INFORMATION) {
        request.TargetFolder = stack->Parameters.SetFile.FileObject;
    }
    if (!FindObject(Context, &request)) {
        return VrkFsCompleteRequest(Context, STATUS_INVALID_PARAMETER, 0);
    }
    const bool query = IsQuery(Context);
    ResourceGuard volume;
    Lock(&volume, &request.Vcb->Resource, query);
    ResourceGuard common;
    if (IsAboutFile(Context)) {
        Lock(&common, request.Fcb->Common->Resource, query);
    }
    const NTSTATUS status = Routine(&request);
    if (Import != nullptr) {
        *Import = request.Import;
    }
    return VrkFsCompleteRequest(Context, status, query && status == STATUS_SUCCESS ? request.Length : 0);
}
