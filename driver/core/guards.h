#pragma once

#include "nt.h"

// The driver's only destructors: locks that are released where their scope ends, last taken first released. Each guard
// keeps the pointer to the lock itself, never to the record that holds it, so a release after a completion touches
// nothing but the lock. All of them wait, if they wait, at PASSIVE_LEVEL.

// Keeps normal kernel APCs (suspension, termination) away from this thread. Every request entry and worker opens one
// before it takes any executive resource.
struct CriticalRegionGuard {
    CriticalRegionGuard() { KeEnterCriticalRegion(); }
    ~CriticalRegionGuard() { KeLeaveCriticalRegion(); }
    CriticalRegionGuard(const CriticalRegionGuard&) = delete;
    CriticalRegionGuard& operator=(const CriticalRegionGuard&) = delete;
};

// One acquisition of an executive resource. Starts empty; a guard holds at most one acquisition, and the destructor
// releases it. Must be used inside a critical region.
struct ResourceGuard {
    ResourceGuard() = default;
    ~ResourceGuard() { Release(); }
    ResourceGuard(const ResourceGuard&) = delete;
    ResourceGuard& operator=(const ResourceGuard&) = delete;

    // FALSE only when Wait is FALSE and the resource is not free; the guard then stays empty.
    [[nodiscard]] BOOLEAN TryExclusive(PERESOURCE Resource, BOOLEAN Wait) {
        return Take(Resource, ExAcquireResourceExclusiveLite(Resource, Wait));
    }
    [[nodiscard]] BOOLEAN TryShared(PERESOURCE Resource, BOOLEAN Wait) {
        return Take(Resource, ExAcquireResourceSharedLite(Resource, Wait));
    }
    // Waiting acquisitions cannot fail.
    VOID Exclusive(PERESOURCE Resource) { static_cast<void>(TryExclusive(Resource, TRUE)); }
    VOID Shared(PERESOURCE Resource) { static_cast<void>(TryShared(Resource, TRUE)); }

    // Takes over an acquisition that this thread already holds, or hands it on (null: the guard was empty).
    VOID Adopt(PERESOURCE Resource) {
        Release();
        Held = Resource;
    }
    [[nodiscard]] PERESOURCE Detach() {
        PERESOURCE resource = Held;
        Held = nullptr;
        return resource;
    }

    // Exclusive to shared without letting go; waiting sharers are admitted.
    VOID ConvertToShared() {
        if (Held != nullptr) {
            ExConvertExclusiveToSharedLite(Held);
        }
    }
    VOID Release() {
        if (Held != nullptr) {
            PERESOURCE resource = Held;
            Held = nullptr;
            ExReleaseResourceLite(resource);
        }
    }
    [[nodiscard]] bool IsHeld() const { return Held != nullptr; }

    PERESOURCE Held = nullptr;

  private:
    BOOLEAN Take(PERESOURCE Resource, BOOLEAN Acquired) {
        if (Acquired) {
            Adopt(Resource);
        }
        return Acquired;
    }
};

// A kernel mutex; recursive, owned by the thread.
struct MutexGuard {
    explicit MutexGuard(PKMUTEX Mutex) : Held(Mutex) {
        KeWaitForSingleObject(Mutex, Executive, KernelMode, FALSE, nullptr);
    }
    ~MutexGuard() { Release(); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;
    VOID Release() {
        if (Held != nullptr) {
            KeReleaseMutex(Held, FALSE);
            Held = nullptr;
        }
    }

    PKMUTEX Held;
};

// An auto-reset event used as a two-state lock without an owner: created signalled, taken by a wait without time-out,
// released by setting it.
struct EventLockGuard {
    EventLockGuard() = default;
    explicit EventLockGuard(PKEVENT Event) { Acquire(Event); }
    ~EventLockGuard() { Release(); }
    EventLockGuard(const EventLockGuard&) = delete;
    EventLockGuard& operator=(const EventLockGuard&) = delete;
    VOID Acquire(PKEVENT Event) {
        Release();
        KeWaitForSingleObject(Event, Executive, KernelMode, FALSE, nullptr);
        Held = Event;
    }
    VOID Release() {
        if (Held != nullptr) {
            KeSetEvent(Held, IO_NO_INCREMENT, FALSE);
            Held = nullptr;
        }
    }
    [[nodiscard]] bool IsHeld() const { return Held != nullptr; }

    PKEVENT Held = nullptr;
};

// A fast mutex. The holder runs at APC_LEVEL: it sends no request to the main board and waits for nothing.
struct FastMutexGuard {
    explicit FastMutexGuard(PFAST_MUTEX Mutex) : Held(Mutex) { ExAcquireFastMutex(Mutex); }
    ~FastMutexGuard() { Release(); }
    FastMutexGuard(const FastMutexGuard&) = delete;
    FastMutexGuard& operator=(const FastMutexGuard&) = delete;
    VOID Release() {
        if (Held != nullptr) {
            ExReleaseFastMutex(Held);
            Held = nullptr;
        }
    }

    PFAST_MUTEX Held;
};
