#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "nt/internal.h"

// The states of a lock word: 0 free, 1 held, 2 held and somebody sleeps (or is about to).

namespace nt {

namespace {

constexpr int kSpins = 60;

void Pause() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

}  // namespace

void FutexWake(uint32_t* word, int count) {
    syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0);
}

bool FutexWait(uint32_t* word, uint32_t value, int64_t deadlineNs) {
    timespec deadline{};
    if (deadlineNs >= 0) {
        deadline.tv_sec = deadlineNs / 1'000'000'000;
        deadline.tv_nsec = deadlineNs % 1'000'000'000;
    }
    const long result = syscall(SYS_futex, word, FUTEX_WAIT_BITSET_PRIVATE, value,
                                deadlineNs >= 0 ? &deadline : nullptr, nullptr, FUTEX_BITSET_MATCH_ANY);
    return !(result == -1 && errno == ETIMEDOUT);
}

int64_t MonotonicNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

void LockWordSlow(uint32_t* word) {
    for (int spin = 0; spin < kSpins; spin++) {
        if (__atomic_load_n(word, __ATOMIC_RELAXED) == 0) {
            uint32_t expected = 0;
            if (__atomic_compare_exchange_n(word, &expected, 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
                return;
            }
        }
        Pause();
    }
    // Taking the word as 2 may wake one sleeper too many later, never one too few.
    while (__atomic_exchange_n(word, 2, __ATOMIC_ACQUIRE) != 0) {
        FutexWait(word, 2, -1);
    }
}

}  // namespace nt
