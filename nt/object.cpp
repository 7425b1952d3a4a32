#include "nt/object_header.h"

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <vector>

// Objects and their references; the reaper, which deletes those whose last reference goes where the deletion may not
// run.

namespace nt {

OBJECT_TYPE g_fileType = {"file object", CleanupFileObject, DeleteFileObject};
OBJECT_TYPE g_deviceType = {"device", nullptr, DeleteDeviceObject};
OBJECT_TYPE g_driverType = {"driver", nullptr, DeleteDriverObject};
OBJECT_TYPE g_threadType = {"thread object", nullptr, nullptr};
OBJECT_TYPE g_processType = {"process", nullptr, DeleteProcessObject};
OBJECT_TYPE g_eventType = {"event", nullptr, nullptr};
OBJECT_TYPE g_linkType = {"link", nullptr, DeleteLinkObject};

namespace {

constexpr uint32_t kMagic = 0x6A624F21;

WordLock g_liveLock;  // guards the two lists
LIST_ENTRY g_live = {&g_live, &g_live};
LIST_ENTRY g_graveyard = {&g_graveyard, &g_graveyard};  // left at a shutdown beside somebody who may use it

PVOID Allocate(POBJECT_TYPE type, size_t size, bool listed) {
    void* const memory = std::calloc(1, sizeof(ObjectHeader) + size);
    if (memory == nullptr) {
        return nullptr;
    }
    auto* const header = new (memory) ObjectHeader{};
    header->references = 1;
    header->type = type;
    header->magic = kMagic;
    header->listed = listed;
    if (listed) {
        header->owner = CurrentDriver();
        WordGuard guard(g_liveLock);
        InsertTailList(&g_live, &header->live);
    }
    return header + 1;
}

void Delete(PVOID object) {
    ObjectHeader* const header = HeaderOf(object);
    ObRemoveName(object);
    if (header->type->deleteObject != nullptr) {
        header->type->deleteObject(object);
    }
    if (header->listed) {
        WordGuard guard(g_liveLock);
        RemoveEntryList(&header->live);
    }
    header->magic = 0;
    header->~ObjectHeader();
    std::free(header);
}

// Drops one reference; returns what is left, or -1 after a violation.
int64_t Drop(PVOID object) {
    ObjectHeader* const header = HeaderOf(object);
    if (header->magic != kMagic) {
        Violation("dereference of %p, which is no object", object);
        return -1;
    }
    const int64_t left = header->references.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left < 0) {
        Violation("dereference of %s beyond its last reference", ObDescribe(object).c_str());
    }
    return left;
}

// ---- the reaper ----
// A completion may drop the last reference to a file object while the completing driver still holds its locks. On the
// real kernel that happens in the context of the thread that made the request; here a thread of its own stands in.

struct Reaper {
    std::mutex lock;
    std::condition_variable changed;
    std::deque<PVOID> objects;
    bool busy = false;
    bool stop = false;
    PETHREAD thread = nullptr;
};
Reaper g_reaper;

VOID NTAPI ReaperMain(PVOID) {
    std::unique_lock lock(g_reaper.lock);
    for (;;) {
        g_reaper.changed.wait(lock, [] { return g_reaper.stop || !g_reaper.objects.empty(); });
        if (g_reaper.objects.empty()) {
            return;
        }
        PVOID const object = g_reaper.objects.front();
        g_reaper.objects.pop_front();
        g_reaper.busy = true;
        lock.unlock();
        Delete(object);
        lock.lock();
        g_reaper.busy = false;
        g_reaper.changed.notify_all();
    }
}

}  // namespace

PVOID ObAllocate(POBJECT_TYPE type, size_t size) {
    return Allocate(type, size, true);
}

PVOID ObAllocateUnlisted(POBJECT_TYPE type, size_t size) {
    return Allocate(type, size, false);
}

POBJECT_TYPE ObTypeOf(PVOID object) {
    return HeaderOf(object)->type;
}

void ObSetOwner(PVOID object, PDRIVER_OBJECT owner) {
    HeaderOf(object)->owner = owner;
}

std::string ObDescribe(PVOID object) {
    if (ObTypeOf(object) == &g_fileType) {
        return "file object " + DescribeFile(static_cast<PFILE_OBJECT>(object));
    }
    if (ObTypeOf(object) == &g_processType) {
        return std::string("process ") + static_cast<PEPROCESS>(object)->name;
    }
    if (ObTypeOf(object) == &g_threadType) {
        return std::string("thread object ") + static_cast<PETHREAD>(object)->name;
    }
    const std::u16string name = ObNameOf(object);
    return std::string(ObTypeOf(object)->name) + (name.empty() ? "" : " " + Utf8FromWide(name));
}

bool ObIsObject(PVOID object) {
    return HeaderOf(object)->magic == kMagic;
}

bool ObTryReference(PVOID object) {
    std::atomic<int64_t>& references = HeaderOf(object)->references;
    int64_t count = references.load(std::memory_order_relaxed);
    while (count > 0) {
        if (references.compare_exchange_weak(count, count + 1, std::memory_order_acquire)) {
            return true;
        }
    }
    return false;
}

void ObDereferenceDeferred(PVOID object) {
    if (Drop(object) == 0) {
        std::lock_guard guard(g_reaper.lock);
        g_reaper.objects.push_back(object);
        g_reaper.changed.notify_all();
    }
}

void ReaperBoot() {
    g_reaper.stop = false;
    g_reaper.thread = StartKernelThread("reaper", ReaperMain, nullptr);
}

void ReaperDrain() {
    std::unique_lock lock(g_reaper.lock);
    g_reaper.changed.wait(lock, [] { return g_reaper.objects.empty() && !g_reaper.busy; });
}

void ReaperShutdown() {
    {
        std::lock_guard guard(g_reaper.lock);
        g_reaper.stop = true;
        g_reaper.changed.notify_all();
    }
    JoinKernelThread(g_reaper.thread);
    g_reaper.thread = nullptr;
}

void AddObjectLeaks(PDRIVER_OBJECT driver, LeakList& leaks) {
    AwaitEndingThreads();
    WordGuard guard(g_liveLock);
    for (PLIST_ENTRY entry = g_live.Flink; entry != &g_live; entry = entry->Flink) {
        ObjectHeader* const header = CONTAINING_RECORD(entry, ObjectHeader, live);
        if (header->type == &g_driverType || (driver != nullptr && header->owner != driver)) {
            continue;
        }
        const std::string described = ObDescribe(header + 1);
        const std::string type = header->type->name;
        leaks.push_back({type,
                         described.substr(std::min(described.size(), type.size() + 1)) + " (" +
                             std::to_string(header->references.load()) + " references)",
                         1, 0});
    }
}

void ForgetObjectOwner(PDRIVER_OBJECT driver) {
    WordGuard guard(g_liveLock);
    for (PLIST_ENTRY entry = g_live.Flink; entry != &g_live; entry = entry->Flink) {
        ObjectHeader* const header = CONTAINING_RECORD(entry, ObjectHeader, live);
        if (header->owner == driver) {
            header->owner = nullptr;
        }
    }
}

void ReclaimLinks(PDRIVER_OBJECT driver) {
    std::vector<PVOID> links;
    {
        WordGuard guard(g_liveLock);
        for (PLIST_ENTRY entry = g_live.Flink; entry != &g_live; entry = entry->Flink) {
            ObjectHeader* const header = CONTAINING_RECORD(entry, ObjectHeader, live);
            if (header->type == &g_linkType && header->owner == driver) {
                links.push_back(header + 1);
            }
        }
    }
    for (PVOID const link : links) {
        ObfDereferenceObject(link);
    }
}

bool ObAnyLive(POBJECT_TYPE type) {
    WordGuard guard(g_liveLock);
    for (PLIST_ENTRY entry = g_live.Flink; entry != &g_live; entry = entry->Flink) {
        if (CONTAINING_RECORD(entry, ObjectHeader, live)->type == type) {
            return true;
        }
    }
    return false;
}

void ObjectsShutdown(bool reclaim) {
    WordGuard guard(g_liveLock);
    while (!IsListEmpty(&g_live)) {
        PLIST_ENTRY const entry = RemoveHeadList(&g_live);
        if (!reclaim) {
            InsertTailList(&g_graveyard, entry);
            continue;
        }
        ObjectHeader* const header = CONTAINING_RECORD(entry, ObjectHeader, live);
        // What a device and a file hold is pool; and the end of a file would be told to a driver that has gone.
        const bool holdsPoolOnly = header->type == &g_deviceType || header->type == &g_fileType;
        if (header->type->deleteObject != nullptr && !holdsPoolOnly) {
            header->type->deleteObject(header + 1);
        }
        header->~ObjectHeader();
        std::free(header);
    }
}

}  // namespace nt

namespace {
POBJECT_TYPE g_fileTypePointer = &nt::g_fileType;
POBJECT_TYPE g_deviceTypePointer = &nt::g_deviceType;
POBJECT_TYPE g_driverTypePointer = &nt::g_driverType;
POBJECT_TYPE g_threadTypePointer = &nt::g_threadType;
POBJECT_TYPE g_processTypePointer = &nt::g_processType;
POBJECT_TYPE g_eventTypePointer = &nt::g_eventType;
}  // namespace

POBJECT_TYPE* IoFileObjectType = &g_fileTypePointer;
POBJECT_TYPE* IoDeviceObjectType = &g_deviceTypePointer;
POBJECT_TYPE* IoDriverObjectType = &g_driverTypePointer;
POBJECT_TYPE* PsThreadType = &g_threadTypePointer;
POBJECT_TYPE* PsProcessType = &g_processTypePointer;
POBJECT_TYPE* ExEventObjectType = &g_eventTypePointer;

NTKERNELAPI LONG_PTR FASTCALL ObfReferenceObject(PVOID Object) {
    if (!nt::ObIsObject(Object) || !nt::ObTryReference(Object)) {
        nt::Violation("reference to %p, which is no live object", Object);
        return 0;
    }
    return nt::HeaderOf(Object)->references.load(std::memory_order_relaxed);
}

NTKERNELAPI LONG_PTR FASTCALL ObfDereferenceObject(PVOID Object) {
    const int64_t left = nt::Drop(Object);
    if (left == 0) {
        nt::Delete(Object);
    }
    return left;
}

NTKERNELAPI NTSTATUS NTAPI ObReferenceObjectByPointer(PVOID Object, ACCESS_MASK, POBJECT_TYPE ObjectType,
                                                      KPROCESSOR_MODE) {
    if (ObjectType != nullptr && nt::ObTypeOf(Object) != ObjectType) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    ObfReferenceObject(Object);
    return STATUS_SUCCESS;
}
