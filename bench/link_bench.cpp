// A process at the end of a socket against one in the same program, timed in turn in one run: "share" is the near one's
// time over the far one's (1.0: the socket costs nothing).
#include <benchmark/benchmark.h>

#include <chrono>

#include "bench/bench_station.h"
#include "link/connection.h"
#include "link/server.h"
#include "tool/clip/writer.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::uint32_t kStandardInformation = 5;

// A clip, and a handle on it through either.
struct TwoDoors {
    BenchStation station{2};
    std::uint64_t size = 0;
    std::unique_ptr<vlink::Server> server;
    std::unique_ptr<host::Access> access;
    std::unique_ptr<host::Process> far;
    host::ScopedHandle nearFile;
    host::ScopedHandle farFile;

    TwoDoors() {
        clip::ClipRecipe recipe;
        recipe.frames = 100;
        const std::vector<std::byte> image = clip::MakeClipImage(recipe);
        size = image.size();
        station.Format(2);
        station.MakeFolder(u"\\RZV\\V\\F");
        {
            const auto made = station.Open(u"\\RZV\\V\\F\\C.RZV", host::Disposition::kCreate,
                                           host::access::kReadData | host::access::kWriteData);
            Need(station.User().Write(made.Get(), image, 0).status, "record");
        }
        host::Problem problem;
        const auto socket = vlink::SocketOf(station.Image(0).parent_path().parent_path());
        server = vlink::Server::Start(
            station.Machine(), socket, [](const std::string&) {}, problem);
        access = vlink::Connect(socket, problem);
        far = access ? access->NewProcess(problem) : nullptr;
        if (!far) {
            throw std::runtime_error(problem.what);
        }
        host::OpenRequest request;
        request.path = u"P:\\RZV\\V\\F\\C.RZV";
        nearFile = host::ScopedHandle(station.User(), station.User().Create(request).handle);
        farFile = host::ScopedHandle(*far, far->Create(request).handle);
    }
};

// Times `work(process, file)` through both, so many times a round that a round is long enough to be timed.
template <typename Near, typename Far>
void Compare(benchmark::State& state, int timesPerRound, Near near, Far far) {
    double nearTime = 0;
    double farTime = 0;
    for (auto _ : state) {
        const auto begin = Clock::now();
        for (int i = 0; i < timesPerRound; ++i) {
            near();
        }
        const auto middle = Clock::now();
        for (int i = 0; i < timesPerRound; ++i) {
            far();
        }
        const std::chrono::duration<double> farTook = Clock::now() - middle;
        nearTime += std::chrono::duration<double>(middle - begin).count();
        farTime += farTook.count();
        state.SetIterationTime(farTook.count());
    }
    state.counters["share"] = nearTime / farTime;
}

void SocketRoundTrip(benchmark::State& state) {
    TwoDoors doors;
    std::byte buffer[24];
    const auto query = [&](host::Process& process, const host::ScopedHandle& file) {
        Need(process.QueryInformation(file.Get(), kStandardInformation, buffer).status, "query");
    };
    Compare(
        state, 1000, [&] { query(doors.station.User(), doors.nearFile); }, [&] { query(*doors.far, doors.farFile); });
}
// A thousand of them.
BENCHMARK(SocketRoundTrip)->UseManualTime()->Unit(benchmark::kMillisecond);

// Into memory of the caller's own, or into what the daemon maps too.
void SocketRead(benchmark::State& state) {
    const auto request = static_cast<std::size_t>(state.range(0));
    TwoDoors doors;
    std::vector<std::byte> own(request);
    std::span<std::byte> buffer = own;
    host::Process::NamedMemory shared;
    if (state.range(1) != 0) {
        Need(doors.far->AllocateMemory(request, shared), "memory");
        buffer = shared.bytes;
    }
    const auto play = [&](host::Process& process, const host::ScopedHandle& file) {
        for (std::uint64_t done = 0; done + request <= doors.size; done += request) {
            Need(process.Read(file.Get(), buffer, done).status, "read");
        }
    };
    Compare(
        state, 1, [&] { play(doors.station.User(), doors.nearFile); }, [&] { play(*doors.far, doors.farFile); });
    state.SetBytesProcessed(static_cast<std::int64_t>(doors.size / request * request) * state.iterations());
}
BENCHMARK(SocketRead)
    ->ArgsProduct({{4 << 10, 16 << 10, 64 << 10, 256 << 10, 1 << 20}, {0, 1}})
    ->ArgNames({"bytes", "shared"})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace bench
