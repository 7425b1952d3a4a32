// What changes an object on disk through its FCB: rename, move, delete.
#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/strings.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/name_tree.h"
#include "fsd/vcb.h"
#include "media/body_table_cache.h"
#include "volume/entries.h"
#include "volume/hw_volume.h"

namespace {

// The new name twice, for the FCB and for its FCBCommon, so that nothing can fail once the disk has been changed.
struct NewNames {
    UNICODE_STRING OfFcb;
    UNICODE_STRING OfCommon;
};

VOID FreeNewNames(NewNames* Names) {
    VrkFsRtlFreeUnicodeString(&Names->OfFcb);
    VrkFsRtlFreeUnicodeString(&Names->OfCommon);
}

NTSTATUS MakeNewNames(PCUNICODE_STRING NewName, NewNames* Names) {
    RtlZeroMemory(Names, sizeof(*Names));
    if (!VrkFsIsValidComponent(NewName)) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    if (VrkFsIsComPortName(NewName)) {
        return STATUS_ACCESS_DENIED;
    }
    NTSTATUS status = VrkFsRtlCopyUnicodeString(&Names->OfFcb, NewName);
    if (NT_SUCCESS(status)) {
        status = VrkFsRtlCopyUnicodeString(&Names->OfCommon, NewName);
    }
    if (!NT_SUCCESS(status)) {
        FreeNewNames(Names);
    }
    return status;
}

VOID TakeName(PUNICODE_STRING Name, PUNICODE_STRING NewName) {
    VrkFsRtlFreeUnicodeString(Name);
    *Name = *NewName;
    RtlZeroMemory(NewName, sizeof(*NewName));
}

// The cache knows body tables by the file's name, and the flush thread writes them to the file's blocks: neither may go
// on under a name or for blocks that are no longer the file's.
NTSTATUS ForgetBodyTable(FCB* Fcb) {
    FCBCommon* common = Fcb->Common;
    if (Fcb->Level != kLevelFile) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = VrkFsFCBCommonSetupFullName(common->Vcb, Fcb, common);
    if (NT_SUCCESS(status)) {
        VrkFsBTRemoveObjectByName(&VrkFsCardOfVcb(common->Vcb)->BodyTableCache, &common->FullName);
        common->BodyTable = nullptr;
    }
    return status;
}

// The new name is in the path of everything below the object, through whichever type folder that was opened.
VOID DropFullNames(VCB* Vcb) {
    FCB* at = Vcb->RootFcb;
    do {
        VrkFsFCBRemoveFullName(at);
        VrkFsFCBCommonRemoveFullName(at->Common);
    } while (VrkFsFCBGetNextChild(Vcb->RootFcb, at, &at));
}

// The object goes by another name now: paths to it through other type folders are not found by the old one any more.
VOID DetachOtherPaths(const FCB* Fcb) {
    FCB* root = Fcb->Common->Vcb->RootFcb;
    FCB* at = root;
    while (VrkFsFCBGetNextChild(root, at, &at)) {
        if (at != Fcb && at->Common == Fcb->Common && at->Level == Fcb->Level) {
            VrkFsFCBSplayRemove(at);
        }
    }
}

VOID Rekey(FCB* Fcb, NewNames* Names) {
    FCBCommon* common = Fcb->Common;
    VrkFsFCBSplayRemove(Fcb);
    TakeName(&Fcb->Name, &Names->OfFcb);
    VrkFsFCBSplayInsert(Fcb->Parent, Fcb);
    VrkFsFCBCommonSplayRemove(common);
    TakeName(&common->Name, &Names->OfCommon);
    VrkFsFCBCommonSplayInsert(common->Parent, common);
}

NTSTATUS RenameVolumeOnDisk(FCBCommon* Common, PCUNICODE_STRING NewName, HwContext* Hw) {
    const NTSTATUS status = VrkFsHwRenameVolume(Hw, Common->Vcb, Common->VolumeHandle, NewName);
    if (NT_SUCCESS(status) && !RtlEqualUnicodeString(&Common->Name, NewName, TRUE)) {
        VrkFsHwResolveVolumeNameConflicts(Hw, Common->Vcb, &Common->Name);
    }
    return status;
}

NTSTATUS RenameOnDisk(FCB* Fcb, PCUNICODE_STRING NewName, BOOLEAN ReplaceExisting, HwContext* Hw) {
    FCBCommon* common = Fcb->Common;
    switch (Fcb->Level) {
        case kLevelVolume:
            return RenameVolumeOnDisk(common, NewName, Hw);
        case kLevelFolder:
            return VrkFsHwRenameFolder(Hw, common->Vcb, common->VolumeHandle, common->FolderEntry,
                                       common->FolderEntryIndex, NewName);
        case kLevelFile:
            return VrkFsHwRenameFile(Hw, common->Vcb, common->VolumeHandle, Fcb->Parent, common->FileEntry,
                                     common->FileEntryIndex, NewName, ReplaceExisting);
        default:
            return STATUS_ACCESS_DENIED;
    }
}

// Whether the object can be given another name or place through this path.
NTSTATUS CheckChangeable(const FCB* Fcb) {
    if (Fcb->Level < kLevelVolume || Fcb->Level > kLevelFile || (Fcb->Flags & kFcbCommandPort) != 0) {
        return STATUS_ACCESS_DENIED;
    }
    if ((Fcb->Common->Flags & kFcbCommonDeleted) != 0) {
        return STATUS_FILE_DELETED;
    }
    return VrkFsFCBIsInPlace(Fcb) ? STATUS_SUCCESS : STATUS_ACCESS_DENIED;
}

// Puts the FCB and its FCBCommon below their new folder.
VOID Relink(FCB* Fcb, FCB* NewParent) {
    FCBCommon* common = Fcb->Common;
    VrkFsFCBSplayRemove(Fcb);
    RemoveEntryList(&Fcb->SiblingLink);
    Fcb->Parent = NewParent;
    InsertTailList(&NewParent->Children, &Fcb->SiblingLink);
    VrkFsFCBCommonSplayRemove(common);
    RemoveEntryList(&common->SiblingLink);
    common->Parent = NewParent->Common;
    InsertTailList(&common->Parent->Children, &common->SiblingLink);
    FCB* at = Fcb;
    do {
        at->TypeIndex = NewParent->TypeIndex;
    } while (VrkFsFCBGetNextChild(Fcb, at, &at));
}

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
    if (!NT_SUCCESS(ForgetBodyTable(Fcb))) {
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
        Fcb->RamFile = nullptr;
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

NTSTATUS VrkFsFCBRename(FCB* Fcb, PCUNICODE_STRING NewName, BOOLEAN ReplaceExisting, HwContext* Hw) {
    NTSTATUS status = CheckChangeable(Fcb);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    NewNames names;
    status = MakeNewNames(NewName, &names);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = ForgetBodyTable(Fcb);
    if (NT_SUCCESS(status)) {
        DropFullNames(Fcb->Common->Vcb);
        status = RenameOnDisk(Fcb, NewName, ReplaceExisting, Hw);
    }
    if (NT_SUCCESS(status)) {
        DetachOtherPaths(Fcb);
        Rekey(Fcb, &names);
    }
    FreeNewNames(&names);
    return status;
}

NTSTATUS VrkFsFCBMove(FCB* NewParent, FCB* Fcb, PCUNICODE_STRING NewName, BOOLEAN ReplaceExisting, HwContext* Hw) {
    NTSTATUS status = Fcb->Level == kLevelFile ? CheckChangeable(Fcb) : STATUS_ACCESS_DENIED;
    if (!NT_SUCCESS(status)) {
        return status;
    }
    NewNames names;
    status = MakeNewNames(NewName, &names);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    FCBCommon* common = Fcb->Common;
    FCB* oldParent = Fcb->Parent;
    status = ForgetBodyTable(Fcb);
    if (NT_SUCCESS(status)) {
        DropFullNames(Fcb->Common->Vcb);
        status = VrkFsHwMoveFile(Hw, common->Vcb, NewParent, oldParent, common->FileEntry, &common->FileEntryIndex,
                                 NewName, ReplaceExisting);
    }
    if (NT_SUCCESS(status)) {
        DetachOtherPaths(Fcb);
        Relink(Fcb, NewParent);
        Rekey(Fcb, &names);
        VrkFsFCBRemove(oldParent, Hw);
    }
    FreeNewNames(&names);
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
