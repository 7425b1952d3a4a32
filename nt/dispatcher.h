#pragma once

#include "nt/internal.h"

// Shared by the waits (dispatcher.cpp) and the clock (clock.cpp): one lock over all dispatcher objects, as their
// waits can span several of them, and the list of waits with a time-out.

namespace nt {

extern WordLock g_dispatcherLock;

// Waiters let go under the dispatcher lock. Their words are set there; sleepers are woken when the list goes out of
// scope, which must be after the lock has been released: from then on only the words' addresses are used, since a
// waiter that runs may end its thread and free everything.
class WakeList {
  public:
    WakeList() = default;
    ~WakeList() {
        for (unsigned i = 0; i < count_; i++) {
            FutexWake(words_[i], 1);
        }
    }
    WakeList(const WakeList&) = delete;
    WakeList& operator=(const WakeList&) = delete;

    // Ends the thread's wait; the dispatcher lock is held and the thread's blocks are off their lists.
    void Release(PETHREAD thread, NTSTATUS status);

  private:
    static constexpr unsigned kCapacity = 16;
    uint32_t* words_[kCapacity];
    unsigned count_ = 0;
};

// Takes a waiting thread's blocks off the objects' lists, and its time-out off the clock's.
void UnlinkWait(PETHREAD thread);

// Timed waits, the earliest due first and first come first. Dispatcher lock.
void InsertTimedWait(PETHREAD thread, LONGLONG due);
void RemoveTimedWait(PETHREAD thread);

}  // namespace nt
