// How applications get at the body tables of a file in shared memory: attach them, make new ones, learn the sections'
// names, and say when they are done writing. All but the two suspension codes are posted: the work reads tables from
// disk and makes sections, which belong to the system process.
#include "control/ioctl.h"
#include "control/posted_file.h"
#include "core/card_instance.h"
#include "core/device_ext.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/irp_context.h"
#include "fsd/name_tree.h"
#include "media/body_table_cache.h"
#include "media/body_table_object.h"
#include "media/handle_context.h"
#include "volume/records.h"

namespace {

BodyTableCache* CacheOf(const IRPContext* Context) {
    return &VrkFsCardOfDevice(Context->DeviceObject)->BodyTableCache;
}

// The caller's buffer for a section's name.
struct NameBuffer {
    PVOID Address;
    ULONG Bytes;
};

NTSTATUS GetNameBuffer(const IRPContext* Context, NameBuffer* Name) {
    Name->Bytes = IoGetCurrentIrpStackLocation(Context->Irp)->Parameters.DeviceIoControl.OutputBufferLength;
    PMDL mdl = Context->Irp->MdlAddress;
    Name->Address = mdl != nullptr ? MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority) : nullptr;
    return Name->Bytes != 0 && Name->Address == nullptr ? STATUS_INSUFFICIENT_RESOURCES : STATUS_SUCCESS;
}

NTSTATUS GetName(const IRPContext* Context, const BodyTableObject* Object, bool Alpha, const NameBuffer& Name) {
    return Alpha ? VrkFsBTGetAlphaName(CacheOf(Context), Object, Name.Address, Name.Bytes)
                 : VrkFsBTGetVideoName(CacheOf(Context), Object, Name.Address, Name.Bytes);
}

VOID CountWriter(const IRPContext* Context, const PostedFile* File) {
    if (File->FileObject->WriteAccess) {
        VrkFsBTWriteAccessReference(CacheOf(Context), File->Fcb->Common->BodyTable);
    }
}

// The file has been recorded anew since its object was attached: the old tables are nobody's any more.
VOID LetGoOfForgotten(const IRPContext* Context, FCBCommon* Common) {
    if (Common->BodyTable != nullptr && VrkFsBTIsForgotten(CacheOf(Context), Common->BodyTable)) {
        VrkFsBTDereferenceObject(CacheOf(Context), Common->BodyTable);
        Common->BodyTable = nullptr;
    }
}

NTSTATUS AttachFromDisk(const IRPContext* Context, FCB* Fcb) {
    FCBCommon* common = Fcb->Common;
    LetGoOfForgotten(Context, common);
    if (common->BodyTable != nullptr) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = VrkFsFCBCommonSetupFullName(common->Vcb, Fcb, common);
    return NT_SUCCESS(status) ? VrkFsBTReferenceObject(CacheOf(Context), &common->FullName, Fcb, &common->BodyTable)
                              : status;
}

NTSTATUS ReferenceTable(IRPContext* Context, const PostedFile* File) {
    const auto* request = VrkFsIoctlSystemBuffer<const VrkFsBodyTableReference>(Context->Irp);
    NameBuffer name;
    NTSTATUS status = GetNameBuffer(Context, &name);
    if (NT_SUCCESS(status)) {
        status = AttachFromDisk(Context, File->Fcb);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const BodyTableObject* object = File->Fcb->Common->BodyTable;
    status = GetName(Context, object, request->Alpha != 0, name);
    if (NT_SUCCESS(status)) {
        CountWriter(Context, File);
    }
    return status;
}

NTSTATUS DereferenceTable(IRPContext* Context, const PostedFile* File) {
    BodyTableObject* object = File->Fcb->Common->BodyTable;
    if (object != nullptr && File->FileObject->WriteAccess) {
        VrkFsBTWriteAccessDereference(CacheOf(Context), object);
    }
    return STATUS_SUCCESS;
}

NTSTATUS CreateTable(IRPContext* Context, const PostedFile* File) {
    const ULONG frames = VrkFsIoctlSystemBuffer<const VrkFsBodyTableCreation>(Context->Irp)->FrameCount;
    FCBCommon* common = File->Fcb->Common;
    LetGoOfForgotten(Context, common);
    if (common->BodyTable != nullptr) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = VrkFsFCBCommonSetupFullName(common->Vcb, File->Fcb, common);
    if (NT_SUCCESS(status)) {
        status = VrkFsBTCreateNewObject(CacheOf(Context), &common->FullName, File->Fcb, frames, &common->BodyTable);
    }
    if (NT_SUCCESS(status)) {
        CountWriter(Context, File);
    }
    return status;
}

// The table is written to this range whenever the flush thread comes by, so it must be the one that the file has.
// In a plain file's record the fields say nothing, and may be what a damaged disk made of them.
bool IsOwnTable(const VrkFsBodyTableNodes* Nodes, const FileEntry* Entry, bool Alpha, const BodyTableObject* Object) {
    if (Entry->Kind != kFileKindMedia || (Alpha && (Entry->Flags & kFileHasAlpha) == 0)) {
        return false;
    }
    const ULONG lba = Alpha ? Entry->AlphaBodyTableLba : Entry->VideoBodyTableLba;
    const ULONG blocks = Alpha ? Entry->AlphaBodyTableBlockCount : Entry->VideoBodyTableBlockCount;
    return Nodes->BodyTableLba == lba && Nodes->BodyTableBlocks <= blocks &&
           Nodes->BodyTableBlocks <= 0xFFFFFFFF / kBlockSize &&
           VrkFsHwGetBodyTableSize(Object->Frames) <= ULONGLONG{Nodes->BodyTableBlocks} * kBlockSize;
}

NTSTATUS AddNodes(IRPContext* Context, const PostedFile* File, bool Alpha) {
    const auto* nodes = VrkFsIoctlSystemBuffer<const VrkFsBodyTableNodes>(Context->Irp);
    BodyTableCache* cache = CacheOf(Context);
    BodyTableObject* object = File->Fcb->Common->BodyTable;
    NameBuffer name;
    NTSTATUS status = GetNameBuffer(Context, &name);
    if (!NT_SUCCESS(status) || object == nullptr) {
        return status;
    }
    if (!IsOwnTable(nodes, File->Fcb->Common->FileEntry, Alpha, object)) {
        return STATUS_INVALID_PARAMETER;
    }
    const ULONG bytes = nodes->BodyTableBlocks * kBlockSize;
    status = Alpha ? VrkFsBTCreateNewAlphaNodes(cache, object, nodes->BodyTableLba, bytes)
                   : VrkFsBTCreateNewVideoNodes(cache, object, nodes->BodyTableLba, bytes);
    return NT_SUCCESS(status) ? GetName(Context, object, Alpha, name) : status;
}

NTSTATUS AddVideoNodes(IRPContext* Context, const PostedFile* File) {
    return AddNodes(Context, File, false);
}

NTSTATUS AddAlphaNodes(IRPContext* Context, const PostedFile* File) {
    return AddNodes(Context, File, true);
}

}  // namespace

NTSTATUS VrkFsIoctlReferenceBodyTable(IRPContext* Context) {
    return VrkFsIoctlRunPosted(Context, offsetof(VrkFsBodyTableReference, Scratch), ReferenceTable);
}

NTSTATUS VrkFsIoctlDereferenceBodyTable(IRPContext* Context) {
    return VrkFsIoctlRunPosted(Context, offsetof(VrkFsBodyTableDereference, Scratch), DereferenceTable);
}

NTSTATUS VrkFsIoctlCreateNewBodyTable(IRPContext* Context) {
    return VrkFsIoctlRunPosted(Context, offsetof(VrkFsBodyTableCreation, Scratch), CreateTable);
}

NTSTATUS VrkFsIoctlAddVideoNodesToBodyTable(IRPContext* Context) {
    return VrkFsIoctlRunPosted(Context, offsetof(VrkFsBodyTableNodes, Scratch), AddVideoNodes);
}

NTSTATUS VrkFsIoctlAddAlphaNodesToBodyTable(IRPContext* Context) {
    return VrkFsIoctlRunPosted(Context, offsetof(VrkFsBodyTableNodes, Scratch), AddAlphaNodes);
}

NTSTATUS VrkFsIoctlRequestBodyTableFlushSuspend(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    VrkFsHCBodyTableFlushSuspend(VrkFsHCGetContext(IoGetCurrentIrpStackLocation(Irp)->FileObject));
    VrkFsBTRequestFlushSuspend(&VrkFsCardOfDevice(DeviceObject)->BodyTableCache);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsIoctlRequestBodyTableFlushResume(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    VrkFsBTRequestFlushResume(&VrkFsCardOfDevice(DeviceObject)->BodyTableCache, 1);
    VrkFsHCBodyTableFlushResume(VrkFsHCGetContext(IoGetCurrentIrpStackLocation(Irp)->FileObject));
    return STATUS_SUCCESS;
}
