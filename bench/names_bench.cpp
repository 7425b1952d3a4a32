// What grows with the number of files: opening one file among many, listing, mounting.
#include <benchmark/benchmark.h>

#include "bench/bench_station.h"

namespace bench {
namespace {

std::u16string Name(std::uint32_t number) {
    const std::string digits = std::to_string(number);
    return u"CLIP" + std::u16string(digits.begin(), digits.end()) + u".RZV";
}

void MakeFiles(BenchStation& station, const std::u16string& folder, std::uint32_t count) {
    station.MakeFolder(folder);
    for (std::uint32_t i = 0; i < count; ++i) {
        (void)station.Open(folder + u"\\" + Name(i), host::Disposition::kCreate, host::access::kReadData);
    }
}

void OpenAndClose(benchmark::State& state) {
    const auto files = static_cast<std::uint32_t>(state.range(0));
    BenchStation station(1);
    station.Format(1);
    MakeFiles(station, u"\\RZV\\V\\F", files);
    std::uint32_t next = 0;
    for (auto _ : state) {
        next = (next * 7 + 13) % files;
        (void)station.Open(u"\\RZV\\V\\F\\" + Name(next), host::Disposition::kOpen, host::access::kReadData);
    }
}
BENCHMARK(OpenAndClose)->Arg(16)->Arg(2048);

void List(benchmark::State& state) {
    BenchStation station(1);
    station.Format(1);
    MakeFiles(station, u"\\RZV\\V\\F", 2048);
    for (auto _ : state) {
        const auto folder = station.Open(u"\\RZV\\V\\F", host::Disposition::kOpen, host::access::kListDirectory,
                                         host::option::kDirectoryFile);
        std::vector<host::DirectoryEntry> entries;
        Need(host::ListDirectory(station.User(), folder.Get(), entries), "list");
        if (entries.size() != 2048) {
            throw std::runtime_error("the listing is not whole");
        }
    }
    state.SetItemsProcessed(2048 * state.iterations());
}
BENCHMARK(List)->Unit(benchmark::kMillisecond);

// 256 folders with 20,000 files.
void Mount(benchmark::State& state) {
    BenchStation station(1);
    station.Format(1);
    for (std::uint32_t folder = 0; folder < 256; ++folder) {
        const std::string digits = std::to_string(folder);
        MakeFiles(station, u"\\RZV\\V\\F" + std::u16string(digits.begin(), digits.end()), folder < 32 ? 79 : 78);
    }
    station.Stop();
    for (auto _ : state) {
        station.Start();
        state.PauseTiming();
        station.Stop();
        state.ResumeTiming();
    }
    station.Start();
}
BENCHMARK(Mount)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace bench
