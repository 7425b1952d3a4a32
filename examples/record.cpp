// A recorder as a program of its own: records a clip through the daemon of a station.
//
//   record SOCKET P:/RZV/VOLUME/FOLDER/CLIP [frames=N] [rate=N] [seed=N] [sectors=N] [alpha=1]
//
// At `rate` frames a second, 0 as fast as the disks take them; fields have up to `sectors` sectors.
#include "examples/recorder.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <thread>

#include "examples/arguments.h"
#include "examples/session.h"

namespace {

constexpr std::uint32_t kMostFrames = 1'000'000;

void Record(const examples::Arguments& arguments) {
    examples::RecordOrder order;
    order.path = arguments.Path();
    order.frames = order.reservedFrames = arguments.Small("frames", kMostFrames);
    order.alpha = arguments.Number("alpha") != 0;
    order.pattern.seed = arguments.Number("seed");
    order.pattern.maxSectors = arguments.Small("sectors", VRKFS_FIELD_MAX_SECTORS);
    order.pattern.minSectors = order.pattern.maxSectors - order.pattern.maxSectors / 8;

    const std::uint32_t rate = arguments.Small("rate", 1000);
    const auto start = std::chrono::steady_clock::now();
    order.watch = [&](examples::RecordStep step, std::uint32_t fields) {
        if (step == examples::RecordStep::kField && rate != 0) {
            std::this_thread::sleep_until(start + std::chrono::microseconds{fields} * 1'000'000 /
                                                      VRKFS_FIELDS_PER_FRAME / rate);
        }
        return true;
    };
    VrkFsClient* connected = nullptr;
    examples::Need(VrkFsClientConnect(arguments.Socket(), &connected), "connect");
    const examples::ConnectedClient client(connected);
    (void)examples::Record(client.get(), order);  // the watch never stops it
    std::printf("recorded %u frames\n", order.frames);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        Record({argc, argv, {{"frames", 250}, {"rate", 25}, {"seed", 1}, {"sectors", 810}, {"alpha", 0}}});
        return EXIT_SUCCESS;
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "record: %s\n", problem.what());
        return EXIT_FAILURE;
    }
}
