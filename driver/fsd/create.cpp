// The story of a create: name in, handle out.
#include "fsd/create.h"

#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/driver_entry.h"
#include "core/guards.h"
#include "fsd/ccb.h"
#include "fsd/common.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/irp_context.h"
#include "fsd/name_tree.h"
#include "fsd/vcb.h"
#include "media/directory.h"
#include "media/handle_context.h"
#include "volume/name_index.h"

namespace {

constexpr ULONG kCreateOptionsMask = 0x7FFFFF;
constexpr ULONG kDispositionShift = 24;

// What the request's related file object turned out to be.
struct RelatedOpen {
    VrkFsRequestType Type;
    FCB* Fcb;  // of a folder or file open
};

OpenRequest TakeApart(IRPContext* Context) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Context->Irp);
    DiskDeviceExt* ext = VrkFsDiskExtOfDevice(Context->DeviceObject);
    OpenRequest open = {};
    open.Vcb = &ext->Vcb;
    open.Ext = ext;
    open.Card = ext->Instance;
    open.FileObject = stack->FileObject;
    open.DesiredAccess = stack->Parameters.Create.SecurityContext->DesiredAccess;
    open.ShareAccess = stack->Parameters.Create.ShareAccess;
    open.Options = stack->Parameters.Create.Options & kCreateOptionsMask;
    open.Disposition = stack->Parameters.Create.Options >> kDispositionShift;
    open.TargetDirectory = (stack->Flags & SL_OPEN_TARGET_DIRECTORY) != 0;
    return open;
}

bool StartsWithBackslash(PCUNICODE_STRING Name) {
    return Name->Length >= sizeof(WCHAR) && Name->Buffer[0] == VRKFS_W('\\');
}

bool StartsWithTwoBackslashes(PCUNICODE_STRING Name) {
    return Name->Length >= 2 * sizeof(WCHAR) && Name->Buffer[0] == VRKFS_W('\\') && Name->Buffer[1] == VRKFS_W('\\');
}

// One leading backslash too many is forgiven.
NTSTATUS TidyName(PUNICODE_STRING Name) {
    if (Name->Length % sizeof(WCHAR) != 0) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    if (StartsWithTwoBackslashes(Name)) {
        Name->Length -= sizeof(WCHAR);
        RtlMoveMemory(Name->Buffer, Name->Buffer + 1, Name->Length);
    }
    return StartsWithTwoBackslashes(Name) ? STATUS_OBJECT_NAME_INVALID : STATUS_SUCCESS;
}

// A handle of another device, the control device included, is no place to start from.
RelatedOpen ClassifyRelated(const OpenRequest* Open) {
    PFILE_OBJECT related = Open->FileObject->RelatedFileObject;
    if (related->DeviceObject != Open->Vcb->DeviceObject) {
        return {kVrkFsForeignOpen, nullptr};
    }
    VCB* vcb = nullptr;
    PVOID fcbOrVcb = nullptr;
    CCB* ccb = nullptr;
    const VrkFsRequestType type = VrkFsGetRequestType(related, &vcb, &fcbOrVcb, &ccb);
    const bool hasFcb = type == kVrkFsFolderOpen || type == kVrkFsFileOpen;
    return {type, hasFcb ? static_cast<FCB*>(fcbOrVcb) : nullptr};
}

NTSTATUS CreateOnVolume(const OpenRequest* Open, PULONG_PTR Information) {
    if (Open->TargetDirectory) {
        return STATUS_INVALID_PARAMETER;
    }
    if ((Open->Options & FILE_DIRECTORY_FILE) != 0) {
        return STATUS_NOT_A_DIRECTORY;
    }
    if (!VrkFsOpensExisting(Open->Disposition)) {
        return STATUS_ACCESS_DENIED;
    }
    *Information = FILE_OPENED;
    return VrkFsOpenVolume(Open);
}

NTSTATUS CreateOnRoot(const OpenRequest* Open, PULONG_PTR Information) {
    if (Open->FileObject->RelatedFileObject != nullptr) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    if ((Open->Options & FILE_NON_DIRECTORY_FILE) != 0) {
        return STATUS_FILE_IS_A_DIRECTORY;
    }
    if (Open->TargetDirectory) {
        return STATUS_INVALID_PARAMETER;
    }
    if ((Open->Options & FILE_DELETE_ON_CLOSE) != 0) {
        return STATUS_CANNOT_DELETE;
    }
    if (!VrkFsOpensExisting(Open->Disposition)) {
        return STATUS_ACCESS_DENIED;
    }
    *Information = FILE_OPENED;
    return VrkFsOpenRootDir(Open);
}

// Splits the next component off the name; Rest is what follows it.
NTSTATUS NextComponent(PCUNICODE_STRING Name, PUNICODE_STRING Component, PUNICODE_STRING Rest) {
    FsRtlDissectName(*Name, Component, Rest);
    const bool valid = !StartsWithBackslash(Rest) && VrkFsIsValidComponent(Component);
    return valid ? STATUS_SUCCESS : STATUS_OBJECT_NAME_INVALID;
}

// Follows the name through what is open already, as far as it goes; what is left stays in Name.
NTSTATUS WalkOpenNames(FCB** Current, PUNICODE_STRING Name) {
    while (((*Current)->Flags & kFcbFolder) != 0 && Name->Length != 0) {
        UNICODE_STRING component;
        UNICODE_STRING rest;
        const NTSTATUS status = NextComponent(Name, &component, &rest);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        FCB* child = nullptr;
        if (!VrkFsFCBSplayFindFCB(*Current, &component, &child)) {
            break;
        }
        *Current = child;
        *Name = rest;
    }
    return STATUS_SUCCESS;
}

bool IsGoing(const FCB* Fcb) {
    return (Fcb->Flags & kFcbDeletePending) != 0 || (Fcb->Common->Flags & kFcbCommonDeleted) != 0;
}

NTSTATUS OpenTarget(const OpenRequest* Open, FCB* Folder, ULONG_PTR Exists, PULONG_PTR Information) {
    if (Folder == nullptr) {  // nothing holds the root
        return STATUS_INVALID_PARAMETER;
    }
    *Information = Exists;
    return VrkFsOpenTargetDir(Open, Folder);
}

// What keeps an existing object from being opened as the kind of object that the caller asks for.
NTSTATUS CheckKind(const OpenRequest* Open, bool IsFolder) {
    if (IsFolder && (Open->Options & FILE_NON_DIRECTORY_FILE) != 0) {
        return STATUS_FILE_IS_A_DIRECTORY;
    }
    if (!IsFolder && (Open->Options & FILE_DIRECTORY_FILE) != 0 && VrkFsOpensExisting(Open->Disposition)) {
        return STATUS_NOT_A_DIRECTORY;
    }
    return STATUS_SUCCESS;
}

NTSTATUS OpenOpenName(const OpenRequest* Open, FCB* Fcb, PULONG_PTR Information) {
    if (Open->TargetDirectory) {
        return OpenTarget(Open, Fcb->Parent, FILE_EXISTS, Information);
    }
    const NTSTATUS status = CheckKind(Open, (Fcb->Flags & kFcbFolder) != 0);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    *Information = FILE_OPENED;
    return VrkFsOpenExistingFCB(Open, Fcb);
}

NTSTATUS OpenFound(const OpenRequest* Open, FCB* Parent, const FoundEntry* Found, PULONG_PTR Information) {
    if (Open->TargetDirectory) {
        return OpenTarget(Open, Parent, FILE_EXISTS, Information);
    }
    const NTSTATUS status = CheckKind(Open, Found->IsDirectory);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    *Information = FILE_OPENED;
    return Found->IsDirectory ? VrkFsOpenExistingDir(Open, Parent, Found) : VrkFsOpenExistingFile(Open, Parent, Found);
}

NTSTATUS OpenMissing(const OpenRequest* Open, FCB* Parent, PCUNICODE_STRING Name, PULONG_PTR Information) {
    if (Open->TargetDirectory) {
        return OpenTarget(Open, Parent, FILE_DOES_NOT_EXIST, Information);
    }
    const bool asFolder = (Open->Options & FILE_DIRECTORY_FILE) != 0;
    const bool mustExist = Open->Disposition == FILE_OPEN || Open->Disposition == FILE_OVERWRITE;
    const bool newFolder = asFolder && (Open->Disposition == FILE_CREATE || Open->Disposition == FILE_OPEN_IF);
    if (mustExist && asFolder) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    // The command port stands in every folder, so its name never becomes anything else's, whatever its open says.
    if (!newFolder && (mustExist || VrkFsIsComPortName(Name))) {
        *Information = FILE_OPENED;
        return VrkFsOpenComPortFile(Open, Parent, Name);
    }
    *Information = FILE_CREATED;
    return newFolder ? VrkFsCreateNewDir(Open, Parent, Name) : VrkFsCreateNewFile(Open, Parent, Name);
}

// The listing's own search, through a handle that exists for this one look.
__attribute__((noinline)) BOOLEAN FindInListing(const OpenRequest* Open, FCB* Folder, PUNICODE_STRING UpcasedName,
                                                FoundEntry* Found) {
    CCB ccb = {};
    ccb.Type = kCcbType;
    ccb.Fcb = Folder;
    ccb.SearchName = *UpcasedName;
    return VrkFsFindDirEntry(Open->Ext, &ccb, 0, Found);
}

// Folders and files on disk are looked up by the operation that says whether it failed: "not found" makes a new one,
// and there must not be two of one name because memory was short.
NTSTATUS FindByLevel(const OpenRequest* Open, FCB* Folder, PUNICODE_STRING UpcasedName, FoundEntry* Found,
                     PBOOLEAN Exists) {
    ULONG slot = 0;
    switch (Folder->Level) {
        case kLevelVolume:
            return VrkFsHwFindFolderByName(&Open->Card->Hw, Folder->Common->VolumeHandle, UpcasedName, 0, &slot, Found,
                                           Exists);
        case kLevelFolder:
            return VrkFsHwFindFileByName(&Open->Card->Hw, Folder, UpcasedName, 0, &slot, Found, Exists);
        default:
            *Exists = FindInListing(Open, Folder, UpcasedName, Found);
            return STATUS_SUCCESS;
    }
}

NTSTATUS FindOnDisk(const OpenRequest* Open, FCB* Folder, PCUNICODE_STRING Name, FoundEntry* Found, PBOOLEAN Exists) {
    NTSTATUS status = VrkFsReloadSubstitute(Open, Folder);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    UNICODE_STRING upcased;
    if (!NT_SUCCESS(RtlUpcaseUnicodeString(&upcased, Name, TRUE))) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ResourceGuard folder;
    folder.Shared(Folder->Common->Resource);
    status = FindByLevel(Open, Folder, &upcased, Found, Exists);
    folder.Release();
    RtlFreeUnicodeString(&upcased);
    return status;
}

// Goes on from what is open, one component after the other, through what is on disk. *Current is the folder reached; it
// and whatever was made on the way to it is the caller's to remove after a failure.
NTSTATUS CreateBelow(const OpenRequest* Open, FCB** Current, UNICODE_STRING Name, PULONG_PTR Information) {
    for (;;) {
        UNICODE_STRING component;
        UNICODE_STRING rest;
        NTSTATUS status = NextComponent(&Name, &component, &rest);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        FoundEntry found;
        BOOLEAN exists = FALSE;
        status = FindOnDisk(Open, *Current, &component, &found, &exists);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        if (rest.Length == 0) {
            return exists ? OpenFound(Open, *Current, &found, Information)
                          : OpenMissing(Open, *Current, &component, Information);
        }
        if (!exists || !found.IsDirectory) {
            return STATUS_OBJECT_PATH_NOT_FOUND;
        }
        status = VrkFsInternalOpenExistingDir(Open, *Current, &found, Current);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        Name = rest;
    }
}

NTSTATUS CreateByName(const OpenRequest* Open, const RelatedOpen* Related, PULONG_PTR Information) {
    FCB* current = Open->Vcb->RootFcb;
    if (Open->FileObject->RelatedFileObject != nullptr) {
        if (Related->Fcb == nullptr) {
            return STATUS_OBJECT_PATH_NOT_FOUND;
        }
        current = Related->Fcb;
        Open->FileObject->Vpb = Open->FileObject->RelatedFileObject->Vpb;
    }
    UNICODE_STRING name = Open->FileObject->FileName;
    if (name.Length != 0 && name.Buffer[name.Length / sizeof(WCHAR) - 1] == VRKFS_W('\\')) {
        name.Length -= sizeof(WCHAR);
    }
    NTSTATUS status = WalkOpenNames(&current, &name);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (IsGoing(current)) {
        return STATUS_DELETE_PENDING;
    }
    if (name.Length == 0) {
        return OpenOpenName(Open, current, Information);
    }
    if ((current->Flags & kFcbFolder) == 0) {
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    status = CreateBelow(Open, &current, name, Information);
    if (!NT_SUCCESS(status)) {
        VrkFsFCBRemove(current, &Open->Card->Hw);
    }
    return status;
}

NTSTATUS ServeCreate(const OpenRequest* Open, ULONG EaLength, ResourceGuard* Volume, PULONG_PTR Information) {
    if (EaLength != 0 || Open->Disposition > FILE_MAXIMUM_DISPOSITION) {
        return STATUS_INVALID_PARAMETER;
    }
    PUNICODE_STRING name = &Open->FileObject->FileName;
    const NTSTATUS status = TidyName(name);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const bool hasRelated = Open->FileObject->RelatedFileObject != nullptr;
    const RelatedOpen related = hasRelated ? ClassifyRelated(Open) : RelatedOpen{kVrkFsVolumeOpen, nullptr};

    Volume->Exclusive(&Open->Vcb->Resource);
    if ((Open->Vcb->Flags & kVcbLocked) != 0) {
        return STATUS_ACCESS_DENIED;
    }
    if (name->Length == 0 && related.Type == kVrkFsVolumeOpen) {
        return CreateOnVolume(Open, Information);
    }
    if (name->Length == sizeof(WCHAR) && StartsWithBackslash(name)) {
        return CreateOnRoot(Open, Information);
    }
    return CreateByName(Open, &related, Information);
}

}  // namespace

NTSTATUS NTAPI VrkFsCreate(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    if (VrkFsExtTypeOfDevice(DeviceObject) == kExtTypeControl) {
        CriticalRegionGuard region;
        return VrkFsAnswerRequest(Irp, VrkFsHCAllocateContext(IoGetCurrentIrpStackLocation(Irp)->FileObject));
    }
    return VrkFsEnterRequest(DeviceObject, Irp, VrkFsCommonCreate);
}

NTSTATUS VrkFsCommonCreate(IRPContext* Context) {
    if (VrkFsIRPContextMustPost(Context)) {
        return VrkFsIRPContextPost(Context);
    }
    ResourceGuard volume;
    const OpenRequest open = TakeApart(Context);
    const ULONG eaLength = IoGetCurrentIrpStackLocation(Context->Irp)->Parameters.Create.EaLength;
    ULONG_PTR information = 0;
    const NTSTATUS status = ServeCreate(&open, eaLength, &volume, &information);
    return VrkFsCompleteRequest(Context, status, NT_SUCCESS(status) ? information : 0);
}
