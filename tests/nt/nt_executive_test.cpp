#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <set>

#include "tests/nt/nt_kernel_fixture.h"

// Share access, tokens, descriptor lists and probes, the work queue.

namespace {

using namespace nt_test;

using ExecutiveTest = KernelTest;

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
        {kR, kRead, kW, kRead, false},
        {kR, kRead | kWrite, kW, kRead, true},
        {kA, kAll, kR, kRead, false},  // appending is writing
        {kR, kRead, DELETE, kAll, false},
        {kR, kRead | kDelete, DELETE, kRead, true},
        {DELETE, kAll, kR, kRead | kWrite, false},
        {kAttributes, 0, kR | kW | DELETE, 0, true},  // wants none of the three: in nobody's way
        {kR | kW | DELETE, 0, kAttributes, 0, true},
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
    for (const ULONG wrong : {b + 7, b ^ 0x10000, 0xFFFFFFFFu}) {
        EXPECT_EQ(NtTokenResolve(wrong), nullptr);
    }
    for (int i = 0; i < 1000; i++) {  // the slot is used again and again; the old token stays dead
        NtTokenRelease(NtTokenCreate(&targets[2]));
        ASSERT_EQ(NtTokenResolve(a), nullptr);
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

// ---- descriptor lists and probes ----

NTSTATUS Probe(const void* address, size_t bytes, bool write) {
    PMDL const mdl = IoAllocateMdl(const_cast<PVOID>(address), static_cast<ULONG>(bytes), FALSE, FALSE, nullptr);
    const NTSTATUS status = NtMmTryProbeAndLockPages(mdl, UserMode, write ? IoWriteAccess : IoReadAccess);
    EXPECT_EQ((mdl->MdlFlags & MDL_PAGES_LOCKED) != 0, NT_SUCCESS(status));
    if (NT_SUCCESS(status)) {
        EXPECT_EQ(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority), address);
        MmUnlockPages(mdl);
    }
    IoFreeMdl(mdl);
    return status;
}

TEST_F(ExecutiveTest, AProbeFindsEveryBadPageWithoutTouchingTheGoodOnes) {
    constexpr size_t kPage = 4096;
    constexpr size_t kSize = 200 * kPage;  // more than one call's worth where bytes are copied page by page
    const auto map = [](size_t size, int flags, int fd) {
        return static_cast<char*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, flags, fd, 0));
    };
    char* const memory = map(kSize, MAP_PRIVATE | MAP_ANONYMOUS, -1);
    memory[5 * kPage + 7] = 99;
    mprotect(memory + 50 * kPage, kPage, PROT_READ);
    mprotect(memory + 100 * kPage, kPage, PROT_NONE);
    munmap(memory + 150 * kPage, kPage);
    const int fd = memfd_create("probe", 0);
    ASSERT_EQ(ftruncate(fd, kPage), 0);
    char* const shared = map(2 * kPage, MAP_SHARED, fd);
    struct Case {
        const char* name;
        const char* from;
        size_t bytes;
        bool read;
        bool write;
    };
    const Case cases[] = {
        {"good", memory, 40 * kPage, true, true},
        {"up to the read-only page", memory + 40 * kPage, 10 * kPage, true, true},
        {"one byte into it", memory + 40 * kPage, 10 * kPage + 1, true, false},
        {"in it", memory + 50 * kPage + 5, 6, true, false},
        {"one byte into the forbidden page", memory + 51 * kPage, 49 * kPage + 1, false, false},
        {"one byte into the hole", memory + 101 * kPage, 49 * kPage + 1, false, false},
        {"beginning in it", memory + 151 * kPage - 1, 8, false, false},
        {"across everything", memory, kSize, false, false},
        {"a file's page", shared, kPage, true, true},
        {"beyond the file's end", shared, kPage + 1, false, false},
        {"null", nullptr, 101, false, false},
        {"the end of the address space", reinterpret_cast<char*>(~uintptr_t{0} - 100), 101, false, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(NT_SUCCESS(Probe(c.from, c.bytes, false)), c.read) << c.name;
        EXPECT_EQ(NT_SUCCESS(Probe(c.from, c.bytes, true)), c.write) << c.name;
    }
    EXPECT_EQ(memory[5 * kPage + 7], 99);
    munmap(memory, kSize);
    munmap(shared, 2 * kPage);
    close(fd);
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

}  // namespace
