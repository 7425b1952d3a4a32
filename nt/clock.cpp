#include <time.h>

#include "nt/dispatcher.h"

// The kernel's clock. Real: the machine's. Manual: it stands until ClockAdvance moves it, and the time-outs of waits
// are ended by that alone, the earliest first, so a test of a 60-second rule takes no time and has one outcome.

namespace nt {

namespace {

std::atomic<bool> g_manual{false};
std::atomic<LONGLONG> g_manualNow{0};  // written under the dispatcher lock
LIST_ENTRY g_timedWaits = {&g_timedWaits, &g_timedWaits};
size_t g_timedWaitCount = 0;
uint32_t g_timedWaitWord = 0;      // bumped when a timed wait begins, for ClockAwaitTimedWaits
uint32_t g_timedWaitWatchers = 0;  // threads in there; only then is anybody woken

LONGLONG RealNow() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return kTicksFrom1601To1970 + static_cast<LONGLONG>(now.tv_sec) * kTicksPerSecond + now.tv_nsec / 100;
}

PETHREAD ThreadOfTimedEntry(PLIST_ENTRY entry) {
    return CONTAINING_RECORD(entry, _ETHREAD, timedEntry);
}

// Ends the first timed wait that is due at `target`; false if there is none.
bool ExpireOne(LONGLONG target) {
    WakeList wake;
    WordGuard guard(g_dispatcherLock);
    if (IsListEmpty(&g_timedWaits)) {
        return false;
    }
    PETHREAD const thread = ThreadOfTimedEntry(g_timedWaits.Flink);
    if (thread->waitDue > target) {
        return false;
    }
    if (thread->waitDue > g_manualNow.load(std::memory_order_relaxed)) {
        g_manualNow.store(thread->waitDue, std::memory_order_relaxed);
    }
    UnlinkWait(thread);
    wake.Release(thread, STATUS_TIMEOUT);
    return true;
}

}  // namespace

void ClockBoot(const BootOptions& options) {
    g_manualNow = options.manualStart;
    g_manual = options.manualClock;
}

LONGLONG ClockNow() {
    return g_manual.load(std::memory_order_relaxed) ? g_manualNow.load(std::memory_order_relaxed) : RealNow();
}

bool ClockIsManual() {
    return g_manual.load(std::memory_order_relaxed);
}

void InsertTimedWait(PETHREAD thread, LONGLONG due) {
    thread->isTimedWait = true;
    thread->waitDue = due;
    PLIST_ENTRY after = g_timedWaits.Blink;
    while (after != &g_timedWaits && ThreadOfTimedEntry(after)->waitDue > due) {
        after = after->Blink;
    }
    InsertHeadList(after, &thread->timedEntry);
    g_timedWaitCount++;
    if (__atomic_load_n(&g_timedWaitWatchers, __ATOMIC_SEQ_CST) != 0) {
        __atomic_add_fetch(&g_timedWaitWord, 1, __ATOMIC_SEQ_CST);
        FutexWake(&g_timedWaitWord, 64);
    }
}

void RemoveTimedWait(PETHREAD thread) {
    if (thread->isTimedWait) {
        thread->isTimedWait = false;
        RemoveEntryList(&thread->timedEntry);
        g_timedWaitCount--;
    }
}

void ClockAdvance(LONGLONG ticks) {
    if (!ClockIsManual() || ticks < 0) {
        Violation("ClockAdvance of %lld on a %s clock", static_cast<long long>(ticks),
                  ClockIsManual() ? "manual" : "real");
        return;
    }
    const LONGLONG target = g_manualNow.load(std::memory_order_relaxed) + ticks;
    while (ExpireOne(target)) {
    }
    WordGuard guard(g_dispatcherLock);
    if (g_manualNow.load(std::memory_order_relaxed) < target) {
        g_manualNow.store(target, std::memory_order_relaxed);
    }
}

size_t ClockTimedWaits() {
    WordGuard guard(g_dispatcherLock);
    return g_timedWaitCount;
}

bool ClockAwaitTimedWaits(size_t count, std::chrono::milliseconds limit) {
    const int64_t deadline = MonotonicNs() + limit.count() * 1'000'000;
    __atomic_add_fetch(&g_timedWaitWatchers, 1, __ATOMIC_SEQ_CST);
    bool reached = false;
    for (bool inTime = true; !reached && inTime;) {
        const uint32_t seen = __atomic_load_n(&g_timedWaitWord, __ATOMIC_SEQ_CST);
        reached = ClockTimedWaits() >= count;
        inTime = reached || FutexWait(&g_timedWaitWord, seen, deadline);
    }
    __atomic_sub_fetch(&g_timedWaitWatchers, 1, __ATOMIC_SEQ_CST);
    return reached || ClockTimedWaits() >= count;
}

}  // namespace nt

NTKERNELAPI VOID NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime) {
    CurrentTime->QuadPart = nt::ClockNow();
}
