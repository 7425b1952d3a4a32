// Giving an object another name or another folder, and with it everything in memory that goes by its name: the
// FCBCommon, the FCBs of all paths that lead to it, its open frame files, its RAM files. All that can fail is prepared
// before the disk is changed.
#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/strings.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/name_tree.h"
#include "fsd/vcb.h"
#include "media/directory.h"
#include "media/frame_name.h"
#include "media/ram_files.h"
#include "volume/entries.h"
#include "volume/hw_volume.h"

namespace {

constexpr ULONG kTypeFolderChars = 4;  // "\\RZV"

// One object on its way to another name, in its folder or in another one.
struct Renaming {
    FCBCommon* Common;
    FCB* NewParent;        // one of the paths to the folder that it goes to; null: it stays in its own
    UNICODE_STRING Name;   // own copy, for the FCBCommon
    FCB* Steps;            // the FCBs that go along, by their RenameStep
    BOOLEAN RamFilesWait;  // for the outcome
};

// What comes behind the type folder in a full name. Nothing of the name is copied.
UNICODE_STRING WithoutType(const UNICODE_STRING& FullName) {
    UNICODE_STRING tail;
    tail.Buffer = FullName.Buffer + kTypeFolderChars;
    tail.Length = tail.MaximumLength = static_cast<USHORT>(FullName.Length - kTypeFolderChars * sizeof(WCHAR));
    return tail;
}

// The path that the object will have, without the type folder.
NTSTATUS MakeNewPath(const Renaming* Change, PUNICODE_STRING Path) {
    FCBCommon* folder = Change->NewParent != nullptr ? Change->NewParent->Common : Change->Common->Parent;
    const NTSTATUS status = VrkFsFCBCommonSetupFullName(folder->Vcb, nullptr, folder);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const UNICODE_STRING parent = WithoutType(folder->FullName);
    const ULONG bytes = parent.Length + sizeof(WCHAR) + Change->Name.Length + sizeof(WCHAR);
    if (!NT_SUCCESS(VrkFsRtlAllocateUnicodeString(Path, static_cast<USHORT>(bytes)))) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    WCHAR backslash[] = VRKFS_W("\\");
    UNICODE_STRING separator = {sizeof(WCHAR), sizeof(backslash), backslash};
    static_cast<void>(RtlAppendUnicodeStringToString(Path, &parent));
    static_cast<void>(RtlAppendUnicodeStringToString(Path, &separator));
    static_cast<void>(RtlAppendUnicodeStringToString(Path, &Change->Name));
    return STATUS_SUCCESS;
}

NTSTATUS PrepareRamFiles(Renaming* Change) {
    FCBCommon* common = Change->Common;
    RamFileSet* set = &common->VolumeHandle->RamFiles;
    if (set->Count == 0) {
        return STATUS_SUCCESS;
    }
    UNICODE_STRING newPath = {};
    NTSTATUS status = VrkFsFCBCommonSetupFullName(common->Vcb, nullptr, common);
    if (NT_SUCCESS(status)) {
        status = MakeNewPath(Change, &newPath);
    }
    if (NT_SUCCESS(status)) {
        const UNICODE_STRING oldPath = WithoutType(common->FullName);
        status = VrkFsVFPrepareRename(set, &oldPath, &newPath);
        Change->RamFilesWait = NT_SUCCESS(status);
    }
    VrkFsRtlFreeUnicodeString(&newPath);
    return status;
}

FCB* FindPathBelow(FCB* Volume, const FCBCommon* Folder) {
    for (PLIST_ENTRY link = Volume->Children.Flink; link != &Volume->Children; link = link->Flink) {
        FCB* fcb = CONTAINING_RECORD(link, FCB, SiblingLink);
        if (fcb->Common == Folder) {
            return fcb;
        }
    }
    return nullptr;
}

// A path stays in its type folder: its new parent is the path of the new folder below the same type.
NTSTATUS PrepareParent(FCB* Fcb, const FCB* NewParent) {
    FCBCommon* folder = NewParent->Common;
    FCB* volume = Fcb->Parent->Parent;
    FCB* parent = FindPathBelow(volume, folder);
    if (parent == nullptr) {
        const NTSTATUS status =
            VrkFsFCBCreate(&parent, folder->Vcb, volume, &folder->Name, folder->Time, TRUE, folder->DeviceObject);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    parent->ReferenceCount++;
    Fcb->Rename.Parent = parent;
    return STATUS_SUCCESS;
}

// Frame files are called after their clip. Out of line: the entry takes half a kilobyte of stack.
__attribute__((noinline)) NTSTATUS PrepareFrameName(FCB* Frame, PCUNICODE_STRING ClipName) {
    const ULONG frames = VrkFsGetFrameFileCount(Frame->Common->FileEntry);
    if (Frame->EntryIndex >= frames) {
        return STATUS_SUCCESS;  // the clip has got shorter: there is no such frame any more
    }
    const Preferences prefs = VrkFsGlobPreferencesOf(VrkFsCardOfVcb(Frame->Common->Vcb));
    FoundEntry found;
    VrkFsConstructFileFrameName(ClipName->Buffer, Frame->TypeIndex, frames, Frame->EntryIndex, prefs.BaseFrameNumber,
                                prefs.MinFrameDigits, &found);
    UNICODE_STRING name;
    name.Buffer = found.Name;
    name.Length = name.MaximumLength = static_cast<USHORT>(found.NameLength);
    return VrkFsRtlCopyUnicodeString(&Frame->Rename.Name, &name);
}

// The step is chained before it is complete, so that a failure undoes what there is of it.
NTSTATUS PrepareStep(Renaming* Change, FCB* Fcb) {
    Fcb->Rename.Next = Change->Steps;
    Change->Steps = Fcb;
    if (VrkFsFCBIsFrame(Fcb)) {
        return PrepareFrameName(Fcb, &Change->Name);
    }
    const NTSTATUS status = VrkFsRtlCopyUnicodeString(&Fcb->Rename.Name, &Change->Name);
    return NT_SUCCESS(status) && Change->NewParent != nullptr ? PrepareParent(Fcb, Change->NewParent) : status;
}

NTSTATUS PrepareSteps(Renaming* Change) {
    FCBCommon* common = Change->Common;
    FCB* root = common->Vcb->RootFcb;
    NTSTATUS status = STATUS_SUCCESS;
    for (FCB* at = root; NT_SUCCESS(status) && VrkFsFCBGetNextChild(root, at, &at);) {
        if (at->Common == common && (at->Level == common->Level || VrkFsFCBIsFrame(at))) {
            status = PrepareStep(Change, at);
        }
    }
    return status;
}

FCB* TakeStep(Renaming* Change) {
    FCB* fcb = Change->Steps;
    if (fcb != nullptr) {
        Change->Steps = fcb->Rename.Next;
        fcb->Rename.Next = nullptr;
    }
    return fcb;
}

VOID EndRamFiles(Renaming* Change, BOOLEAN Renamed) {
    if (Change->RamFilesWait) {
        VrkFsVFFinishRename(&Change->Common->VolumeHandle->RamFiles, Renamed);
    }
}

VOID Abandon(Renaming* Change, HwContext* Hw) {
    while (FCB* fcb = TakeStep(Change)) {
        VrkFsRtlFreeUnicodeString(&fcb->Rename.Name);
        FCB* parent = fcb->Rename.Parent;
        fcb->Rename.Parent = nullptr;
        if (parent != nullptr) {
            parent->ReferenceCount--;
            VrkFsFCBRemove(parent, Hw);
        }
    }
    VrkFsRtlFreeUnicodeString(&Change->Name);
    EndRamFiles(Change, FALSE);
}

NTSTATUS Prepare(Renaming* Change, PCUNICODE_STRING NewName, HwContext* Hw) {
    if (!VrkFsIsValidComponent(NewName)) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    if (VrkFsIsComPortName(NewName)) {
        return STATUS_ACCESS_DENIED;
    }
    NTSTATUS status = VrkFsRtlCopyUnicodeString(&Change->Name, NewName);
    if (NT_SUCCESS(status)) {
        status = PrepareSteps(Change);
    }
    if (NT_SUCCESS(status)) {
        status = PrepareRamFiles(Change);
    }
    if (!NT_SUCCESS(status)) {
        Abandon(Change, Hw);
    }
    return status;
}

VOID TakeName(PUNICODE_STRING Name, PUNICODE_STRING NewName) {
    if (NewName->Buffer != nullptr) {
        VrkFsRtlFreeUnicodeString(Name);
        *Name = *NewName;
        RtlZeroMemory(NewName, sizeof(*NewName));
    }
}

// A deleted object is known by its last handles only, but still found by its name: not any more.
VOID MakeWay(FCB* Parent, PCUNICODE_STRING Name) {
    FCB* other = nullptr;
    if (VrkFsFCBSplayFindFCB(Parent, Name, &other) && (other->Common->Flags & kFcbCommonDeleted) != 0) {
        VrkFsFCBSplayRemove(other);
    }
}

// Puts the FCB where it belongs now.
VOID PlaceFcb(FCB* Fcb, HwContext* Hw) {
    const bool found = (Fcb->Flags & kFcbInChildTree) != 0;
    FCB* oldParent = Fcb->Parent;
    VrkFsFCBSplayRemove(Fcb);
    TakeName(&Fcb->Name, &Fcb->Rename.Name);
    FCB* parent = Fcb->Rename.Parent;
    if (parent != nullptr) {
        Fcb->Rename.Parent = nullptr;
        RemoveEntryList(&Fcb->SiblingLink);
        Fcb->Parent = parent;
        InsertTailList(&parent->Children, &Fcb->SiblingLink);
        parent->ReferenceCount--;
    }
    if (found) {
        MakeWay(Fcb->Parent, &Fcb->Name);
        VrkFsFCBSplayInsert(Fcb->Parent, Fcb);
    }
    VrkFsFCBRemove(oldParent, Hw);
}

VOID PlaceCommon(Renaming* Change) {
    FCBCommon* common = Change->Common;
    VrkFsFCBCommonSplayRemove(common);
    TakeName(&common->Name, &Change->Name);
    if (Change->NewParent != nullptr) {
        RemoveEntryList(&common->SiblingLink);
        common->Parent = Change->NewParent->Common;
        InsertTailList(&common->Parent->Children, &common->SiblingLink);
    }
    VrkFsFCBCommonSplayInsert(common->Parent, common);
}

VOID Commit(Renaming* Change, HwContext* Hw) {
    PlaceCommon(Change);
    while (FCB* fcb = TakeStep(Change)) {
        PlaceFcb(fcb, Hw);
    }
    EndRamFiles(Change, TRUE);
}

// The new name is in the path of everything below the object, through whichever type folder that was opened.
VOID DropFullNames(VCB* Vcb) {
    FCB* at = Vcb->RootFcb;
    do {
        VrkFsFCBRemoveFullName(at);
        VrkFsFCBCommonRemoveFullName(at->Common);
    } while (VrkFsFCBGetNextChild(Vcb->RootFcb, at, &at));
}

NTSTATUS RenameVolumeOnDisk(FCBCommon* Common, PCUNICODE_STRING NewName, HwContext* Hw) {
    const NTSTATUS status = VrkFsHwRenameVolume(Hw, Common->Vcb, Common->VolumeHandle, NewName);
    if (NT_SUCCESS(status) && !RtlEqualUnicodeString(&Common->Name, NewName, TRUE)) {
        VrkFsHwResolveVolumeNameConflicts(Hw, Common->Vcb, &Common->Name);
    }
    return status;
}

NTSTATUS ChangeOnDisk(const Renaming* Change, FCB* Fcb, PCUNICODE_STRING NewName, BOOLEAN ReplaceExisting,
                      HwContext* Hw) {
    FCBCommon* common = Change->Common;
    if (Change->NewParent != nullptr) {
        return VrkFsHwMoveFile(Hw, common->Vcb, Change->NewParent, Fcb->Parent, common->FileEntry,
                               &common->FileEntryIndex, NewName, ReplaceExisting);
    }
    switch (Fcb->Level) {
        case kLevelVolume:
            return RenameVolumeOnDisk(common, NewName, Hw);
        case kLevelFolder:
            return VrkFsHwRenameFolder(Hw, common->Vcb, common->VolumeHandle, common->FolderEntry,
                                       common->FolderEntryIndex, NewName);
        default:
            return VrkFsHwRenameFile(Hw, common->Vcb, common->VolumeHandle, Fcb->Parent, common->FileEntry,
                                     common->FileEntryIndex, NewName, ReplaceExisting);
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

NTSTATUS CheckTarget(const FCB* Fcb, const FCB* NewParent) {
    if (Fcb->Level != kLevelFile || NewParent->Level != kLevelFolder ||
        NewParent->Common->VolumeHandle != Fcb->Common->VolumeHandle) {
        return STATUS_ACCESS_DENIED;
    }
    return (NewParent->Common->Flags & kFcbCommonDeleted) != 0 ? STATUS_DELETE_PENDING : STATUS_SUCCESS;
}

NTSTATUS Change(FCB* Fcb, FCB* NewParent, PCUNICODE_STRING NewName, BOOLEAN ReplaceExisting, HwContext* Hw) {
    Renaming change = {};
    change.Common = Fcb->Common;
    change.NewParent = NewParent;
    NTSTATUS status = Prepare(&change, NewName, Hw);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = VrkFsFCBForgetBodyTable(Fcb);
    if (NT_SUCCESS(status)) {
        DropFullNames(Fcb->Common->Vcb);
        status = ChangeOnDisk(&change, Fcb, NewName, ReplaceExisting, Hw);
    }
    if (NT_SUCCESS(status)) {
        Commit(&change, Hw);
    } else {
        Abandon(&change, Hw);
    }
    return status;
}

}  // namespace

NTSTATUS VrkFsFCBRename(FCB* Fcb, PCUNICODE_STRING NewName, BOOLEAN ReplaceExisting, HwContext* Hw) {
    const NTSTATUS status = CheckChangeable(Fcb);
    return NT_SUCCESS(status) ? Change(Fcb, nullptr, NewName, ReplaceExisting, Hw) : status;
}

NTSTATUS VrkFsFCBMove(FCB* NewParent, FCB* Fcb, PCUNICODE_STRING NewName, BOOLEAN ReplaceExisting, HwContext* Hw) {
    NTSTATUS status = CheckChangeable(Fcb);
    if (NT_SUCCESS(status)) {
        status = CheckTarget(Fcb, NewParent);
    }
    return NT_SUCCESS(status) ? Change(Fcb, NewParent, NewName, ReplaceExisting, Hw) : status;
}
