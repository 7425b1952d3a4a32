// Deleting what an FCB stands for, and whether and when that may happen.
#include "core/card_instance.h"
#include "core/device_ext.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/name_tree.h"
#include "fsd/vcb.h"
#include "media/body_table_cache.h"
#include "media/ram_files.h"
#include "volume/entries.h"
#include "volume/hw_volume.h"

namespace {

VOID GiveBackDeleteSegments(FCB* Fcb) {
    if ((Fcb->Flags & kFcbSegmentsReserved) != 0) {
        VrkFsVolAllocUnreserveSegments(&Fcb->Common->VolumeHandle->Allocator, kFcbDeleteSegments);
        Fcb->Flags &= ~kFcbSegmentsReserved;
    }
}

bool IsEmptyFolder(const FCBCommon* Common) {
    return (Common->Flags & kFcbCommonSubstitute) == 0 && Common->FolderEntry->FileCount == 0;
}

NTSTATUS DeleteFolder(FCB* Fcb, HwContext* Hw) {
    FCBCommon* common = Fcb->Common;
    if (!VrkFsFCBTypeAllowsChanges(Fcb) || !IsEmptyFolder(common)) {
        return STATUS_CANNOT_DELETE;
    }
    return VrkFsHwInvalidateDirEntry(Hw, common->Vcb, common->VolumeHandle, common->FolderEntry,
                                     common->FolderEntryIndex);
}

NTSTATUS DeleteFile(FCB* Fcb, HwContext* Hw) {
    FCBCommon* common = Fcb->Common;
    if (!VrkFsFCBTypeAllowsChanges(Fcb) || !VrkFsFCBIsInPlace(Fcb)) {
        return STATUS_CANNOT_DELETE;
    }
    if (!NT_SUCCESS(VrkFsFCBForgetBodyTable(Fcb))) {
        // A rename has dropped the name that was made when the delete was asked for, and now memory is short. The
        // tables are known by their place as well.
        BodyTableCache* cache = &VrkFsCardOfVcb(common->Vcb)->BodyTableCache;
        VrkFsBTForgetTable(cache, common->VolumeHandle, common->FileEntry->VideoBodyTableLba);
        VrkFsBTForgetTable(cache, common->VolumeHandle, common->FileEntry->AlphaBodyTableLba);
    }
    return VrkFsHwRemoveFileEntry(Hw, common->Vcb, Fcb->Parent, common->FileEntry, common->FileEntryIndex);
}

VOID DeleteRamFile(FCB* Fcb) {
    if (Fcb->RamFile != nullptr) {
        VrkFsVFDeleteFile(&Fcb->Common->VolumeHandle->RamFiles, Fcb->RamFile);
    }
}

NTSTATUS DeleteByLevel(FCB* Fcb, HwContext* Hw) {
    if ((Fcb->Flags & kFcbCommandPort) != 0) {
        return STATUS_CANNOT_DELETE;
    }
    if (Fcb->Level == kLevelFrame) {
        DeleteRamFile(Fcb);
        return STATUS_SUCCESS;
    }
    if ((Fcb->Common->Flags & kFcbCommonDeleted) != 0) {  // through another path, before this one
        return STATUS_SUCCESS;
    }
    NTSTATUS status = STATUS_CANNOT_DELETE;
    if (Fcb->Level == kLevelFolder) {
        status = DeleteFolder(Fcb, Hw);
    } else if (Fcb->Level == kLevelFile) {
        status = DeleteFile(Fcb, Hw);
    }
    if (NT_SUCCESS(status)) {
        VrkFsFCBCommonMarkDeleted(Fcb->Common);
    }
    return status;
}

}  // namespace

BOOLEAN VrkFsFCBIsInPlace(const FCB* Fcb) {
    const FCBCommon* common = Fcb->Common;
    if (Fcb->Level != kLevelFile || (Fcb->Flags & kFcbCommandPort) != 0) {
        return TRUE;
    }
    return common->Parent == Fcb->Parent->Common && (common->Flags & kFcbCommonDeleted) == 0 &&
           common->Parent->FolderEntry->FileTable[common->FileEntryIndex] == common->RecordLba;
}

NTSTATUS VrkFsFCBForgetBodyTable(FCB* Fcb) {
    FCBCommon* common = Fcb->Common;
    if (Fcb->Level != kLevelFile) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = VrkFsFCBCommonSetupFullName(common->Vcb, Fcb, common);
    if (NT_SUCCESS(status)) {
        BodyTableCache* cache = &VrkFsCardOfVcb(common->Vcb)->BodyTableCache;
        if (common->BodyTable != nullptr) {
            VrkFsBTDereferenceObject(cache, common->BodyTable);
            common->BodyTable = nullptr;
        }
        VrkFsBTRemoveObjectByName(cache, &common->FullName);
    }
    return status;
}

BOOLEAN VrkFsFCBCanSetDisposition(const FCB* Fcb) {
    if ((Fcb->Flags & kFcbCommandPort) != 0) {
        return FALSE;
    }
    switch (Fcb->Level) {
        case kLevelFolder:
            return VrkFsFCBTypeAllowsChanges(Fcb) && IsEmptyFolder(Fcb->Common);
        case kLevelFile:
            return VrkFsFCBTypeAllowsChanges(Fcb) && VrkFsFCBIsInPlace(Fcb);
        case kLevelFrame:
            return TRUE;
        default:
            return FALSE;
    }
}

// The delete itself runs when the last handle is cleaned up, and that must not fail for want of memory.
NTSTATUS VrkFsFCBSetDeletePending(FCB* Fcb) {
    if (VrkFsFCBIsFile(Fcb) && (Fcb->Flags & kFcbSegmentsReserved) == 0) {
        FCBCommon* common = Fcb->Common;
        NTSTATUS status = VrkFsFCBCommonSetupFullName(common->Vcb, Fcb, common);
        if (NT_SUCCESS(status)) {
            status = VrkFsVolAllocReserveSegments(&common->VolumeHandle->Allocator, kFcbDeleteSegments);
        }
        if (!NT_SUCCESS(status)) {
            return status;
        }
        Fcb->Flags |= kFcbSegmentsReserved;
    }
    Fcb->Flags |= kFcbDeletePending;
    return STATUS_SUCCESS;
}

VOID VrkFsFCBClearDeletePending(FCB* Fcb) {
    GiveBackDeleteSegments(Fcb);
    Fcb->Flags &= ~kFcbDeletePending;
}

NTSTATUS VrkFsFCBDeleteEntry(FCB* Fcb) {
    const NTSTATUS status = DeleteByLevel(Fcb, &VrkFsCardOfVcb(Fcb->Common->Vcb)->Hw);
    if (NT_SUCCESS(status)) {
        GiveBackDeleteSegments(Fcb);
    } else {
        VrkFsFCBClearDeletePending(Fcb);
    }
    return status;
}
