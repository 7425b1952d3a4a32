// The volume's own inner loops: the allocator with few and with 100,000 free segments, and the record checksum.
#include <benchmark/benchmark.h>

#include <numeric>
#include <random>
#include <stdexcept>
#include <vector>

#include "control/space_estimate.h"
#include "core/global_data.h"
#include "core/pool.h"
#include "nt/kernel.h"
#include "volume/allocator.h"
#include "volume/records.h"

namespace bench {
namespace {

void Need(bool done) {
    if (!done) {
        throw std::runtime_error("the allocator refused");
    }
}

// A data area whose lower region is holes of 10 to 29 blocks between taken ones, and whose upper region is holes of 2
// to 5 blocks: half of the free segments each.
class FragmentedSpace {
  public:
    explicit FragmentedSpace(ULONG segments) : holes_(segments / 2) {
        nt::Boot();
        ExInitializePagedLookasideList(&global_.AllocSegmentLookaside, nullptr, nullptr, 0, sizeof(AllocSegment),
                                       VrkFsPoolTag("VOLA"), 256);
        pVrkFsGlobalData = &global_;
        Need(NT_SUCCESS(VrkFsVolAllocInitializeAllocObject(&alloc_, 1024, 0x10000000)));
        std::vector<AllocRange> give;
        for (ULONG i = 0; i < holes_; ++i) {
            ULONG start = 0;
            Need(VrkFsVolAllocAllocateLowerSpace(&alloc_, 30, &start));
            give.push_back({start, 10 + i * 7 % 20});
            Need(NT_SUCCESS(VrkFsVolAllocAllocateUpperSpace(&alloc_, 6, &start)));
            give.push_back({start, 2 + i * 3 % 4});
        }
        for (const AllocRange& range : give) {
            Need(NT_SUCCESS(VrkFsVolAllocReleaseSpace(&alloc_, range.Start, range.Count)));
        }
    }
    ~FragmentedSpace() {
        VrkFsVolAllocFreeAllocObject(&alloc_);
        ExDeletePagedLookasideList(&global_.AllocSegmentLookaside);
        pVrkFsGlobalData = nullptr;
        nt::Shutdown();
    }
    FragmentedSpace(const FragmentedSpace&) = delete;
    FragmentedSpace& operator=(const FragmentedSpace&) = delete;
    AllocObject* Alloc() { return &alloc_; }

  private:
    ULONG holes_;
    GlobalData global_{};
    AllocObject alloc_{};
};

// One of everything that recording and deleting a clip asks for, given back at once.
void AllocateAndRelease(benchmark::State& state) {
    FragmentedSpace space(static_cast<ULONG>(state.range(0)));
    std::mt19937 random(1);
    for (auto _ : state) {
        ULONG lower = 0;
        ULONG upper = 0;
        DualAllocation dual;
        const ULONG size = 10 + random() % 20;
        Need(VrkFsVolAllocAllocateLowerSpace(space.Alloc(), size, &lower));
        Need(NT_SUCCESS(VrkFsVolAllocAllocateUpperSpace(space.Alloc(), 2 + size % 4, &upper)));
        Need(NT_SUCCESS(VrkFsVolAllocAllocateDualSpace(space.Alloc(), 29, 5, &dual)));
        Need(NT_SUCCESS(VrkFsVolAllocReleaseSpace(space.Alloc(), dual.UpperStart, dual.UpperCount)));
        Need(NT_SUCCESS(VrkFsVolAllocReleaseSpace(space.Alloc(), dual.LowerStart, dual.LowerCount)));
        Need(NT_SUCCESS(VrkFsVolAllocReleaseSpace(space.Alloc(), upper, 2 + size % 4)));
        Need(NT_SUCCESS(VrkFsVolAllocReleaseSpace(space.Alloc(), lower, size)));
    }
    state.SetItemsProcessed(8 * state.iterations());
}
BENCHMARK(AllocateAndRelease)->Arg(100)->Arg(100000);

// The frames that fit, asked of a volume whose one large piece of free space has to give room for the tables too: the
// answer lies far below where the trials begin.
void EstimateFrames(benchmark::State& state) {
    FragmentedSpace space(static_cast<ULONG>(state.range(0)));
    const SpaceEstimate asked = {space.Alloc(), 4, 1, static_cast<ULONG>(state.range(1))};
    for (auto _ : state) {
        ULONG frames = 0;
        Need(NT_SUCCESS(VrkFsIoctlEstimateFrames(&asked, &frames)) && frames != 0);
    }
}
BENCHMARK(EstimateFrames)
    ->ArgsProduct({{100, 100000}, {0, 1}})
    ->ArgNames({"segments", "alpha"})
    ->Unit(benchmark::kMicrosecond);

void FolderChecksum(benchmark::State& state) {
    DirEntry entry;
    std::vector<UCHAR> bytes(sizeof(entry));
    std::iota(bytes.begin(), bytes.end(), UCHAR{1});
    RtlCopyMemory(&entry, bytes.data(), sizeof(entry));
    for (auto _ : state) {
        benchmark::DoNotOptimize(VrkFsHwCalcFolderChecksum(&entry));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(sizeof(entry)) * state.iterations());
}
BENCHMARK(FolderChecksum);

// The same by its definition, for the ratio.
void FolderChecksumByTheByte(benchmark::State& state) {
    std::vector<UCHAR> bytes(sizeof(DirEntry));
    std::iota(bytes.begin(), bytes.end(), UCHAR{1});
    for (auto _ : state) {
        ULONG a = 1;
        ULONG b = 0;
        for (const UCHAR byte : bytes) {
            a += static_cast<ULONG>(static_cast<signed char>(byte));
            b += a;
        }
        benchmark::DoNotOptimize(a + (b << 16));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(sizeof(DirEntry)) * state.iterations());
}
BENCHMARK(FolderChecksumByTheByte);

}  // namespace
}  // namespace bench
