// Disks that lie: pieces of the volume, folder and file records and body tables are overwritten, with right checksums
// or without, and the volume is mounted, listed, read, written and deleted from.
#include "fuzz/fuzz_station.h"
#include "volume/records.h"

namespace fuzz {
namespace {

constexpr std::size_t kBlock = 512;

// The records that are worth damaging, found once by their magic.
struct Target {
    std::uint32_t disk;
    std::size_t offset;
    std::size_t size;
};

std::vector<Target> FindTargets(const std::vector<std::vector<std::byte>>& images) {
    std::vector<Target> targets;
    for (std::uint32_t disk = 0; disk < images.size(); ++disk) {
        for (std::size_t offset = 0; offset + 2 * kBlock <= images[disk].size(); offset += kBlock) {
            std::uint32_t magic = 0;
            std::memcpy(&magic, images[disk].data() + offset, sizeof(magic));
            if (magic == kVolumeEntryMagic || magic == kFileEntryMagic) {
                targets.push_back({disk, offset, 2 * kBlock});
            } else if (magic == kDirEntryMagic) {
                targets.push_back({disk, offset, 18 * kBlock});
            }
        }
    }
    // Slots that hold no folder yet can be made to.
    const std::size_t slots = (kDiskBytes / kBlock - 4608) * kBlock;
    targets.push_back({0, slots + 5 * 18 * kBlock, 18 * kBlock});
    return targets;
}

void MendChecksum(std::byte* record, std::size_t size) {
    std::uint32_t magic = 0;
    std::memcpy(&magic, record, sizeof(magic));
    if (size == sizeof(DirEntry)) {
        auto* entry = reinterpret_cast<DirEntry*>(record);
        entry->Checksum = VrkFsHwCalcFolderChecksum(entry);
    } else if (magic == kFileEntryMagic) {
        auto* entry = reinterpret_cast<FileEntry*>(record);
        entry->Checksum = VrkFsHwCalcFileChecksum(entry);
    } else {
        auto* entry = reinterpret_cast<VolumeEntry*>(record);
        entry->Checksum = VrkFsHwCalcVolumeChecksum(entry);
    }
}

void Damage(Input& input, std::vector<std::vector<std::byte>>& images, const std::vector<Target>& targets) {
    for (int i = 0; i < 12 && !input.Empty(); ++i) {
        const Target& target = targets[input.Take<std::uint8_t>() % targets.size()];
        const std::size_t place = input.Take<std::uint16_t>() % target.size;
        const auto how = input.Take<std::uint8_t>();
        const auto bytes = input.TakeBytes(1 + how % 16);
        std::byte* record = images[target.disk].data() + target.offset;
        std::memcpy(record + place, bytes.data(), std::min(bytes.size(), target.size - place));
        if ((how & 0x80) == 0) {
            MendChecksum(record, target.size);
        }
    }
}

}  // namespace
}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static fuzz::FuzzStation station;
    static const std::vector<fuzz::Target> targets = fuzz::FindTargets(station.Images());
    fuzz::Input input(data, size);
    auto images = station.Images();
    fuzz::Damage(input, images, targets);
    station.WriteImages(images);
    auto machine = station.Start();
    {
        auto user = machine->NewProcess();
        fuzz::Walk(*user).Everything();
    }
    fuzz::FuzzStation::Stop(*machine);
    return 0;
}
