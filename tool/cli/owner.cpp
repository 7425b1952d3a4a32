#include <memory>
#include <optional>

#include "tool/advice.h"
#include "tool/cli/commands.h"
#include "tool/cli/volume_choice.h"
#include "tool/file_placement.h"
#include "tool/interrupt.h"
#include "tool/text.h"

namespace tool {
namespace {

struct OwnerOptions {
    std::uint32_t lba = 0;
    std::string volume;
};

// Who has a block, and as what. `everyDisk`: on each disk of the volume, not on its first one alone.
struct Owner {
    std::string path;  // empty: nobody
    std::string what;
    BlockRange range;
    bool everyDisk = false;
};

// More than one only where disks contradict themselves.
std::vector<Owner> FindOwners(const VolumePlacement& volume, std::uint32_t block) {
    std::vector<Owner> owners;
    if (block < kVolumeRecordBlocks) {
        owners.push_back({volume.path.Display(), "volume record", {0, kVolumeRecordBlocks}, true});
    }
    for (const FolderPlacement& folder : volume.folders) {
        if (folder.record.Has(block)) {
            owners.push_back({volume.PathOf(folder).Display(), "folder record", folder.record, false});
        }
        for (const FilePlacement& file : folder.files) {
            for (std::size_t index = 0; index < kSegments; ++index) {
                if (file.segments[index].Has(block)) {
                    const auto segment = static_cast<Segment>(index);
                    owners.push_back({volume.PathOf(folder, file).Display(), SegmentName(segment), file.segments[index],
                                      IsOnEveryDisk(segment)});
                }
            }
        }
    }
    return owners;
}

// What a block is that nobody owns.
const char* PlaceOf(const VolumePlacement& volume, std::uint32_t block) {
    if (block < kFirstDataBlock) {
        return "not used by the format";
    }
    if (block <= volume.lastDataBlock) {
        return volume.Whole() ? "free" : "free, or of a folder or file that could not be read";
    }
    const bool slot = block < volume.FolderRecord(kFolderSlots).first;
    return slot ? "place for a folder record, not in use" : "behind the volume";
}

void ReportOwners(const Output& output, const VolumePlacement& volume, std::uint32_t block) {
    const std::string head = volume.path.Display() + ": block " + std::to_string(block) + ": ";
    const std::vector<Owner> owners = FindOwners(volume, block);
    for (const Owner& owner : owners) {
        const std::string disks =
            owner.everyDisk ? "of every disk" : "of disk " + std::to_string(volume.devices.front());
        std::string line = head;
        line.append(owner.path).append(", ").append(owner.what);
        line.append(" (blocks ").append(std::to_string(owner.range.first)).append(" to ");
        line.append(std::to_string(owner.range.End() - 1)).append(" ").append(disks).append(")");
        output.Report(line,
                      {{"volume", volume.path.Display()},
                       {"block", block},
                       {"owner", owner.path},
                       {"as", owner.what},
                       {"first", owner.range.first},
                       {"blocks", owner.range.count},
                       {"disks", owner.everyDisk ? Json(volume.devices) : Json::array({volume.devices.front()})}});
    }
    if (owners.empty()) {
        const char* place = PlaceOf(volume, block);
        output.Report(head + place,
                      {{"volume", volume.path.Display()}, {"block", block}, {"owner", nullptr}, {"as", place}});
    }
}

Result ShowVolume(Session& session, const Output& output, const OwnerOptions& options, const DrivePath& path) {
    VolumePlacement placement;
    const host::Status status = ReadVolumePlacement(session.Process(), path, placement,
                                                    [](std::size_t, std::size_t) { return !Interrupted(); });
    if (status == host::status::kCancelled) {
        return StoppedFailure("nothing was changed");
    }
    if (!status.Ok()) {
        return DriverFailure(Operation::kList, "cannot read " + path.Display(), status);
    }
    ReportOwners(output, placement, options.lba);
    return std::nullopt;
}

// The volumes that are meant: by path, by name on whatever drive has it, or all.
Result ChooseVolumes(Session& session, const OwnerOptions& options, std::vector<DrivePath>& chosen) {
    std::optional<std::u16string> name;
    if (!options.volume.empty()) {
        std::string error;
        const auto typed = ParsePath(options.volume, error);
        if (!typed || typed->names.empty() || typed->names.size() > kVolumeLevel) {
            return UsageFailure(typed ? options.volume + " is no volume" : error, "give a name, or P:/RZV/VOLUME");
        }
        if (typed->names.size() == kVolumeLevel) {
            return session.Resolve(*typed, chosen.emplace_back());
        }
        name = typed->names.front();
    }
    Result failure = ForEachVolume(session, [&](const DrivePath& path, const Volume& volume) -> Result {
        if ((volume.flags & VRKFS_VOLUME_HIDDEN) == 0 && (!name || *name == volume.name)) {
            chosen.push_back(path);
        }
        return std::nullopt;
    });
    if (!failure && chosen.empty()) {
        return Failure{.what = "there is no volume" + (name ? " '" + DisplayName(*name) + "'" : std::string()),
                       .advice = "see vrkfs volumes (a name is taken as it is spelled there)"};
    }
    return failure;
}

}  // namespace

void AddOwner(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<OwnerOptions>();
    CLI::App* command = AddCommand(
        app, "owner", "Say whose a block of a disk is: which clip's or folder's, and as what",
        R"(LBA counts blocks of 512 bytes from the start of a disk, as disks name a bad one. A volume uses the same blocks on all
its disks for data, and those of its first disk for records and tables. Without --volume every volume is told.

  vrkfs owner 123456
  vrkfs owner 123456 --volume NEWS)");
    command->add_option("LBA", options->lba, "the block")->required();
    command->add_option("--volume", options->volume, "the volume's name, or P:/RZV/VOLUME")->type_name("V");
    command->callback([options, &common] {
        const Output output("owner", common.json);
        Finish(RunOnStation(common, output, [&](Session& session) -> Result {
            std::vector<DrivePath> chosen;
            Result failure = ChooseVolumes(session, *options, chosen);
            for (std::size_t index = 0; !failure && index < chosen.size(); ++index) {
                failure = ShowVolume(session, output, *options, chosen[index]);
            }
            return failure;
        }));
    });
}

}  // namespace tool
