// The channel to the user-mode service: what the driver cannot do itself goes out in a request that the service keeps
// posted, and the answer comes back in a second one.
//
// Neither request says which of the driver's operations it belongs to, so one operation at a time has the channel
// (ExchangeLock), and an answer counts only between its request's delivery and the operation's end, and only from the
// process that got the request: a service that was given up and has been replaced may still answer. A posted request is
// claimed by whoever takes its event: the operation, by its wait, or the cancel routine, by resetting the event. The
// other one leaves it alone, so it is completed once.
#pragma once

#include "nt.h"

#include <vrkfs/service.h>

#include "control/service_worker.h"

// A file of the service's, 0 for none, and the connection under which the service gave the number. Whoever announces
// itself later gives its own numbers: one from before may be another file's now, and is not used any more.
struct ServiceHandle {
    ULONG Value;
    ULONG Connection;
};

// One per card, embedded in DiskDeviceExt (non-paged), initially disconnected. Each slot is empty or holds one request
// of the service, from its arrival to its claim or its completion. The system's cancel spin lock guards everything but
// the events, ExchangeLock and Worker.
struct ServiceChannel {
    BOOLEAN ServiceConnected;  // a service has announced itself and has answered everything in time since
    KEVENT FetchEvent;         // auto-reset; set when FetchIrp arrives
    PIRP FetchIrp;             // waits to carry the next request out
    PEPROCESS FetchProcess;    // who posted it; only compared, like Answerer
    KEVENT ResponseEvent;      // auto-reset; set when ResponseIrp arrives
    PIRP ResponseIrp;          // brought an answer
    BOOLEAN ResponseWanted;    // a request is out, and its operation waits for answers
    PEPROCESS Answerer;        // who got it
    ULONG Connection;          // counts connections; never 0 while connected
    KEVENT ExchangeLock;       // auto-reset: the operation that has the channel
    struct ServiceWorker Worker;
};

// The status of the worker thread's start; nothing is kept then.
[[nodiscard]] NTSTATUS VrkFsSReqInitialize(ServiceChannel* Channel);
// Ends the worker and completes both slots as cancelled. The channel's device is going away: nobody uses it any more.
VOID VrkFsSReqCleanup(ServiceChannel* Channel);
// Anew: the service says what it serves, so it has just started, whether or not the one before it took its leave.
VOID VrkFsSReqServiceConnect(ServiceChannel* Channel, BOOLEAN Anew);
VOID VrkFsSReqServiceDisconnect(ServiceChannel* Channel);

// ---- The service's side: STATUS_PENDING once the request is in its slot; STATUS_DEVICE_BUSY while another one is;
// STATUS_CANCELLED for a request that is cancelled already and for an answer that nobody waits for. Called by the
// thread that sends the request ----

[[nodiscard]] NTSTATUS VrkFsSReqRequestArrival(ServiceChannel* Channel, PIRP Irp);
[[nodiscard]] NTSTATUS VrkFsSReqResponseArrival(ServiceChannel* Channel, PIRP Irp);
extern "C" DRIVER_CANCEL VrkFsSReqCancel;

// ---- The operations' side; one operation at a time ----

// The number of the connection that stands now; 0: none.
[[nodiscard]] ULONG VrkFsSReqConnectionOf(ServiceChannel* Channel);
// The handle was given under the connection that stands, or stood last.
[[nodiscard]] BOOLEAN VrkFsSReqIsCurrent(ServiceChannel* Channel, ServiceHandle Handle);
// The service has not answered in time. One that has announced itself since is left connected.
VOID VrkFsSReqServiceLost(ServiceChannel* Channel, ULONG Connection);
// Waits for FetchEvent or ResponseEvent, at most Limit (100 ns units; none from 0 down). On success what is in the
// event's slot is the caller's to claim. STATUS_TIMEOUT; STATUS_CANCELLED when the card goes.
[[nodiscard]] NTSTATUS VrkFsSReqAwait(ServiceChannel* Channel, PKEVENT Event, LONGLONG Limit);
// Takes the fetch out of its slot; answers are accepted from then on. *Connection: whose service gets the request,
// which need not be the one from before the wait. Null: that service did not give File, or it has left; the fetch goes
// on waiting. File is null for an operation that is about no open file.
[[nodiscard]] PIRP VrkFsSReqClaimFetch(ServiceChannel* Channel, const ServiceHandle* File, PULONG Connection);
[[nodiscard]] PIRP VrkFsSReqClaimResponse(ServiceChannel* Channel);
// The operation is over: an answer that has come too late is completed as cancelled.
VOID VrkFsSReqRefuseResponses(ServiceChannel* Channel);
VOID VrkFsSReqComplete(PIRP Irp, NTSTATUS Status, ULONG_PTR Information);

// ---- The eight operations (service_requests.cpp) ----
// They may wait for the operations before them and for the service, 60 seconds at most for each of its steps and ten
// minutes for all its answers, so no lock that a create, cleanup or close can want is held across them. A service that
// lets that time pass is disconnected, which fails whoever waits behind. While no service is connected, open to write
// fail with STATUS_UNSUCCESSFUL, and the last three succeed without any effect and without output. A refusal, a silence
// and an answer that makes no sense are STATUS_UNSUCCESSFUL.

// FullPath starts with "\" and the file type's three characters, in whose place the service is told the built-in
// type's. *Handle is none on failure.
[[nodiscard]] NTSTATUS VrkFsSReqOpen(ServiceChannel* Channel, WCHAR DriveLetter, PCUNICODE_STRING FullPath,
                                     ServiceHandle* Handle);
[[nodiscard]] NTSTATUS VrkFsSReqClean(ServiceChannel* Channel, ServiceHandle Handle, ULONG TypeCode, ULONG FrameIndex);
[[nodiscard]] NTSTATUS VrkFsSReqClose(ServiceChannel* Channel, ServiceHandle Handle);
[[nodiscard]] NTSTATUS VrkFsSReqRead(ServiceChannel* Channel, ServiceHandle Handle, ULONG TypeCode, ULONG OffsetLow,
                                     ULONG OffsetHigh, ULONG ByteCount, ULONG FrameIndex, PVOID Buffer);
[[nodiscard]] NTSTATUS VrkFsSReqWrite(ServiceChannel* Channel, ServiceHandle Handle, ULONG TypeCode, ULONG OffsetLow,
                                      ULONG OffsetHigh, ULONG ByteCount, ULONG FrameIndex, const VOID* Buffer);
[[nodiscard]] NTSTATUS VrkFsSReqUpdatePrefs(ServiceChannel* Channel, const VrkFsPreferences* Prefs);
// SpaceInfo: VRKFS_PORT_SPACE_INFO_SIZE bytes.
[[nodiscard]] NTSTATUS VrkFsSReqGetAvailableSpace(ServiceChannel* Channel, const VrkFsPortSpaceQuery* Query,
                                                  PUCHAR SpaceInfo);
[[nodiscard]] NTSTATUS VrkFsSReqCreateMediaFile(ServiceChannel* Channel, const VrkFsPortCreation* Creation);

// ---- The close that needs no memory when it comes (service_close.cpp) ----

// Tells the service that a file is closed. Made together with the handle, in non-paged pool; freed by sending it.
struct ServiceClose {
    WORK_QUEUE_ITEM Item;
    ServiceChannel* Channel;
    ServiceHandle Handle;
};

// STATUS_INSUFFICIENT_RESOURCES.
[[nodiscard]] NTSTATUS VrkFsSReqPrepareClose(ServiceChannel* Channel, ServiceClose** Close);
// A program's thread waits until the service has closed the file; the system's threads leave that to the worker. Not
// under locks.
VOID VrkFsSReqSendClose(ServiceClose* Close, ServiceHandle Handle);
