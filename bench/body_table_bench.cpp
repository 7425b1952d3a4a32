// Shared body tables: getting at one, from the disk and from the cache, writing one back, and finding one by name.
#include <benchmark/benchmark.h>

#include "bench/bench_station.h"
#include "client/client.h"
#include "core/card_instance.h"
#include "core/global_data.h"
#include "media/body_table_cache.h"
#include "nt/kernel.h"

namespace bench {
namespace {

constexpr std::uint32_t kOneMinute = 1500;  // frames
constexpr std::uint32_t kOneHour = 90000;
constexpr std::uint32_t kCached = kBodyTableMaxUnreferenced;

void NeedDone(VrkFsStatus status, const char* step) {
    Need(host::Status{status}, step);
}

BodyTableCache* Cache() {
    return &CONTAINING_RECORD(pVrkFsGlobalData->CardInstances.Flink, CardInstance, Link)->BodyTableCache;
}

// Clips of which only the tables matter: their fields are empty.
class Clips {
  public:
    explicit Clips(std::uint32_t frames, std::uint32_t count = kCached) : station_(1) {
        station_.Format(1);
        station_.MakeFolder(u"\\RZV\\V\\F");
        client_ = client::MakeClient(station_.Machine().NewProcess());
        NeedDone(VrkFsClientOpenControl(client_.get(), 0, &control_), "open control device");
        for (std::uint32_t clip = 0; clip < count; ++clip) {
            Make(clip, frames);
        }
    }

    VrkFsHandle Open(std::uint32_t clip, std::uint32_t flags) {
        VrkFsHandle file = 0;
        NeedDone(VrkFsClientOpenFile(client_.get(), (u"P:" + Name(clip)).c_str(), flags, &file), "open");
        return file;
    }
    void Close(VrkFsHandle file) { NeedDone(VrkFsClientClose(client_.get(), file), "close"); }
    void Reference(VrkFsHandle file) {
        VrkFsSectionName name;
        NeedDone(VrkFsClientReferenceBodyTable(client_.get(), control_, file, VRKFS_STREAM_VIDEO, &name), "reference");
    }
    static std::u16string Name(std::uint32_t clip) {
        const std::string digits = std::to_string(clip);
        return u"\\RZV\\V\\F\\C" + std::u16string(digits.begin(), digits.end()) + u".RZV";
    }

  private:
    void Make(std::uint32_t clip, std::uint32_t frames) {
        const VrkFsHandle file = Open(clip, VRKFS_OPEN_RECORDER);
        VrkFsVideoSpace space{};
        space.BodyTableBlocksWanted = static_cast<std::uint32_t>(VrkFsBodyTableSectors(frames));
        space.DataBlocksWanted = 1;
        NeedDone(VrkFsClientAllocateVideoSpace(client_.get(), control_, file, &space), "allocate");
        VrkFsVideoFileUpdate update{};
        update.FrameCount = frames;
        update.VideoBodyTableAllocated = update.VideoBodyTableUsed = space.BodyTableBlocks;
        update.VideoDataAllocated = update.VideoDataUsed = space.DataBlocks;
        update.Flags = VRKFS_UPDATE_VIDEO;
        NeedDone(VrkFsClientUpdateVideoFile(client_.get(), control_, file, &update), "settle");
        Close(file);
    }

    BenchStation station_;
    client::ClientPointer client_;
    VrkFsHandle control_ = 0;
};

// Open, reference, close; the table comes from the disk each time.
void ReferenceFromDisk(benchmark::State& state) {
    Clips clips(static_cast<std::uint32_t>(state.range(0)));
    const nt::DriverScope driver(pVrkFsGlobalData->DriverObject);
    for (auto _ : state) {
        const VrkFsHandle file = clips.Open(0, VRKFS_OPEN_PLAYER);
        clips.Reference(file);
        clips.Close(file);
        state.PauseTiming();
        VrkFsBTFlushUnrefObjects(Cache());
        state.ResumeTiming();
    }
}
BENCHMARK(ReferenceFromDisk)->Arg(kOneMinute)->Arg(kOneHour)->Unit(benchmark::kMicrosecond);

// The same with all tables in the cache; and without the reference, for comparison.
void ReferenceCached(benchmark::State& state) {
    const bool referencing = state.range(0) != 0;
    Clips clips(kOneMinute);
    std::uint32_t next = 0;
    for (auto _ : state) {
        const VrkFsHandle file = clips.Open(next, VRKFS_OPEN_PLAYER);
        if (referencing) {
            clips.Reference(file);
        }
        clips.Close(file);
        next = (next + 7) % kCached;
    }
}
BENCHMARK(ReferenceCached)->Arg(0)->Arg(1)->ArgName("reference")->Unit(benchmark::kMicrosecond);

class CountedName {
  public:
    explicit CountedName(std::u16string text) : text_(std::move(text)) {
        string_.Buffer = text_.data();
        string_.Length = static_cast<USHORT>(text_.size() * sizeof(char16_t));
        string_.MaximumLength = string_.Length;
    }
    PCUNICODE_STRING Get() const { return &string_; }

  private:
    std::u16string text_;
    UNICODE_STRING string_{};
};

// One table written back, as before a read of the clip.
void FlushByName(benchmark::State& state) {
    const auto frames = static_cast<std::uint32_t>(state.range(0));
    Clips clips(frames);
    const VrkFsHandle file = clips.Open(0, VRKFS_OPEN_PLAYER | VRKFS_OPEN_WRITE);
    clips.Reference(file);
    const CountedName name(Clips::Name(0));
    {
        const nt::DriverScope driver(pVrkFsGlobalData->DriverObject);
        for (auto _ : state) {
            VrkFsBTFlushObjectByName(Cache(), name.Get());
        }
    }
    clips.Close(file);
    state.SetBytesProcessed(static_cast<std::int64_t>(VrkFsBodyTableBytes(frames)) * state.iterations());
}
BENCHMARK(FlushByName)->Arg(kOneMinute)->Arg(kOneHour)->Unit(benchmark::kMicrosecond);

// What a read of a clip without a shared table pays for asking, with so many shared ones in use.
void LookUpByName(benchmark::State& state) {
    const auto count = static_cast<std::uint32_t>(state.range(0));
    Clips clips(1, count);
    std::vector<VrkFsHandle> files;
    for (std::uint32_t clip = 0; clip < count; ++clip) {
        files.push_back(clips.Open(clip, VRKFS_OPEN_PLAYER));
        clips.Reference(files.back());
    }
    const CountedName name(Clips::Name(count));
    {
        const nt::DriverScope driver(pVrkFsGlobalData->DriverObject);
        for (auto _ : state) {
            VrkFsBTFlushObjectByName(Cache(), name.Get());
        }
    }
    for (const VrkFsHandle file : files) {
        clips.Close(file);
    }
}
BENCHMARK(LookUpByName)->Arg(9)->Arg(99)->Arg(999);

}  // namespace
}  // namespace bench
