#include "control/service_worker.h"

#include "core/guards.h"

namespace {

PWORK_QUEUE_ITEM TakeItem(ServiceWorker* Worker) {
    FastMutexGuard lock(&Worker->Lock);
    if (IsListEmpty(&Worker->Items)) {
        return nullptr;
    }
    return CONTAINING_RECORD(RemoveHeadList(&Worker->Items), WORK_QUEUE_ITEM, List);
}

VOID RunItems(ServiceWorker* Worker) {
    for (PWORK_QUEUE_ITEM item = TakeItem(Worker); item != nullptr; item = TakeItem(Worker)) {
        item->WorkerRoutine(item->Parameter);  // the item may be gone when it returns
    }
}

VOID NTAPI VrkFsSReqWorkerThread(PVOID Context) {
    auto* worker = static_cast<ServiceWorker*>(Context);
    PVOID events[] = {&worker->StopEvent, &worker->ItemEvent};
    NTSTATUS status;
    do {
        status = KeWaitForMultipleObjects(2, events, WaitAny, Executive, KernelMode, FALSE, nullptr, nullptr);
        RunItems(worker);
    } while (status != STATUS_WAIT_0);
    KeSetEvent(&worker->DoneEvent, EVENT_INCREMENT, FALSE);
}

}  // namespace

NTSTATUS VrkFsSReqStartWorker(ServiceWorker* Worker) {
    Worker->Owner = IoGetCurrentProcess();
    ExInitializeFastMutex(&Worker->Lock);
    InitializeListHead(&Worker->Items);
    KeInitializeEvent(&Worker->ItemEvent, SynchronizationEvent, FALSE);
    KeInitializeEvent(&Worker->StopEvent, NotificationEvent, FALSE);
    KeInitializeEvent(&Worker->DoneEvent, NotificationEvent, FALSE);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE thread = nullptr;
    NTSTATUS status =
        PsCreateSystemThread(&thread, THREAD_ALL_ACCESS, &attributes, nullptr, nullptr, VrkFsSReqWorkerThread, Worker);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status =
        ObReferenceObjectByHandle(thread, THREAD_ALL_ACCESS, *PsThreadType, KernelMode, &Worker->ThreadObject, nullptr);
    if (!NT_SUCCESS(status)) {
        Worker->ThreadObject = nullptr;
        KeSetEvent(&Worker->StopEvent, EVENT_INCREMENT, FALSE);
        KeWaitForSingleObject(&Worker->DoneEvent, Executive, KernelMode, FALSE, nullptr);
    }
    static_cast<void>(ZwClose(thread));
    return status;
}

VOID VrkFsSReqStopWorker(ServiceWorker* Worker) {
    if (Worker->ThreadObject == nullptr) {
        return;
    }
    KeSetEvent(&Worker->StopEvent, EVENT_INCREMENT, FALSE);
    KeWaitForSingleObject(Worker->ThreadObject, Executive, KernelMode, FALSE, nullptr);
    ObDereferenceObject(Worker->ThreadObject);
    Worker->ThreadObject = nullptr;
}

VOID VrkFsSReqQueueWork(ServiceWorker* Worker, PWORK_QUEUE_ITEM Item) {
    {
        FastMutexGuard lock(&Worker->Lock);
        InsertTailList(&Worker->Items, &Item->List);
    }
    KeSetEvent(&Worker->ItemEvent, EVENT_INCREMENT, FALSE);
}

BOOLEAN VrkFsSReqIsSystemThread(const ServiceWorker* Worker) {
    return IoGetCurrentProcess() == Worker->Owner;
}
