// The thread on which a card's work waits for the user-mode service. The system's workers are few, and the service's
// own requests need them: what is posted and may wait for the service comes here instead. Exchanges with the service
// follow one another anyway, so one thread per card is all that can be of use.
#pragma once

#include "nt.h"

// Embedded in the ServiceChannel (non-paged).
struct ServiceWorker {
    PEPROCESS Owner;  // the system process: its threads serve everybody
    FAST_MUTEX Lock;  // Items
    LIST_ENTRY Items;
    KEVENT ItemEvent;  // auto-reset
    KEVENT StopEvent;  // set for good when the card goes; ends waits for the service as well
    KEVENT DoneEvent;
    PVOID ThreadObject;  // referenced; null: no thread runs
};

// Runs on a thread of the system process. The thread's status on failure; nothing is kept then.
[[nodiscard]] NTSTATUS VrkFsSReqStartWorker(ServiceWorker* Worker);
// Waits until what is queued has run, with no service to wait for any more, and the thread has ended.
VOID VrkFsSReqStopWorker(ServiceWorker* Worker);
// Runs the item's routine on the thread, in its turn. Until then the item, in non-paged memory, is the worker's.
VOID VrkFsSReqQueueWork(ServiceWorker* Worker, PWORK_QUEUE_ITEM Item);
// TRUE on threads of the system process, which must not wait for the service.
[[nodiscard]] BOOLEAN VrkFsSReqIsSystemThread(const ServiceWorker* Worker);
