#include "control/posted_file.h"

#include "control/ioctl.h"
#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/global_data.h"
#include "core/guards.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/irp_context.h"
#include "fsd/vcb.h"

namespace {

VCB* VcbOf(const IRPContext* Context) {
    return &VrkFsDiskExtOfDevice(VrkFsCardOfDevice(Context->DeviceObject)->DiskDevice)->Vcb;
}

uint32_t* ScratchOf(const IRPContext* Context, ULONG Offset) {
    return static_cast<uint32_t*>(static_cast<PVOID>(VrkFsIoctlSystemBuffer<UCHAR>(Context->Irp) + Offset));
}

NTSTATUS CheckAndPost(IRPContext* Context, ULONG ScratchOffset) {
    NTSTATUS status;
    PostedFile file = {};
    {
        ResourceGuard volume;
        volume.Shared(&VcbOf(Context)->Resource);
        status = VrkFsIoctlResolvePosted(Context, &file);
    }
    if (NT_SUCCESS(status)) {
        const ULONG token = NtTokenCreate(file.FileObject);
        if (token != 0) {
            *ScratchOf(Context, ScratchOffset) = token;
            return VrkFsIRPContextPost(Context);
        }
        ObDereferenceObject(file.FileObject);
        status = STATUS_INSUFFICIENT_RESOURCES;
    }
    VrkFsIRPContextFree(&pVrkFsGlobalData->IrpContextLookaside, Context);
    return status;
}

NTSTATUS WorkLocked(IRPContext* Context, const PostedFile* File, PostedFileWork Work) {
    ResourceGuard volume;
    volume.Shared(&VcbOf(Context)->Resource);
    ResourceGuard common;
    common.Exclusive(File->Fcb->Common->Resource);
    const NTSTATUS status = VrkFsIoctlCheckPosted(File);
    return NT_SUCCESS(status) ? Work(Context, File) : status;
}

}  // namespace

NTSTATUS VrkFsIoctlRunPosted(IRPContext* Context, ULONG ScratchOffset, PostedFileWork Work) {
    if ((Context->Flags & kIrpContextPosted) == 0) {
        return CheckAndPost(Context, ScratchOffset);
    }
    const PostedFile file = VrkFsIoctlTakePosted(ScratchOf(Context, ScratchOffset));
    const NTSTATUS status = WorkLocked(Context, &file, Work);
    ObDereferenceObject(file.FileObject);  // perhaps the last reference: the file closes, which wants the locks
    return status;
}

NTSTATUS VrkFsIoctlResolvePosted(const IRPContext* Context, PostedFile* File) {
    const ULONG handle = *VrkFsIoctlSystemBuffer<const ULONG>(Context->Irp);
    return VrkFsIoctlReferenceMediaFile(VrkFsCardOfDevice(Context->DeviceObject), handle, &File->FileObject,
                                        &File->Fcb);
}

PostedFile VrkFsIoctlTakePosted(uint32_t* Scratch) {
    PostedFile file = {};
    file.FileObject = static_cast<PFILE_OBJECT>(NtTokenResolve(*Scratch));
    NtTokenRelease(*Scratch);
    *Scratch = 0;
    VCB* vcb = nullptr;
    CCB* ccb = nullptr;
    PVOID fcb = nullptr;
    static_cast<void>(VrkFsGetRequestType(file.FileObject, &vcb, &fcb, &ccb));
    file.Fcb = static_cast<FCB*>(fcb);
    return file;
}

NTSTATUS VrkFsIoctlCheckPosted(const PostedFile* File) {
    if ((File->FileObject->Flags & FO_CLEANUP_COMPLETE) != 0) {
        return STATUS_FILE_CLOSED;
    }
    return VrkFsIoctlCheckFile(File->Fcb, TRUE);
}
