#include "core/driver_entry.h"

#include "core/card_instance.h"
#include "core/event_log.h"
#include "core/global_data.h"
#include "core/guards.h"
#include "core/pool.h"
#include "storage/hw_request.h"

constinit ULONG ulInitFlags = 0;
constinit GlobalData* pVrkFsGlobalData = nullptr;

namespace {

VOID InstallEntryPoints(PDRIVER_OBJECT DriverObject) {
    PDRIVER_DISPATCH* entry = DriverObject->MajorFunction;
    entry[IRP_MJ_CREATE] = VrkFsCreate;
    entry[IRP_MJ_CLOSE] = VrkFsClose;
    entry[IRP_MJ_READ] = VrkFsRead;
    entry[IRP_MJ_WRITE] = VrkFsWrite;
    entry[IRP_MJ_QUERY_INFORMATION] = VrkFsQueryInformation;
    entry[IRP_MJ_SET_INFORMATION] = VrkFsSetInformation;
    entry[IRP_MJ_FLUSH_BUFFERS] = VrkFsFlushBuffers;
    entry[IRP_MJ_QUERY_VOLUME_INFORMATION] = VrkFsQueryVolumeInformation;
    entry[IRP_MJ_SET_VOLUME_INFORMATION] = VrkFsSetVolumeInformation;
    entry[IRP_MJ_DIRECTORY_CONTROL] = VrkFsDirectoryCtrl;
    entry[IRP_MJ_FILE_SYSTEM_CONTROL] = VrkFsFileSystemCtrl;
    entry[IRP_MJ_DEVICE_CONTROL] = VrkFsDeviceIOCTL;
    entry[IRP_MJ_SHUTDOWN] = VrkFsInitShutdown;
    entry[IRP_MJ_CLEANUP] = VrkFsCleanup;
    DriverObject->DriverUnload = VrkFsInitUnload;
}

// The steps of start-up; what they reached stands in ulInitFlags.
NTSTATUS Start(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
    pVrkFsGlobalData = static_cast<GlobalData*>(VrkFsAllocatePool(NonPagedPool, sizeof(GlobalData)));
    if (pVrkFsGlobalData == nullptr) {
        VrkFsGlobLogEvent(DriverObject, kVrkFsEventInitialization, 0, nullptr, 0, "Global mem. alloc failed", nullptr);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ulInitFlags |= kInitGlobalAllocated;

    NTSTATUS status = VrkFsGlobInitialize(pVrkFsGlobalData, DriverObject, RegistryPath);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ulInitFlags |= kInitGlobalInitialized;

    status = IoRegisterShutdownNotification(DriverObject->DeviceObject);
    if (NT_SUCCESS(status)) {
        ulInitFlags |= kInitShutdownRegistered;
    }
    return status;
}

// TRUE the first time: the flag is cleared.
bool TakeInitFlag(ULONG Flag) {
    const bool set = (ulInitFlags & Flag) != 0;
    ulInitFlags &= ~Flag;
    return set;
}

}  // namespace

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
    ulInitFlags = 0;
    InstallEntryPoints(DriverObject);
    const NTSTATUS status = Start(DriverObject, RegistryPath);
    if (!NT_SUCCESS(status)) {
        VrkFsInitUnload(DriverObject);
    }
    return status;
}

extern "C" VOID NTAPI VrkFsInitUnload(PDRIVER_OBJECT DriverObject) {
    if (TakeInitFlag(kInitShutdownRegistered)) {
        IoUnregisterShutdownNotification(DriverObject->DeviceObject);
    }
    if (TakeInitFlag(kInitGlobalInitialized)) {
        VrkFsGlobFree(pVrkFsGlobalData);
    }
    if (TakeInitFlag(kInitGlobalAllocated)) {
        VrkFsFreePool(pVrkFsGlobalData);
        pVrkFsGlobalData = nullptr;
    }
    if (VrkFsHwLostRequests() != 0) {
        // A board still holds a request that timed out, and will complete it into this driver's code: the reference,
        // never dropped, keeps the image where it is.
        ObfReferenceObject(DriverObject);
    }
}

extern "C" NTSTATUS NTAPI VrkFsInitShutdown(PDEVICE_OBJECT, PIRP Irp) {
    CriticalRegionGuard region;
    ulInitFlags &= ~kInitShutdownRegistered;  // the system drops a notification that it has delivered
    PLIST_ENTRY head = &pVrkFsGlobalData->CardInstances;
    for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
        CardInstance* card = CONTAINING_RECORD(link, CardInstance, Link);
        VrkFsBTFlushUnrefObjects(&card->BodyTableCache);
        VrkFsBTFlushRefObjects(&card->BodyTableCache);
    }
    Irp->IoStatus.Status = STATUS_SUCCESS;
    Irp->IoStatus.Information = 0;
    IofCompleteRequest(Irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
}
