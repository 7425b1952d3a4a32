// Opening what exists: share access, handle record, counts, and the on-disk record behind a new FCB.
#include <algorithm>

#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/global_data.h"
#include "core/guards.h"
#include "core/pool.h"
#include "core/strings.h"
#include "fsd/ccb.h"
#include "fsd/create.h"
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

NTSTATUS RecordShareAccess(const OpenRequest* Open, ULONG ShareAccess, ULONG OpensBefore, PSHARE_ACCESS Shared) {
    if (OpensBefore != 0) {
        return IoCheckShareAccess(Open->DesiredAccess, ShareAccess, Open->FileObject, Shared, TRUE);
    }
    IoSetShareAccess(Open->DesiredAccess, ShareAccess, Open->FileObject, Shared);
    return STATUS_SUCCESS;
}

NTSTATUS MakeCcb(const OpenRequest* Open, FCB* Fcb, CCB** Ccb) {
    PPAGED_LOOKASIDE_LIST list = &pVrkFsGlobalData->CcbLookaside;
    NTSTATUS status = VrkFsCCBAllocate(list, Ccb, Fcb, Open->FileObject);
    if (NT_SUCCESS(status) && (Fcb->Flags & kFcbCommandPort) != 0) {
        status = VrkFsCCBAddComPort(*Ccb, &Open->Ext->ServiceChannel);
        if (!NT_SUCCESS(status)) {
            VrkFsCCBFree(list, *Ccb);
        }
    }
    return status;
}

NTSTATUS OpenAttached(const OpenRequest* Open, FCB* Fcb) {
    CCB* ccb = nullptr;
    const NTSTATUS status = VrkFsPrepareOpen(Open, Fcb, &ccb);
    if (NT_SUCCESS(status)) {
        VrkFsCommitOpen(Open, Fcb, ccb);
    }
    return status;
}

UNICODE_STRING NameOf(const FoundEntry* Found) {
    return VrkFsRtlBoundedString(Found->Name, std::min<ULONG>(Found->NameLength / sizeof(WCHAR), kFoundNameChars));
}

// An FCB for an entry that a lookup has found, under the entry's own spelling: change reports, which watchers compare
// byte for byte, use that one too.
NTSTATUS MakeFcb(const OpenRequest* Open, FCB* Parent, const FoundEntry* Found, BOOLEAN IsFolder, FCB** Fcb) {
    const UNICODE_STRING name = NameOf(Found);
    const NTSTATUS status =
        VrkFsFCBCreate(Fcb, Open->Vcb, Parent, &name, Found->Time, IsFolder, Open->Vcb->DeviceObject);
    if (NT_SUCCESS(status) && (Parent->Flags & kFcbRoot) != 0) {
        (*Fcb)->TypeIndex = Found->Index;
    }
    return status;
}

VOID RemoveFcb(const OpenRequest* Open, FCB* Fcb) {
    VrkFsFCBRemoveUpTo(Fcb, Fcb->Parent, &Open->Card->Hw);
}

VOID SetSubstitute(FCBCommon* Common, BOOLEAN Substituted) {
    if (Substituted) {
        Common->Flags |= kFcbCommonSubstitute;
    } else {
        Common->Flags &= ~kFcbCommonSubstitute;
    }
}

// The record is the object's own: not a stand-in, and not what has come to lie there under another name.
bool IsRecordOf(const FCBCommon* Common, const WCHAR* RecordName) {
    const UNICODE_STRING name = VrkFsRtlBoundedString(RecordName, kRecordNameChars);
    return RtlEqualUnicodeString(&name, &Common->Name, TRUE);
}

NTSTATUS LoadFolder(const OpenRequest* Open, FCBCommon* Common, ULONG Slot) {
    DirEntry* image = static_cast<DirEntry*>(VrkFsAllocatePool(PagedPool, sizeof(DirEntry)));
    if (image == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    BOOLEAN substituted = FALSE;
    const NTSTATUS status = VrkFsHwReadDirEntry(&Open->Card->Hw, Common->VolumeHandle, Slot, image, &substituted);
    const bool better = !substituted && IsRecordOf(Common, image->Name);
    if (!NT_SUCCESS(status) || (Common->FolderEntry != nullptr && !better)) {
        VrkFsFreePool(image);
        return status;
    }
    ResourceGuard entry;
    entry.Exclusive(Common->Resource);
    VrkFsFreePool(Common->FolderEntry);
    Common->FolderEntry = image;
    Common->FolderEntryIndex = Slot;
    SetSubstitute(Common, substituted);
    return STATUS_SUCCESS;
}

NTSTATUS LoadFile(const OpenRequest* Open, FCB* Fcb, ULONG Slot) {
    FCBCommon* common = Fcb->Common;
    FileEntry* image = static_cast<FileEntry*>(VrkFsAllocatePool(PagedPool, sizeof(FileEntry)));
    if (image == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    BOOLEAN substituted = FALSE;
    const NTSTATUS status = VrkFsHwReadFileEntry(&Open->Card->Hw, Fcb->Parent, Slot, image, &substituted);
    if (NT_SUCCESS(status) && VrkFsHwIsSubstituteFile(image)) {
        substituted = TRUE;  // whether or not it was read: nothing would ever write an image that looks like a stand-in
    }
    const bool better = !substituted && IsRecordOf(common, image->Name);
    if (!NT_SUCCESS(status) || (common->FileEntry != nullptr && !better)) {
        VrkFsFreePool(image);
        return status;
    }
    ResourceGuard entry;
    entry.Exclusive(common->Resource);
    if (common->FileEntry == nullptr) {
        common->FileEntry = image;
    } else {  // the media objects of open paths point to the copy they know
        RtlCopyMemory(common->FileEntry, image, sizeof(*image));
        common->LayoutGeneration++;
        VrkFsFreePool(image);
    }
    common->FileEntryIndex = Slot;
    common->RecordLba = Fcb->Parent->Common->FolderEntry->FileTable[Slot];
    SetSubstitute(common, substituted);
    return STATUS_SUCCESS;
}

// Whether the frame at Index is the one that the FCB is named for: a transfer may have given the clip other frames
// since the name was looked up. Out of line: the entry takes half a kilobyte of stack.
__attribute__((noinline)) bool IsFrame(const OpenRequest* Open, const FCB* Fcb, ULONG Index) {
    ResourceGuard clip;
    clip.Shared(Fcb->Common->Resource);
    const FileEntry* entry = Fcb->Common->FileEntry;
    const ULONG frames = VrkFsGetFrameFileCount(entry);
    if (Index >= frames) {
        return false;
    }
    const Preferences prefs = VrkFsGlobPreferencesOf(Open->Card);
    FoundEntry frame;
    VrkFsConstructFileFrameName(entry->Name, Fcb->TypeIndex, frames, Index, prefs.BaseFrameNumber, prefs.MinFrameDigits,
                                &frame);
    const UNICODE_STRING name = NameOf(&frame);
    return RtlEqualUnicodeString(&name, &Fcb->Name, TRUE);
}

// A name in the listing of a media file is one of its frames or one of the RAM files beside them.
NTSTATUS BindFrameOrRamFile(const OpenRequest* Open, FCB* Fcb, ULONG Index) {
    Fcb->EntryIndex = Index;
    if (IsFrame(Open, Fcb, Index)) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = VrkFsFCBSetupFullName(Open->Vcb, Fcb->Parent);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ULONG ordinal = 0;
    RamFileSet* set = &Fcb->Common->VolumeHandle->RamFiles;
    if (!VrkFsVFFindFile(set, &Fcb->Parent->FullName, &Fcb->Name, &Fcb->RamFile, &ordinal)) {
        return STATUS_NO_SUCH_FILE;
    }
    VrkFsVFAddUser(Fcb->RamFile);
    Fcb->Flags |= kFcbRamFile;
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsBaseOpenExistingDir(const OpenRequest* Open, FCB* Parent, const FoundEntry* Found, BOOLEAN Internal,
                                  FCB** Fcb) {
    if (!Internal && !VrkFsOpensExisting(Open->Disposition)) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    FCB* fcb = nullptr;
    NTSTATUS status = MakeFcb(Open, Parent, Found, Found->IsDirectory, &fcb);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = VrkFsLoadEntry(Open, fcb, Found->Index);
    if (NT_SUCCESS(status) && !Internal) {
        status = OpenAttached(Open, fcb);
    }
    if (!NT_SUCCESS(status)) {
        RemoveFcb(Open, fcb);
        return status;
    }
    *Fcb = fcb;
    return STATUS_SUCCESS;
}

LONGLONG LatestVolumeTimeOrNow(HwContext* Hw) {
    LARGE_INTEGER time;
    KeQuerySystemTime(&time);
    VrkFsHwGetLatestVolumeTime(Hw, &time.QuadPart);
    return time.QuadPart;
}

// Leaves what follows the last backslash.
VOID KeepLastComponent(PUNICODE_STRING Name) {
    ULONG chars = Name->Length / sizeof(WCHAR);
    if (chars != 0 && Name->Buffer[chars - 1] == VRKFS_W('\\')) {
        chars--;
    }
    ULONG start = chars;
    while (start != 0 && Name->Buffer[start - 1] != VRKFS_W('\\')) {
        start--;
    }
    Name->Length = static_cast<USHORT>((chars - start) * sizeof(WCHAR));
    RtlMoveMemory(Name->Buffer, Name->Buffer + start, Name->Length);
}

}  // namespace

NTSTATUS VrkFsPrepareOpen(const OpenRequest* Open, FCB* Fcb, CCB** Ccb) {
    const bool port = (Fcb->Flags & kFcbCommandPort) != 0;
    const ULONG share = port ? FILE_SHARE_READ | FILE_SHARE_WRITE : Open->ShareAccess;
    NTSTATUS status = RecordShareAccess(Open, share, Fcb->ReferenceCount, &Fcb->ShareAccess);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = MakeCcb(Open, Fcb, Ccb);
    if (!NT_SUCCESS(status)) {
        IoRemoveShareAccess(Open->FileObject, &Fcb->ShareAccess);
    }
    return status;
}

VOID VrkFsCommitOpen(const OpenRequest* Open, FCB* Fcb, CCB* Ccb) {
    VrkFsFCBSetupFileObject(Open->FileObject, Open->Vcb, Fcb, Ccb);
    Fcb->ReferenceCount++;
    Fcb->HandleCount++;
    if (Fcb->Level == Fcb->Common->Level) {
        Fcb->Common->HandleCount++;
    }
    Open->Vcb->FileOpenCount++;
    if (VrkFsIsReadOnlyOpen(Open->FileObject)) {
        Open->Vcb->ReadOnlyOpenCount++;
    }
}

VOID VrkFsCancelOpen(const OpenRequest* Open, FCB* Fcb, CCB* Ccb) {
    VrkFsCCBFree(&pVrkFsGlobalData->CcbLookaside, Ccb);
    IoRemoveShareAccess(Open->FileObject, &Fcb->ShareAccess);
}

NTSTATUS VrkFsOpenVolume(const OpenRequest* Open) {
    VCB* vcb = Open->Vcb;
    NTSTATUS status = RecordShareAccess(Open, Open->ShareAccess, vcb->VolumeOpenCount, &vcb->ShareAccess);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    CCB* ccb = nullptr;
    status = VrkFsCCBAllocate(&pVrkFsGlobalData->CcbLookaside, &ccb, vcb, Open->FileObject);
    if (!NT_SUCCESS(status)) {
        IoRemoveShareAccess(Open->FileObject, &vcb->ShareAccess);
        return status;
    }
    VrkFsFCBSetupFileObject(Open->FileObject, vcb, vcb, ccb);
    vcb->VolumeOpenCount++;
    Open->FileObject->Flags |= FO_NO_INTERMEDIATE_BUFFERING;
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsOpenRootDir(const OpenRequest* Open) {
    FCB* root = Open->Vcb->RootFcb;
    ResourceGuard common;
    common.Exclusive(root->Common->Resource);
    const NTSTATUS status = OpenAttached(Open, root);
    if (NT_SUCCESS(status)) {
        root->Common->Time = LatestVolumeTimeOrNow(&Open->Card->Hw);
    }
    return status;
}

NTSTATUS VrkFsOpenExistingFCB(const OpenRequest* Open, FCB* Fcb) {
    if (!VrkFsOpensExisting(Open->Disposition)) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    const NTSTATUS status = VrkFsReloadSubstitute(Open, Fcb);
    return NT_SUCCESS(status) ? OpenAttached(Open, Fcb) : status;
}

NTSTATUS VrkFsOpenTargetDir(const OpenRequest* Open, FCB* Folder) {
    const NTSTATUS status = OpenAttached(Open, Folder);
    if (NT_SUCCESS(status)) {
        KeepLastComponent(&Open->FileObject->FileName);
    }
    return status;
}

NTSTATUS VrkFsInternalOpenExistingDir(const OpenRequest* Open, FCB* Parent, const FoundEntry* Found, FCB** Fcb) {
    return VrkFsBaseOpenExistingDir(Open, Parent, Found, TRUE, Fcb);
}

NTSTATUS VrkFsOpenExistingDir(const OpenRequest* Open, FCB* Parent, const FoundEntry* Found) {
    FCB* fcb = nullptr;
    return VrkFsBaseOpenExistingDir(Open, Parent, Found, FALSE, &fcb);
}

NTSTATUS VrkFsOpenExistingFile(const OpenRequest* Open, FCB* Parent, const FoundEntry* Found) {
    const bool frame = Parent->Level == kLevelFile;
    if (!frame && !VrkFsOpensExisting(Open->Disposition)) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    FCB* fcb = nullptr;
    NTSTATUS status = MakeFcb(Open, Parent, Found, FALSE, &fcb);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = frame ? BindFrameOrRamFile(Open, fcb, Found->Index) : VrkFsLoadEntry(Open, fcb, Found->Index);
    if (NT_SUCCESS(status)) {
        status = OpenAttached(Open, fcb);
    }
    if (!NT_SUCCESS(status)) {
        RemoveFcb(Open, fcb);
    }
    return status;
}

NTSTATUS VrkFsLoadEntry(const OpenRequest* Open, FCB* Fcb, ULONG Index) {
    FCBCommon* common = Fcb->Common;
    if (Fcb->Level == kLevelFolder && common->FolderEntry == nullptr) {
        return LoadFolder(Open, common, Index);
    }
    if (Fcb->Level == kLevelFile && common->FileEntry == nullptr) {
        return LoadFile(Open, Fcb, Index);
    }
    return VrkFsReloadSubstitute(Open, Fcb);
}

NTSTATUS VrkFsReloadSubstitute(const OpenRequest* Open, FCB* Fcb) {
    FCBCommon* common = Fcb->Common;
    if ((common->Flags & kFcbCommonSubstitute) == 0) {
        return STATUS_SUCCESS;
    }
    if (Fcb->Level == kLevelFolder) {
        return LoadFolder(Open, common, common->FolderEntryIndex);
    }
    if (Fcb->Level == kLevelFile && VrkFsFCBIsInPlace(Fcb)) {
        return LoadFile(Open, Fcb, common->FileEntryIndex);
    }
    return STATUS_SUCCESS;
}
