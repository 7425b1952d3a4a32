#include <atomic>
#include <memory>

#include "tests/nt/nt_kernel_fixture.h"

// Waits and time-outs, what may be freed when a wait ends, who gets a resource next, and the manual clock.

namespace {

using namespace nt_test;

NTSTATUS Wait(PVOID object, const LONGLONG* ticks = nullptr) {
    LARGE_INTEGER timeout;
    timeout.QuadPart = ticks != nullptr ? *ticks : 0;
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, ticks != nullptr ? &timeout : nullptr);
}

using DispatcherTest = KernelTest;

class ClockTest : public KernelTest {
    nt::BootOptions Options() override { return {.manualClock = true}; }
};

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

// ---- resources ----

TEST_F(DispatcherTest, AWaitingExclusiveKeepsNewSharersOutButNotExistingOnes) {
    ERESOURCE resource;
    ExInitializeResourceLite(&resource);
    EXPECT_TRUE(ExAcquireResourceSharedLite(&resource, TRUE));
    std::string order;
    std::thread writer([&] {
        ExAcquireResourceExclusiveLite(&resource, TRUE);
        order += "x";
        ExReleaseResourceLite(&resource);
    });
    EXPECT_TRUE(Eventually([&] { return ExGetExclusiveWaiterCount(&resource) == 1; }));
    EXPECT_TRUE(ExAcquireResourceSharedLite(&resource, TRUE));
    ExReleaseResourceLite(&resource);
    std::thread reader([&] {
        EXPECT_FALSE(ExAcquireResourceSharedLite(&resource, FALSE));
        ExAcquireResourceSharedLite(&resource, TRUE);
        order += "s";
        ExReleaseResourceLite(&resource);
    });
    EXPECT_TRUE(Eventually([&] { return ExGetSharedWaiterCount(&resource) == 1; }));
    ExReleaseResourceLite(&resource);  // the last sharer lets the exclusive waiter in first
    writer.join();
    reader.join();
    EXPECT_EQ(order, "xs");
    ExDeleteResourceLite(&resource);
}

// The last user drains the resource by acquiring it exclusively, deletes it and frees its memory at once, while the
// thread that let it in may still be on its way out of the release.
TEST_F(DispatcherTest, WhoDrainsAResourceMayFreeIt) {
    for (int i = 0; i < 1500; i++) {
        auto owned = std::make_unique<ERESOURCE>();
        ERESOURCE* const shared = owned.get();
        ExInitializeResourceLite(shared);
        std::atomic<int> holding{0};
        std::vector<std::thread> users;
        for (int u = 0; u < 2; u++) {
            users.emplace_back([&, shared, u] {
                u == 0 ? ExAcquireResourceExclusiveLite(shared, TRUE) : ExAcquireResourceSharedLite(shared, TRUE);
                holding++;
                ExReleaseResourceLite(shared);
            });
        }
        while (holding < 2) {
            std::this_thread::yield();
        }
        ExAcquireResourceExclusiveLite(shared, TRUE);
        ExReleaseResourceLite(shared);
        ExDeleteResourceLite(shared);
        owned.reset();
        for (std::thread& user : users) {
            user.join();
        }
    }
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
