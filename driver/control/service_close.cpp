#include "control/service_channel.h"
#include "core/guards.h"
#include "core/pool.h"

namespace {

VOID NTAPI VrkFsSReqSendQueuedClose(PVOID Context) {
    CriticalRegionGuard region;
    auto* close = static_cast<ServiceClose*>(Context);
    static_cast<void>(VrkFsSReqClose(close->Channel, close->Handle));
    VrkFsFreePool(close);
}

}  // namespace

NTSTATUS VrkFsSReqPrepareClose(ServiceChannel* Channel, ServiceClose** Close) {
    *Close = static_cast<ServiceClose*>(VrkFsAllocatePool(NonPagedPool, sizeof(ServiceClose)));
    if (*Close == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    (*Close)->Channel = Channel;
    return STATUS_SUCCESS;
}

VOID VrkFsSReqSendClose(ServiceClose* Close, ServiceHandle Handle) {
    Close->Handle = Handle;
    ServiceWorker* worker = &Close->Channel->Worker;
    if (VrkFsSReqIsSystemThread(worker)) {
        ExInitializeWorkItem(&Close->Item, VrkFsSReqSendQueuedClose, Close);
        VrkFsSReqQueueWork(worker, &Close->Item);
    } else {
        VrkFsSReqSendQueuedClose(Close);
    }
}
