#include <atomic>
#include <memory>

#include "tests/nt/nt_kernel_fixture.h"

// Events, mutexes, semaphores, waits for several objects, and the manual clock.

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

TEST_F(DispatcherTest, ASemaphoreLetsAsManyGoAsAreReleased) {
    KSEMAPHORE semaphore;
    KeInitializeSemaphore(&semaphore, 1, 3);
    EXPECT_EQ(Poll(&semaphore), STATUS_SUCCESS);
    EXPECT_EQ(Poll(&semaphore), STATUS_TIMEOUT);
    EXPECT_EQ(KeReleaseSemaphore(&semaphore, 0, 2, FALSE), 0);
    EXPECT_EQ(Poll(&semaphore), STATUS_SUCCESS);
    EXPECT_EQ(Poll(&semaphore), STATUS_SUCCESS);
    EXPECT_EQ(Poll(&semaphore), STATUS_TIMEOUT);
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

    NTSTATUS status = STATUS_UNSUCCESSFUL;
    std::thread waiter([&] {
        status = KeWaitForMultipleObjects(2, objects, WaitAll, Executive, KernelMode, FALSE, nullptr, nullptr);
    });
    KeSetEvent(&b, 0, FALSE);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(KeReadStateEvent(&b), 1);
    KeSetEvent(&a, 0, FALSE);
    waiter.join();
    EXPECT_EQ(status, STATUS_SUCCESS);
    EXPECT_EQ(KeReadStateEvent(&a) + KeReadStateEvent(&b), 0);
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
    for (const bool terminates : {false, true}) {
        struct Context {
            KEVENT go;
            bool terminates;
        } context;
        KeInitializeEvent(&context.go, NotificationEvent, FALSE);
        context.terminates = terminates;
        const auto routine = [](PVOID parameter) {
            auto& c = *static_cast<Context*>(parameter);
            Wait(&c.go);
            if (c.terminates) {
                PsTerminateSystemThread(STATUS_SUCCESS);
                ADD_FAILURE() << "a terminated thread went on";
            }
        };
        HANDLE handle = nullptr;
        ASSERT_EQ(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, routine, &context),
                  STATUS_SUCCESS);
        PVOID thread = nullptr;
        ASSERT_EQ(ObReferenceObjectByHandle(handle, 0, *PsThreadType, KernelMode, &thread, nullptr), STATUS_SUCCESS);
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
        EXPECT_EQ(Poll(thread), STATUS_TIMEOUT);
        KeSetEvent(&context.go, 0, FALSE);
        EXPECT_EQ(Wait(thread), STATUS_SUCCESS);
        EXPECT_EQ(Poll(thread), STATUS_SUCCESS);
        ObfDereferenceObject(thread);
    }
    EXPECT_EQ(PsTerminateSystemThread(STATUS_SUCCESS), STATUS_INVALID_PARAMETER);
}

// ---- the manual clock ----

TEST_F(ClockTest, TimeStandsUntilItIsMovedAndTimeOutsEndInTheirOrder) {
    const LONGLONG start = nt::ClockNow();
    std::mutex lock;
    std::string order;
    std::vector<LONGLONG> times;
    std::vector<std::thread> threads;
    const LONGLONG seconds[] = {30, 10, 20, 10};
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([&, i] {
            KEVENT never;
            KeInitializeEvent(&never, NotificationEvent, FALSE);
            const LONGLONG timeout = i == 3 ? start + seconds[i] * nt::kTicksPerSecond  // as a system time
                                            : -seconds[i] * nt::kTicksPerSecond;
            EXPECT_EQ(Wait(&never, &timeout), STATUS_TIMEOUT);
            std::lock_guard guard(lock);
            order += std::to_string(i);
        });
        ASSERT_TRUE(nt::ClockAwaitTimedWaits(static_cast<size_t>(i) + 1));
    }
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    EXPECT_EQ(now.QuadPart, start);
    const auto ended = [&](const std::string& expected) {
        return Eventually([&] {
            std::lock_guard guard(lock);
            std::string sorted = order;
            return sorted.size() == expected.size();
        });
    };
    nt::ClockAdvance(10 * nt::kTicksPerSecond - 1);
    EXPECT_EQ(nt::ClockTimedWaits(), 4u);
    nt::ClockAdvance(1);
    EXPECT_TRUE(ended("13"));
    EXPECT_EQ(nt::ClockTimedWaits(), 2u);
    nt::ClockAdvance(10 * nt::kTicksPerSecond);
    EXPECT_TRUE(ended("132"));
    EXPECT_EQ(order.back(), '2');
    nt::ClockAdvance(100 * nt::kTicksPerSecond);
    EXPECT_TRUE(ended("1320"));
    EXPECT_EQ(nt::ClockNow(), start + 120 * nt::kTicksPerSecond);
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(ClockTest, AnEventThatIsSetEndsATimedWaitWithoutTheClock) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    std::thread waiter([&] {
        const LONGLONG minute = -60 * nt::kTicksPerSecond;
        status = Wait(&event, &minute);
    });
    ASSERT_TRUE(nt::ClockAwaitTimedWaits(1));
    KeSetEvent(&event, 0, FALSE);
    waiter.join();
    EXPECT_EQ(status, STATUS_SUCCESS);
    EXPECT_EQ(nt::ClockTimedWaits(), 0u);
    nt::ClockAdvance(nt::kTicksPerSecond * 100);
}

TEST_F(ClockTest, AThreadMayDelayItself) {
    std::atomic<bool> over{false};
    std::thread sleeper([&] {
        LARGE_INTEGER interval = Ticks(-2 * nt::kTicksPerSecond);
        EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &interval), STATUS_SUCCESS);
        over = true;
    });
    ASSERT_TRUE(nt::ClockAwaitTimedWaits(1));
    EXPECT_FALSE(over);
    nt::ClockAdvance(2 * nt::kTicksPerSecond);
    sleeper.join();
    EXPECT_TRUE(over);
    EXPECT_FALSE(nt::ClockAwaitTimedWaits(1, std::chrono::milliseconds(1)));
}

}  // namespace
