#include <pthread.h>
#include <sched.h>

#include <cstdio>
#include <cstring>

#include "nt/internal.h"
#include "nt/irp.h"

// Threads. A thread of the program gets its record with its first call into the kernel and keeps it over boots; those
// that PsCreateSystemThread or the kernel start have one from the beginning. The record goes when the thread has ended
// and nobody refers to it.

namespace nt {

constinit thread_local PETHREAD t_self = nullptr;

namespace {

WordLock g_threadsLock;  // guards the list of all threads
LIST_ENTRY g_threads = {&g_threads, &g_threads};
std::atomic<uint64_t> g_nextId{1};

void FindStack(PETHREAD self) {
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) {
        return;
    }
    void* low = nullptr;
    size_t size = 0;
    if (pthread_attr_getstack(&attributes, &low, &size) == 0) {
        self->stackLow = reinterpret_cast<uintptr_t>(low);
        self->stackHigh = self->stackLow + size;
    }
    pthread_attr_destroy(&attributes);
}

void Initialize(PETHREAD thread, const char* name) {
    InitializeHeader(&thread->header, kThreadObject, 0);
    thread->id = g_nextId.fetch_add(1);
    std::snprintf(thread->name, sizeof(thread->name), "%s", name);
    WordGuard guard(g_threadsLock);
    InsertTailList(&g_threads, &thread->allThreads);
}

std::atomic<unsigned> g_ending{0};  // threads in their last lines

void CheckEnd(PETHREAD self) {
    if (self->heldCount != 0 || self->spinLockCount != 0 || self->criticalRegions != 0) {
        Violation("thread %s ends in %d critical regions, with %u spin locks and holding %s", self->name,
                  self->criticalRegions, self->spinLockCount, DescribeHeld(self).c_str());
    }
}

// The thread runs its last lines: nothing of the kernel may be called on it afterwards.
void End(PETHREAD self) {
    CheckEnd(self);
    GiveBackRecords(self);
    g_ending.fetch_add(1);  // before nobody finds the thread any more
    {
        WordGuard guard(g_threadsLock);
        RemoveEntryList(&self->allThreads);
    }
    SignalHeader(&self->header);
    ObfDereferenceObject(self);
    t_self = nullptr;
    g_ending.fetch_sub(1);
}

// Ends the record of a thread that the program started.
struct Adoption {
    ~Adoption() {
        if (t_self != nullptr) {
            End(t_self);
        }
    }
};

void* ThreadMain(void* context) {
    auto* const self = static_cast<PETHREAD>(context);
    t_self = self;
    FindStack(self);
    pthread_setname_np(pthread_self(), std::string(self->name).substr(0, 15).c_str());
    self->startRoutine(self->startContext);
    End(self);
    return nullptr;
}

// Starts the thread, which takes over one reference. False: the system has no more threads.
bool Launch(PETHREAD thread, const char* name, PKSTART_ROUTINE routine, PVOID context) {
    thread->isSystemThread = true;
    thread->creator = CurrentDriver();
    thread->driver = thread->creator;
    thread->startRoutine = routine;
    thread->startContext = context;
    Initialize(thread, name);
    ObfReferenceObject(thread);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t native;
    const bool started = pthread_create(&native, &attributes, ThreadMain, thread) == 0;
    pthread_attr_destroy(&attributes);
    if (!started) {
        {
            WordGuard guard(g_threadsLock);
            RemoveEntryList(&thread->allThreads);
        }
        ObfDereferenceObject(thread);
    }
    return started;
}

}  // namespace

PETHREAD AdoptThread() {
    auto* const self = static_cast<PETHREAD>(ObAllocateUnlisted(&g_threadType, sizeof(_ETHREAD)));
    FindStack(self);
    t_self = self;
    Initialize(self, "program");
    static thread_local Adoption adoption;
    static_cast<void>(adoption);
    return self;
}

PETHREAD StartKernelThread(const char* name, PKSTART_ROUTINE routine, PVOID context) {
    auto* const thread = static_cast<PETHREAD>(ObAllocateUnlisted(&g_threadType, sizeof(_ETHREAD)));
    const DriverScope none(nullptr);
    if (!Launch(thread, name, routine, context)) {
        Violation("the system has no thread for %s", name);
    }
    return thread;
}

void AwaitEndingThreads() {
    while (g_ending.load() != 0) {
        sched_yield();
    }
}

void JoinKernelThread(PETHREAD thread) {
    KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
    ObfDereferenceObject(thread);
}

void AddThreadLeaks(PDRIVER_OBJECT driver, LeakList& leaks) {
    WordGuard guard(g_threadsLock);
    for (PLIST_ENTRY entry = g_threads.Flink; entry != &g_threads; entry = entry->Flink) {
        const _ETHREAD* const thread = CONTAINING_RECORD(entry, _ETHREAD, allThreads);
        if (thread->isSystemThread && thread->creator != nullptr && (driver == nullptr || thread->creator == driver)) {
            leaks.push_back({"running thread", thread->name, 1, 0});
        }
    }
}

std::string DescribeThreads() {
    std::string text;
    WordGuard guard(g_threadsLock);
    for (PLIST_ENTRY entry = g_threads.Flink; entry != &g_threads; entry = entry->Flink) {
        const _ETHREAD* const thread = CONTAINING_RECORD(entry, _ETHREAD, allThreads);
        const void* const object = __atomic_load_n(&thread->waitingFor, __ATOMIC_ACQUIRE);
        const char* const as = __atomic_load_n(&thread->waitingAs, __ATOMIC_RELAXED);
        char line[160];
        if (object != nullptr && as != nullptr) {
            std::string where;
            IsInPagedPool(object, &where);
            std::snprintf(line, sizeof(line), "%s #%llu: in %s for %p %.60s\n", thread->name,
                          static_cast<unsigned long long>(thread->id), as, object, where.c_str());
        } else {
            std::snprintf(line, sizeof(line), "%s #%llu: not waiting\n", thread->name,
                          static_cast<unsigned long long>(thread->id));
        }
        text += line;
    }
    return text;
}

}  // namespace nt

NTKERNELAPI PETHREAD NTAPI PsGetCurrentThread(VOID) {
    return nt::Self();
}

NTKERNELAPI NTSTATUS NTAPI PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess,
                                                POBJECT_ATTRIBUTES ObjectAttributes, HANDLE, PCLIENT_ID ClientId,
                                                PKSTART_ROUTINE StartRoutine, PVOID StartContext) {
    nt::RefuseAtDispatch("starting a thread");
    if (nt::FaultPoint(nt::FaultKind::kObject)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto* const thread = static_cast<PETHREAD>(nt::ObAllocate(&nt::g_threadType, sizeof(_ETHREAD)));
    if (thread == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const ULONG attributes = ObjectAttributes != nullptr ? ObjectAttributes->Attributes : 0;
    HANDLE handle = nullptr;
    NTSTATUS status = nt::ObCreateHandle(thread, DesiredAccess, attributes, &handle);
    if (NT_SUCCESS(status)) {
        const std::string name = nt::DriverNameOf(nt::CurrentDriver()) + " thread";
        if (nt::Launch(thread, name.c_str(), StartRoutine, StartContext)) {
            if (ClientId != nullptr) {
                *ClientId = {nullptr, nt::HandleFromValue(static_cast<uint32_t>(thread->id * 4))};
            }
            *ThreadHandle = handle;
        } else {
            ZwClose(handle);
            status = STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    ObfDereferenceObject(thread);
    return status;
}
