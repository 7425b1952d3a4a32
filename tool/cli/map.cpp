#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <system_error>

#include "tool/advice.h"
#include "tool/cli/commands.h"
#include "tool/cli/volume_choice.h"
#include "tool/clip/files.h"
#include "tool/interrupt.h"
#include "tool/text.h"
#include "tool/volume_map.h"

namespace tool {
namespace {

struct MapOptions {
    std::string path;
    std::string svg;
};

std::size_t Columns() {
    struct winsize size {};
    return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

std::string Title(const VolumePlacement& placement, const VolumeMap& map) {
    const std::size_t disks = map.disks;
    return placement.path.Display() + ": " + FormatBytes(std::uint64_t{map.area.count} * kDiskBlockBytes * disks) +
           " on " + std::to_string(disks) + (disks == 1 ? " disk" : " disks");
}

void ReportRanges(const Output& output, const VolumePlacement& placement, const VolumeMap& map) {
    for (const MapRange& range : map.ranges) {
        Json fields{{"first", range.blocks.first}, {"blocks", range.blocks.count}, {"use", UseName(range.use)}};
        if (range.owner != nullptr) {
            const FolderPlacement& folder = placement.folders[range.owner->folder];
            fields["path"] = placement.PathOf(folder, folder.files[range.owner->file]).Display();
        }
        output.Object(fields);
    }
    Json summary{{"volume", placement.path.Display()},
                 {"disks", map.disks},
                 {"first", map.area.first},
                 {"blocks", map.area.count},
                 {"free_runs", map.free.runs},
                 {"largest_free_first", map.free.largest.first},
                 {"largest_free_blocks", map.free.largest.count},
                 {"unaccounted_blocks", map.unaccountedBlocks}};
    for (std::size_t use = 0; use < kUses; ++use) {
        summary[std::string(UseName(static_cast<Use>(use))) + "_bytes"] = map.BytesOf(static_cast<Use>(use));
    }
    output.Object(summary);
}

void ReportPicture(const Output& output, const std::string& title, const VolumeMap& map) {
    const bool colours = ::isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr;
    output.Text(title);
    for (const std::string& line : DrawText(map, Columns(), colours)) {
        output.Text(line);
    }
    output.Text(DescribeLargest(map.free, map.disks));
}

// What the picture cannot show.
void NoticeUnknown(const Output& output, const VolumePlacement& placement, const VolumeMap& map) {
    if (!placement.Whole()) {
        output.Notice("some folders or files could not be asked: what looks free may be theirs; see vrkfs events");
    } else if (map.unaccountedBlocks != 0) {
        output.Notice(std::to_string(map.unaccountedBlocks) +
                      " blocks look free, but the driver keeps them: see vrkfs events");
    }
}

Result WriteSvg(const Output& output, const MapOptions& options, const std::string& title, const VolumeMap& map) {
    const std::string svg = DrawSvg(map, title);
    try {
        clip::ClipOutput file(options.svg);
        file.Write(std::as_bytes(std::span(svg)));
        file.Commit();
    } catch (const std::system_error& error) {
        return Failure{.what = error.what(), .advice = "check the place and its free space"};
    }
    if (options.svg != "-") {
        output.Report(options.svg + ": " + title, {{"svg", options.svg}, {"bytes", svg.size()}});
    }
    return std::nullopt;
}

Result ShowMap(Session& session, const Output& output, const MapOptions& options, const DrivePath& path) {
    VolumePlacement placement;
    const host::Status status = ReadVolumePlacement(session.Process(), path, placement,
                                                    [](std::size_t, std::size_t) { return !Interrupted(); });
    if (status == host::status::kCancelled) {
        return StoppedFailure();
    }
    if (!status.Ok()) {
        return DriverFailure(Operation::kList, "cannot read what lies on " + path.Display(), status);
    }
    const VolumeMap map(placement);
    const std::string title = Title(placement, map);
    NoticeUnknown(output, placement, map);
    if (!options.svg.empty()) {
        return WriteSvg(output, options, title, map);
    }
    if (output.IsJson()) {
        ReportRanges(output, placement, map);
    } else {
        ReportPicture(output, title, map);
    }
    return std::nullopt;
}

}  // namespace

void AddMap(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<MapOptions>();
    CLI::App* command = AddCommand(
        app, "map", "Show a volume's space as a picture: what holds data, what is free",
        R"(Rows begin with the number of their first block; a block of data is there on each disk of the volume. Data lies at the
bottom, records and body tables at the top, and a recording needs one run of free blocks between them: the largest is
told last. NO_COLOR in the environment leaves the colours out. --json gives a line for each range, with the file that
has it, and the sums as the last line.

  vrkfs map                              the station's only volume
  vrkfs map P:/RZV/NEWS --svg news.svg
  vrkfs map P:/RZV/NEWS --json | jq 'select(.use == "free")')");
    command->add_option("PATH", options->path, "P:/RZV/VOLUME; left out: the only one there is");
    command->add_option("--svg", options->svg, "draw it into a file instead, - is standard output")->type_name("FILE");
    command->callback([options, &common] {
        const Output output("map", common.json, options->svg == "-");
        Finish(RunOnVolume(common, output, options->path, [&](Session& session, const DrivePath& path) {
            return ShowMap(session, output, *options, path);
        }));
    });
}

}  // namespace tool
