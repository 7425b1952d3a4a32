#include "nt/dispatcher.h"

// Events, mutexes and the waits for them.
//
// A waiter sleeps on a word of its own thread record. Whoever satisfies the wait takes the waiter off every list and
// sets that word under the dispatcher lock, and touches neither object nor waiter after the lock has been released.
// The waiter passes through the lock once before it goes on, so it may then free the object that it waited for.

namespace nt {

WordLock g_dispatcherLock;

namespace {

constexpr LONGLONG kLongestSleepTicks = 100LL * 365 * 24 * 3600 * kTicksPerSecond;

DISPATCHER_HEADER* HeaderOf(PVOID object) {
    return static_cast<DISPATCHER_HEADER*>(object);
}

constexpr UCHAR kHeaderSize = sizeof(DISPATCHER_HEADER) / sizeof(LONG);

// Type and size are fixed at initialisation; the rest changes under the lock.
bool IsDispatcherObject(const DISPATCHER_HEADER* header) {
    switch (header->Type) {
        case kNotificationEventObject:
        case kSynchronizationEventObject:
        case kMutantObject:
        case kProcessObject:
        case kThreadObject:
            return header->Size == kHeaderSize;
        default:
            return false;
    }
}

KMUTANT* MutantOf(DISPATCHER_HEADER* header) {
    return CONTAINING_RECORD(header, KMUTANT, Header);
}

bool IsSignalledFor(DISPATCHER_HEADER* header, PETHREAD thread) {
    return header->SignalState > 0 || (header->Type == kMutantObject && MutantOf(header)->OwnerThread == thread);
}

// The wait of `thread` takes the object.
void Consume(DISPATCHER_HEADER* header, PETHREAD thread) {
    switch (header->Type) {
        case kSynchronizationEventObject:
            header->SignalState = 0;
            break;
        case kMutantObject:
            header->SignalState--;
            MutantOf(header)->OwnerThread = thread;
            break;
        default:
            break;
    }
}

bool AllSignalledFor(const KWAIT_BLOCK* blocks, ULONG count, PETHREAD thread) {
    for (ULONG i = 0; i < count; i++) {
        if (!IsSignalledFor(HeaderOf(blocks[i].Object), thread)) {
            return false;
        }
    }
    return true;
}

void ConsumeAll(const KWAIT_BLOCK* blocks, ULONG count, PETHREAD thread) {
    for (ULONG i = 0; i < count; i++) {
        Consume(HeaderOf(blocks[i].Object), thread);
    }
}

// Lets go every waiter that the object's state satisfies, first come first served.
void ReleaseWaiters(DISPATCHER_HEADER* header, WakeList& wake) {
    PLIST_ENTRY const head = &header->WaitListHead;
    for (PLIST_ENTRY entry = head->Flink; entry != head && header->SignalState > 0;) {
        const KWAIT_BLOCK* const block = CONTAINING_RECORD(entry, KWAIT_BLOCK, WaitListEntry);
        PETHREAD const thread = block->Thread;
        entry = entry->Flink;
        if (thread->waitType == WaitAny) {
            const NTSTATUS status = STATUS_WAIT_0 + block->WaitKey;
            Consume(header, thread);
            UnlinkWait(thread);
            wake.Release(thread, status);
        } else if (AllSignalledFor(thread->waitBlocks, thread->waitCount, thread)) {
            ConsumeAll(thread->waitBlocks, thread->waitCount, thread);
            UnlinkWait(thread);
            wake.Release(thread, STATUS_SUCCESS);
        } else {
            continue;
        }
        entry = head->Flink;  // the thread's other blocks may have stood next on this list
    }
}

// A wait as its caller asked for it.
struct Wait {
    ULONG count;
    WAIT_TYPE type;
    PKWAIT_BLOCK blocks;
    bool poll;
    bool bounded;
    LONGLONG due;
    int64_t deadlineNs;  // of a real clock
};

void SetTimeout(Wait& wait, PLARGE_INTEGER timeout) {
    if (timeout == nullptr) {
        return;
    }
    const LONGLONG ticks = timeout->QuadPart < -kLongestSleepTicks ? -kLongestSleepTicks : timeout->QuadPart;
    const LONGLONG now = ClockNow();
    wait.due = ticks < 0 ? now - ticks : ticks;
    wait.poll = wait.due <= now;
    wait.bounded = true;
    if (!wait.poll && !ClockIsManual()) {
        const LONGLONG left = wait.due - now < kLongestSleepTicks ? wait.due - now : kLongestSleepTicks;
        wait.deadlineNs = MonotonicNs() + left * 100;
    }
}

// Under the dispatcher lock: takes what the wait asks for if it is there.
bool TrySatisfy(PETHREAD self, const Wait& wait, NTSTATUS* status) {
    if (wait.type == WaitAll) {
        if (!AllSignalledFor(wait.blocks, wait.count, self)) {
            return false;
        }
        ConsumeAll(wait.blocks, wait.count, self);
        *status = STATUS_SUCCESS;
        return true;
    }
    for (ULONG i = 0; i < wait.count; i++) {
        DISPATCHER_HEADER* const header = HeaderOf(wait.blocks[i].Object);
        if (IsSignalledFor(header, self)) {
            Consume(header, self);
            *status = STATUS_WAIT_0 + static_cast<NTSTATUS>(i);
            return true;
        }
    }
    return false;
}

void Enqueue(PETHREAD self, const Wait& wait) {
    self->waitBlocks = wait.blocks;
    self->waitCount = wait.count;
    self->waitType = wait.type;
    __atomic_store_n(&self->waitWord, 0, __ATOMIC_RELAXED);
    for (ULONG i = 0; i < wait.count; i++) {
        InsertTailList(&HeaderOf(wait.blocks[i].Object)->WaitListHead, &wait.blocks[i].WaitListEntry);
    }
    if (wait.bounded) {
        InsertTimedWait(self, wait.due);
    }
}

NTSTATUS Sleep(PETHREAD self, const Wait& wait) {
    const int64_t deadline = wait.bounded && !ClockIsManual() ? wait.deadlineNs : -1;
    while (__atomic_load_n(&self->waitWord, __ATOMIC_ACQUIRE) == 0) {
        if (!FutexWait(&self->waitWord, 0, deadline)) {
            WordGuard guard(g_dispatcherLock);
            if (__atomic_load_n(&self->waitWord, __ATOMIC_RELAXED) == 0) {
                UnlinkWait(self);
                return STATUS_TIMEOUT;
            }
        }
    }
    // Whoever ended the wait may still be looking at the objects, under the lock; once we have had it he has left them,
    // and our caller may free them.
    const WordGuard guard(g_dispatcherLock);
    return self->waitStatus;
}

NTSTATUS Perform(PETHREAD self, const Wait& wait) {
    NTSTATUS status = STATUS_TIMEOUT;
    {
        WordGuard guard(g_dispatcherLock);
        if (TrySatisfy(self, wait, &status) || wait.poll) {
            return status;
        }
        Enqueue(self, wait);
    }
    self->NoteWait(wait.count != 0 ? wait.blocks[0].Object : self, wait.bounded ? "a timed wait" : "a wait");
    status = Sleep(self, wait);
    self->NoteWait(nullptr, nullptr);
    return status;
}

// The verifier's part before a wait. False: refused.
bool CheckWait(PETHREAD self, const Wait& wait) {
    if (!wait.poll) {
        RefuseAtDispatch("a wait");
    }
    for (ULONG i = 0; i < wait.count; i++) {
        DISPATCHER_HEADER* const header = HeaderOf(wait.blocks[i].Object);
        if (!IsDispatcherObject(header)) {
            Violation("wait for %p, which is no dispatcher object", wait.blocks[i].Object);
            return false;
        }
        if (header->Type == kMutantObject && !wait.poll && FindHeld(self, header) == nullptr &&
            !LockOrderCheck(self, MutantOf(header)->LockClass, header)) {
            return false;
        }
    }
    return true;
}

void NoteAcquired(PETHREAD self, DISPATCHER_HEADER* header) {
    if (header->Type != kMutantObject) {
        return;
    }
    HeldLock* const held = FindHeld(self, header);
    if (held != nullptr) {
        held->count++;
    } else {
        PushHeld(self, header, LockKind::kMutex, true, MutantOf(header)->LockClass);
    }
}

NTSTATUS WaitForObjects(Wait& wait, PVOID objects[], PLARGE_INTEGER timeout) {
    PETHREAD const self = Self();
    for (ULONG i = 0; i < wait.count; i++) {
        wait.blocks[i].Thread = self;
        wait.blocks[i].Object = objects[i];
        wait.blocks[i].WaitKey = static_cast<USHORT>(i);
        wait.blocks[i].WaitType = static_cast<USHORT>(wait.type);
    }
    SetTimeout(wait, timeout);
    if (!CheckWait(self, wait)) {
        return STATUS_TIMEOUT;
    }
    const NTSTATUS status = Perform(self, wait);
    if (status == STATUS_TIMEOUT) {
        return status;
    }
    if (wait.type == WaitAny) {
        NoteAcquired(self, HeaderOf(objects[status - STATUS_WAIT_0]));
    } else {
        for (ULONG i = 0; i < wait.count; i++) {
            NoteAcquired(self, HeaderOf(objects[i]));
        }
    }
    return status;
}

}  // namespace

void WakeList::Release(PETHREAD thread, NTSTATUS status) {
    thread->waitStatus = status;
    __atomic_store_n(&thread->waitWord, 1, __ATOMIC_RELEASE);
    if (count_ < kCapacity) {
        words_[count_++] = &thread->waitWord;
    } else {
        FutexWake(&thread->waitWord, 1);
    }
}

void UnlinkWait(PETHREAD thread) {
    for (ULONG i = 0; i < thread->waitCount; i++) {
        RemoveEntryList(&thread->waitBlocks[i].WaitListEntry);
    }
    RemoveTimedWait(thread);
}

void InitializeHeader(DISPATCHER_HEADER* header, UCHAR type, LONG state) {
    header->Type = type;
    header->Size = kHeaderSize;
    header->Reserved = 0;
    header->SignalState = state;
    InitializeListHead(&header->WaitListHead);
}

void SignalHeader(DISPATCHER_HEADER* header) {
    WakeList wake;
    WordGuard guard(g_dispatcherLock);
    header->SignalState = 1;
    ReleaseWaiters(header, wake);
}

}  // namespace nt

using nt::g_dispatcherLock;
using nt::WakeList;
using nt::WordGuard;

// ---- events ----

NTKERNELAPI VOID NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State) {
    nt::RequireResident(Event, "an event");
    nt::InitializeHeader(&Event->Header,
                         Type == NotificationEvent ? nt::kNotificationEventObject : nt::kSynchronizationEventObject,
                         State != FALSE);
}

NTKERNELAPI LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY, BOOLEAN) {
    WakeList wake;
    WordGuard guard(g_dispatcherLock);
    const LONG before = Event->Header.SignalState;
    if (before == 0) {
        Event->Header.SignalState = 1;
        nt::ReleaseWaiters(&Event->Header, wake);
    }
    return before;
}

NTKERNELAPI LONG NTAPI KeResetEvent(PRKEVENT Event) {
    WordGuard guard(g_dispatcherLock);
    const LONG before = Event->Header.SignalState;
    Event->Header.SignalState = 0;
    return before;
}

NTKERNELAPI LONG NTAPI KePulseEvent(PRKEVENT Event, KPRIORITY, BOOLEAN) {
    WakeList wake;
    WordGuard guard(g_dispatcherLock);
    const LONG before = Event->Header.SignalState;
    Event->Header.SignalState = 1;
    nt::ReleaseWaiters(&Event->Header, wake);
    Event->Header.SignalState = 0;
    return before;
}

NTKERNELAPI VOID NTAPI KeClearEvent(PRKEVENT Event) {
    KeResetEvent(Event);
}

NTKERNELAPI LONG NTAPI KeReadStateEvent(PRKEVENT Event) {
    WordGuard guard(g_dispatcherLock);
    return Event->Header.SignalState;
}

// ---- mutexes ----

[[gnu::noinline]] NTKERNELAPI VOID NTAPI KeInitializeMutex(PRKMUTEX Mutex, ULONG) {
    nt::RequireResident(Mutex, "a mutex");
    nt::InitializeHeader(&Mutex->Header, nt::kMutantObject, 1);
    InitializeListHead(&Mutex->MutantListEntry);
    Mutex->OwnerThread = nullptr;
    Mutex->Abandoned = FALSE;
    Mutex->ApcDisable = 1;
    Mutex->LockClass = nt::LockClassOf(nt::LockKind::kMutex, Mutex, __builtin_return_address(0));
}

NTKERNELAPI LONG NTAPI KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN) {
    PETHREAD const self = nt::Self();
    nt::HeldLock* const held = nt::FindHeld(self, Mutex);
    if (held == nullptr) {
        nt::Violation("mutex %p (%s) released by a thread that does not own it", static_cast<void*>(Mutex),
                      nt::LockClassName(Mutex->LockClass).c_str());
        return 0;
    }
    if (--held->count == 0) {
        nt::PopHeld(self, held);
    }
    WakeList wake;
    WordGuard guard(g_dispatcherLock);
    const LONG before = Mutex->Header.SignalState;
    Mutex->Header.SignalState++;
    if (Mutex->Header.SignalState == 1) {
        Mutex->OwnerThread = nullptr;
        nt::ReleaseWaiters(&Mutex->Header, wake);
    }
    return before;
}

NTKERNELAPI LONG NTAPI KeReadStateMutex(PRKMUTEX Mutex) {
    WordGuard guard(g_dispatcherLock);
    return Mutex->Header.SignalState;
}

// ---- waits ----

NTKERNELAPI NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON, KPROCESSOR_MODE, BOOLEAN,
                                                 PLARGE_INTEGER Timeout) {
    nt::Wait wait{1, WaitAny, nt::Self()->ownBlocks, false, false, 0, -1};
    return nt::WaitForObjects(wait, &Object, Timeout);
}

NTKERNELAPI NTSTATUS NTAPI KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType, KWAIT_REASON,
                                                    KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER Timeout,
                                                    PKWAIT_BLOCK WaitBlockArray) {
    PKWAIT_BLOCK blocks = WaitBlockArray;
    if (blocks == nullptr && Count <= THREAD_WAIT_OBJECTS) {
        blocks = nt::Self()->ownBlocks;
    }
    if (Count == 0 || Count > MAXIMUM_WAIT_OBJECTS || blocks == nullptr) {
        nt::Violation("wait for %u objects%s", Count, blocks == nullptr ? " without wait blocks" : "");
        return STATUS_INVALID_PARAMETER;
    }
    nt::Wait wait{Count, WaitType, blocks, false, false, 0, -1};
    return nt::WaitForObjects(wait, Object, Timeout);
}
