// Sequential record and playback of a clip through the driver, against the same bytes moved raw: the same runs of
// sectors of the same image files, partial sectors through a one-sector buffer. Both are timed in turn in one run;
// "share" is raw time over driver time (1.0: the driver costs nothing).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <vrkfs/media.h>

#include <chrono>

#include "bench/bench_station.h"
#include "tool/clip/writer.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::uint32_t kBlock = 512;
constexpr std::uint32_t kFirstDataBlock = 1024;  // a fresh volume's first clip begins here

struct Field {
    std::uint64_t start;  // byte of the image
    std::uint64_t bytes;
    std::uint32_t disk;
    std::uint32_t lba;
};

// Moves the bytes of an image from or to where the driver has put them, with nothing in between.
class RawClip {
  public:
    RawClip(const BenchStation& station, std::uint32_t disks, const std::vector<std::byte>& image) : image_(image) {
        for (std::uint32_t disk = 0; disk < disks; ++disk) {
            fds_.push_back(::open(station.Image(disk).c_str(), O_RDWR | O_CLOEXEC));
        }
        std::uint32_t headerSize = 0;
        std::memcpy(&headerSize, image.data() + 12, sizeof(headerSize));
        std::uint64_t tableChunk = 0;
        std::memcpy(&tableChunk, image.data() + 328, sizeof(tableChunk));
        std::uint32_t frames = 0;
        std::memcpy(&frames, image.data() + 288 + 32, sizeof(frames));
        std::vector<std::uint32_t> cursor(disks, kFirstDataBlock);
        std::uint64_t place = headerSize + 16;
        for (std::uint32_t k = 0; k < 2 * frames; ++k) {
            std::uint16_t halves[2];
            std::memcpy(halves, image.data() + 344 + std::size_t{k} * 4, sizeof(halves));
            const std::uint32_t sectors = std::uint32_t{halves[0]} + halves[1];
            fields_.push_back({place, std::uint64_t{sectors} * kBlock, k % disks, cursor[k % disks]});
            cursor[k % disks] += sectors;
            place += std::uint64_t{sectors} * kBlock;
        }
    }
    ~RawClip() {
        for (const int fd : fds_) {
            ::close(fd);
        }
    }

    template <bool kWriting>
    void Move(std::uint64_t offset, std::byte* buffer, std::uint64_t count) {
        const std::uint64_t header = fields_.front().start;
        if (offset < header) {
            const std::uint64_t part = std::min(count, header - offset);
            if constexpr (!kWriting) {
                std::memcpy(buffer, image_.data() + offset, part);
            }
            offset += part;
            buffer += part;
            count -= part;
        }
        if (count == 0 || cursor_ >= fields_.size() || offset < fields_[cursor_].start) {
            cursor_ = 0;
        }
        while (count > 0) {
            while (offset >= fields_[cursor_].start + fields_[cursor_].bytes) {
                cursor_ += 1;
            }
            const Field& field = fields_[cursor_];
            const std::uint64_t part = std::min(count, field.start + field.bytes - offset);
            MoveInField<kWriting>(field, offset - field.start, buffer, part);
            offset += part;
            buffer += part;
            count -= part;
        }
    }

  private:
    template <bool kWriting>
    void MoveInField(const Field& field, std::uint64_t within, std::byte* buffer, std::uint64_t count) {
        const int fd = fds_[field.disk];
        off_t place = static_cast<off_t>(field.lba) * kBlock + static_cast<off_t>(within);
        const std::uint64_t head = std::min<std::uint64_t>(count, (kBlock - within % kBlock) % kBlock);
        if (head > 0) {
            MovePartial<kWriting>(fd, place, buffer, head);
        }
        place += static_cast<off_t>(head);
        buffer += head;
        const std::uint64_t whole = (count - head) / kBlock * kBlock;
        if (whole > 0) {
            const ssize_t moved = kWriting ? ::pwrite(fd, buffer, whole, place) : ::pread(fd, buffer, whole, place);
            benchmark::DoNotOptimize(moved);
        }
        if (const std::uint64_t tail = count - head - whole; tail > 0) {
            MovePartial<kWriting>(fd, place + static_cast<off_t>(whole), buffer + whole, tail);
        }
    }

    template <bool kWriting>
    void MovePartial(int fd, off_t place, std::byte* buffer, std::uint64_t count) {
        const off_t sector = place / kBlock * kBlock;
        ssize_t moved = ::pread(fd, sector_, kBlock, sector);
        if constexpr (kWriting) {
            std::memcpy(sector_ + (place - sector), buffer, count);
            moved += ::pwrite(fd, sector_, kBlock, sector);
        } else {
            std::memcpy(buffer, sector_ + (place - sector), count);
        }
        benchmark::DoNotOptimize(moved);
    }

    const std::vector<std::byte>& image_;
    std::vector<int> fds_;
    std::vector<Field> fields_;
    std::size_t cursor_ = 0;
    alignas(512) std::byte sector_[kBlock];
};

double SecondsOf(Clock::time_point begin, Clock::time_point end) {
    return std::chrono::duration<double>(end - begin).count();
}

struct ClipOnDisk {
    BenchStation station;
    std::vector<std::byte> image;
    host::ScopedHandle file;

    explicit ClipOnDisk(std::uint32_t disks) : station(disks) {
        clip::ClipRecipe recipe;
        recipe.frames = 100;  // about 35 MB of bars
        image = clip::MakeClipImage(recipe);
        station.Format(disks);
        station.MakeFolder(u"\\RZV\\V\\F");
        auto made = station.Open(u"\\RZV\\V\\F\\C.RZV", host::Disposition::kCreate,
                                 host::access::kReadData | host::access::kWriteData);
        Need(station.User().Write(made.Get(), image, 0).status, "record");
        made.Reset();
        file = station.Open(u"\\RZV\\V\\F\\C.RZV", host::Disposition::kOpen,
                            host::access::kReadData | host::access::kWriteData);
    }
};

void Play(benchmark::State& state) {
    const auto disks = static_cast<std::uint32_t>(state.range(0));
    const auto request = static_cast<std::uint64_t>(state.range(1));
    ClipOnDisk clip(disks);
    RawClip raw(clip.station, disks, clip.image);
    std::vector<std::byte> storage(request + 4096);
    auto* buffer = reinterpret_cast<std::byte*>((reinterpret_cast<std::uintptr_t>(storage.data()) + 4095) & ~4095ull);
    double driverTime = 0;
    double rawTime = 0;
    for (auto _ : state) {
        const auto begin = Clock::now();
        for (std::uint64_t done = 0; done < clip.image.size(); done += request) {
            const std::uint64_t count = std::min<std::uint64_t>(request, clip.image.size() - done);
            Need(clip.station.User().Read(clip.file.Get(), {buffer, count}, done).status, "read");
        }
        const auto middle = Clock::now();
        for (std::uint64_t done = 0; done < clip.image.size(); done += request) {
            raw.Move<false>(done, buffer, std::min<std::uint64_t>(request, clip.image.size() - done));
        }
        driverTime += SecondsOf(begin, middle);
        rawTime += SecondsOf(middle, Clock::now());
        state.SetIterationTime(SecondsOf(begin, middle));
    }
    state.counters["share"] = rawTime / driverTime;
    state.SetBytesProcessed(static_cast<std::int64_t>(clip.image.size()) * state.iterations());
}

// Writes over the frame data of a clip that stands: the header is committed once, as when an application edits in
// place.
void Record(benchmark::State& state) {
    const auto disks = static_cast<std::uint32_t>(state.range(0));
    const auto request = static_cast<std::uint64_t>(state.range(1));
    ClipOnDisk clip(disks);
    clip.file.Reset();
    auto file = clip.station.Open(u"\\RZV\\V\\F\\N.RZV", host::Disposition::kCreate,
                                  host::access::kReadData | host::access::kWriteData);
    std::uint32_t header = 0;
    std::memcpy(&header, clip.image.data() + 12, sizeof(header));
    Need(clip.station.User().Write(file.Get(), std::span(clip.image).first(header + 16), 0).status, "header");
    RawClip raw(clip.station, disks, clip.image);
    const std::uint64_t begin0 = header + 16;
    double driverTime = 0;
    double rawTime = 0;
    for (auto _ : state) {
        const auto begin = Clock::now();
        for (std::uint64_t done = begin0; done < clip.image.size(); done += request) {
            const std::uint64_t count = std::min<std::uint64_t>(request, clip.image.size() - done);
            Need(clip.station.User().Write(file.Get(), std::span(clip.image).subspan(done, count), done).status,
                 "write");
        }
        const auto middle = Clock::now();
        for (std::uint64_t done = begin0; done < clip.image.size(); done += request) {
            raw.Move<true>(done, clip.image.data() + done, std::min<std::uint64_t>(request, clip.image.size() - done));
        }
        driverTime += SecondsOf(begin, middle);
        rawTime += SecondsOf(middle, Clock::now());
        state.SetIterationTime(SecondsOf(begin, middle));
    }
    state.counters["share"] = rawTime / driverTime;
    state.SetBytesProcessed(static_cast<std::int64_t>(clip.image.size()) * state.iterations());
}

BENCHMARK(Play)->ArgsProduct({{1, 2, 4}, {64 << 10, 1 << 20}})->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Record)->ArgsProduct({{1, 2, 4}, {64 << 10, 1 << 20}})->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace bench

BENCHMARK_MAIN();
