#include "fsd/irp_context.h"

#include "core/device_ext.h"
#include "core/global_data.h"
#include "core/guards.h"
#include "core/lookaside.h"
#include "core/pool.h"
#include "core/probe.h"
#include "fsd/ccb.h"
#include "fsd/common.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/vcb.h"

namespace {

constexpr USHORT kIrpContextListDepth = 10;

// The caller's buffer that a request wants locked; a length of 0 when it wants none.
struct RequestBuffer {
    ULONG Length;
    LOCK_OPERATION Access;
};

RequestBuffer RequestBufferOf(PIO_STACK_LOCATION Stack) {
    const bool describedByCaller = (Stack->MinorFunction & IRP_MN_MDL) != 0;
    switch (Stack->MajorFunction) {
        case IRP_MJ_READ:
            return {describedByCaller ? 0 : Stack->Parameters.Read.Length, IoWriteAccess};
        case IRP_MJ_WRITE:
            return {describedByCaller ? 0 : Stack->Parameters.Write.Length, IoReadAccess};
        case IRP_MJ_DIRECTORY_CONTROL:
            if (Stack->MinorFunction == IRP_MN_QUERY_DIRECTORY) {
                return {Stack->Parameters.QueryDirectory.Length, IoWriteAccess};
            }
            break;
        default:
            break;
    }
    return {0, IoReadAccess};
}

NTSTATUS VrkFsIRPContextMapUserBuffer(IRPContext* Context, const RequestBuffer& Buffer) {
    PIRP irp = Context->Irp;
    if (irp->MdlAddress != nullptr || Buffer.Length == 0) {
        return STATUS_SUCCESS;
    }
    PMDL mdl = IoAllocateMdl(irp->UserBuffer, Buffer.Length, FALSE, FALSE, irp);
    if (mdl == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (!NT_SUCCESS(VrkFsProbeAndLockPages(mdl, irp->RequestorMode, Buffer.Access))) {
        irp->MdlAddress = nullptr;
        IoFreeMdl(mdl);
        return STATUS_INVALID_USER_BUFFER;
    }
    Context->Flags |= kIrpContextOwnsMdl;
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsIRPContextMapRequestBuffer(IRPContext* Context) {
    return VrkFsIRPContextMapUserBuffer(Context, RequestBufferOf(IoGetCurrentIrpStackLocation(Context->Irp)));
}

VOID FillFromRequest(IRPContext* Context, PIRP Irp, PDEVICE_OBJECT DeviceObject) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    Context->Irp = Irp;
    Context->DeviceObject = DeviceObject;
    Context->MajorFunction = stack->MajorFunction;
    Context->MinorFunction = stack->MinorFunction;
    if (stack->FileObject == nullptr || IoIsOperationSynchronous(Irp)) {
        Context->Flags |= kIrpContextCanWait;
    }
}

VOID PrepareToPost(IRPContext* Context) {
    IoMarkIrpPending(Context->Irp);
    Context->Flags |= kIrpContextPosted;
    ExInitializeWorkItem(&Context->WorkItem, VrkFsIRPContextDispatch, Context);
}

}  // namespace

VOID VrkFsIRPContextLListInitialize(PNPAGED_LOOKASIDE_LIST List) {
    ExInitializeNPagedLookasideList(List, nullptr, nullptr, 0, sizeof(IRPContext), VrkFsPoolTag("IRPC"),
                                    kIrpContextListDepth);
}

NTSTATUS VrkFsIRPContextLListAllocate(PNPAGED_LOOKASIDE_LIST List, IRPContext** Context) {
    *Context = VrkFsLookasideAllocate<IRPContext>(List);
    return *Context != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

VOID VrkFsIRPContextLListRelease(PNPAGED_LOOKASIDE_LIST List, IRPContext* Context) {
    VrkFsLookasideFree(List, Context);
}

NTSTATUS VrkFsIRPContextAllocate(PNPAGED_LOOKASIDE_LIST List, IRPContext** Context, PIRP Irp,
                                 PDEVICE_OBJECT DeviceObject) {
    NTSTATUS status = VrkFsIRPContextLListAllocate(List, Context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    FillFromRequest(*Context, Irp, DeviceObject);
    status = VrkFsIRPContextMapRequestBuffer(*Context);
    if (!NT_SUCCESS(status)) {
        VrkFsIRPContextLListRelease(List, *Context);
        *Context = nullptr;
    }
    return status;
}

VOID VrkFsIRPContextInitializeOnStack(IRPContext* Context, PIRP Irp, PDEVICE_OBJECT DeviceObject) {
    RtlZeroMemory(Context, sizeof(*Context));
    FillFromRequest(Context, Irp, DeviceObject);
    Context->Flags |= kIrpContextOnStack | kIrpContextCanWait;
}

VOID VrkFsIRPContextFree(PNPAGED_LOOKASIDE_LIST List, IRPContext* Context) {
    if ((Context->Flags & kIrpContextOwnsMdl) != 0) {
        PMDL mdl = Context->Irp->MdlAddress;
        if ((mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) != 0) {
            MmUnmapLockedPages(mdl->MappedSystemVa, mdl);
        }
        MmUnlockPages(mdl);
        IoFreeMdl(mdl);
        Context->Irp->MdlAddress = nullptr;
    }
    if ((Context->Flags & kIrpContextOnStack) == 0) {
        VrkFsIRPContextLListRelease(List, Context);
    }
}

BOOLEAN VrkFsIRPContextMustPost(const IRPContext* Context) {
    return (Context->Flags & (kIrpContextCanWait | kIrpContextPosted)) == 0;
}

NTSTATUS VrkFsIRPContextPost(IRPContext* Context) {
    PrepareToPost(Context);
    ExQueueWorkItem(&Context->WorkItem, CriticalWorkQueue);
    return STATUS_PENDING;
}

NTSTATUS VrkFsIRPContextPostForService(IRPContext* Context) {
    PrepareToPost(Context);
    VrkFsSReqQueueWork(&VrkFsDiskExtOfDevice(Context->DeviceObject)->ServiceChannel.Worker, &Context->WorkItem);
    return STATUS_PENDING;
}

PVOID VrkFsIRPContextGetRequestBuffer(const IRPContext* Context) {
    PMDL mdl = Context->Irp->MdlAddress;
    if (mdl == nullptr) {
        return Context->Irp->UserBuffer;
    }
    // Asks for NormalPagePriority: a mapping that the system is short of comes back null instead of stopping it.
    return MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority);
}

VOID NTAPI VrkFsIRPContextDispatch(PVOID Context) {
    CriticalRegionGuard region;
    static_cast<void>(VrkFsCommonDispatch(static_cast<IRPContext*>(Context)));
}

NTSTATUS VrkFsCommonDispatch(IRPContext* Context) {
    switch (Context->MajorFunction) {
        case IRP_MJ_CREATE:
            return VrkFsCommonCreate(Context);
        case IRP_MJ_CLOSE:
            return VrkFsCommonClose(Context);
        case IRP_MJ_READ:
            return VrkFsCommonRead(Context);
        case IRP_MJ_WRITE:
            return VrkFsCommonWrite(Context);
        case IRP_MJ_QUERY_INFORMATION:
            return VrkFsCommonQueryInformation(Context);
        case IRP_MJ_SET_INFORMATION:
            return VrkFsCommonSetInformation(Context);
        case IRP_MJ_QUERY_VOLUME_INFORMATION:
            return VrkFsCommonQueryVolumeInformation(Context);
        case IRP_MJ_SET_VOLUME_INFORMATION:
            return VrkFsCommonSetVolumeInformation(Context);
        case IRP_MJ_DIRECTORY_CONTROL:
            return VrkFsCommonDirectoryCtrl(Context);
        case IRP_MJ_FILE_SYSTEM_CONTROL:
            return VrkFsCommonFileSystemCtrl(Context);
        case IRP_MJ_DEVICE_CONTROL:
            return VrkFsCommonDeviceIOCTL(Context);
        case IRP_MJ_CLEANUP:
            return VrkFsCommonCleanup(Context);
        default:  // no other function is posted
            return VrkFsCompleteRequest(Context, STATUS_INVALID_DEVICE_REQUEST, 0);
    }
}

NTSTATUS VrkFsCompleteRequest(IRPContext* Context, NTSTATUS Status, ULONG_PTR Information) {
    if (Status == STATUS_PENDING) {
        return Status;
    }
    PIRP irp = Context->Irp;
    irp->IoStatus.Status = Status;
    irp->IoStatus.Information = Information;
    VrkFsIRPContextFree(&pVrkFsGlobalData->IrpContextLookaside, Context);
    IoCompleteRequest(irp, IO_DISK_INCREMENT);
    return Status;
}

NTSTATUS VrkFsAnswerRequest(PIRP Irp, NTSTATUS Status) {
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = 0;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return Status;
}

NTSTATUS VrkFsEnterRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp, VrkFsCommonRoutine Common) {
    CriticalRegionGuard region;
    if (VrkFsExtTypeOfDevice(DeviceObject) == kExtTypeControl) {
        return VrkFsAnswerRequest(Irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    IRPContext* context = nullptr;
    const NTSTATUS status =
        VrkFsIRPContextAllocate(&pVrkFsGlobalData->IrpContextLookaside, &context, Irp, DeviceObject);
    return NT_SUCCESS(status) ? Common(context) : VrkFsAnswerRequest(Irp, status);
}

NTSTATUS VrkFsEnterEndingRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp, VrkFsCommonRoutine Common) {
    CriticalRegionGuard region;
    IRPContext* context = nullptr;
    if (NT_SUCCESS(VrkFsIRPContextAllocate(&pVrkFsGlobalData->IrpContextLookaside, &context, Irp, DeviceObject))) {
        return Common(context);
    }
    IRPContext onStack;
    VrkFsIRPContextInitializeOnStack(&onStack, Irp, DeviceObject);
    return Common(&onStack);
}

VrkFsRequestType VrkFsGetRequestType(PFILE_OBJECT FileObject, VCB** Vcb, PVOID* FcbOrVcb, CCB** Ccb) {
    *Vcb = nullptr;
    *FcbOrVcb = nullptr;
    *Ccb = nullptr;
    if (FileObject == nullptr) {
        return kVrkFsForeignOpen;
    }
    // A control handle has its own record here, which begins with another value; a file object that is still being
    // created, or that nobody of ours has opened, has none.
    CCB* ccb = static_cast<CCB*>(FileObject->FsContext2);
    if (ccb == nullptr || FileObject->FsContext == nullptr || ccb->Type != kCcbType) {
        return kVrkFsForeignOpen;
    }
    *Ccb = ccb;
    *FcbOrVcb = FileObject->FsContext;
    if (*static_cast<const ULONG*>(FileObject->FsContext) == kVcbNodeType) {
        *Vcb = static_cast<VCB*>(FileObject->FsContext);
        return kVrkFsVolumeOpen;
    }
    FCB* fcb = static_cast<FCB*>(FileObject->FsContext);
    *Vcb = fcb->Common->Vcb;
    return (fcb->Flags & kFcbFolder) != 0 ? kVrkFsFolderOpen : kVrkFsFileOpen;
}

VOID VrkFsInitializeListIterator(ListIterator* Iterator, PLIST_ENTRY Head) {
    Iterator->Head = Head;
    Iterator->Next = Head->Flink;
}

BOOLEAN VrkFsIterateList(ListIterator* Iterator, PLIST_ENTRY* Entry) {
    if (Iterator->Next == Iterator->Head) {
        return FALSE;
    }
    *Entry = Iterator->Next;
    Iterator->Next = Iterator->Next->Flink;
    return TRUE;
}
