#include "fsd/ccb.h"

#include "control/com_port.h"
#include "core/lookaside.h"
#include "core/pool.h"
#include "core/strings.h"

namespace {

constexpr USHORT kCcbListDepth = 30;

}  // namespace

VOID VrkFsCCBLListInitialize(PPAGED_LOOKASIDE_LIST List) {
    ExInitializePagedLookasideList(List, nullptr, nullptr, 0, sizeof(CCB), VrkFsPoolTag("CCBL"), kCcbListDepth);
}

NTSTATUS VrkFsCCBLListAllocate(PPAGED_LOOKASIDE_LIST List, CCB** Ccb) {
    *Ccb = VrkFsLookasideAllocate<CCB>(List);
    return *Ccb != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

VOID VrkFsCCBLListRelease(PPAGED_LOOKASIDE_LIST List, CCB* Ccb) {
    VrkFsLookasideFree(List, Ccb);
}

NTSTATUS VrkFsCCBAllocate(PPAGED_LOOKASIDE_LIST List, CCB** Ccb, PVOID FcbOrVcb, PFILE_OBJECT FileObject) {
    const NTSTATUS status = VrkFsCCBLListAllocate(List, Ccb);
    if (NT_SUCCESS(status)) {
        (*Ccb)->Type = kCcbType;
        (*Ccb)->Fcb = static_cast<FCB*>(FcbOrVcb);
        (*Ccb)->FileObject = FileObject;
    }
    return status;
}

VOID VrkFsCCBFree(PPAGED_LOOKASIDE_LIST List, CCB* Ccb) {
    VrkFsRtlFreeUnicodeString(&Ccb->SearchName);
    VrkFsRtlFreeUnicodeString(&Ccb->NotifyName);
    if ((Ccb->Flags & kCcbComPort) != 0) {
        VrkFsComPortFree(Ccb->ComPort);
        VrkFsFreePool(Ccb->ComPort);
    }
    VrkFsCCBLListRelease(List, Ccb);
}

NTSTATUS VrkFsCCBAddComPort(CCB* Ccb, ServiceChannel* Channel) {
    struct ComPort* port = static_cast<struct ComPort*>(VrkFsAllocatePool(PagedPool, sizeof(struct ComPort)));
    if (port == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const NTSTATUS status = VrkFsComPortInitialize(port, Channel, Ccb);
    if (!NT_SUCCESS(status)) {
        VrkFsFreePool(port);
        return status;
    }
    Ccb->ComPort = port;
    Ccb->Flags |= kCcbComPort;
    return STATUS_SUCCESS;
}
