#include "media/body_table_cache.h"

#include <algorithm>

#include "core/card_instance.h"
#include "core/guards.h"
#include "core/pool.h"
#include "core/strings.h"
#include "media/body_table_object.h"

namespace {

constexpr USHORT kObjectListDepth = 132;
constexpr ULONG kAnyFrames = 0xFFFFFFFF;

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

VOID RetireObject(BodyTableCache* Cache, BodyTableObject* Object) {
    VrkFsBTFlushObject(Object, FALSE);
    VrkFsBTDestroyObject(Cache, Object);
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
        VrkFsBTFlushObject(object, TRUE);
    }
}

VOID RemoveByName(BodyTableCache* Cache, PCUNICODE_STRING Name) {
    PULONG count = &Cache->UnreferencedCount;
    BodyTableObject* object = FindIn(&Cache->Unreferenced, Name);
    if (object == nullptr) {
        count = &Cache->ReferencedCount;
        object = FindIn(&Cache->Referenced, Name);
    }
    if (object == nullptr) {
        return;
    }
    if (object->References != 0) {  // its owner gives it back later
        VrkFsBTFlushObject(object, TRUE);
        object->Flags |= kBodyTableForgotten;
        return;
    }
    RemoveEntryList(&object->Link);
    --*count;
    RetireObject(Cache, object);
}

VOID RetireUnreferenced(BodyTableCache* Cache) {
    while (!IsListEmpty(&Cache->Unreferenced)) {
        BodyTableObject* object = ObjectOfLink(RemoveHeadList(&Cache->Unreferenced));
        --Cache->UnreferencedCount;
        RetireObject(Cache, object);
    }
}

// The objects stay: open files have them, and give them back when they are closed.
VOID FlushReferenced(BodyTableCache* Cache) {
    for (PLIST_ENTRY link = Cache->Referenced.Flink; link != &Cache->Referenced; link = link->Flink) {
        VrkFsBTFlushObject(ObjectOfLink(link), TRUE);
    }
}

VOID DereferenceObject(BodyTableCache* Cache, BodyTableObject* Object) {
    if (--Object->References != 0) {
        return;
    }
    RemoveEntryList(&Object->Link);
    --Cache->ReferencedCount;
    Object->WriteReferences = 0;  // those of programs that ended without dropping them: the file has no handle now
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

// Takes a cached object of the name out: it is about to be used again, or replaced. Null if there is none, or only one
// that is not what the file's record says any more.
BodyTableObject* TakeUnreferenced(BodyTableCache* Cache, PCUNICODE_STRING Name, const FCB* Fcb) {
    BodyTableObject* object = FindIn(&Cache->Unreferenced, Name);
    if (object == nullptr) {
        return nullptr;
    }
    RemoveEntryList(&object->Link);
    --Cache->UnreferencedCount;
    if (VrkFsBTMatchesFile(object, Fcb)) {
        return object;
    }
    // The other tables' blocks may be another file's. One that the file still has is not lost with them.
    VrkFsBTKeepTablesOfFile(object, Fcb);
    RetireObject(Cache, object);
    return nullptr;
}

// Cuts what the object writes to one of its tables. An object that writes nothing any more is of no use to anybody.
VOID ShortenTableOf(BodyTableObject* Object, ULONG TableLba, ULONG TableBytes, ULONG Frames) {
    PULONG bytes = nullptr;
    if (Object->VideoLba == TableLba) {
        bytes = &Object->VideoBytes;
    } else if (Object->AlphaLba == TableLba) {
        bytes = &Object->AlphaBytes;
    } else {
        return;
    }
    *bytes = std::min(*bytes, TableBytes);
    Object->Frames = std::min(Object->Frames, Frames);
    if (Object->Frames == 0 || (Object->VideoBytes == 0 && Object->AlphaBytes == 0)) {
        Object->Flags |= kBodyTableForgotten;
    }
}

VOID ShortenTable(BodyTableCache* Cache, const HwVolume* Volume, ULONG TableLba, ULONG TableBytes, ULONG Frames) {
    if (TableLba == 0) {
        return;
    }
    MutexGuard lock(&Cache->Mutex);
    const LIST_ENTRY* const heads[] = {&Cache->Referenced, &Cache->Unreferenced};
    for (const LIST_ENTRY* head : heads) {
        for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
            if (ObjectOfLink(link)->Volume == Volume) {
                ShortenTableOf(ObjectOfLink(link), TableLba, TableBytes, Frames);
            }
        }
    }
}

VOID InsertReferenced(BodyTableCache* Cache, BodyTableObject* Object) {
    Object->References = 1;
    InsertHeadList(&Cache->Referenced, &Object->Link);
    ++Cache->ReferencedCount;
}

NTSTATUS CopyApplicationName(const UNICODE_STRING* SectionName, PVOID Buffer, ULONG Bytes) {
    constexpr ULONG kDirectoryBytes = kSectionDirectoryChars * sizeof(WCHAR);
    if (SectionName->Length <= kDirectoryBytes) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    const ULONG needed = SectionName->Length - kDirectoryBytes + sizeof(WCHAR);
    if (Bytes < needed) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    RtlCopyMemory(Buffer, SectionName->Buffer + kSectionDirectoryChars, needed);
    return STATUS_SUCCESS;
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
            RetireUnreferenced(Cache);
            break;
        case BodyTableOperation::FlushReferenced:
            FlushReferenced(Cache);
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
        if (VrkFsBTIsFlushNeeded(ObjectOfLink(link), Now())) {
            VrkFsBTFlushObject(ObjectOfLink(link), TRUE);
        }
    }
    for (PLIST_ENTRY link = Cache->Unreferenced.Flink; link != &Cache->Unreferenced; link = link->Flink) {
        if (VrkFsBTIsFlushNeeded(ObjectOfLink(link), Now())) {
            VrkFsBTFlushObject(ObjectOfLink(link), FALSE);
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
        if (status == STATUS_TIMEOUT || Now() >= nextPass) {  // work that never ends keeps no pass away
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

// The card goes: no file is open on it any more, so nobody has the objects.
VOID DestroyReferenced(BodyTableCache* Cache) {
    while (!IsListEmpty(&Cache->Referenced)) {
        VrkFsBTDestroyObject(Cache, ObjectOfLink(RemoveHeadList(&Cache->Referenced)));
        --Cache->ReferencedCount;
    }
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
        DestroyReferenced(Cache);
        ExDeletePagedLookasideList(&Cache->Objects);
        Cache->Flags &= ~kBodyTableCacheList;
    }
}

NTSTATUS VrkFsBTReferenceObject(BodyTableCache* Cache, PCUNICODE_STRING FullName, FCB* Fcb, BodyTableObject** Object) {
    // The mutex stays held while an object is made: two of one name would share the sections.
    MutexGuard lock(&Cache->Mutex);
    BodyTableObject* object = FindIn(&Cache->Referenced, FullName);
    if (object != nullptr) {
        ++object->References;
        *Object = object;
        return STATUS_SUCCESS;
    }
    object = TakeUnreferenced(Cache, FullName, Fcb);
    if (object == nullptr) {
        const NTSTATUS status = VrkFsBTCreateObject(Cache, FullName, Fcb, &object);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    } else if ((object->Flags & kBodyTableClean) != 0) {
        object->Flags &= ~kBodyTableClean;
        object->FlushDeadline = Now() + kBodyTableFlushDelay;
    }
    InsertReferenced(Cache, object);
    *Object = object;
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsBTCreateNewObject(BodyTableCache* Cache, PCUNICODE_STRING FullName, FCB* Fcb, ULONG Frames,
                                BodyTableObject** Object) {
    MutexGuard lock(&Cache->Mutex);
    BodyTableObject* earlier = TakeUnreferenced(Cache, FullName, Fcb);
    if (earlier != nullptr) {
        RetireObject(Cache, earlier);
    }
    BodyTableObject* object = nullptr;
    const NTSTATUS status = VrkFsBTCreateEmptyObject(Cache, FullName, Fcb, Frames, &object);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    object->Flags |= kBodyTableNew;
    InsertReferenced(Cache, object);
    *Object = object;
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsBTCreateNewVideoNodes(BodyTableCache* Cache, BodyTableObject* Object, ULONG TableLba, ULONG TableBytes) {
    MutexGuard lock(&Cache->Mutex);
    const NTSTATUS status = VrkFsBTCreateVideoSection(Object);
    if (NT_SUCCESS(status)) {
        Object->VideoLba = TableLba;
        Object->VideoBytes = TableBytes;
    }
    return status;
}

NTSTATUS VrkFsBTCreateNewAlphaNodes(BodyTableCache* Cache, BodyTableObject* Object, ULONG TableLba, ULONG TableBytes) {
    MutexGuard lock(&Cache->Mutex);
    const NTSTATUS status = VrkFsBTCreateAlphaSection(Object);
    if (NT_SUCCESS(status)) {
        Object->AlphaLba = TableLba;
        Object->AlphaBytes = TableBytes;
    }
    return status;
}

VOID VrkFsBTWriteAccessReference(BodyTableCache* Cache, BodyTableObject* Object) {
    MutexGuard lock(&Cache->Mutex);
    ++Object->WriteReferences;
    Object->Flags |= kBodyTableWritten;
}

VOID VrkFsBTWriteAccessDereference(BodyTableCache* Cache, BodyTableObject* Object) {
    MutexGuard lock(&Cache->Mutex);
    if (Object->WriteReferences != 0) {
        --Object->WriteReferences;
    }
}

BOOLEAN VrkFsBTIsWriteReferenced(BodyTableCache* Cache, const BodyTableObject* Object) {
    MutexGuard lock(&Cache->Mutex);
    return Object->WriteReferences != 0;
}

NTSTATUS VrkFsBTGetVideoName(BodyTableCache* Cache, const BodyTableObject* Object, PVOID Buffer, ULONG Bytes) {
    MutexGuard lock(&Cache->Mutex);
    return CopyApplicationName(&Object->VideoSectionName, Buffer, Bytes);
}

NTSTATUS VrkFsBTGetAlphaName(BodyTableCache* Cache, const BodyTableObject* Object, PVOID Buffer, ULONG Bytes) {
    MutexGuard lock(&Cache->Mutex);
    return CopyApplicationName(&Object->AlphaSectionName, Buffer, Bytes);
}

BOOLEAN VrkFsBTIsForgotten(BodyTableCache* Cache, const BodyTableObject* Object) {
    MutexGuard lock(&Cache->Mutex);
    return (Object->Flags & kBodyTableForgotten) != 0;
}

VOID VrkFsBTSettleTable(BodyTableCache* Cache, const HwVolume* Volume, ULONG TableLba, ULONG TableBytes, ULONG Frames) {
    ShortenTable(Cache, Volume, TableLba, TableBytes, Frames);
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
    ShortenTable(Cache, Volume, TableLba, 0, kAnyFrames);
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
