#pragma once

#include "nt/ke.h"

// The executive: pool, lookaside lists, resources, fast mutexes, work items, interlocked operations.

typedef enum _POOL_TYPE {
    NonPagedPool,
    PagedPool,
    NonPagedPoolMustSucceed,
    DontUseThisType,
    NonPagedPoolCacheAligned,
    PagedPoolCacheAligned,
    NonPagedPoolCacheAlignedMustS,
    MaxPoolType,
    NonPagedPoolNx = 512
} POOL_TYPE;

// ---- pool ----

// Null when memory is short. Contents are undefined (filled in debug builds). The tag and the driver that allocates
// are kept, for the list of what was left over.
NTKERNELAPI PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
NTKERNELAPI VOID NTAPI ExFreePool(PVOID P);
// Tag must be the block's, or 0 for any.
NTKERNELAPI VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag);

// ---- lookaside lists ----
// Keep up to Depth freed entries for reuse; under the sanitizers and under ordered failures they keep none. The
// header itself lies in non-paged memory. Deleting a list gives back what it keeps; entries still out are leaks.

typedef PVOID(NTAPI* PALLOCATE_FUNCTION)(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
typedef VOID(NTAPI* PFREE_FUNCTION)(PVOID Buffer);

typedef struct _GENERAL_LOOKASIDE {
    ULONG_PTR Lock;
    PVOID FirstFree;
    USHORT Depth;
    USHORT KeptEntries;
    POOL_TYPE Type;
    ULONG Tag;
    ULONG Size;
    ULONG TotalAllocates;
    ULONG AllocateHits;
    ULONG Signature;
    PALLOCATE_FUNCTION Allocate;
    PFREE_FUNCTION Free;
    LIST_ENTRY ListEntry;
    PVOID Owner;
} GENERAL_LOOKASIDE, *PGENERAL_LOOKASIDE;

typedef struct _PAGED_LOOKASIDE_LIST {
    GENERAL_LOOKASIDE L;
} PAGED_LOOKASIDE_LIST, *PPAGED_LOOKASIDE_LIST;

typedef struct _NPAGED_LOOKASIDE_LIST {
    GENERAL_LOOKASIDE L;
} NPAGED_LOOKASIDE_LIST, *PNPAGED_LOOKASIDE_LIST;

// Allocate and Free are usually null (pool). Flags must be 0.
NTKERNELAPI VOID NTAPI ExInitializePagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                                      PFREE_FUNCTION Free, ULONG Flags, SIZE_T Size, ULONG Tag,
                                                      USHORT Depth);
NTKERNELAPI VOID NTAPI ExDeletePagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside);
PVOID ExAllocateFromPagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside);
VOID ExFreeToPagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry);

NTKERNELAPI VOID NTAPI ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                                       PFREE_FUNCTION Free, ULONG Flags, SIZE_T Size, ULONG Tag,
                                                       USHORT Depth);
NTKERNELAPI VOID NTAPI ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside);
PVOID ExAllocateFromNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside);
VOID ExFreeToNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry);

// ---- resources: shared by many or exclusive to one thread, recursive ----
// Acquires outside a critical region are refused by the verifier, unless on a system thread. An exclusive owner that
// asks for shared stays exclusive (one more release). A shared holder that asks for exclusive gets FALSE without
// Wait; with it the thread would wait for itself, and the verifier stops the process. A waiting exclusive keeps new
// sharers out; an existing sharer may still recurse. A release hands the resource to who waits for it and touches
// the record no more after that, so whoever drains it by acquiring exclusively may delete and free it.

struct NtResourceWaiter;

typedef struct _ERESOURCE {
    LIST_ENTRY SystemResourcesList;
    ULONG Lock;
    LONG ActiveCount;  // acquires in force: of all sharers, or of the exclusive owner
    USHORT Flag;
    USHORT Reserved;
    ULONG LockClass;
    PKTHREAD OwnerThread;  // the exclusive owner
    struct NtResourceWaiter* SharedWaiters;
    struct NtResourceWaiter* ExclusiveWaiters;
    ULONG NumberOfSharedWaiters;
    ULONG NumberOfExclusiveWaiters;
    ULONG ContentionCount;
    ULONG Signature;
    PVOID CreatorDriver;
} ERESOURCE, *PERESOURCE;

inline constexpr USHORT ResourceOwnedExclusive = 0x0080;

// Always STATUS_SUCCESS.
NTKERNELAPI NTSTATUS NTAPI ExInitializeResourceLite(PERESOURCE Resource);
// Nobody may hold or want it.
NTKERNELAPI NTSTATUS NTAPI ExDeleteResourceLite(PERESOURCE Resource);
NTKERNELAPI BOOLEAN NTAPI ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait);
NTKERNELAPI BOOLEAN NTAPI ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait);
NTKERNELAPI VOID FASTCALL ExReleaseResourceLite(PERESOURCE Resource);
// Keeps the number of acquires and lets waiting sharers in.
NTKERNELAPI VOID NTAPI ExConvertExclusiveToSharedLite(PERESOURCE Resource);
NTKERNELAPI BOOLEAN NTAPI ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource);
// The calling thread's number of acquires, shared or exclusive.
NTKERNELAPI ULONG NTAPI ExIsResourceAcquiredSharedLite(PERESOURCE Resource);
#define ExIsResourceAcquiredLite ExIsResourceAcquiredSharedLite
NTKERNELAPI ULONG NTAPI ExGetExclusiveWaiterCount(PERESOURCE Resource);
NTKERNELAPI ULONG NTAPI ExGetSharedWaiterCount(PERESOURCE Resource);

// ---- fast mutexes: one owner, not recursive, held at APC_LEVEL ----

typedef struct _FAST_MUTEX {
    LONG Count;
    PKTHREAD Owner;
    ULONG Contention;
    KEVENT Event;
    ULONG OldIrql;
    ULONG LockClass;
} FAST_MUTEX, *PFAST_MUTEX;

VOID ExInitializeFastMutex(PFAST_MUTEX FastMutex);
NTKERNELAPI VOID FASTCALL ExAcquireFastMutex(PFAST_MUTEX FastMutex);
NTKERNELAPI VOID FASTCALL ExReleaseFastMutex(PFAST_MUTEX FastMutex);

// ---- work items ----
// The critical queue is served by four threads and shared by everybody: an item that waits for another item of the
// same queue can wait for ever. An item belongs to the queue until its routine has been entered; the routine may
// free it. It must return with no lock held and in no critical region.

typedef enum _WORK_QUEUE_TYPE {
    CriticalWorkQueue,
    DelayedWorkQueue,
    HyperCriticalWorkQueue,
    MaximumWorkQueue
} WORK_QUEUE_TYPE;

typedef VOID(NTAPI WORKER_THREAD_ROUTINE)(PVOID Parameter);
typedef WORKER_THREAD_ROUTINE* PWORKER_THREAD_ROUTINE;

typedef struct _WORK_QUEUE_ITEM {
    LIST_ENTRY List;
    PWORKER_THREAD_ROUTINE WorkerRoutine;
    volatile PVOID Parameter;
} WORK_QUEUE_ITEM, *PWORK_QUEUE_ITEM;

inline VOID ExInitializeWorkItem(PWORK_QUEUE_ITEM Item, PWORKER_THREAD_ROUTINE Routine, PVOID Context) {
    Item->WorkerRoutine = Routine;
    Item->Parameter = Context;
    Item->List.Flink = nullptr;
}

NTKERNELAPI VOID NTAPI ExQueueWorkItem(PWORK_QUEUE_ITEM WorkItem, WORK_QUEUE_TYPE QueueType);

// ---- interlocked operations: full barriers ----

inline LONG InterlockedIncrement(LONG volatile* Addend) {
    return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedDecrement(LONG volatile* Addend) {
    return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedExchange(LONG volatile* Target, LONG Value) {
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
// Returns the value before the addition.
inline LONG InterlockedExchangeAdd(LONG volatile* Addend, LONG Value) {
    return __atomic_fetch_add(Addend, Value, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedCompareExchange(LONG volatile* Destination, LONG Exchange, LONG Comparand) {
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comparand;
}
inline LONG InterlockedOr(LONG volatile* Destination, LONG Value) {
    return __atomic_fetch_or(Destination, Value, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedAnd(LONG volatile* Destination, LONG Value) {
    return __atomic_fetch_and(Destination, Value, __ATOMIC_SEQ_CST);
}
inline PVOID InterlockedExchangePointer(PVOID volatile* Target, PVOID Value) {
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
inline PVOID InterlockedCompareExchangePointer(PVOID volatile* Destination, PVOID Exchange, PVOID Comparand) {
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comparand;
}
