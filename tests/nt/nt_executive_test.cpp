#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <set>

#include "tests/nt/nt_kernel_fixture.h"

// Share access, tokens, descriptor lists and probes, lookaside lists, the work queue.

namespace {

using namespace nt_test;

using ExecutiveTest = KernelTest;

constexpr ULONG kTag = 0x74736554;  // "Test"

// ---- share access ----

TEST_F(ExecutiveTest, ShareAccessFollowsTheTwoSidedRule) {
    constexpr ACCESS_MASK kR = FILE_READ_DATA;
    constexpr ACCESS_MASK kX = FILE_EXECUTE;
    constexpr ACCESS_MASK kW = FILE_WRITE_DATA;
    constexpr ACCESS_MASK kA = FILE_APPEND_DATA;
    constexpr ACCESS_MASK kAttributes = FILE_READ_ATTRIBUTES | SYNCHRONIZE | FILE_WRITE_ATTRIBUTES;
    constexpr ULONG kRead = FILE_SHARE_READ;
    constexpr ULONG kWrite = FILE_SHARE_WRITE;
    constexpr ULONG kDelete = FILE_SHARE_DELETE;
    constexpr ULONG kAll = kRead | kWrite | kDelete;
    struct Case {
        ACCESS_MASK access1;
        ULONG share1;
        ACCESS_MASK access2;
        ULONG share2;
        bool allowed;
    };
    const Case cases[] = {
        {kR, kRead, kR, kRead, true},
        {kR, 0, kR, kRead, false},     // the first shares nothing
        {kR, kRead, kR, 0, false},     // the second does not share what the first holds
        {kX, kRead, kX, kRead, true},  // executing is reading
        {kX, kWrite, kR, kAll, false},
        {kR, kRead, kW, kRead, false},
        {kR, kRead | kWrite, kW, kRead, true},
        {kW, kAll, kW, kRead, false},
        {kA, kAll, kR, kRead, false},  // appending is writing
        {kA, kRead, kR, kWrite, true},
        {kR, kRead, DELETE, kAll, false},
        {kR, kRead | kDelete, DELETE, kRead, true},
        {DELETE, kAll, kR, kRead | kWrite, false},
        {DELETE, kRead, kR, kDelete, true},
        {kAttributes, 0, kR | kW | DELETE, 0, true},  // wants none of the three: in nobody's way
        {kR | kW | DELETE, 0, kAttributes, 0, true},
        {kAttributes, 0, kAttributes, 0, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        FILE_OBJECT first{};
        FILE_OBJECT second{};
        SHARE_ACCESS share{};
        IoSetShareAccess(c.access1, c.share1, &first, &share);
        EXPECT_EQ(IoCheckShareAccess(c.access2, c.share2, &second, &share, FALSE),
                  c.allowed ? STATUS_SUCCESS : STATUS_SHARING_VIOLATION);
        EXPECT_LE(share.OpenCount, 1u);
        if (IoCheckShareAccess(c.access2, c.share2, &second, &share, TRUE) == STATUS_SUCCESS) {
            IoRemoveShareAccess(&first, &share);
            FILE_OBJECT third{};  // now only the second's wishes count
            EXPECT_EQ(IoCheckShareAccess(c.access1, c.share1, &third, &share, TRUE), STATUS_SUCCESS);
            IoRemoveShareAccess(&second, &share);
            IoRemoveShareAccess(&third, &share);
        } else {
            IoRemoveShareAccess(&first, &share);
        }
        EXPECT_EQ(share.OpenCount + share.Readers + share.Writers + share.Deleters + share.SharedRead +
                      share.SharedWrite + share.SharedDelete,
                  0u);
    }
    FILE_OBJECT none{};
    SHARE_ACCESS share{};
    IoSetShareAccess(kAttributes, kAll, &none, &share);
    EXPECT_EQ(none.SharedRead + none.SharedWrite + none.SharedDelete + none.ReadAccess, 0);
    FILE_OBJECT some{};
    IoSetShareAccess(kX | DELETE, kWrite | kDelete, &some, &share);
    EXPECT_EQ(some.ReadAccess * 32 + some.WriteAccess * 16 + some.DeleteAccess * 8 + some.SharedRead * 4 +
                  some.SharedWrite * 2 + some.SharedDelete,
              32 + 8 + 2 + 1);
}

// ---- tokens ----

TEST_F(ExecutiveTest, TokensResolveWhileTheyLiveAndNeverAfter) {
    int targets[3];
    EXPECT_EQ(NtTokenCreate(nullptr), 0u);
    EXPECT_EQ(NtTokenResolve(0), nullptr);
    NtTokenRelease(0);
    const ULONG a = NtTokenCreate(&targets[0]);
    const ULONG b = NtTokenCreate(&targets[1]);
    const ULONG again = NtTokenCreate(&targets[0]);
    EXPECT_EQ(std::set<ULONG>({0, a, b, again}).size(), 4u);
    EXPECT_EQ(NtTokenResolve(a), &targets[0]);
    EXPECT_EQ(NtTokenResolve(b), &targets[1]);
    NtTokenRelease(a);
    EXPECT_EQ(NtTokenResolve(a), nullptr);
    EXPECT_EQ(NtTokenResolve(again), &targets[0]);
    for (const ULONG wrong : {b + 7, b ^ 0x10000, b ^ 0x80000000, 0xFFFFFFFFu, 1u << 31}) {
        EXPECT_EQ(NtTokenResolve(wrong), nullptr);
    }
    // The slot is used again and again; the old token stays dead.
    for (int i = 0; i < 1000; i++) {
        const ULONG next = NtTokenCreate(&targets[2]);
        ASSERT_NE(next, a);
        ASSERT_EQ(NtTokenResolve(a), nullptr);
        NtTokenRelease(next);
    }
    NtTokenRelease(b);
    NtTokenRelease(again);

    std::vector<ULONG> all;
    for (ULONG token = NtTokenCreate(targets); token != 0; token = NtTokenCreate(targets)) {
        all.push_back(token);
    }
    EXPECT_EQ(all.size(), 65535u);  // then the table is full, and says so
    for (const ULONG token : all) {
        NtTokenRelease(token);
    }
}

TEST_F(ExecutiveTest, TokensOfManyThreadsDoNotMix) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([] {
            int targets[16];
            for (int round = 0; round < 500; round++) {
                ULONG tokens[16];
                for (int i = 0; i < 16; i++) {
                    tokens[i] = NtTokenCreate(&targets[i]);
                }
                for (int i = 0; i < 16; i++) {
                    ASSERT_EQ(NtTokenResolve(tokens[i]), &targets[i]);
                    NtTokenRelease(tokens[i]);
                    ASSERT_EQ(NtTokenResolve(tokens[i]), nullptr);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// ---- descriptor lists and probes ----

TEST_F(ExecutiveTest, AProbeFindsEveryBadPageWithoutTouchingTheGoodOnes) {
    constexpr size_t kPages = 200;  // more than one call's worth where bytes are copied page by page
    constexpr size_t kSize = kPages * 4096;
    auto* const memory =
        static_cast<char*>(mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(memory, MAP_FAILED);
    memory[5 * 4096 + 7] = 99;
    mprotect(memory + 50 * 4096, 4096, PROT_READ);
    mprotect(memory + 100 * 4096, 4096, PROT_NONE);
    munmap(memory + 150 * 4096, 4096);
    struct Case {
        const char* name;
        size_t from;
        size_t bytes;
        bool read;
        bool write;
    };
    const Case cases[] = {
        {"good", 0, 40 * 4096, true, true},
        {"part of a page", 3, 10, true, true},
        {"up to the read-only page", 40 * 4096, 10 * 4096, true, true},
        {"one byte into it", 40 * 4096, 10 * 4096 + 1, true, false},
        {"in it", 50 * 4096 + 5, 6, true, false},
        {"behind it, up to the forbidden page", 51 * 4096, 49 * 4096, true, true},
        {"one byte into it", 51 * 4096, 49 * 4096 + 1, false, false},
        {"up to the hole", 101 * 4096, 49 * 4096, true, true},
        {"one byte into it", 101 * 4096, 49 * 4096 + 1, false, false},
        {"beginning in it", 151 * 4096 - 1, 8, false, false},
        {"across everything", 0, kSize, false, false},
    };
    for (const Case& c : cases) {
        for (const bool write : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (write ? " written" : " read"));
            PMDL const mdl = IoAllocateMdl(memory + c.from, static_cast<ULONG>(c.bytes), FALSE, FALSE, nullptr);
            const NTSTATUS status = NtMmTryProbeAndLockPages(mdl, UserMode, write ? IoWriteAccess : IoReadAccess);
            EXPECT_EQ(status, (write ? c.write : c.read) ? STATUS_SUCCESS : STATUS_ACCESS_VIOLATION);
            EXPECT_EQ((mdl->MdlFlags & MDL_PAGES_LOCKED) != 0, NT_SUCCESS(status));
            if (NT_SUCCESS(status)) {
                EXPECT_EQ(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority), memory + c.from);
                MmUnlockPages(mdl);
            }
            IoFreeMdl(mdl);
        }
    }
    EXPECT_EQ(memory[5 * 4096 + 7], 99);
    munmap(memory, kSize);
    for (const uintptr_t address : {uintptr_t{0}, uintptr_t{4095}, ~uintptr_t{0} - 100, ~uintptr_t{0}}) {
        PMDL const mdl = IoAllocateMdl(reinterpret_cast<PVOID>(address), 101, FALSE, FALSE, nullptr);
        EXPECT_EQ(NtMmTryProbeAndLockPages(mdl, UserMode, IoReadAccess), STATUS_ACCESS_VIOLATION);
        IoFreeMdl(mdl);
    }
}

TEST_F(ExecutiveTest, ASharedFileMappingBeyondItsEndIsABadAddress) {
    const int fd = memfd_create("probe", 0);
    ASSERT_EQ(ftruncate(fd, 4096), 0);
    auto* const memory = static_cast<char*>(mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    for (const LOCK_OPERATION operation : {IoReadAccess, IoWriteAccess}) {
        for (const size_t bytes : {4096u, 4097u}) {
            PMDL const mdl = IoAllocateMdl(memory, static_cast<ULONG>(bytes), FALSE, FALSE, nullptr);
            const NTSTATUS status = NtMmTryProbeAndLockPages(mdl, UserMode, operation);
            EXPECT_EQ(status, bytes == 4096 ? STATUS_SUCCESS : STATUS_ACCESS_VIOLATION);
            if (NT_SUCCESS(status)) {
                MmUnlockPages(mdl);
            }
            IoFreeMdl(mdl);
        }
    }
    munmap(memory, 8192);
    close(fd);
}

TEST_F(ExecutiveTest, DescriptorListsChainOnTheirRequestAndDescribeResidentPool) {
    PIRP const irp = IoAllocateIrp(1, FALSE);
    char buffer[3];
    PMDL lists[3];
    for (int i = 0; i < 3; i++) {
        lists[i] = IoAllocateMdl(&buffer[i], 1, i != 0, FALSE, irp);
    }
    EXPECT_EQ(irp->MdlAddress, lists[0]);
    EXPECT_EQ(lists[0]->Next, lists[1]);
    EXPECT_EQ(lists[1]->Next, lists[2]);
    for (PMDL const list : lists) {
        IoFreeMdl(list);
    }
    irp->MdlAddress = nullptr;
    IoFreeIrp(irp);
    PVOID const pool = ExAllocatePoolWithTag(NonPagedPool, 100, kTag);
    PMDL const mdl = IoAllocateMdl(pool, 100, FALSE, FALSE, nullptr);
    MmBuildMdlForNonPagedPool(mdl);
    EXPECT_EQ(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority), pool);
    IoFreeMdl(mdl);
    ExFreePool(pool);
}

// ---- lookaside lists ----

TEST_F(ExecutiveTest, LookasideListsCountAndGiveBackWhatTheyKeep) {
    PAGED_LOOKASIDE_LIST list;
    const uint64_t before = nt::GetStatistics().poolBlocks;
    ExInitializePagedLookasideList(&list, nullptr, nullptr, 0, 48, kTag, 2);
    PVOID entries[4];
    for (int round = 0; round < 3; round++) {
        for (PVOID& entry : entries) {
            entry = ExAllocateFromPagedLookasideList(&list);
            std::memset(entry, 0xAB, 48);
        }
        EXPECT_EQ(std::set<PVOID>(entries, entries + 4).size(), 4u);
        for (PVOID const entry : entries) {
            ExFreeToPagedLookasideList(&list, entry);
        }
        EXPECT_LE(nt::GetStatistics().poolBlocks, before + 2);
    }
    ExDeletePagedLookasideList(&list);
    EXPECT_EQ(nt::GetStatistics().poolBlocks, before);
}

TEST_F(ExecutiveTest, AFreedLookasideEntryMayNotBeFreedAgain) {
    if (!nt::GetStatistics().recycling) {
        GTEST_SKIP() << "nothing is kept under the sanitizers, which find this themselves";
    }
    Violations violations;
    NPAGED_LOOKASIDE_LIST list;
    ExInitializeNPagedLookasideList(&list, nullptr, nullptr, 0, 48, kTag, 2);
    PVOID const entry = ExAllocateFromNPagedLookasideList(&list);
    ExFreeToNPagedLookasideList(&list, entry);
    ExFreeToNPagedLookasideList(&list, entry);
    EXPECT_NE(Violations::Take().find("twice"), std::string::npos);
    ExFreePool(entry);
    EXPECT_NE(Violations::Take().find("that a lookaside list keeps"), std::string::npos);
    EXPECT_EQ(ExAllocateFromNPagedLookasideList(&list), entry);
    ExFreeToNPagedLookasideList(&list, entry);
    ExDeleteNPagedLookasideList(&list);
}

// ---- the work queue ----

// Four items that wait for a fifth: on the real kernel they would wait for ever, and so they do here.
TEST_F(ExecutiveTest, TheCriticalQueueHasFourThreadsForEverybody) {
    struct Shared {
        KEVENT open;
        std::atomic<int> entered{0};
        std::atomic<bool> fifthRan{false};
        std::atomic<int> left{0};
    } shared;
    KeInitializeEvent(&shared.open, NotificationEvent, FALSE);
    WORK_QUEUE_ITEM items[5];
    for (int i = 0; i < 5; i++) {
        ExInitializeWorkItem(
            &items[i],
            i < 4 ? [](PVOID context) {
                auto& s = *static_cast<Shared*>(context);
                s.entered++;
                KeWaitForSingleObject(&s.open, Executive, KernelMode, FALSE, nullptr);
                s.left++;
            } : [](PVOID context) {
                static_cast<Shared*>(context)->fifthRan = true;
                static_cast<Shared*>(context)->left++;
            },
            &shared);
        ExQueueWorkItem(&items[i], CriticalWorkQueue);
    }
    EXPECT_TRUE(Eventually([&] { return shared.entered == 4; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(shared.fifthRan);
    KeSetEvent(&shared.open, 0, FALSE);
    EXPECT_TRUE(Eventually([&] { return shared.left == 5; }));
}

TEST_F(ExecutiveTest, AWorkRoutineMayFreeItsItem) {
    struct Job {
        WORK_QUEUE_ITEM item;
        std::atomic<int>* done;
    };
    std::atomic<int> done{0};
    for (int i = 0; i < 500; i++) {
        auto* const job = static_cast<Job*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(Job), kTag));
        job->done = &done;
        ExInitializeWorkItem(
            &job->item,
            [](PVOID context) {
                std::atomic<int>& count = *static_cast<Job*>(context)->done;
                ExFreePool(context);
                count++;
            },
            job);
        ExQueueWorkItem(&job->item, i % 3 == 0 ? DelayedWorkQueue : CriticalWorkQueue);
    }
    EXPECT_TRUE(Eventually([&] { return done == 500; }));
}

}  // namespace
