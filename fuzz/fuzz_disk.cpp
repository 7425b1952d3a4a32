// Disks that lie: pieces of the volume, folder and file records and body tables are overwritten, with right checksums
// or without, and the volume is mounted, listed, read, written and deleted from. What was put must read back, and a
// clip that was readable and was not touched must stay as it was, now and after the next start.
#include "fuzz/fuzz_station.h"
#include "volume/records.h"

namespace fuzz {
namespace {

constexpr std::size_t kBlock = 512;
constexpr std::size_t kFolderSlots = (kDiskBytes / kBlock - kFolderAreaBlocks) * kBlock;

// What is worth damaging: the records, found by their magic, and the body tables that they name.
struct Target {
    std::uint32_t disk;
    std::size_t offset;  // bytes
    std::size_t size;
    bool record;
};

template <typename Record>
const Record& RecordAt(const std::vector<std::byte>& image, std::size_t offset) {
    return *reinterpret_cast<const Record*>(image.data() + offset);
}

void AddBodyTable(std::vector<Target>& targets, ULONG lba, ULONG blocks) {
    if (blocks != 0) {
        targets.push_back({0, lba * kBlock, blocks * kBlock, false});
    }
}

std::vector<Target> FindTargets(const FuzzStation& station) {
    std::vector<Target> targets;
    for (std::uint32_t disk = 0; disk < kDisks; ++disk) {
        const std::vector<std::byte>& image = station.Image(disk);
        for (std::size_t offset = 0; offset + kDirEntryBlocks * kBlock <= image.size(); offset += kBlock) {
            const auto magic = RecordAt<ULONG>(image, offset);
            const auto& file = RecordAt<FileEntry>(image, offset);
            if (magic == kVolumeEntryMagic) {
                targets.push_back({disk, offset, sizeof(VolumeEntry), true});
            } else if (magic == kDirEntryMagic && RecordAt<DirEntry>(image, offset).Name[0] != 'C') {
                targets.push_back({disk, offset, sizeof(DirEntry), true});
            } else if (magic == kFileEntryMagic && file.Name[0] != 'K') {
                targets.push_back({disk, offset, sizeof(FileEntry), true});
                AddBodyTable(targets, file.VideoBodyTableLba, file.VideoBodyTableBlockCount);
                AddBodyTable(targets, file.AlphaBodyTableLba, file.AlphaBodyTableBlockCount);
            }
        }
    }
    // A slot that holds no folder yet can be made to.
    targets.push_back({0, kFolderSlots + 5 * sizeof(DirEntry), sizeof(DirEntry), true});
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

// How a piece of damage is made.
constexpr std::uint8_t kRawBytes = 0x01;  // any bytes at any place, else a value into a field
constexpr std::uint8_t kLeaveChecksum = 0x80;
constexpr std::uint8_t kFields = 36;

// The fields of all records are 32-bit words near their start; then come a table's or a name's first, and the last
// word.
std::size_t FieldOffset(const Target& target, std::uint8_t field) {
    switch (field % kFields) {
        case 33:
            return 512;
        case 34:
            return 516;
        case 35:
            return target.size - 4;
        default:
            return field % kFields * 4;
    }
}

// Edges, and places on the disk where something is.
std::uint32_t ValueOf(const std::vector<Target>& targets, std::uint8_t choice) {
    const std::size_t index = choice % (std::size(kEdges) + targets.size());
    return index < std::size(kEdges) ? kEdges[index]
                                     : static_cast<std::uint32_t>(targets[index - std::size(kEdges)].offset / kBlock);
}

void Damage(Input& input, const FuzzStation& station, const std::vector<Target>& targets) {
    for (int i = 0; i < 12 && !input.Empty(); ++i) {
        const Target& target = targets[input.Take<std::uint8_t>() % targets.size()];
        const auto how = input.Take<std::uint8_t>();
        std::byte* bytes = station.Disk(target.disk) + target.offset;
        if ((how & kRawBytes) != 0) {
            const std::size_t place = input.Take<std::uint16_t>() % target.size;
            const auto raw = input.TakeBytes(1 + (how >> 1) % 16);
            std::memcpy(bytes + place, raw.data(), std::min(raw.size(), target.size - place));
        } else {
            const std::size_t place = std::min(FieldOffset(target, input.Take<std::uint8_t>()), target.size - 4);
            const std::uint32_t value = ValueOf(targets, input.Take<std::uint8_t>());
            std::memcpy(bytes + place, &value, sizeof(value));
        }
        if (target.record && (how & kLeaveChecksum) == 0) {
            MendChecksum(bytes, target.size);
        }
    }
}

}  // namespace

// Each field of a record of each kind once, with the next value.
void WriteSeeds(Seeds& seeds) {
    const std::vector<Target> targets = FindTargets(FuzzStation());
    std::uint8_t value = 0;
    for (std::size_t i = 0; i < targets.size(); ++i) {
        const auto isSame = [&](const Target& other) {
            return other.size == targets[i].size && other.record == targets[i].record && other.disk == targets[i].disk;
        };
        if (std::any_of(targets.begin(), targets.begin() + static_cast<std::ptrdiff_t>(i), isSame)) {
            continue;
        }
        const auto target = static_cast<std::uint8_t>(i);
        for (std::uint8_t field = 0; field < kFields; ++field) {
            seeds.Add({target, 0, field, value++});
        }
        seeds.Add({target, kLeaveChecksum, 2, 1});
    }
}

}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static fuzz::FuzzStation station;
    static const std::vector<fuzz::Target> targets = fuzz::FindTargets(station);
    fuzz::Input input(data, size);
    station.Restore();
    fuzz::Damage(input, station, targets);
    auto machine = station.Start();
    bool kept = false;
    {
        auto user = machine->NewProcess();
        kept = fuzz::HoldsTheClip(*user, fuzz::kKept);
        fuzz::Walk(*user).Everything();
        fuzz::Demand(!kept || fuzz::HoldsTheClip(*user, fuzz::kKept), "a clip that nobody touched has changed");
    }
    fuzz::FuzzStation::Stop(*machine);
    if (kept && size % 4 == 3) {  // it takes as long as all before
        machine.reset();          // lets go of the station
        machine = station.Start();
        fuzz::Demand(fuzz::HoldsTheClip(*machine->NewProcess(), fuzz::kKept),
                     "a clip that nobody touched is lost after the next start");
        fuzz::FuzzStation::Stop(*machine);
    }
    return 0;
}
