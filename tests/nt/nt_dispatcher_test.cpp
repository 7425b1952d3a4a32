#include <atomic>
#include <memory>

#include "tests/nt/nt_kernel_fixture.h"

// Events, mutexes, waits for several objects, and the manual clock.

namespace {

using namespace nt_test;

LARGE_INTEGER Ticks(LONGLONG ticks) {
    LARGE_INTEGER value;
    value.QuadPart = ticks;
    return value;
}

NTSTATUS Wait(PVOID object, const LONGLONG* ticks = nullptr) {
    LARGE_INTEGER timeout = Ticks(ticks != nullptr ? *ticks : 0);
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, ticks != nullptr ? &timeout : nullptr);
}

NTSTATUS Poll(PVOID object) {
    constexpr LONGLONG kNow = 0;
    return Wait(object, &kNow);
}

using DispatcherTest = KernelTest;
using ClockTest = ManualClockTest;

TEST_F(DispatcherTest, EventsReturnTheirStateBeforeAndPollAsTheirKindSays) {
    for (const EVENT_TYPE type : {NotificationEvent, SynchronizationEvent}) {
        SCOPED_TRACE(type == NotificationEvent ? "notification" : "synchronisation");
        KEVENT event;
        KeInitializeEvent(&event, type, FALSE);
        EXPECT_EQ(Poll(&event), STATUS_TIMEOUT);
        EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 0);
        EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 1);  // a second set is not kept
        EXPECT_EQ(KeReadStateEvent(&event), 1);
        EXPECT_EQ(Poll(&event), STATUS_SUCCESS);
        EXPECT_EQ(Poll(&event), type == NotificationEvent ? STATUS_SUCCESS : STATUS_TIMEOUT);
        EXPECT_EQ(KeResetEvent(&event), type == NotificationEvent ? 1 : 0);
        EXPECT_EQ(KePulseEvent(&event, 0, FALSE), 0);  // nobody waits: nothing remains
        EXPECT_EQ(Poll(&event), STATUS_TIMEOUT);
    }
}

// Starts threads that wait for the object one behind the other and says, set by set, how many ran on.
class Waiters {
  public:
    Waiters(PVOID object, int count) : object_(object) {
        for (int i = 0; i < count; i++) {
            threads_.emplace_back([this, i] {
                EXPECT_EQ(Wait(object_), STATUS_SUCCESS);
                std::lock_guard guard(lock_);
                order_ += std::to_string(i);
            });
            EXPECT_TRUE(Eventually([&] { return Sleeping() == i + 1; }));
        }
    }
    ~Waiters() {
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }
    std::string Order() {
        std::lock_guard guard(lock_);
        return order_;
    }

  private:
    int Sleeping() const {
        int count = 0;
        const std::string text = nt::DescribeThreads();
        for (size_t at = text.find("in a wait"); at != std::string::npos; at = text.find("in a wait", at + 1)) {
            count++;
        }
        return count;
    }
    PVOID object_;
    std::mutex lock_;
    std::string order_;
    std::vector<std::thread> threads_;
};

TEST_F(DispatcherTest, ASynchronisationEventLetsOneWaiterGoFirstComeFirstServed) {
    KEVENT event;
    KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    Waiters waiters(&event, 3);
    for (const char* const expected : {"0", "01", "012"}) {
        KeSetEvent(&event, 0, FALSE);
        EXPECT_TRUE(Eventually([&] { return waiters.Order() == expected; })) << waiters.Order();
    }
    EXPECT_EQ(Poll(&event), STATUS_TIMEOUT);
}

TEST_F(DispatcherTest, ANotificationEventLetsAllGoAlsoByAPulse) {
    for (const bool pulse : {false, true}) {
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        Waiters waiters(&event, 3);
        pulse ? KePulseEvent(&event, 0, FALSE) : KeSetEvent(&event, 0, FALSE);
        EXPECT_TRUE(Eventually([&] { return waiters.Order().size() == 3; }));
        EXPECT_EQ(KeReadStateEvent(&event), pulse ? 0 : 1);
    }
}

TEST_F(DispatcherTest, AMutexCountsItsOwnersAcquires) {
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    EXPECT_EQ(Wait(&mutex), STATUS_SUCCESS);
    EXPECT_EQ(Wait(&mutex), STATUS_SUCCESS);
    const auto tryElsewhere = [&] {
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        std::thread([&] {
            status = Poll(&mutex);
            if (status == STATUS_SUCCESS) {
                KeReleaseMutex(&mutex, FALSE);
            }
        }).join();
        return status;
    };
    EXPECT_EQ(tryElsewhere(), STATUS_TIMEOUT);
    EXPECT_NE(KeReleaseMutex(&mutex, FALSE), 0);
    EXPECT_EQ(tryElsewhere(), STATUS_TIMEOUT);
    EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), 0);
    EXPECT_EQ(tryElsewhere(), STATUS_SUCCESS);
}

TEST_F(DispatcherTest, WaitsForSeveralObjectsTakeOneOrAllOfThem) {
    KEVENT a;
    KEVENT b;
    KeInitializeEvent(&a, SynchronizationEvent, FALSE);
    KeInitializeEvent(&b, SynchronizationEvent, TRUE);
    PVOID objects[] = {&a, &b};
    LARGE_INTEGER now = Ticks(0);
    const auto wait = [&](WAIT_TYPE type) {
        return KeWaitForMultipleObjects(2, objects, type, Executive, KernelMode, FALSE, &now, nullptr);
    };
    EXPECT_EQ(wait(WaitAll), STATUS_TIMEOUT);
    EXPECT_EQ(KeReadStateEvent(&b), 1);  // nothing is taken by half
    EXPECT_EQ(wait(WaitAny), STATUS_WAIT_1);
    EXPECT_EQ(wait(WaitAny), STATUS_TIMEOUT);
}

// The waiter owns the event's memory and frees it as soon as it runs: the setter must not look back.
TEST_F(DispatcherTest, AWaiterMayFreeTheEventAsSoonAsItIsLetGo) {
    std::atomic<KEVENT*> shared{nullptr};
    std::atomic<bool> stop{false};
    std::thread setter([&] {
        while (!stop) {
            if (KEVENT* const event = shared.exchange(nullptr); event != nullptr) {
                KeSetEvent(event, 0, FALSE);
            }
        }
    });
    for (int i = 0; i < 3000; i++) {
        const auto event = std::make_unique<KEVENT>();
        KeInitializeEvent(event.get(), i % 2 != 0 ? NotificationEvent : SynchronizationEvent, FALSE);
        shared = event.get();
        ASSERT_EQ(Wait(event.get()), STATUS_SUCCESS);
    }
    stop = true;
    setter.join();
}

TEST_F(DispatcherTest, RealTimeOutsEnd) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    const LONGLONG relative = -5 * nt::kTicksPerMillisecond;
    EXPECT_EQ(Wait(&event, &relative), STATUS_TIMEOUT);
    const LONGLONG absolute = nt::ClockNow() + 5 * nt::kTicksPerMillisecond;
    EXPECT_EQ(Wait(&event, &absolute), STATUS_TIMEOUT);
    EXPECT_GE(nt::ClockNow(), absolute);
    const LONGLONG past = 1;
    EXPECT_EQ(Wait(&event, &past), STATUS_TIMEOUT);
}

TEST_F(DispatcherTest, AThreadObjectIsSignalledWhenTheThreadHasEnded) {
    KEVENT go;
    KeInitializeEvent(&go, NotificationEvent, FALSE);
    HANDLE handle = nullptr;
    ASSERT_EQ(PsCreateSystemThread(
                  &handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, [](PVOID e) { Wait(e); }, &go),
              STATUS_SUCCESS);
    PVOID thread = nullptr;
    ASSERT_EQ(ObReferenceObjectByHandle(handle, 0, *PsThreadType, KernelMode, &thread, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    EXPECT_EQ(Poll(thread), STATUS_TIMEOUT);
    KeSetEvent(&go, 0, FALSE);
    EXPECT_EQ(Wait(thread), STATUS_SUCCESS);
    EXPECT_EQ(Poll(thread), STATUS_SUCCESS);
    ObfDereferenceObject(thread);
}

// ---- the manual clock ----

TEST_F(ClockTest, TimeStandsUntilItIsMovedAndTimeOutsEndInTheirOrder) {
    const LONGLONG start = nt::ClockNow();
    KEVENT never;
    KEVENT early;
    KeInitializeEvent(&never, NotificationEvent, FALSE);
    KeInitializeEvent(&early, NotificationEvent, FALSE);
    std::mutex lock;
    std::string order;
    std::vector<std::thread> threads;
    const LONGLONG seconds[] = {30, 10, 20, 10, 60};
    for (int i = 0; i < 5; i++) {
        threads.emplace_back([&, i] {
            const LONGLONG timeout = i == 3 ? start + seconds[i] * nt::kTicksPerSecond  // as a system time
                                            : -seconds[i] * nt::kTicksPerSecond;
            EXPECT_EQ(Wait(i == 4 ? &early : &never, &timeout), i == 4 ? STATUS_SUCCESS : STATUS_TIMEOUT);
            std::lock_guard guard(lock);
            order += std::to_string(i);
        });
        ASSERT_TRUE(nt::ClockAwaitTimedWaits(static_cast<size_t>(i) + 1));
    }
    KeSetEvent(&early, 0, FALSE);  // ends its wait without the clock
    threads.back().join();
    threads.pop_back();
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    EXPECT_EQ(now.QuadPart, start);
    const auto ended = [&](size_t count, char last) {
        return Eventually([&] {
            std::lock_guard guard(lock);
            return order.size() == count && (last == 0 || order.back() == last);
        });
    };
    nt::ClockAdvance(10 * nt::kTicksPerSecond - 1);
    EXPECT_EQ(nt::ClockTimedWaits(), 4u);
    nt::ClockAdvance(1);
    EXPECT_TRUE(ended(3, 0));  // the two of ten seconds, in either order
    EXPECT_EQ(nt::ClockTimedWaits(), 2u);
    nt::ClockAdvance(10 * nt::kTicksPerSecond);
    EXPECT_TRUE(ended(4, '2'));
    nt::ClockAdvance(100 * nt::kTicksPerSecond);
    EXPECT_TRUE(ended(5, '0'));
    EXPECT_EQ(nt::ClockNow(), start + 120 * nt::kTicksPerSecond);
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
