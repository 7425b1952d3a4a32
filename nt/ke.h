#pragma once

#include "nt/ps.h"

// Dispatcher objects and waits, critical regions, IRQL, spin locks, time.
//
// Storage of a dispatcher object is the caller's, on a stack, in a device extension or in non-paged pool; in paged
// pool the verifier refuses it. Nobody who set an event or released a mutex touches it again after the waiter has
// been let go, so the waiter may free it at once.

using KSPIN_LOCK = ULONG_PTR;
using PKSPIN_LOCK = KSPIN_LOCK*;

inline constexpr KIRQL PASSIVE_LEVEL = 0;
inline constexpr KIRQL LOW_LEVEL = 0;
inline constexpr KIRQL APC_LEVEL = 1;
inline constexpr KIRQL DISPATCH_LEVEL = 2;

typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;
typedef enum _WAIT_TYPE { WaitAll, WaitAny } WAIT_TYPE;

typedef enum _KWAIT_REASON {
    Executive,
    FreePage,
    PageIn,
    PoolAllocation,
    DelayExecution,
    Suspended,
    UserRequest,
    WrExecutive,
    MaximumWaitReason = 37
} KWAIT_REASON;

inline constexpr ULONG THREAD_WAIT_OBJECTS = 3;
inline constexpr ULONG MAXIMUM_WAIT_OBJECTS = 64;
inline constexpr KPRIORITY EVENT_INCREMENT = 1;

typedef struct _DISPATCHER_HEADER {
    UCHAR Type;
    UCHAR Size;
    USHORT Reserved;
    LONG SignalState;
    LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER, *PDISPATCHER_HEADER;

typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

typedef struct _KMUTANT {
    DISPATCHER_HEADER Header;
    LIST_ENTRY MutantListEntry;
    PKTHREAD OwnerThread;
    BOOLEAN Abandoned;
    UCHAR ApcDisable;
    ULONG LockClass;  // of the verifier: where it was initialised, for the order of acquires
} KMUTANT, *PKMUTANT, *PRKMUTANT, KMUTEX, *PKMUTEX, *PRKMUTEX;

typedef struct _KWAIT_BLOCK {
    LIST_ENTRY WaitListEntry;
    PKTHREAD Thread;
    PVOID Object;
    USHORT WaitKey;
    USHORT WaitType;
} KWAIT_BLOCK, *PKWAIT_BLOCK, *PRKWAIT_BLOCK;

// ---- events ----

NTKERNELAPI VOID NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
// Set, reset and pulse return the state before the call. Wait must be FALSE.
NTKERNELAPI LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
NTKERNELAPI LONG NTAPI KeResetEvent(PRKEVENT Event);
NTKERNELAPI LONG NTAPI KePulseEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
NTKERNELAPI VOID NTAPI KeClearEvent(PRKEVENT Event);
NTKERNELAPI LONG NTAPI KeReadStateEvent(PRKEVENT Event);

// ---- mutexes: owned by a thread, recursive, acquired by waiting ----

NTKERNELAPI VOID NTAPI KeInitializeMutex(PRKMUTEX Mutex, ULONG Level);
// Returns 0 when the mutex has become free. By a thread that does not own it: the verifier stops the process.
NTKERNELAPI LONG NTAPI KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN Wait);
NTKERNELAPI LONG NTAPI KeReadStateMutex(PRKMUTEX Mutex);

// ---- waits ----

// Object: an event, mutex or thread object. Timeout: null waits without limit; 0 polls; negative is
// relative, positive a system time, in 100-ns units of the kernel's clock (nt/kernel.h). Returns STATUS_SUCCESS or
// STATUS_TIMEOUT. Waits are first come, first served.
NTKERNELAPI NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                                 BOOLEAN Alertable, PLARGE_INTEGER Timeout);
#define KeWaitForMutexObject KeWaitForSingleObject

// Up to MAXIMUM_WAIT_OBJECTS objects; above THREAD_WAIT_OBJECTS the caller gives the wait blocks, one per object.
// Returns STATUS_WAIT_0 + the index of the object that satisfied it (WaitAny), STATUS_SUCCESS (WaitAll) or
// STATUS_TIMEOUT.
NTKERNELAPI NTSTATUS NTAPI KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType,
                                                    KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                                    BOOLEAN Alertable, PLARGE_INTEGER Timeout,
                                                    PKWAIT_BLOCK WaitBlockArray);

// System time: 100-ns units since 1601-01-01 UTC, from the kernel's clock.
NTKERNELAPI VOID NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime);

// ---- critical regions: they nest, and must be left by the thread that entered, before its routine returns ----

NTKERNELAPI VOID NTAPI KeEnterCriticalRegion(VOID);
NTKERNELAPI VOID NTAPI KeLeaveCriticalRegion(VOID);
NTKERNELAPI BOOLEAN NTAPI KeAreApcsDisabled(VOID);
#define FsRtlEnterFileSystem KeEnterCriticalRegion
#define FsRtlExitFileSystem KeLeaveCriticalRegion

// ---- IRQL and spin locks ----

NTKERNELAPI KIRQL NTAPI KeGetCurrentIrql(VOID);
NTKERNELAPI KIRQL FASTCALL KfRaiseIrql(KIRQL NewIrql);
NTKERNELAPI VOID FASTCALL KfLowerIrql(KIRQL NewIrql);
#define KeRaiseIrql(a, b) *(b) = KfRaiseIrql(a)
#define KeLowerIrql(a) KfLowerIrql(a)

NTKERNELAPI VOID NTAPI KeInitializeSpinLock(PKSPIN_LOCK SpinLock);
NTKERNELAPI KIRQL FASTCALL KfAcquireSpinLock(PKSPIN_LOCK SpinLock);
NTKERNELAPI VOID FASTCALL KfReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql);
#define KeAcquireSpinLock(a, b) *(b) = KfAcquireSpinLock(a)
#define KeReleaseSpinLock(a, b) KfReleaseSpinLock(a, b)
