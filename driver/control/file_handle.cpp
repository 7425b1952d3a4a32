#include "control/ioctl.h"
#include "core/card_instance.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/irp_context.h"

namespace {

// Handles are signed 32-bit values: those that stand for the current process and thread are negative.
HANDLE VrkFsIoctlHandle(ULONG Handle) {
    return reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(static_cast<LONG>(Handle)));
}

// The folder or file behind the file object, or null when it is none of those wanted, or none of the card's.
FCB* VrkFsIoctlFindFcb(const CardInstance* Card, PFILE_OBJECT FileObject, ULONG Wanted) {
    if (FileObject->DeviceObject != Card->DiskDevice) {
        return nullptr;
    }
    VCB* vcb = nullptr;
    CCB* ccb = nullptr;
    PVOID fcb = nullptr;
    const VrkFsRequestType kind = VrkFsGetRequestType(FileObject, &vcb, &fcb, &ccb);
    const bool isWanted = (kind == kVrkFsFolderOpen && (Wanted & kIoctlWantFolder) != 0) ||
                          (kind == kVrkFsFileOpen && (Wanted & kIoctlWantFile) != 0);
    return isWanted ? static_cast<FCB*>(fcb) : nullptr;
}

}  // namespace

NTSTATUS VrkFsIoctlReferenceFile(const CardInstance* Card, ULONG Handle, ULONG Wanted, PFILE_OBJECT* FileObject,
                                 FCB** Fcb) {
    // Without a type any object would come back, to be read as a file object.
    PVOID object = nullptr;
    const NTSTATUS status =
        ObReferenceObjectByHandle(VrkFsIoctlHandle(Handle), 0, *IoFileObjectType, UserMode, &object, nullptr);
    if (status == STATUS_OBJECT_TYPE_MISMATCH) {
        return STATUS_UNSUCCESSFUL;
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    auto* fileObject = static_cast<PFILE_OBJECT>(object);
    FCB* fcb = VrkFsIoctlFindFcb(Card, fileObject, Wanted);
    if (fcb == nullptr) {
        ObDereferenceObject(fileObject);
        return STATUS_UNSUCCESSFUL;
    }
    *FileObject = fileObject;
    *Fcb = fcb;
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsIoctlReferenceMediaFile(const CardInstance* Card, ULONG Handle, PFILE_OBJECT* FileObject, FCB** Fcb) {
    PFILE_OBJECT fileObject = nullptr;
    FCB* fcb = nullptr;
    const NTSTATUS status = VrkFsIoctlReferenceFile(Card, Handle, kIoctlWantFile, &fileObject, &fcb);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (!VrkFsFCBIsFile(fcb)) {
        ObDereferenceObject(fileObject);
        return STATUS_UNSUCCESSFUL;
    }
    *FileObject = fileObject;
    *Fcb = fcb;
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsIoctlCheckFile(const FCB* Fcb, BOOLEAN Changes) {
    const ULONG flags = Fcb->Common->Flags;
    if ((flags & kFcbCommonDeleted) != 0) {
        return STATUS_FILE_DELETED;
    }
    return Changes && (flags & kFcbCommonSubstitute) != 0 ? STATUS_FILE_CORRUPT_ERROR : STATUS_SUCCESS;
}
