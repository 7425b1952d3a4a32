#include "core/global_data.h"

#include "core/card_instance.h"
#include "core/event_log.h"
#include "core/pool.h"
#include "core/strings.h"
#include "fsd/ccb.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/irp_context.h"
#include "volume/allocator.h"

namespace {

NTSTATUS AddBuiltInFileType(GlobalData* Global) {
    FileType row{};
    row.Extension[0] = 'R';
    row.Extension[1] = 'Z';
    row.Extension[2] = 'V';
    return VrkFsGlobAddFileType(Global, &row);
}

template <typename Record>
VOID InitializeList(GlobalData* Global, PPAGED_LOOKASIDE_LIST List, const char (&Tag)[5], USHORT Depth, ULONG Flag) {
    ExInitializePagedLookasideList(List, nullptr, nullptr, 0, sizeof(Record), VrkFsPoolTag(Tag), Depth);
    Global->Flags |= Flag;
}

template <typename Record>
VOID InitializeList(GlobalData* Global, PNPAGED_LOOKASIDE_LIST List, const char (&Tag)[5], USHORT Depth, ULONG Flag) {
    ExInitializeNPagedLookasideList(List, nullptr, nullptr, 0, sizeof(Record), VrkFsPoolTag(Tag), Depth);
    Global->Flags |= Flag;
}

VOID InitializeLists(GlobalData* Global) {
    InitializeList<FCBCommon>(Global, &Global->FcbCommonLookaside, "FCBC", 20, kGlobalFcbCommonList);
    InitializeList<FCB>(Global, &Global->FcbLookaside, "FCBL", 20, kGlobalFcbList);
    InitializeList<ERESOURCE>(Global, &Global->FcbResourceLookaside, "FCBN", 20, kGlobalFcbResourceList);
    InitializeList<ERESOURCE>(Global, &Global->FcbCommonResourceLookaside, "FCBn", 20, kGlobalFcbCommonResourceList);
    InitializeList<CCB>(Global, &Global->CcbLookaside, "CCBL", 30, kGlobalCcbList);
    InitializeList<IRPContext>(Global, &Global->IrpContextLookaside, "IRPC", 10, kGlobalIrpContextList);
    InitializeList<AllocSegment>(Global, &Global->AllocSegmentLookaside, "VOLA", 256, kGlobalAllocSegmentList);
}

VOID DeleteList(GlobalData* Global, PPAGED_LOOKASIDE_LIST List, ULONG Flag) {
    if ((Global->Flags & Flag) != 0) {
        Global->Flags &= ~Flag;
        ExDeletePagedLookasideList(List);
    }
}

VOID DeleteList(GlobalData* Global, PNPAGED_LOOKASIDE_LIST List, ULONG Flag) {
    if ((Global->Flags & Flag) != 0) {
        Global->Flags &= ~Flag;
        ExDeleteNPagedLookasideList(List);
    }
}

}  // namespace

NTSTATUS VrkFsGlobInitialize(GlobalData* Global, PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
    RtlZeroMemory(Global, sizeof(*Global));
    Global->DriverObject = DriverObject;
    ExInitializeFastMutex(&Global->FileTypesLock);
    InitializeListHead(&Global->CardInstances);
    NTSTATUS status = VrkFsRtlCopyUnicodeString(&Global->RegistryPath, RegistryPath);
    if (!NT_SUCCESS(status)) {
        VrkFsGlobLogStartFailure("Registry path alloc. failed", nullptr, 0);
        return status;
    }
    status = AddBuiltInFileType(Global);
    if (NT_SUCCESS(status)) {
        InitializeLists(Global);
        status = VrkFsGlobInitializeCardInstances(Global);
    }
    if (!NT_SUCCESS(status)) {
        VrkFsGlobFree(Global);
    }
    return status;
}

VOID VrkFsGlobFree(GlobalData* Global) {
    VrkFsGlobFreeCardInstances(Global);
    DeleteList(Global, &Global->AllocSegmentLookaside, kGlobalAllocSegmentList);
    DeleteList(Global, &Global->IrpContextLookaside, kGlobalIrpContextList);
    DeleteList(Global, &Global->CcbLookaside, kGlobalCcbList);
    DeleteList(Global, &Global->FcbResourceLookaside, kGlobalFcbResourceList);
    DeleteList(Global, &Global->FcbCommonResourceLookaside, kGlobalFcbCommonResourceList);
    DeleteList(Global, &Global->FcbLookaside, kGlobalFcbList);
    DeleteList(Global, &Global->FcbCommonLookaside, kGlobalFcbCommonList);
    VrkFsRtlFreeUnicodeString(&Global->RegistryPath);
}

VOID VrkFsGlobLogStartFailure(PCSTR Text, const VOID* Dump, ULONG DumpBytes) {
    VrkFsGlobLogEvent(pVrkFsGlobalData->DriverObject, kVrkFsEventInitialization, 0, Dump, DumpBytes, Text, nullptr);
}
