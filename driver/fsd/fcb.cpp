#include "fsd/fcb.h"

#include "core/global_data.h"
#include "core/guards.h"
#include "core/lookaside.h"
#include "core/pool.h"
#include "core/strings.h"
#include "fsd/ccb.h"
#include "fsd/fcb_common.h"
#include "fsd/name_tree.h"
#include "fsd/vcb.h"
#include "media/ram_files.h"
#include "volume/records.h"

namespace {

constexpr USHORT kFcbListDepth = 20;

// The largest name that a record on disk can hold, and the largest that a caller may give: one that is terminated
// there.
constexpr USHORT kMaxRecordNameBytes = kNameFieldChars * sizeof(WCHAR);
constexpr USHORT kMaxComponentBytes = kMaxRecordNameBytes - sizeof(WCHAR);

NTSTATUS GiveResource(FCB* Fcb) {
    NTSTATUS status = VrkFsFCBNonPagedLListAllocate(&pVrkFsGlobalData->FcbResourceLookaside, &Fcb->Resource);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    Fcb->Flags |= kFcbResourceAllocated;
    status = ExInitializeResourceLite(Fcb->Resource);
    if (NT_SUCCESS(status)) {
        Fcb->Flags |= kFcbResourceInitialised;
    }
    return status;
}

bool IsUsed(const FCB* Fcb) {
    return (Fcb->Flags & kFcbRoot) != 0 || Fcb->ReferenceCount != 0 ||
           ((Fcb->Flags & kFcbFolder) != 0 && !IsListEmpty(&Fcb->Children));
}

// What a new FCB is to be, as its creator says.
struct NewFcb {
    PCUNICODE_STRING Name;
    LONGLONG Time;
    BOOLEAN IsFolder;
    BOOLEAN IsComPort;
    PDEVICE_OBJECT DeviceObject;
};

// Volumes are kept below the root's record and not below the type folder's, so that every type folder leads to one
// record.
FCBCommon* ParentCommonOf(const FCB* Fcb, VCB* Vcb) {
    return Fcb->Level == kLevelVolume ? Vcb->RootFcb->Common : Fcb->Parent->Common;
}

NTSTATUS FindOrMakeCommon(FCB* Fcb, VCB* Vcb, const NewFcb& New) {
    FCBCommon* parent = ParentCommonOf(Fcb, Vcb);
    FCBCommon* common = nullptr;
    NTSTATUS status = STATUS_SUCCESS;
    const bool shared = Fcb->Level >= kLevelVolume && !New.IsComPort;
    if (Fcb->Level == kLevelFrame) {
        common = parent;
    } else if (!shared || !VrkFsFCBCommonSplayFindFCB(parent, New.Name, &common)) {
        const BOOLEAN isFolder = New.IsFolder && Fcb->Level != kLevelFile;
        status = VrkFsFCBCommmonCreate(&common, Vcb, parent, New.Name, New.Time, isFolder, New.DeviceObject, Fcb->Level,
                                       shared);
    }
    if (NT_SUCCESS(status)) {
        common->ReferenceCount++;
        Fcb->Common = common;
    }
    return status;
}

NTSTATUS CreateBelow(FCB** Fcb, VCB* Vcb, FCB* Parent, const NewFcb& New) {
    if (Parent->Level >= kLevelFrame) {
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    if (New.Name->Length > kMaxRecordNameBytes) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    FCB* fcb = nullptr;
    NTSTATUS status = VrkFsFCBAllocate(&fcb, Vcb, New.IsFolder);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    fcb->Parent = Parent;
    fcb->Level = Parent->Level + 1;
    fcb->TypeIndex = Parent->TypeIndex;
    status = VrkFsRtlCopyUnicodeString(&fcb->Name, New.Name);
    if (NT_SUCCESS(status)) {
        status = FindOrMakeCommon(fcb, Vcb, New);
    }
    if (!NT_SUCCESS(status)) {
        VrkFsFCBFree(fcb);
        return status;
    }
    InsertTailList(&Parent->Children, &fcb->SiblingLink);
    VrkFsFCBSplayInsert(Parent, fcb);
    *Fcb = fcb;
    return STATUS_SUCCESS;
}

// Takes the FCB out of the tree and frees it, and gives its FCBCommon back.
VOID RemoveOne(FCB* Fcb, HwContext* Hw) {
    VrkFsDrainResource(Fcb->Resource);
    VrkFsFCBClearDeletePending(Fcb);
    FCBCommon* common = Fcb->Common;
    RemoveEntryList(&Fcb->SiblingLink);
    VrkFsFCBSplayRemove(Fcb);
    VrkFsFCBFree(Fcb);
    common->ReferenceCount--;
    VrkFsFCBCommonRemove(common, Hw);
}

}  // namespace

VOID VrkFsFCBLListInitialize(PPAGED_LOOKASIDE_LIST List) {
    ExInitializePagedLookasideList(List, nullptr, nullptr, 0, sizeof(FCB), VrkFsPoolTag("FCBL"), kFcbListDepth);
}

NTSTATUS VrkFsFCBLListAllocate(PPAGED_LOOKASIDE_LIST List, FCB** Fcb) {
    *Fcb = VrkFsLookasideAllocate<FCB>(List);
    return *Fcb != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

VOID VrkFsFCBLListRelease(PPAGED_LOOKASIDE_LIST List, FCB* Fcb) {
    VrkFsLookasideFree(List, Fcb);
}

VOID VrkFsFCBNonPagedLListInitialize(PNPAGED_LOOKASIDE_LIST List) {
    ExInitializeNPagedLookasideList(List, nullptr, nullptr, 0, sizeof(ERESOURCE), VrkFsPoolTag("FCBN"), kFcbListDepth);
}

NTSTATUS VrkFsFCBNonPagedLListAllocate(PNPAGED_LOOKASIDE_LIST List, PERESOURCE* Resource) {
    *Resource = VrkFsLookasideAllocate<ERESOURCE>(List);
    return *Resource != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

VOID VrkFsFCBNonPagedLListRelease(PNPAGED_LOOKASIDE_LIST List, PERESOURCE Resource) {
    VrkFsLookasideFree(List, Resource);
}

NTSTATUS VrkFsFCBAllocate(FCB** Fcb, VCB*, BOOLEAN IsFolder) {
    FCB* fcb = nullptr;
    NTSTATUS status = VrkFsFCBLListAllocate(&pVrkFsGlobalData->FcbLookaside, &fcb);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    fcb->NodeType = kFcbNodeType;
    InitializeListHead(&fcb->Children);
    if (IsFolder) {
        fcb->Flags |= kFcbFolder;
    }
    status = GiveResource(fcb);
    if (!NT_SUCCESS(status)) {
        VrkFsFCBFree(fcb);
        return status;
    }
    *Fcb = fcb;
    return STATUS_SUCCESS;
}

VOID VrkFsFCBDropMediaObject(FCB* Fcb) {
    if ((Fcb->Flags & kFcbMediaObject) != 0) {
        VrkFsRZVFreeFileObject(&Fcb->MediaFileObject);
        Fcb->Flags &= ~kFcbMediaObject;
    }
}

VOID VrkFsFCBFree(FCB* Fcb) {
    VrkFsFCBDropMediaObject(Fcb);
    if (Fcb->RamFile != nullptr) {
        VrkFsVFReleaseUser(Fcb->RamFile);
    }
    VrkFsRtlFreeUnicodeString(&Fcb->FullName);
    VrkFsRtlFreeUnicodeString(&Fcb->Name);
    if ((Fcb->Flags & kFcbResourceInitialised) != 0) {
        ExDeleteResourceLite(Fcb->Resource);
    }
    if ((Fcb->Flags & kFcbResourceAllocated) != 0) {
        VrkFsFCBNonPagedLListRelease(&pVrkFsGlobalData->FcbResourceLookaside, Fcb->Resource);
    }
    VrkFsFCBLListRelease(&pVrkFsGlobalData->FcbLookaside, Fcb);
}

NTSTATUS VrkFsFCBCreate(FCB** Fcb, VCB* Vcb, FCB* Parent, PCUNICODE_STRING Name, LONGLONG Time, BOOLEAN IsFolder,
                        PDEVICE_OBJECT DeviceObject) {
    return CreateBelow(Fcb, Vcb, Parent, {Name, Time, IsFolder, FALSE, DeviceObject});
}

NTSTATUS VrkFsFCBCreateComPort(FCB** Fcb, VCB* Vcb, FCB* Parent, PCUNICODE_STRING Name, LONGLONG Time,
                               PDEVICE_OBJECT DeviceObject) {
    const NTSTATUS status = CreateBelow(Fcb, Vcb, Parent, {Name, Time, FALSE, TRUE, DeviceObject});
    if (NT_SUCCESS(status)) {
        (*Fcb)->Flags |= kFcbCommandPort;
        if ((Parent->Flags & kFcbRoot) != 0) {
            (*Fcb)->TypeIndex = kFcbNoTypeIndex;
        }
    }
    return status;
}

VOID VrkFsFCBRemove(FCB* Fcb, HwContext* Hw) {
    VrkFsFCBRemoveUpTo(Fcb, nullptr, Hw);
}

VOID VrkFsFCBRemoveUpTo(FCB* Fcb, const FCB* Stop, HwContext* Hw) {
    FCB* at = Fcb;
    while (at != Stop && !IsUsed(at)) {
        FCB* parent = at->Parent;
        RemoveOne(at, Hw);
        at = parent;
    }
}

BOOLEAN VrkFsFCBTypeAllowsChanges(const FCB* Fcb) {
    return Fcb->TypeIndex < VrkFsGlobFileTypeCount(pVrkFsGlobalData) &&
           VrkFsGlobFileType(pVrkFsGlobalData, Fcb->TypeIndex).AccessMode == VRKFS_FILE_TYPE_CREATE_AND_DELETE;
}

ULONG VrkFsFCBTypeCode(const FCB* Fcb) {
    return Fcb->TypeIndex < kMaxFileTypes ? VrkFsGlobFileType(pVrkFsGlobalData, Fcb->TypeIndex).TypeCode : 0;
}

BOOLEAN VrkFsIsComPortName(PCUNICODE_STRING Name) {
    WCHAR text[] = VRKFS_W("___Port0___");
    UNICODE_STRING port = {sizeof(text) - sizeof(WCHAR), sizeof(text), text};
    return RtlEqualUnicodeString(Name, &port, TRUE);
}

BOOLEAN VrkFsIsValidComponent(PCUNICODE_STRING Name) {
    const ULONG chars = Name->Length / sizeof(WCHAR);
    return Name->Length <= kMaxComponentBytes && Name->Length % sizeof(WCHAR) == 0 &&
           VrkFsRtlBoundedLength(Name->Buffer, chars) == chars && VrkFsHwIsValidFilename(Name);
}

BOOLEAN VrkFsFCBIsFile(const FCB* Fcb) {
    return Fcb->Level == kLevelFile && (Fcb->Flags & kFcbCommandPort) == 0;
}

BOOLEAN VrkFsFCBIsFrame(const FCB* Fcb) {
    return Fcb->Level == kLevelFrame && (Fcb->Flags & (kFcbRamFile | kFcbCommandPort)) == 0;
}

VOID VrkFsFCBSetupFileObject(PFILE_OBJECT FileObject, VCB* Vcb, PVOID FcbOrVcb, CCB* Ccb) {
    FileObject->FsContext = FcbOrVcb;
    FileObject->FsContext2 = Ccb;
    FileObject->Vpb = &Vcb->Vpb;
}
