// Moving a clip's video data on its disks, against the same blocks copied raw: as cp does, through a buffer of its own,
// on the same image files. Both are timed in turn in one run; "share" is raw time over driver time.
#include <benchmark/benchmark.h>
#include <fcntl.h>

#include <chrono>

#include "bench/bench_station.h"
#include "client/client.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::uint32_t kBlocks = 64 << 10;     // 32 MiB on each disk
constexpr std::size_t kCopyBuffer = 256 << 10;  // what cp moves at once

void NeedDone(VrkFsStatus status, const char* step) {
    Need(host::Status{status}, step);
}

// A clip whose data fills kBlocks blocks of each disk; what they hold makes no difference here.
class MovableClip {
  public:
    explicit MovableClip(std::uint32_t disks) : station_(disks), disks_(disks) {
        station_.Format(disks);
        station_.MakeFolder(u"\\RZV\\V\\F");
        client_ = client::MakeClient(station_.Machine().NewProcess());
        NeedDone(VrkFsClientOpenControl(client_.get(), 0, &control_), "open control device");
        NeedDone(
            VrkFsClientOpenFile(client_.get(), u"P:\\RZV\\V\\F\\C.RZV", VRKFS_OPEN_MOVER | VRKFS_OPEN_CREATE, &file_),
            "make the file");
        VrkFsVideoSpace space{};
        space.BodyTableBlocksWanted = 1;
        space.DataBlocksWanted = kBlocks;
        NeedDone(VrkFsClientAllocateVideoSpace(client_.get(), control_, file_, &space), "allocate");
        VrkFsVideoFileUpdate update{};
        update.FrameCount = 1;
        update.VideoBodyTableAllocated = update.VideoBodyTableUsed = space.BodyTableBlocks;
        update.VideoDataAllocated = update.VideoDataUsed = space.DataBlocks;
        update.VideoDataLength = std::uint64_t{kBlocks} * disks;
        update.Flags = VRKFS_UPDATE_VIDEO;
        NeedDone(VrkFsClientUpdateVideoFile(client_.get(), control_, file_, &update), "settle");
        lba_ = space.DataLba;
        NeedDone(VrkFsClientAllocateBuffer(client_.get(), sizeof(std::uint32_t), &progress_), "get a counter");
        for (std::uint32_t disk = 0; disk < disks; ++disk) {
            fds_.push_back(::open(station_.Image(disk).c_str(), O_RDWR | O_CLOEXEC));
            const std::vector<std::byte> content(kCopyBuffer, std::byte{0x5A});
            for (std::uint64_t place = 0; place < Bytes(1); place += kCopyBuffer) {
                benchmark::DoNotOptimize(::pwrite(fds_[disk], content.data(), content.size(), At(lba_) + place));
            }
        }
    }
    ~MovableClip() {
        client_.reset();
        for (const int fd : fds_) {
            ::close(fd);
        }
    }

    std::uint64_t Bytes(std::uint32_t disks) const { return std::uint64_t{kBlocks} * VRK_BLOCK_SIZE * disks; }
    std::uint32_t Lba() const { return lba_; }

    void Move(std::uint32_t lba) {
        VrkFsSegmentMove move{};
        move.NewLba[VRKFS_SEGMENT_DATA] = lba;
        NeedDone(VrkFsClientMoveFileSegments(client_.get(), control_, file_, &move, &progress_), "move");
        if (move.Results[VRKFS_SEGMENT_DATA] != VRKFS_RESULT_DONE || VrkFsClientReadProgress(&progress_) != kBlocks) {
            throw std::runtime_error("the data did not move");
        }
        lba_ = lba;
    }
    void CopyRaw(std::uint32_t to) {
        for (std::uint32_t disk = 0; disk < disks_; ++disk) {
            for (std::uint64_t place = 0; place < Bytes(1); place += kCopyBuffer) {
                ssize_t moved = ::pread(fds_[disk], buffer_.data(), kCopyBuffer, At(lba_) + place);
                moved += ::pwrite(fds_[disk], buffer_.data(), kCopyBuffer, At(to) + place);
                if (moved != 2 * static_cast<ssize_t>(kCopyBuffer)) {
                    throw std::runtime_error("the raw copy failed");
                }
            }
        }
    }

  private:
    static off_t At(std::uint32_t lba) { return static_cast<off_t>(lba) * VRK_BLOCK_SIZE; }

    BenchStation station_;
    std::uint32_t disks_;
    client::ClientPointer client_;
    VrkFsHandle control_ = 0;
    VrkFsHandle file_ = 0;
    VrkFsBuffer progress_ = {};
    std::uint32_t lba_ = 0;
    std::vector<int> fds_;
    std::vector<std::byte> buffer_ = std::vector<std::byte>(kCopyBuffer);
};

// `slide` blocks further and back: 0 for a move to a place apart.
void MoveSegment(benchmark::State& state) {
    const auto disks = static_cast<std::uint32_t>(state.range(0));
    const auto slide = static_cast<std::uint32_t>(state.range(1));
    MovableClip clip(disks);
    const std::uint32_t places[] = {clip.Lba(), clip.Lba() + (slide != 0 ? slide : kBlocks)};
    const std::uint32_t aside = clip.Lba() + 2 * kBlocks;
    std::size_t at = 1;
    clip.Move(places[at]);  // so that the images have all the pages
    clip.CopyRaw(aside);
    double driverTime = 0;
    double rawTime = 0;
    for (auto _ : state) {
        at = 1 - at;
        const auto begin = Clock::now();
        clip.Move(places[at]);
        const auto middle = Clock::now();
        clip.CopyRaw(aside);
        const std::chrono::duration<double> moving = middle - begin;
        driverTime += moving.count();
        rawTime += std::chrono::duration<double>(Clock::now() - middle).count();
        state.SetIterationTime(moving.count());
    }
    state.counters["share"] = rawTime / driverTime;
    state.SetBytesProcessed(static_cast<std::int64_t>(clip.Bytes(disks)) * state.iterations());
}
BENCHMARK(MoveSegment)
    ->ArgsProduct({{1, 2, 4}, {0, 1000}})
    ->ArgNames({"disks", "slide"})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace bench
