#include "media/body_table_cache.h"

#include <algorithm>

#include "core/card_instance.h"
#include "core/guards.h"
#include "core/lookaside.h"
#include "core/pool.h"
#include "core/strings.h"
#include "volume/body_table_io.h"

namespace {

constexpr USHORT kObjectListDepth = 132;

enum class BodyTableOperation { Dereference, FlushByName, RemoveByName, FlushUnreferenced, FlushReferenced };

// One operation that has to run where the views are. Lives in its caller's frame until Done is set.
struct BodyTableWork {
    LIST_ENTRY Link;
    BodyTableOperation Operation;
    BodyTableObject* Object;
    PCUNICODE_STRING Name;
    KEVENT Done;
};

BodyTableObject* ObjectOfLink(PLIST_ENTRY Link) {
    return CONTAINING_RECORD(Link, BodyTableObject, Link);
}

LONGLONG Now() {
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    return now.QuadPart;
}

// ---- One object. The mutex is held. ----

BOOLEAN HasSection(const BodyTableObject* Object) {
    return (Object->Flags & (kBodyTableVideoView | kBodyTableAlphaView)) != 0;
}

VOID FlushObject(BodyTableObject* Object, BOOLEAN KeepDirty) {
    if (!HasSection(Object) || (Object->Flags & kBodyTableForgotten) != 0) {
        return;
    }
    const NTSTATUS status = VrkFsHwWriteBodyTableNodes(
        &Object->CardInstance->Hw, Object->Frames, static_cast<PlacedBodyTableNode*>(Object->VideoView),
        static_cast<PlacedBodyTableNode*>(Object->AlphaView), Object->VideoLba, Object->AlphaLba, Object->VideoBytes,
        Object->AlphaBytes, Object->Volume);
    Object->FlushDeadline = Now() + kBodyTableFlushDelay;
    if (!KeepDirty && NT_SUCCESS(status)) {
        Object->Flags = (Object->Flags & ~kBodyTableWritten) | kBodyTableClean;
    }
}

BOOLEAN IsFlushNeeded(const BodyTableObject* Object, LONGLONG Time) {
    return HasSection(Object) && (Object->WriteReferences != 0 || (Object->Flags & kBodyTableWritten) != 0) &&
           (Object->Flags & kBodyTableClean) == 0 && Object->FlushDeadline < Time;
}

VOID DestroySection(const BodyTableObject* Object, ULONG ViewFlag, PVOID View, ULONG SectionFlag, HANDLE Section) {
    if ((Object->Flags & ViewFlag) != 0) {
        static_cast<void>(ZwUnmapViewOfSection(NtCurrentProcess(), View));
    }
    if ((Object->Flags & SectionFlag) != 0) {
        static_cast<void>(ZwClose(Section));
    }
}

// The object is in no list. Runs in the owning process.
VOID DestroyObject(BodyTableCache* Cache, BodyTableObject* Object) {
    DestroySection(Object, kBodyTableAlphaView, Object->AlphaView, kBodyTableAlphaSection, Object->AlphaSection);
    DestroySection(Object, kBodyTableVideoView, Object->VideoView, kBodyTableVideoSection, Object->VideoSection);
    if ((Object->Flags & kBodyTableAlphaSectionName) != 0) {
        VrkFsRtlFreeUnicodeString(&Object->AlphaSectionName);
    }
    if ((Object->Flags & kBodyTableVideoSectionName) != 0) {
        VrkFsRtlFreeUnicodeString(&Object->VideoSectionName);
    }
    if ((Object->Flags & kBodyTableName) != 0) {
        VrkFsRtlFreeUnicodeString(&Object->Name);
    }
    VrkFsLookasideFree(&Cache->Objects, Object);
}

VOID RetireObject(BodyTableCache* Cache, BodyTableObject* Object) {
    FlushObject(Object, FALSE);
    DestroyObject(Cache, Object);
}

// ---- The lists. The mutex is held. ----

BodyTableObject* FindIn(const LIST_ENTRY* Head, PCUNICODE_STRING Name) {
    for (PLIST_ENTRY link = Head->Flink; link != Head; link = link->Flink) {
        BodyTableObject* object = ObjectOfLink(link);
        if ((object->Flags & kBodyTableForgotten) == 0 && RtlEqualUnicodeString(&object->Name, Name, TRUE)) {
            return object;
        }
    }
    return nullptr;
}

VOID FlushByName(BodyTableCache* Cache, PCUNICODE_STRING Name) {
    BodyTableObject* object = FindIn(&Cache->Unreferenced, Name);
    if (object == nullptr) {
        object = FindIn(&Cache->Referenced, Name);
    }
    if (object != nullptr) {
        FlushObject(object, TRUE);
    }
}

VOID RemoveByName(BodyTableCache* Cache, PCUNICODE_STRING Name) {
    PULONG count = &Cache->UnreferencedCount;
    BodyTableObject* object = FindIn(&Cache->Unreferenced, Name);
    if (object == nullptr) {
        count = &Cache->ReferencedCount;
        object = FindIn(&Cache->Referenced, Name);
    }
    if (object != nullptr) {
        RemoveEntryList(&object->Link);
        --*count;
        RetireObject(Cache, object);
    }
}

VOID FlushList(BodyTableCache* Cache, PLIST_ENTRY Head, PULONG Count) {
    while (!IsListEmpty(Head)) {
        BodyTableObject* object = ObjectOfLink(RemoveHeadList(Head));
        --*Count;
        RetireObject(Cache, object);
    }
}

VOID DereferenceObject(BodyTableCache* Cache, BodyTableObject* Object) {
    RemoveEntryList(&Object->Link);
    --Cache->ReferencedCount;
    if ((Object->Flags & (kBodyTableNew | kBodyTableForgotten)) != 0) {
        RetireObject(Cache, Object);
        return;
    }
    InsertHeadList(&Cache->Unreferenced, &Object->Link);
    if (++Cache->UnreferencedCount > kBodyTableMaxUnreferenced) {
        BodyTableObject* oldest = ObjectOfLink(RemoveTailList(&Cache->Unreferenced));
        --Cache->UnreferencedCount;
        RetireObject(Cache, oldest);
    }
}

// ---- Operations that need the views ----

VOID Perform(BodyTableCache* Cache, const BodyTableWork* Work) {
    MutexGuard lock(&Cache->Mutex);
    switch (Work->Operation) {
        case BodyTableOperation::Dereference:
            DereferenceObject(Cache, Work->Object);
            break;
        case BodyTableOperation::FlushByName:
            FlushByName(Cache, Work->Name);
            break;
        case BodyTableOperation::RemoveByName:
            RemoveByName(Cache, Work->Name);
            break;
        case BodyTableOperation::FlushUnreferenced:
            FlushList(Cache, &Cache->Unreferenced, &Cache->UnreferencedCount);
            break;
        case BodyTableOperation::FlushReferenced:
            FlushList(Cache, &Cache->Referenced, &Cache->ReferencedCount);
            break;
    }
}

// Whether there is an object to work on at all: most often there is none, and no need to leave the caller's process.
BOOLEAN HasWork(BodyTableCache* Cache, const BodyTableWork* Work) {
    MutexGuard lock(&Cache->Mutex);
    switch (Work->Operation) {
        case BodyTableOperation::FlushByName:
        case BodyTableOperation::RemoveByName:
            return FindIn(&Cache->Unreferenced, Work->Name) != nullptr ||
                   FindIn(&Cache->Referenced, Work->Name) != nullptr;
        case BodyTableOperation::FlushUnreferenced:
            return !IsListEmpty(&Cache->Unreferenced);
        case BodyTableOperation::FlushReferenced:
            return !IsListEmpty(&Cache->Referenced);
        default:
            return TRUE;
    }
}

VOID PerformInOwner(BodyTableCache* Cache, BodyTableWork* Work) {
    if (IoGetCurrentProcess() == Cache->Owner) {
        Perform(Cache, Work);
        return;
    }
    if (!HasWork(Cache, Work)) {
        return;
    }
    KeInitializeEvent(&Work->Done, NotificationEvent, FALSE);
    {
        FastMutexGuard lock(&Cache->WorkLock);
        InsertTailList(&Cache->Work, &Work->Link);
    }
    KeSetEvent(&Cache->WorkEvent, EVENT_INCREMENT, FALSE);
    KeWaitForSingleObject(&Work->Done, Executive, KernelMode, FALSE, nullptr);
}

// ---- The flush thread ----

BodyTableWork* TakeWork(BodyTableCache* Cache) {
    FastMutexGuard lock(&Cache->WorkLock);
    if (IsListEmpty(&Cache->Work)) {
        return nullptr;
    }
    return CONTAINING_RECORD(RemoveHeadList(&Cache->Work), BodyTableWork, Link);
}

VOID PerformQueuedWork(BodyTableCache* Cache) {
    for (BodyTableWork* work = TakeWork(Cache); work != nullptr; work = TakeWork(Cache)) {
        Perform(Cache, work);
        KeSetEvent(&work->Done, EVENT_INCREMENT, FALSE);  // the record is gone now
    }
}

VOID FlushDueObjects(BodyTableCache* Cache) {
    MutexGuard lock(&Cache->Mutex);
    if (Cache->SuspendCount != 0) {
        return;
    }
    for (PLIST_ENTRY link = Cache->Referenced.Flink; link != &Cache->Referenced; link = link->Flink) {
        if (IsFlushNeeded(ObjectOfLink(link), Now())) {
            FlushObject(ObjectOfLink(link), TRUE);
        }
    }
    for (PLIST_ENTRY link = Cache->Unreferenced.Flink; link != &Cache->Unreferenced; link = link->Flink) {
        if (IsFlushNeeded(ObjectOfLink(link), Now())) {
            FlushObject(ObjectOfLink(link), FALSE);
        }
    }
}

VOID NTAPI VrkFsBTFlushThread(PVOID Context) {
    auto* cache = static_cast<BodyTableCache*>(Context);
    PVOID events[] = {&cache->StopEvent, &cache->WorkEvent};
    LONGLONG nextPass = Now() + kBodyTableFlushPeriod;
    for (;;) {
        // Work in between does not put the next pass off; a clock that was set does not either.
        LARGE_INTEGER timeout;
        timeout.QuadPart = -std::clamp<LONGLONG>(nextPass - Now(), 0, kBodyTableFlushPeriod);
        const NTSTATUS status =
            KeWaitForMultipleObjects(2, events, WaitAny, Executive, KernelMode, FALSE, &timeout, nullptr);
        PerformQueuedWork(cache);
        if (status == STATUS_WAIT_0) {
            break;
        }
        if (status == STATUS_TIMEOUT) {
            FlushDueObjects(cache);
            nextPass = Now() + kBodyTableFlushPeriod;
        }
    }
    KeSetEvent(&cache->ThreadDoneEvent, EVENT_INCREMENT, FALSE);
}

NTSTATUS StartThread(BodyTableCache* Cache) {
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    NTSTATUS status = PsCreateSystemThread(&Cache->FlushThread, THREAD_ALL_ACCESS, &attributes, nullptr, nullptr,
                                           VrkFsBTFlushThread, Cache);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = ObReferenceObjectByHandle(Cache->FlushThread, THREAD_ALL_ACCESS, *PsThreadType, KernelMode,
                                       &Cache->FlushThreadObject, nullptr);
    if (!NT_SUCCESS(status)) {
        KeSetEvent(&Cache->StopEvent, EVENT_INCREMENT, FALSE);
        KeWaitForSingleObject(&Cache->ThreadDoneEvent, Executive, KernelMode, FALSE, nullptr);
        static_cast<void>(ZwClose(Cache->FlushThread));
        return status;
    }
    Cache->Flags |= kBodyTableCacheThread;
    return STATUS_SUCCESS;
}

// Without a limit: a thread that is still in a transfer uses the cache, and its mutex.
VOID StopThread(BodyTableCache* Cache) {
    KeSetEvent(&Cache->StopEvent, EVENT_INCREMENT, FALSE);
    KeWaitForSingleObject(Cache->FlushThreadObject, Executive, KernelMode, FALSE, nullptr);
    ObDereferenceObject(Cache->FlushThreadObject);
    static_cast<void>(ZwClose(Cache->FlushThread));
    Cache->Flags &= ~kBodyTableCacheThread;
}

}  // namespace

NTSTATUS VrkFsBTInitHandler(BodyTableCache* Cache) {
    RtlZeroMemory(Cache, sizeof(*Cache));
    InitializeListHead(&Cache->Referenced);
    InitializeListHead(&Cache->Unreferenced);
    InitializeListHead(&Cache->Work);
    KeInitializeMutex(&Cache->Mutex, 0);
    ExInitializeFastMutex(&Cache->WorkLock);
    KeInitializeEvent(&Cache->StopEvent, NotificationEvent, FALSE);
    KeInitializeEvent(&Cache->ThreadDoneEvent, NotificationEvent, FALSE);
    KeInitializeEvent(&Cache->WorkEvent, SynchronizationEvent, FALSE);
    Cache->Owner = IoGetCurrentProcess();
    ExInitializePagedLookasideList(&Cache->Objects, nullptr, nullptr, 0, sizeof(BodyTableObject), VrkFsPoolTag("BTOL"),
                                   kObjectListDepth);
    Cache->Flags |= kBodyTableCacheList;
    const NTSTATUS status = StartThread(Cache);
    if (!NT_SUCCESS(status)) {
        VrkFsBTFreeHandler(Cache);
    }
    return status;
}

VOID VrkFsBTFreeHandler(BodyTableCache* Cache) {
    if ((Cache->Flags & kBodyTableCacheThread) != 0) {
        StopThread(Cache);
    }
    if ((Cache->Flags & kBodyTableCacheList) != 0) {
        VrkFsBTFlushUnrefObjects(Cache);
        VrkFsBTFlushRefObjects(Cache);
        ExDeletePagedLookasideList(&Cache->Objects);
        Cache->Flags &= ~kBodyTableCacheList;
    }
}

VOID VrkFsBTDereferenceObject(BodyTableCache* Cache, BodyTableObject* Object) {
    BodyTableWork work = {};
    work.Operation = BodyTableOperation::Dereference;
    work.Object = Object;
    PerformInOwner(Cache, &work);
}

VOID VrkFsBTFlushObjectByName(BodyTableCache* Cache, PCUNICODE_STRING FullName) {
    BodyTableWork work = {};
    work.Operation = BodyTableOperation::FlushByName;
    work.Name = FullName;
    PerformInOwner(Cache, &work);
}

VOID VrkFsBTRemoveObjectByName(BodyTableCache* Cache, PCUNICODE_STRING FullName) {
    BodyTableWork work = {};
    work.Operation = BodyTableOperation::RemoveByName;
    work.Name = FullName;
    PerformInOwner(Cache, &work);
}

VOID VrkFsBTForgetTable(BodyTableCache* Cache, const HwVolume* Volume, ULONG TableLba) {
    if (TableLba == 0) {
        return;
    }
    MutexGuard lock(&Cache->Mutex);
    const LIST_ENTRY* const heads[] = {&Cache->Referenced, &Cache->Unreferenced};
    for (const LIST_ENTRY* head : heads) {
        for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
            BodyTableObject* object = ObjectOfLink(link);
            if (object->Volume == Volume && (object->VideoLba == TableLba || object->AlphaLba == TableLba)) {
                object->Flags |= kBodyTableForgotten;
            }
        }
    }
}

VOID VrkFsBTFlushUnrefObjects(BodyTableCache* Cache) {
    BodyTableWork work = {};
    work.Operation = BodyTableOperation::FlushUnreferenced;
    PerformInOwner(Cache, &work);
}

VOID VrkFsBTFlushRefObjects(BodyTableCache* Cache) {
    BodyTableWork work = {};
    work.Operation = BodyTableOperation::FlushReferenced;
    PerformInOwner(Cache, &work);
}

VOID VrkFsBTRequestFlushSuspend(BodyTableCache* Cache) {
    MutexGuard lock(&Cache->Mutex);
    ++Cache->SuspendCount;
}

VOID VrkFsBTRequestFlushResume(BodyTableCache* Cache, ULONG Count) {
    MutexGuard lock(&Cache->Mutex);
    Cache->SuspendCount -= std::min(Cache->SuspendCount, Count);
}
