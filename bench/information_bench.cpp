// Requests about a file: its facts, and a new name.
#include <benchmark/benchmark.h>

#include "bench/bench_station.h"

namespace bench {
namespace {

constexpr std::uint32_t kStandardInformation = 5;
constexpr std::uint32_t kRenameInformation = 10;
constexpr std::uint32_t kAllInformation = 18;
constexpr std::size_t kRenameName = 12;  // after the replace flag, the root directory and the name's length

std::u16string Name(std::uint32_t number) {
    const std::string digits = std::to_string(number);
    return u"CLIP" + std::u16string(digits.begin(), digits.end()) + u".RZV";
}

void QueryInformation(benchmark::State& state) {
    BenchStation station(1);
    station.Format(1);
    station.MakeFolder(u"\\RZV\\V\\F");
    const auto file = station.Open(u"\\RZV\\V\\F\\C.RZV", host::Disposition::kCreate,
                                   host::access::kReadData | host::access::kReadAttributes);
    std::byte buffer[256];
    for (auto _ : state) {
        Need(station.User().QueryInformation(file.Get(), static_cast<std::uint32_t>(state.range(0)), buffer).status,
             "query");
    }
}
BENCHMARK(QueryInformation)->Arg(kStandardInformation)->Arg(kAllInformation)->ArgName("class");

std::vector<std::byte> RenameTo(const std::u16string& name) {
    const auto bytes = static_cast<std::uint32_t>(name.size() * sizeof(char16_t));
    std::vector<std::byte> request(kRenameName + std::max<std::size_t>(bytes, 4));
    std::memcpy(request.data() + kRenameName - sizeof(bytes), &bytes, sizeof(bytes));
    std::memcpy(request.data() + kRenameName, name.data(), bytes);
    return request;
}

// To another name and back, in a folder with so many files.
void Rename(benchmark::State& state) {
    const auto files = static_cast<std::uint32_t>(state.range(0));
    BenchStation station(1);
    station.Format(1);
    station.MakeFolder(u"\\RZV\\V\\F");
    for (std::uint32_t i = 0; i < files; ++i) {
        (void)station.Open(u"\\RZV\\V\\F\\" + Name(i), host::Disposition::kCreate, host::access::kReadData);
    }
    const auto file = station.Open(u"\\RZV\\V\\F\\" + Name(files / 2), host::Disposition::kOpen,
                                   host::access::kReadData | host::access::kDelete);
    const std::vector<std::byte> names[] = {RenameTo(u"OTHER.RZV"), RenameTo(Name(files / 2))};
    std::size_t next = 0;
    for (auto _ : state) {
        Need(station.User().SetInformation(file.Get(), kRenameInformation, names[next]).status, "rename");
        next = 1 - next;
    }
}
BENCHMARK(Rename)->Arg(16)->Arg(2048)->ArgName("files")->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace bench
