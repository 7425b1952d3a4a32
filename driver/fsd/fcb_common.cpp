#include "fsd/fcb_common.h"

#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/global_data.h"
#include "core/guards.h"
#include "core/lookaside.h"
#include "core/pool.h"
#include "core/strings.h"
#include "fsd/fcb.h"
#include "fsd/name_tree.h"
#include "media/body_table_cache.h"
#include "volume/hw_volume.h"

namespace {

constexpr USHORT kFcbCommonListDepth = 20;

NTSTATUS GiveResource(FCBCommon* Common) {
    NTSTATUS status =
        VrkFsCommonFCBNonPagedLListAllocate(&pVrkFsGlobalData->FcbCommonResourceLookaside, &Common->Resource);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    Common->Flags |= kFcbCommonResourceAllocated;
    status = ExInitializeResourceLite(Common->Resource);
    if (NT_SUCCESS(status)) {
        Common->Flags |= kFcbCommonResourceInitialised;
    }
    return status;
}

VOID FreeEntryCopies(FCBCommon* Common) {
    VrkFsFreePool(Common->FolderEntry);
    VrkFsFreePool(Common->FileEntry);
    Common->FolderEntry = nullptr;
    Common->FileEntry = nullptr;
}

bool IsUsed(const FCBCommon* Common) {
    return (Common->Flags & kFcbCommonRoot) != 0 || Common->ReferenceCount != 0 ||
           ((Common->Flags & kFcbCommonFolder) != 0 && !IsListEmpty(&Common->Children));
}

// A command port directly in a type folder is at the level of the volumes without being one.
bool IsVolume(const FCBCommon* Common) {
    return Common->Level == kLevelVolume && (Common->Flags & kFcbCommonFolder) != 0;
}

NTSTATUS OpenVolumeOf(FCBCommon* Common, PCUNICODE_STRING Name) {
    if (!IsVolume(Common)) {
        Common->VolumeHandle = Common->Level > kLevelVolume ? Common->Parent->VolumeHandle : nullptr;
        return STATUS_SUCCESS;
    }
    HwContext* hw = &VrkFsCardOfDevice(Common->DeviceObject)->Hw;
    return VrkFsHwOpenVolume(hw, Name, &Common->VolumeHandle) ? STATUS_SUCCESS : STATUS_OBJECT_PATH_NOT_FOUND;
}

}  // namespace

VOID VrkFsFCBCommonLListInitialize(PPAGED_LOOKASIDE_LIST List) {
    ExInitializePagedLookasideList(List, nullptr, nullptr, 0, sizeof(FCBCommon), VrkFsPoolTag("FCBC"),
                                   kFcbCommonListDepth);
}

NTSTATUS VrkFsFCBCommonLListAllocate(PPAGED_LOOKASIDE_LIST List, FCBCommon** Common) {
    *Common = VrkFsLookasideAllocate<FCBCommon>(List);
    return *Common != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

VOID VrkFsFCBCommonLListRelease(PPAGED_LOOKASIDE_LIST List, FCBCommon* Common) {
    VrkFsLookasideFree(List, Common);
}

VOID VrkFsCommonFCBNonPagedLListInitialize(PNPAGED_LOOKASIDE_LIST List) {
    ExInitializeNPagedLookasideList(List, nullptr, nullptr, 0, sizeof(ERESOURCE), VrkFsPoolTag("FCBn"),
                                    kFcbCommonListDepth);
}

NTSTATUS VrkFsCommonFCBNonPagedLListAllocate(PNPAGED_LOOKASIDE_LIST List, PERESOURCE* Resource) {
    *Resource = VrkFsLookasideAllocate<ERESOURCE>(List);
    return *Resource != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

VOID VrkFsCommonFCBNonPagedLListRelease(PNPAGED_LOOKASIDE_LIST List, PERESOURCE Resource) {
    VrkFsLookasideFree(List, Resource);
}

NTSTATUS VrkFsFCBCommonAllocate(FCBCommon** Common, VCB* Vcb, BOOLEAN IsFolder) {
    FCBCommon* common = nullptr;
    NTSTATUS status = VrkFsFCBCommonLListAllocate(&pVrkFsGlobalData->FcbCommonLookaside, &common);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    common->Vcb = Vcb;
    InitializeListHead(&common->Children);
    if (IsFolder) {
        common->Flags |= kFcbCommonFolder;
    }
    status = GiveResource(common);
    if (!NT_SUCCESS(status)) {
        VrkFsFCBCommonFree(common);
        return status;
    }
    *Common = common;
    return STATUS_SUCCESS;
}

VOID VrkFsFCBCommonFree(FCBCommon* Common) {
    if (Common->BodyTable != nullptr) {
        VrkFsBTDereferenceObject(&VrkFsCardOfDevice(Common->DeviceObject)->BodyTableCache, Common->BodyTable);
    }
    FreeEntryCopies(Common);
    VrkFsRtlFreeUnicodeString(&Common->FullName);
    VrkFsRtlFreeUnicodeString(&Common->Name);
    if ((Common->Flags & kFcbCommonResourceInitialised) != 0) {
        ExDeleteResourceLite(Common->Resource);
    }
    if ((Common->Flags & kFcbCommonResourceAllocated) != 0) {
        VrkFsCommonFCBNonPagedLListRelease(&pVrkFsGlobalData->FcbCommonResourceLookaside, Common->Resource);
    }
    VrkFsFCBCommonLListRelease(&pVrkFsGlobalData->FcbCommonLookaside, Common);
}

NTSTATUS VrkFsFCBCommmonCreate(FCBCommon** Common, VCB* Vcb, FCBCommon* Parent, PCUNICODE_STRING Name, LONGLONG Time,
                               BOOLEAN IsFolder, PDEVICE_OBJECT DeviceObject, ULONG Level, BOOLEAN InsertIntoTree) {
    FCBCommon* common = nullptr;
    NTSTATUS status = VrkFsFCBCommonAllocate(&common, Vcb, IsFolder);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    common->DeviceObject = DeviceObject;
    common->Parent = Parent;
    common->Level = Level;
    common->Time = Time;
    status = VrkFsRtlCopyUnicodeString(&common->Name, Name);
    if (NT_SUCCESS(status)) {
        status = OpenVolumeOf(common, Name);
    }
    if (!NT_SUCCESS(status)) {
        VrkFsFCBCommonFree(common);
        return status;
    }
    InsertTailList(&Parent->Children, &common->SiblingLink);
    if (InsertIntoTree) {
        VrkFsFCBCommonSplayInsert(Parent, common);
    }
    *Common = common;
    return STATUS_SUCCESS;
}

VOID VrkFsFCBCommonRemove(FCBCommon* Common, HwContext* Hw) {
    FCBCommon* at = Common;
    while (!IsUsed(at)) {
        VrkFsDrainResource(at->Resource);
        FCBCommon* parent = at->Parent;
        if (IsVolume(at) && at->VolumeHandle != nullptr) {
            VrkFsHwCloseVolume(Hw, at->VolumeHandle);
            at->VolumeHandle = nullptr;
        }
        RemoveEntryList(&at->SiblingLink);
        VrkFsFCBCommonSplayRemove(at);
        VrkFsFCBCommonFree(at);
        at = parent;
    }
}

VOID VrkFsFCBCommonMarkDeleted(FCBCommon* Common) {
    Common->Flags |= kFcbCommonDeleted;
    Common->RecordLba = 0;
    VrkFsFCBCommonSplayRemove(Common);
}

VOID VrkFsDrainResource(PERESOURCE Resource) {
    ResourceGuard drained;
    drained.Exclusive(Resource);
}
