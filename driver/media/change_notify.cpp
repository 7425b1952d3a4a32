// Change notification: watchers of folders, and the reports of what changed below them.
#include "core/global_data.h"
#include "core/guards.h"
#include "core/strings.h"
#include "fsd/ccb.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/irp_context.h"
#include "fsd/name_tree.h"
#include "fsd/vcb.h"
#include "media/directory.h"

namespace {

// The notification package takes wide names in its narrow string record.
STRING AsNarrow(const UNICODE_STRING& Name) {
    STRING narrow = {};
    narrow.Length = Name.Length;
    narrow.MaximumLength = Name.MaximumLength;
    narrow.Buffer = static_cast<PCHAR>(static_cast<PVOID>(Name.Buffer));
    return narrow;
}

// Bytes before the last component.
USHORT LastComponentOffset(const UNICODE_STRING& FullName) {
    UNICODE_STRING first = {};
    UNICODE_STRING rest = FullName;
    while (rest.Length != 0) {
        const UNICODE_STRING whole = rest;
        FsRtlDissectName(whole, &first, &rest);
    }
    if (first.Buffer == nullptr) {
        return 0;
    }
    return static_cast<USHORT>((first.Buffer - FullName.Buffer) * sizeof(WCHAR));
}

// The package keeps a pointer to the folder's name for as long as the handle lives, while a rename drops the FCB's own.
NTSTATUS MakeNotifyName(FCB* Fcb, CCB* Ccb) {
    if (Ccb->NotifyName.Buffer != nullptr) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = VrkFsFCBSetupFullName(Fcb->Common->Vcb, Fcb);
    return NT_SUCCESS(status) ? VrkFsRtlCopyUnicodeString(&Ccb->NotifyName, &Fcb->FullName) : status;
}

}  // namespace

VOID VrkFsNotifyChange(VCB* Vcb, PCWSTR FullName, ULONG Filter, ULONG Action) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, FullName);
    STRING narrow = AsNarrow(name);
    FsRtlNotifyFullReportChange(Vcb->NotifySync, &Vcb->NotifyList, &narrow, LastComponentOffset(name), nullptr, nullptr,
                                Filter, Action, nullptr);
}

NTSTATUS VrkFsChangeNotify(IRPContext* Context) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Context->Irp);
    VCB* vcb = nullptr;
    PVOID folder = nullptr;
    CCB* ccb = nullptr;
    if (stack->FileObject == nullptr ||
        VrkFsGetRequestType(stack->FileObject, &vcb, &folder, &ccb) != kVrkFsFolderOpen) {
        return STATUS_INVALID_PARAMETER;
    }
    FCB* fcb = static_cast<FCB*>(folder);
    ResourceGuard vcbLock;
    ResourceGuard commonLock;
    vcbLock.Shared(&vcb->Resource);
    // Exclusively only while the handle's first request stores the name.
    commonLock.Exclusive(fcb->Common->Resource);
    // A posted request may come after the handle's cleanup, which marks the file object only when it succeeds.
    if ((ccb->Flags & kCcbCleanedUp) != 0) {
        return STATUS_NOTIFY_CLEANUP;
    }
    const NTSTATUS status = MakeNotifyName(fcb, ccb);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    commonLock.ConvertToShared();
    // The request belongs to the notification package from here on, whatever it does with it. Once it is over its
    // handle may be closed and the driver unloaded, so our context goes before.
    PIRP const irp = Context->Irp;
    VrkFsIRPContextFree(&pVrkFsGlobalData->IrpContextLookaside, Context);
    FsRtlNotifyFullChangeDirectory(vcb->NotifySync, &vcb->NotifyList, ccb,
                                   static_cast<PSTRING>(static_cast<PVOID>(&ccb->NotifyName)),
                                   (stack->Flags & SL_WATCH_TREE) != 0, TRUE,
                                   stack->Parameters.NotifyDirectory.CompletionFilter, irp, nullptr, nullptr);
    return STATUS_PENDING;
}
