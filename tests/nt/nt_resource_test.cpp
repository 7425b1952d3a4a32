#include <atomic>
#include <memory>

#include "tests/nt/nt_kernel_fixture.h"

// Executive resources and fast mutexes.

namespace {

using namespace nt_test;

class ResourceTest : public KernelTest {
  protected:
    void SetUp() override {
        KernelTest::SetUp();
        ExInitializeResourceLite(&resource);
    }
    void TearDown() override {
        ExDeleteResourceLite(&resource);
        KernelTest::TearDown();
    }
    // What another thread gets without waiting; it gives back what it got.
    bool OthersMay(bool exclusive) {
        bool got = false;
        std::thread([&] {
            got = (exclusive ? ExAcquireResourceExclusiveLite(&resource, FALSE)
                             : ExAcquireResourceSharedLite(&resource, FALSE)) != FALSE;
            if (got) {
                ExReleaseResourceLite(&resource);
            }
        }).join();
        return got;
    }
    // "xs": others may have it exclusively and shared; "-s", "--".
    std::string Others() { return std::string(OthersMay(true) ? "x" : "-") + (OthersMay(false) ? "s" : "-"); }
    bool Exclusive(BOOLEAN wait = FALSE) { return ExAcquireResourceExclusiveLite(&resource, wait) != FALSE; }
    bool Shared(BOOLEAN wait = FALSE) { return ExAcquireResourceSharedLite(&resource, wait) != FALSE; }
    void Release() { ExReleaseResourceLite(&resource); }

    ERESOURCE resource;
};

TEST_F(ResourceTest, RecursionCountsAndEveryAcquireWantsItsRelease) {
    EXPECT_EQ(Others(), "xs");
    EXPECT_TRUE(Exclusive());
    EXPECT_TRUE(Exclusive());
    EXPECT_TRUE(Shared());  // an exclusive owner stays exclusive
    EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource), 3u);
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(ExIsResourceAcquiredExclusiveLite(&resource));
        EXPECT_EQ(Others(), "--");
        Release();
    }
    EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource), 0u);
    EXPECT_TRUE(Shared());
    EXPECT_TRUE(Shared());
    EXPECT_FALSE(Exclusive());
    EXPECT_EQ(Others(), "-s");
    Release();
    EXPECT_EQ(Others(), "-s");
    Release();
    EXPECT_EQ(Others(), "xs");
}

TEST_F(ResourceTest, ConversionKeepsTheCountAndAdmitsSharersAlsoWaitingOnes) {
    EXPECT_TRUE(Exclusive());
    EXPECT_TRUE(Exclusive());
    std::thread sharer([&] {
        EXPECT_TRUE(Shared(TRUE));
        Release();
    });
    EXPECT_TRUE(Eventually([&] { return ExGetSharedWaiterCount(&resource) == 1; }));
    ExConvertExclusiveToSharedLite(&resource);
    sharer.join();
    EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&resource));
    EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource), 2u);
    EXPECT_EQ(Others(), "-s");
    Release();
    EXPECT_EQ(Others(), "-s");
    Release();
    EXPECT_EQ(Others(), "xs");
}

TEST_F(ResourceTest, AWaitingExclusiveKeepsNewSharersOutButNotExistingOnes) {
    EXPECT_TRUE(Shared());
    std::string order;
    std::thread writer([&] {
        EXPECT_TRUE(Exclusive(TRUE));
        order += "x";
        Release();
    });
    EXPECT_TRUE(Eventually([&] { return ExGetExclusiveWaiterCount(&resource) == 1; }));
    EXPECT_EQ(Others(), "--");
    EXPECT_TRUE(Shared());
    Release();
    std::thread reader([&] {
        EXPECT_TRUE(Shared(TRUE));
        order += "s";
        Release();
    });
    EXPECT_TRUE(Eventually([&] { return ExGetSharedWaiterCount(&resource) == 1; }));
    Release();  // the last sharer lets the exclusive waiter in first
    writer.join();
    reader.join();
    EXPECT_EQ(order, "xs");
}

// The last user drains the resource by acquiring it exclusively, deletes it and frees its memory at once, while the
// thread that let it in may still be on its way out of the release.
TEST_F(ResourceTest, WhoDrainsAResourceMayFreeIt) {
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

using FastMutexTest = KernelTest;

TEST_F(FastMutexTest, OneOwnerAtApcLevel) {
    FAST_MUTEX mutex;
    ExInitializeFastMutex(&mutex);
    long sum = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; i++) {
                ExAcquireFastMutex(&mutex);
                EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
                sum++;
                ExReleaseFastMutex(&mutex);
                EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(sum, 8000);
}

}  // namespace
