// Opening what does not exist yet. Whatever can fail for want of memory or on account of sharing comes first; the
// change on disk is the last step, so that a create that fails has nothing on disk to undo.
#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/pool.h"
#include "fsd/ccb.h"
#include "fsd/create.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/name_tree.h"
#include "fsd/vcb.h"
#include "media/ram_files.h"
#include "volume/entries.h"
#include "volume/hw_volume.h"

namespace {

LONGLONG Now() {
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    return now.QuadPart;
}

// Something of that name is open below the folder although the lookup on disk has not found it.
bool IsNameInUse(FCB* Parent, PCUNICODE_STRING Name) {
    FCBCommon* common = nullptr;
    return VrkFsFCBCommonSplayFindFCB(Parent->Common, Name, &common);
}

// A new FCB with everything that an open of it needs, before there is anything behind it.
struct NewOpen {
    FCB* Fcb;
    CCB* Ccb;
};

NTSTATUS Prepare(const OpenRequest* Open, NewOpen* New) {
    const NTSTATUS status = VrkFsPrepareOpen(Open, New->Fcb, &New->Ccb);
    if (!NT_SUCCESS(status)) {
        VrkFsFCBRemoveUpTo(New->Fcb, New->Fcb->Parent, &Open->Card->Hw);
    }
    return status;
}

NTSTATUS Begin(const OpenRequest* Open, FCB* Parent, PCUNICODE_STRING Name, BOOLEAN IsFolder, NewOpen* New) {
    const NTSTATUS status = VrkFsFCBCreate(&New->Fcb, Open->Vcb, Parent, Name, 0, IsFolder, Open->Vcb->DeviceObject);
    return NT_SUCCESS(status) ? Prepare(Open, New) : status;
}

VOID Abandon(const OpenRequest* Open, NewOpen* New) {
    VrkFsCancelOpen(Open, New->Fcb, New->Ccb);
    VrkFsFCBRemoveUpTo(New->Fcb, New->Fcb->Parent, &Open->Card->Hw);
}

NTSTATUS Finish(const OpenRequest* Open, NewOpen* New, NTSTATUS Status) {
    if (NT_SUCCESS(Status)) {
        VrkFsCommitOpen(Open, New->Fcb, New->Ccb);
    } else {
        Abandon(Open, New);
    }
    return Status;
}

NTSTATUS CreateFolderOnDisk(const OpenRequest* Open, FCBCommon* Common, PCUNICODE_STRING Name, DirEntry* Image) {
    ULONG slot = 0;
    const NTSTATUS status = VrkFsHwCreateDirEntry(&Open->Card->Hw, Open->Vcb, Common->VolumeHandle, Name, Image, &slot);
    if (NT_SUCCESS(status)) {
        Common->FolderEntry = Image;
        Common->FolderEntryIndex = slot;
        Common->Time = static_cast<LONGLONG>(Image->CreationTime);
    }
    return status;
}

NTSTATUS CreateFileOnDisk(const OpenRequest* Open, FCB* Parent, FCBCommon* Common, PCUNICODE_STRING Name,
                          FileEntry* Image) {
    ULONG slot = 0;
    const NTSTATUS status = VrkFsHwCreateFileEntry(&Open->Card->Hw, Open->Vcb, Parent, Name, Image, &slot);
    if (NT_SUCCESS(status)) {
        Common->FileEntry = Image;
        Common->FileEntryIndex = slot;
        Common->RecordLba = Parent->Common->FolderEntry->FileTable[slot];
        Common->Time = static_cast<LONGLONG>(Image->CreationTime);
    }
    return status;
}

NTSTATUS CreateFileInFolder(const OpenRequest* Open, FCB* Parent, PCUNICODE_STRING Name) {
    if (!VrkFsFCBTypeAllowsChanges(Parent)) {
        return STATUS_ACCESS_DENIED;
    }
    if (IsNameInUse(Parent, Name)) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    FileEntry* image = static_cast<FileEntry*>(VrkFsAllocatePool(PagedPool, sizeof(FileEntry)));
    if (image == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NewOpen created = {};
    NTSTATUS status = Begin(Open, Parent, Name, FALSE, &created);
    if (NT_SUCCESS(status)) {
        status = Finish(Open, &created, CreateFileOnDisk(Open, Parent, created.Fcb->Common, Name, image));
    }
    if (!NT_SUCCESS(status)) {
        VrkFsFreePool(image);
    }
    return status;
}

NTSTATUS CreateRamFileRecord(const OpenRequest* Open, FCB* Fcb, PCUNICODE_STRING Name) {
    RamFileSet* set = &Fcb->Common->VolumeHandle->RamFiles;
    PCUNICODE_STRING parentName = &Fcb->Parent->FullName;
    ULONG ordinal = 0;
    RamFile* file = nullptr;
    if (VrkFsVFFindFile(set, parentName, Name, &file, &ordinal)) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    const ULONG limit = VrkFsGlobPreferencesOf(Open->Card).TotalRAMFiles;
    const NTSTATUS status = VrkFsVFCreateNewFile(set, parentName, Name, Now(), limit, &file);
    if (NT_SUCCESS(status)) {
        VrkFsVFAddUser(file);
        Fcb->RamFile = file;
        Fcb->Flags |= kFcbRamFile;
    }
    return status;
}

NTSTATUS CreateRamFile(const OpenRequest* Open, FCB* Parent, PCUNICODE_STRING Name) {
    NTSTATUS status = VrkFsFCBSetupFullName(Open->Vcb, Parent);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    NewOpen created = {};
    status = Begin(Open, Parent, Name, FALSE, &created);
    return NT_SUCCESS(status) ? Finish(Open, &created, CreateRamFileRecord(Open, created.Fcb, Name)) : status;
}

}  // namespace

NTSTATUS VrkFsOpenComPortFile(const OpenRequest* Open, FCB* Parent, PCUNICODE_STRING Name) {
    if (!VrkFsIsComPortName(Name)) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    NewOpen port = {};
    NTSTATUS status = VrkFsFCBCreateComPort(&port.Fcb, Open->Vcb, Parent, Name, Now(), Open->Vcb->DeviceObject);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = Prepare(Open, &port);
    return NT_SUCCESS(status) ? Finish(Open, &port, status) : status;
}

NTSTATUS VrkFsCreateNewDir(const OpenRequest* Open, FCB* Parent, PCUNICODE_STRING Name) {
    if (Parent->Level != kLevelVolume) {
        return STATUS_ACCESS_DENIED;
    }
    if (VrkFsIsComPortName(Name) || IsNameInUse(Parent, Name)) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    DirEntry* image = static_cast<DirEntry*>(VrkFsAllocatePool(PagedPool, sizeof(DirEntry)));
    if (image == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NewOpen created = {};
    NTSTATUS status = Begin(Open, Parent, Name, TRUE, &created);
    if (NT_SUCCESS(status)) {
        status = Finish(Open, &created, CreateFolderOnDisk(Open, created.Fcb->Common, Name, image));
    }
    if (!NT_SUCCESS(status)) {
        VrkFsFreePool(image);
    }
    return status;
}

NTSTATUS VrkFsCreateNewFile(const OpenRequest* Open, FCB* Parent, PCUNICODE_STRING Name) {
    switch (Parent->Level) {
        case kLevelFolder:
            return CreateFileInFolder(Open, Parent, Name);
        case kLevelFile:
            return CreateRamFile(Open, Parent, Name);
        default:
            return STATUS_ACCESS_DENIED;
    }
}
