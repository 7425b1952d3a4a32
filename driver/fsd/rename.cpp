#include "fsd/rename.h"

#include "control/service_channel.h"
#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/guards.h"
#include "core/pool.h"
#include "core/strings.h"
#include "fsd/ccb.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/information.h"
#include "fsd/irp_context.h"
#include "fsd/name_tree.h"
#include "fsd/vcb.h"
#include "media/body_table_cache.h"
#include "media/directory.h"
#include "media/frame_name.h"
#include "media/ram_files.h"
#include "volume/name_index.h"
#include "volume/records.h"

namespace {

constexpr ULONG kNameOffset = FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName);
static_assert(sizeof(FILE_RENAME_INFORMATION) == 16 && kNameOffset == 12);

// Where the object goes.
struct RenameTarget {
    FCB* Folder;
    UNICODE_STRING Name;  // over the request's or the target file object's buffer
};

bool IsRamFile(const FCB* Fcb) {
    return Fcb->Level == kLevelFrame && (Fcb->Flags & kFcbRamFile) != 0;
}

NTSTATUS CheckRenamable(const FCB* Fcb) {
    if ((Fcb->Flags & kFcbRoot) != 0) {
        return STATUS_INVALID_PARAMETER;
    }
    if ((Fcb->Flags & kFcbCommandPort) != 0) {
        return STATUS_ACCESS_DENIED;
    }
    if ((Fcb->Common->Flags & kFcbCommonDeleted) != 0) {
        return STATUS_FILE_DELETED;  // its name may be another object's by now, for the service as well
    }
    const bool onDisk = Fcb->Level >= kLevelVolume && Fcb->Level <= kLevelFile;
    return (onDisk && VrkFsFCBTypeAllowsChanges(Fcb)) || IsRamFile(Fcb) ? STATUS_SUCCESS : STATUS_ACCESS_DENIED;
}

bool IsBelow(const FCBCommon* Common, const FCBCommon* Folder) {
    for (const FCBCommon* at = Common; at != nullptr; at = at->Parent) {
        if (at->Parent == Folder) {
            return true;
        }
    }
    return false;
}

// Body tables are known by full names. No handle leads to the file, but a request that outlived its handle may.
VOID ReleaseBodyTable(FCBCommon* File) {
    ResourceGuard file;
    file.Exclusive(File->Resource);
    if (File->BodyTable != nullptr) {
        VrkFsBTDereferenceObject(&VrkFsCardOfVcb(File->Vcb)->BodyTableCache, File->BodyTable);
        File->BodyTable = nullptr;
    }
}

VOID ReleaseBodyTablesBelow(const FCB* Folder) {
    FCB* root = Folder->Common->Vcb->RootFcb;
    for (FCB* at = root; VrkFsFCBGetNextChild(root, at, &at);) {
        if (VrkFsFCBIsFile(at) && IsBelow(at->Common, Folder->Common)) {
            ReleaseBodyTable(at->Common);
        }
    }
}

// Nothing below a folder may be open while its name changes, through whichever type folder; cached names and cached
// tables of what is below go.
NTSTATUS PrepareFolder(const FCB* Fcb) {
    VCB* vcb = Fcb->Common->Vcb;
    NTSTATUS status = STATUS_SUCCESS;
    FCB* at = vcb->RootFcb;
    while (VrkFsFCBGetNextChild(vcb->RootFcb, at, &at)) {
        if (IsBelow(at->Common, Fcb->Common)) {
            VrkFsFCBRemoveFullName(at);
            VrkFsFCBCommonRemoveFullName(at->Common);
            if (at->HandleCount != 0) {
                status = STATUS_ACCESS_DENIED;
            }
        }
    }
    if (NT_SUCCESS(status)) {
        ReleaseBodyTablesBelow(Fcb);
        VrkFsBTFlushUnrefObjects(&VrkFsCardOfVcb(vcb)->BodyTableCache);
    }
    return status;
}

// A folder that the I/O manager has opened for the rename, with the new name in its file object.
NTSTATUS FindOpenedTarget(const InformationRequest* Request, RenameTarget* Target) {
    VCB* vcb = nullptr;
    PVOID fcb = nullptr;
    CCB* ccb = nullptr;
    if (VrkFsGetRequestType(Request->TargetFolder, &vcb, &fcb, &ccb) != kVrkFsFolderOpen) {
        return STATUS_INVALID_PARAMETER;
    }
    if (vcb != Request->Vcb) {
        return STATUS_ACCESS_DENIED;  // another card's
    }
    Target->Folder = static_cast<FCB*>(fcb);
    Target->Name = Request->TargetFolder->FileName;
    return STATUS_SUCCESS;
}

NTSTATUS FindTarget(const InformationRequest* Request, RenameTarget* Target) {
    if (Request->TargetFolder != nullptr) {
        return FindOpenedTarget(Request, Target);
    }
    auto* info = static_cast<PFILE_RENAME_INFORMATION>(Request->Buffer);
    const ULONG bytes = info->FileNameLength;
    if (bytes > Request->Length - kNameOffset || bytes % sizeof(WCHAR) != 0 || bytes > 0xFFFE) {
        return STATUS_INVALID_PARAMETER;
    }
    Target->Folder = Request->Fcb->Parent;
    Target->Name.Buffer = info->FileName;
    Target->Name.Length = Target->Name.MaximumLength = static_cast<USHORT>(bytes);
    return STATUS_SUCCESS;
}

// The same folder may have been opened through another type folder: that is no move.
bool IsMove(const FCB* Fcb, const RenameTarget* Target) {
    return Target->Folder->Common != Fcb->Parent->Common;
}

// Only files can be given another path, between the folders of one volume.
NTSTATUS CheckPlace(const FCB* Fcb, const RenameTarget* Target) {
    const FCB* from = Fcb->Parent;
    const FCB* to = Target->Folder;
    if (to == from) {
        return STATUS_SUCCESS;
    }
    const bool folders = from->Level == kLevelFolder && to->Level == kLevelFolder;
    return folders && from->Common->VolumeHandle == to->Common->VolumeHandle ? STATUS_SUCCESS : STATUS_ACCESS_DENIED;
}

// The listing's own search, through a handle that exists for this one look.
bool FindInListing(const InformationRequest* Request, FCB* Folder, const UNICODE_STRING& UpcasedName,
                   FoundEntry* Found) {
    CCB ccb = {};
    ccb.Type = kCcbType;
    ccb.Fcb = Folder;
    ccb.SearchName = UpcasedName;
    return VrkFsFindDirEntry(VrkFsDiskExtOfDevice(Request->Vcb->DeviceObject), &ccb, 0, Found) != FALSE;
}

// On disk a search that failed is not one that found nothing: there must not be two of one name.
NTSTATUS FindByLevel(const InformationRequest* Request, FCB* Folder, PCUNICODE_STRING UpcasedName, FoundEntry* Found,
                     PBOOLEAN Exists) {
    HwContext* hw = &VrkFsCardOfVcb(Request->Vcb)->Hw;
    ULONG slot = 0;
    switch (Folder->Level) {
        case kLevelVolume:
            return VrkFsHwFindFolderByName(hw, Folder->Common->VolumeHandle, UpcasedName, 0, &slot, Found, Exists);
        case kLevelFolder:
            return VrkFsHwFindFileByName(hw, Folder, UpcasedName, 0, &slot, Found, Exists);
        default:
            *Exists = FindInListing(Request, Folder, *UpcasedName, Found);
            return STATUS_SUCCESS;
    }
}

// Whether the target folder has an entry of the name, in any case.
NTSTATUS FindEntry(const InformationRequest* Request, const RenameTarget* Target, FoundEntry* Found, PBOOLEAN Exists) {
    UNICODE_STRING upcased;
    NTSTATUS status = RtlUpcaseUnicodeString(&upcased, &Target->Name, TRUE);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = FindByLevel(Request, Target->Folder, &upcased, Found, Exists);
    RtlFreeUnicodeString(&upcased);
    return status;
}

// Whether another object is open by the name although it is not on the disk: a stand-in for an unreadable record.
bool IsNameInUse(const FCB* Fcb, const RenameTarget* Target) {
    FCBCommon* parent = Target->Folder->Level == kLevelType ? Fcb->Common->Parent : Target->Folder->Common;
    FCBCommon* common = nullptr;
    return VrkFsFCBCommonSplayFindFCB(parent, &Target->Name, &common) && common != Fcb->Common;
}

// Whether the name is free, or for a RAM file taken by a frame, whose index is found.
NTSTATUS CheckCollision(const InformationRequest* Request, const RenameTarget* Target, PULONG FrameIndex) {
    FoundEntry found;
    BOOLEAN exists = FALSE;
    const NTSTATUS status = FindEntry(Request, Target, &found, &exists);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (IsRamFile(Request->Fcb)) {
        *FrameIndex = found.Index;
        return exists ? STATUS_SUCCESS : STATUS_ACCESS_DENIED;
    }
    return exists || IsNameInUse(Request->Fcb, Target) ? STATUS_OBJECT_NAME_COLLISION : STATUS_SUCCESS;
}

NTSTATUS CopyImportData(const RamFile* File, FrameImport* Import) {
    Import->Bytes = static_cast<ULONG>(File->EndOfFile);
    if (Import->Bytes == 0) {
        return STATUS_SUCCESS;
    }
    Import->Data = static_cast<PUCHAR>(VrkFsAllocatePool(PagedPool, Import->Bytes));
    if (Import->Data == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(Import->Data, File->Data, Import->Bytes);
    return STATUS_SUCCESS;
}

VOID FreeImport(FrameImport* Import) {
    VrkFsRtlFreeUnicodeString(&Import->MediaFile);
    VrkFsFreePool(Import->Data);
    VrkFsFreePool(Import);
}

NTSTATUS FillImport(FrameImport* Import, FCB* Fcb) {
    FCBCommon* common = Fcb->Common;
    NTSTATUS status = VrkFsFCBCommonSetupFullName(common->Vcb, Fcb, common);
    if (NT_SUCCESS(status)) {
        status = CopyImportData(Fcb->RamFile, Import);
    }
    if (NT_SUCCESS(status)) {
        status = VrkFsRtlCopyUnicodeString(&Import->MediaFile, &common->FullName);
    }
    if (NT_SUCCESS(status)) {
        status = VrkFsFCBSetDeletePending(Fcb);
    }
    return status;
}

// The import itself waits for the service, so it comes after every lock; the RAM file goes with its last handle.
NTSTATUS OrderImport(InformationRequest* Request, ULONG FrameIndex) {
    FCB* fcb = Request->Fcb;
    if (FrameIndex >= VrkFsGetFrameFileCount(fcb->Common->FileEntry) || fcb->RamFile == nullptr) {
        return STATUS_ACCESS_DENIED;  // another RAM file's name
    }
    auto* import = static_cast<FrameImport*>(VrkFsAllocatePool(NonPagedPool, sizeof(FrameImport)));
    if (import == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *import = {};
    const NTSTATUS status = FillImport(import, fcb);
    if (!NT_SUCCESS(status)) {
        FreeImport(import);
        return status;
    }
    import->Card = VrkFsCardOfVcb(Request->Vcb);
    import->TypeCode = VrkFsFCBTypeCode(fcb);
    import->FrameIndex = FrameIndex;
    import->FileObject = Request->FileObject;
    ObReferenceObject(import->FileObject);
    Request->Import = import;
    return status;
}

ServiceChannel* ChannelOf(const FrameImport* Import) {
    return &VrkFsDiskExtOfDevice(Import->Card->DiskDevice)->ServiceChannel;
}

VOID NTAPI VrkFsRunImport(PVOID Context) {
    CriticalRegionGuard region;
    auto* import = static_cast<FrameImport*>(Context);
    ServiceChannel* channel = ChannelOf(import);
    ServiceHandle handle = {};
    if (NT_SUCCESS(VrkFsSReqOpen(channel, VrkFsGlobDriveLetter(import->Card), &import->MediaFile, &handle))) {
        static_cast<void>(
            VrkFsSReqWrite(channel, handle, import->TypeCode, 0, 0, import->Bytes, import->FrameIndex, import->Data));
        static_cast<void>(VrkFsSReqClean(channel, handle, import->TypeCode, import->FrameIndex));
        static_cast<void>(VrkFsSReqClose(channel, handle));
    }
    PFILE_OBJECT fileObject = import->FileObject;
    FreeImport(import);
    ObDereferenceObject(fileObject);
}

}  // namespace

NTSTATUS VrkFsSetFileRenameInfo(InformationRequest* Request) {
    FCB* fcb = Request->Fcb;
    if (Request->Length < sizeof(FILE_RENAME_INFORMATION)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    NTSTATUS status = CheckRenamable(fcb);
    if (NT_SUCCESS(status) && (fcb->Flags & kFcbFolder) != 0) {
        status = PrepareFolder(fcb);
    }
    RenameTarget target = {};
    if (NT_SUCCESS(status)) {
        status = FindTarget(Request, &target);
    }
    if (NT_SUCCESS(status)) {
        status = CheckPlace(fcb, &target);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    HwContext* hw = &VrkFsCardOfVcb(Request->Vcb)->Hw;
    const bool move = IsMove(fcb, &target);
    if (!move && RtlEqualUnicodeString(&target.Name, &fcb->Name, TRUE) && !IsRamFile(fcb)) {
        return VrkFsFCBRename(fcb, &target.Name, FALSE, hw);  // only the case of letters changes
    }
    ULONG frameIndex = 0;
    status = CheckCollision(Request, &target, &frameIndex);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (!move) {
        return IsRamFile(fcb) ? OrderImport(Request, frameIndex) : VrkFsFCBRename(fcb, &target.Name, FALSE, hw);
    }
    if (target.Folder->Common->FolderEntry->FileCount >= kMaxFilesPerFolder) {
        return STATUS_ACCESS_DENIED;
    }
    return VrkFsFCBMove(target.Folder, fcb, &target.Name, FALSE, hw);
}

VOID VrkFsImportFrame(FrameImport* Import) {
    if (Import == nullptr) {
        return;
    }
    ServiceWorker* worker = &ChannelOf(Import)->Worker;
    if (VrkFsSReqIsSystemThread(worker)) {
        ExInitializeWorkItem(&Import->Item, VrkFsRunImport, Import);
        VrkFsSReqQueueWork(worker, &Import->Item);
    } else {
        VrkFsRunImport(Import);
    }
}
