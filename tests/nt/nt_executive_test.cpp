#include <sys/mman.h>
#include <unistd.h>

#include <set>

#include "tests/nt/nt_kernel_fixture.h"

// Tokens, descriptor lists and probes.

namespace {

using namespace nt_test;

using ExecutiveTest = KernelTest;

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
    const struct {
        const char* name;
        const char* from;
        size_t bytes;
        bool read;
        bool write;
    } cases[] = {
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
    for (const auto& c : cases) {
        EXPECT_EQ(NT_SUCCESS(Probe(c.from, c.bytes, false)), c.read) << c.name;
        EXPECT_EQ(NT_SUCCESS(Probe(c.from, c.bytes, true)), c.write) << c.name;
    }
    EXPECT_EQ(memory[5 * kPage + 7], 99);
    munmap(memory, kSize);
    munmap(shared, 2 * kPage);
    close(fd);
}

}  // namespace
