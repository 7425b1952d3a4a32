// Records a clip and plays it while it is being recorded, on a machine in a temporary directory. The recorder and the
// player are two user processes of that machine.
//
//   record_and_play [FRAMES [DISKS [alpha]]]
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <future>
#include <stdexcept>
#include <string>

#include "client/client.h"
#include "examples/player.h"
#include "examples/recorder.h"
#include "examples/session.h"
#include "host/machine.h"
#include "host/station.h"

namespace {

constexpr char16_t kFolder[] = u"P:\\RZV\\SHOW\\CLIPS";

class TemporaryStation {
  public:
    TemporaryStation(std::uint32_t disks, std::uint64_t diskBytes) {
        std::string pattern = (std::filesystem::temp_directory_path() / "vrkfs-example-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("cannot make a temporary directory");
        }
        directory_ = pattern;
        host::StationLayout layout;
        layout.disks = disks;
        layout.diskBytes = diskBytes;
        host::Problem problem = host::CreateStation(directory_ / "station", layout);
        if (!problem) {
            machine_ = host::Machine::Start(directory_ / "station", {}, problem);
        }
        if (problem) {
            Remove();
            throw std::runtime_error(problem.what);
        }
    }
    ~TemporaryStation() {
        machine_.reset();
        Remove();
    }
    TemporaryStation(const TemporaryStation&) = delete;
    TemporaryStation& operator=(const TemporaryStation&) = delete;

    client::ClientPointer NewClient() { return client::MakeClient(machine_->NewProcess()); }

  private:
    void Remove() {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }

    std::filesystem::path directory_;
    std::unique_ptr<host::Machine> machine_;
};

void MakeVolume(VrkFsClient* client, std::uint32_t disks) {
    examples::Session session(client);
    session.OpenCard(0);
    VrkFsVolumeInfoRecord volume{};
    std::u16string(u"SHOW").copy(volume.Name, VRKFS_VOLUME_NAME_CHARS);
    volume.DeviceCount = disks;
    for (std::uint32_t i = 0; i < VRKFS_VOLUME_MAX_DEVICES; ++i) {
        volume.Devices[i] = i < disks ? i : VRKFS_NO_DEVICE;
    }
    std::int32_t result = 0;
    examples::Need(VrkFsClientFormatVolume(client, session.control, &volume, &result), "format");
    if (result != VRKFS_RESULT_DONE) {
        throw std::runtime_error("format: refused with " + std::to_string(result));
    }
    examples::Need(
        VrkFsClientOpenFile(client, kFolder, VRKFS_OPEN_READ | VRKFS_OPEN_CREATE | VRKFS_OPEN_FOLDER, &session.file),
        "make the folder");
}

int Run(std::uint32_t frames, std::uint32_t disks, bool alpha) {
    examples::RecordOrder record;
    record.path = std::u16string(kFolder) + u"\\CLIP.RZV";
    record.frames = frames;
    record.reservedFrames = frames;
    record.alpha = alpha;
    const std::uint64_t blocks = std::uint64_t{frames} * 4 * record.pattern.maxSectors / disks;
    TemporaryStation station(disks, (blocks + (64 << 10)) * VRKFS_SECTOR_SIZE);
    MakeVolume(station.NewClient().get(), disks);

    examples::PlayOrder play;
    play.path = record.path;
    auto playing = std::async(std::launch::async, [&] { return examples::Play(station.NewClient().get(), play); });
    examples::Record(station.NewClient().get(), record);
    const examples::PlayReport report = playing.get();
    std::printf("recorded %u frames on %u disks%s\n", frames, disks, alpha ? " with alpha" : "");
    std::printf("played %u frames, %u of them while they were being recorded; %u fields were wrong\n",
                report.fields / VRKFS_FIELDS_PER_FRAME, report.liveFields / VRKFS_FIELDS_PER_FRAME, report.wrongFields);
    return report.ended && report.wrongFields == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

std::uint32_t Number(const char* text, std::uint32_t least, std::uint32_t most) {
    const unsigned long number = std::stoul(text);
    if (number < least || number > most) {
        throw std::runtime_error(std::string(text) + " is not between " + std::to_string(least) + " and " +
                                 std::to_string(most));
    }
    return static_cast<std::uint32_t>(number);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const std::uint32_t frames = argc > 1 ? Number(argv[1], 1, 3000) : 100;
        const std::uint32_t disks = argc > 2 ? Number(argv[2], 1, 6) : 2;
        return Run(frames, disks, argc > 3 && std::string(argv[3]) == "alpha");
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "record_and_play: %s\n", problem.what());
        return EXIT_FAILURE;
    }
}
