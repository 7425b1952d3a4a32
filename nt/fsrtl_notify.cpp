#include <algorithm>
#include <atomic>
#include <mutex>
#include <new>
#include <string_view>
#include <vector>

#include "nt/fsrtl.h"
#include "nt/io.h"
#include "nt/kernel.h"
#include "nt/pool.h"
#include "nt/text.h"

// Who may complete a request: it is on its record's list as long as nobody has taken it. Reports, cleanup and cancel
// each take it off under the synchronisation object's mutex, and the first two only after they have taken its cancel
// routine out; a request whose cancel routine is already running is left to it. Requests are completed after the mutex
// has been released, because a completion may run other people's code.

namespace {

// Both records come from the pool, as on the real kernel, so that one left behind is listed with its driver's.
constexpr ULONG kSyncTag = 0x53725346;    // "FSrS"
constexpr ULONG kRecordTag = 0x4E725346;  // "FSrN"

struct NotifySync {
    std::mutex mutex;
    std::atomic<int> records{0};
};

// One watching handle, made by its first request and kept until its cleanup. A request on the list keeps the record
// too: its cancel routine may still be on its way when the handle has been cleaned up.
struct NotifyRecord {
    LIST_ENTRY link;  // On the driver's list. First, so that the list's entries are records.
    NotifySync* sync;
    PVOID fsContext;
    PSTRING directoryName;   // The caller's record, not a copy.
    nt::PoolBlock* pins[3];  // Memory that must outlive the record: the name, its characters, the list head.
    bool watchTree;
    bool changed;    // A change that no request has reported yet.
    bool cleanedUp;  // No longer on the driver's list.
    ULONG filter;
    LIST_ENTRY requests;  // Oldest first, by Tail.Overlay.ListEntry.
};

using Requests = std::vector<PIRP>;

NotifyRecord* RecordOf(PLIST_ENTRY link) {
    return reinterpret_cast<NotifyRecord*>(link);
}

PIRP RequestOf(PLIST_ENTRY link) {
    return CONTAINING_RECORD(link, IRP, Tail.Overlay.ListEntry);
}

NotifyRecord* FindRecord(PLIST_ENTRY notifyList, PVOID fsContext) {
    for (PLIST_ENTRY link = notifyList->Flink; link != notifyList; link = link->Flink) {
        if (RecordOf(link)->fsContext == fsContext) {
            return RecordOf(link);
        }
    }
    return nullptr;
}

// On the real kernel these calls raise when memory is short; no failure is ordered for what they allocate.
template <class Record>
Record* AllocateRecord(ULONG tag) {
    const nt::FaultExempt exempt;
    void* const memory = ExAllocatePoolWithTag(NonPagedPool, sizeof(Record), tag);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return new (memory) Record{};
}

template <class Record>
void FreeRecord(Record* record, ULONG tag) {
    record->~Record();
    ExFreePoolWithTag(record, tag);
}

NotifyRecord* AddRecord(NotifySync* sync, PLIST_ENTRY notifyList, PVOID fsContext, PSTRING directoryName,
                        BOOLEAN watchTree, ULONG filter) {
    auto* const record = AllocateRecord<NotifyRecord>(kRecordTag);
    record->sync = sync;
    record->fsContext = fsContext;
    record->directoryName = directoryName;
    record->pins[0] = nt::PinPoolBlock(directoryName);
    record->pins[1] = nt::PinPoolBlock(directoryName->Buffer);
    record->pins[2] = nt::PinPoolBlock(notifyList);
    record->watchTree = watchTree != FALSE;
    record->filter = filter;
    InitializeListHead(&record->requests);
    InsertTailList(notifyList, &record->link);
    ++sync->records;
    return record;
}

// Takes the record off the driver's list. Name and list are no longer needed then.
void RemoveRecord(NotifyRecord* record) {
    RemoveEntryList(&record->link);
    record->cleanedUp = true;
    for (nt::PoolBlock* const pin : record->pins) {
        nt::UnpinPoolBlock(pin);
    }
}

void FreeIfDone(NotifyRecord* record) {
    if (record->cleanedUp && IsListEmpty(&record->requests)) {
        --record->sync->records;
        FreeRecord(record, kRecordTag);
    }
}

// Takes the oldest request that is not being cancelled off the record, or returns null. The mutex is held.
PIRP TakeRequest(NotifyRecord* record) {
    for (PLIST_ENTRY link = record->requests.Flink; link != &record->requests; link = link->Flink) {
        const PIRP irp = RequestOf(link);
        if (IoSetCancelRoutine(irp, nullptr) != nullptr) {
            RemoveEntryList(link);
            return irp;
        }
    }
    return nullptr;
}

void TakeAllRequests(NotifyRecord* record, Requests* taken) {
    while (const PIRP irp = TakeRequest(record)) {
        taken->push_back(irp);
    }
}

void Complete(PIRP irp, NTSTATUS status) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, EVENT_INCREMENT);
}

void CompleteAll(const Requests& requests, NTSTATUS status) {
    for (const PIRP irp : requests) {
        Complete(irp, status);
    }
}

void NTAPI CancelNotify(PDEVICE_OBJECT /*deviceObject*/, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    auto* const record = static_cast<NotifyRecord*>(irp->Tail.Overlay.DriverContext[0]);
    NotifySync* const sync = record->sync;
    {
        const std::lock_guard lock(sync->mutex);
        RemoveEntryList(&irp->Tail.Overlay.ListEntry);
        FreeIfDone(record);
    }
    Complete(irp, STATUS_CANCELLED);
}

// Puts the request on the record's list. False when it has been cancelled already and is the caller's to complete. The
// mutex is held.
bool QueueRequest(NotifyRecord* record, PIRP irp) {
    irp->Tail.Overlay.DriverContext[0] = record;
    InsertTailList(&record->requests, &irp->Tail.Overlay.ListEntry);
    IoSetCancelRoutine(irp, CancelNotify);
    if (irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr) {
        RemoveEntryList(&irp->Tail.Overlay.ListEntry);
        return false;
    }
    return true;
}

std::u16string_view NameOf(const STRING* name) {
    return {reinterpret_cast<const WCHAR*>(name->Buffer), name->Length / sizeof(WCHAR)};
}

// Whether the record's directory holds the target, directly or, for a tree, at any depth. `parent` is the target's path
// up to its last component, without the backslash in between.
bool Covers(const NotifyRecord& record, std::u16string_view parent) {
    std::u16string_view directory = NameOf(record.directoryName);
    if (directory == u"\\") {
        directory = {};
    }
    if (parent == directory) {
        return true;
    }
    return record.watchTree && parent.starts_with(directory) && parent[directory.size()] == u'\\';
}

bool CheckSupported(BOOLEAN ignoreBuffer, PCHECK_FOR_TRAVERSE_ACCESS traverseCallback) {
    if (!ignoreBuffer || traverseCallback != nullptr) {
        nt::Violation("FsRtlNotifyFullChangeDirectory: buffered changes and traverse checks are not provided for");
        return false;
    }
    return true;
}

}  // namespace

void FsRtlNotifyInitializeSync(PNOTIFY_SYNC* notifySync) {
    *notifySync = AllocateRecord<NotifySync>(kSyncTag);
}

void FsRtlNotifyUninitializeSync(PNOTIFY_SYNC* notifySync) {
    auto* const sync = static_cast<NotifySync*>(*notifySync);
    if (sync == nullptr) {
        return;
    }
    if (sync->records != 0) {
        nt::Violation("FsRtlNotifyUninitializeSync: %d handles still watch a directory", sync->records.load());
        return;
    }
    FreeRecord(sync, kSyncTag);
    *notifySync = nullptr;
}

void FsRtlNotifyFullChangeDirectory(PNOTIFY_SYNC notifySync, PLIST_ENTRY notifyList, PVOID fsContext,
                                    PSTRING fullDirectoryName, BOOLEAN watchTree, BOOLEAN ignoreBuffer,
                                    ULONG completionFilter, PIRP notifyIrp, PCHECK_FOR_TRAVERSE_ACCESS traverseCallback,
                                    PSECURITY_SUBJECT_CONTEXT /*subjectContext*/) {
    if (!nt::RequireResident(notifyList, "a notify list head")) {
        return;
    }
    auto* const sync = static_cast<NotifySync*>(notifySync);
    if (notifyIrp == nullptr) {
        Requests pending;
        {
            const std::lock_guard lock(sync->mutex);
            if (NotifyRecord* const record = FindRecord(notifyList, fsContext)) {
                TakeAllRequests(record, &pending);
            }
        }
        CompleteAll(pending, STATUS_DELETE_PENDING);
        return;
    }
    if (!CheckSupported(ignoreBuffer, traverseCallback)) {
        return;
    }

    IoMarkIrpPending(notifyIrp);
    NTSTATUS status = STATUS_PENDING;
    {
        const std::lock_guard lock(sync->mutex);
        NotifyRecord* record = FindRecord(notifyList, fsContext);
        const PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(notifyIrp)->FileObject;
        if (fileObject != nullptr && (fileObject->Flags & FO_CLEANUP_COMPLETE) != 0) {
            // The handle has gone: a record made now would never be cleaned up.
            status = STATUS_NOTIFY_CLEANUP;
        } else {
            if (record == nullptr) {
                record = AddRecord(sync, notifyList, fsContext, fullDirectoryName, watchTree, completionFilter);
            }
            if (record->changed) {
                record->changed = false;
                status = STATUS_NOTIFY_ENUM_DIR;
            } else if (!QueueRequest(record, notifyIrp)) {
                status = STATUS_CANCELLED;
            }
        }
    }
    if (status != STATUS_PENDING) {
        Complete(notifyIrp, status);
    }
}

void FsRtlNotifyFullReportChange(PNOTIFY_SYNC notifySync, PLIST_ENTRY notifyList, PSTRING fullTargetName,
                                 USHORT targetNameOffset, PSTRING /*streamName*/, PSTRING /*normalizedParentName*/,
                                 ULONG filterMatch, ULONG /*action*/, PVOID /*targetContext*/) {
    if (!nt::RequireResident(notifyList, "a notify list head")) {
        return;
    }
    const std::u16string_view target = NameOf(fullTargetName);
    if (targetNameOffset > fullTargetName->Length) {
        nt::Violation("FsRtlNotifyFullReportChange: the last component of \"%s\" cannot begin at byte %u",
                      nt::Utf8FromWide(target).c_str(), unsigned{targetNameOffset});
        return;
    }
    const std::u16string_view parent = target.substr(0, std::max<SIZE_T>(targetNameOffset / sizeof(WCHAR), 1) - 1);
    auto* const sync = static_cast<NotifySync*>(notifySync);
    Requests taken;
    {
        const std::lock_guard lock(sync->mutex);
        for (PLIST_ENTRY link = notifyList->Flink; link != notifyList; link = link->Flink) {
            NotifyRecord* const record = RecordOf(link);
            if ((record->filter & filterMatch) == 0 || !Covers(*record, parent)) {
                continue;
            }
            if (const PIRP irp = TakeRequest(record)) {
                taken.push_back(irp);
            } else {
                record->changed = true;
            }
        }
    }
    CompleteAll(taken, STATUS_NOTIFY_ENUM_DIR);
}

void FsRtlNotifyCleanup(PNOTIFY_SYNC notifySync, PLIST_ENTRY notifyList, PVOID fsContext) {
    auto* const sync = static_cast<NotifySync*>(notifySync);
    Requests pending;
    {
        const std::lock_guard lock(sync->mutex);
        NotifyRecord* const record = FindRecord(notifyList, fsContext);
        if (record == nullptr) {
            return;
        }
        TakeAllRequests(record, &pending);
        RemoveRecord(record);
        FreeIfDone(record);
    }
    CompleteAll(pending, STATUS_NOTIFY_CLEANUP);
}
