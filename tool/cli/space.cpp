#include <vrkfs/control.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "tool/advice.h"
#include "tool/card_control.h"
#include "tool/cli/commands.h"
#include "tool/cli/volume_choice.h"
#include "tool/text.h"

namespace tool {
namespace {

constexpr std::uint64_t kBlockBytes = 512;

struct Measured {
    std::string name;
    VolumeSpace space;
    bool known = false;
    std::string state;  // why it is not known
};

Measured Measure(Session& session, const host::CardFacts& card, const Volume& volume) {
    Measured row{DisplayName(volume.name), {}, false, {}};
    if ((volume.flags & VRKFS_VOLUME_HIDDEN) != 0) {
        row.state = (volume.flags & VRKFS_VOLUME_INCOMPLETE) != 0 ? "incomplete" : "name conflict";
        return row;
    }
    const host::Status status = MeasureVolume(session.Process(), card.index, card.driveLetter, volume.name, row.space);
    row.known = status.Ok();
    row.state = status.Ok() ? "" : host::StatusName(status);
    return row;
}

std::string Line(const std::string& drive, const std::string& name, std::size_t width, const std::string& total,
                 const std::string& used, const std::string& free, const std::string& share) {
    return PadRight(drive, 5) + "  " + PadRight(name, width) + PadLeft(total, 11) + PadLeft(used, 11) +
           PadLeft(free, 11) + PadLeft(share, 7);
}

std::string ShareOf(const VolumeSpace& space) {
    const std::uint64_t used = space.totalBytes - std::min(space.freeBytes, space.totalBytes);
    const double percent =
        space.totalBytes == 0 ? 0 : 100 * static_cast<double>(used) / static_cast<double>(space.totalBytes);
    char text[16];
    std::snprintf(text, sizeof(text), "%.0f %%", percent);
    return text;
}

void ReportSpace(const Output& output, const std::string& drive, const std::string& name, bool total, std::size_t width,
                 const VolumeSpace& space) {
    const std::uint64_t used = space.totalBytes - std::min(space.freeBytes, space.totalBytes);
    Json fields{{"drive", drive}};
    fields[total ? "volumes" : "volume"] = total ? Json("all") : Json(name);
    fields.update(Json{{"total_bytes", space.totalBytes}, {"used_bytes", used}, {"free_bytes", space.freeBytes}});
    output.Report(Line(drive, total ? "all" : name, width, FormatBytes(space.totalBytes), FormatBytes(used),
                       FormatBytes(space.freeBytes), ShareOf(space)),
                  fields);
}

Result ShowCard(Session& session, const Output& output, const host::CardFacts& card, std::size_t& width) {
    std::vector<Volume> volumes;
    const host::Status status = ListVolumes(session.Process(), card.index, volumes);
    if (!status.Ok()) {
        return DriverFailure(Operation::kListVolumes, "cannot list the volumes of card " + std::to_string(card.index),
                             status);
    }
    const std::string drive{card.driveLetter, ':'};
    VolumeSpace sum;
    for (const Volume& volume : volumes) {
        const Measured row = Measure(session, card, volume);
        if (!row.known) {
            output.Report(Line(drive, row.name, width, "-", "-", "-", "-") + "  " + row.state,
                          {{"drive", drive},
                           {"volume", row.name},
                           {"total_bytes", nullptr},
                           {"used_bytes", nullptr},
                           {"free_bytes", nullptr},
                           {"state", row.state}});
            continue;
        }
        ReportSpace(output, drive, row.name, false, width, row.space);
        sum.totalBytes += row.space.totalBytes;
        sum.freeBytes += row.space.freeBytes;
    }
    ReportSpace(output, drive, {}, true, width, sum);
    return std::nullopt;
}

Result ShowDrives(Session& session, const Output& output) {
    std::size_t width = DisplayWidth("VOLUME");
    for (const host::CardFacts& card : session.Cards()) {
        std::vector<Volume> volumes;
        if (ListVolumes(session.Process(), card.index, volumes).Ok()) {
            for (const Volume& volume : volumes) {
                width = std::max(width, DisplayWidth(DisplayName(volume.name)));
            }
        }
    }
    output.Text(Line("DRIVE", "VOLUME", width, "TOTAL", "USED", "FREE", "USED"));
    for (const host::CardFacts& card : session.Cards()) {
        if (Result failure = ShowCard(session, output, card, width)) {
            return failure;
        }
    }
    return std::nullopt;
}

struct EstimateOptions {
    std::string path;
    std::uint32_t video = 0;
    std::uint32_t alpha = 0;
};

std::string Duration(std::uint64_t frames, std::uint32_t rate) {
    const std::uint64_t seconds = frames / rate;
    char text[48];
    std::snprintf(text, sizeof(text), "%llu:%02llu:%02llu at %u a second",
                  static_cast<unsigned long long>(seconds / 3600), static_cast<unsigned long long>(seconds / 60 % 60),
                  static_cast<unsigned long long>(seconds % 60), rate);
    return text;
}

Result Estimate(Session& session, const Output& output, const EstimateOptions& options, const DrivePath& path) {
    const std::string what = "cannot measure " + path.Display();
    if (path.Depth() < kVolumeLevel || path.Depth() > kFileLevel) {
        return UsageFailure(path.Display() + " lies on no volume", "give P:/RZV/VOLUME");
    }
    host::OpenRequest request;
    request.path = path.Open();
    request.access = host::access::kReadAttributes;
    const host::OpenResult opened = session.Process().Create(request);
    if (!opened.status.Ok()) {
        return DriverFailure(Operation::kList, what, opened.status);
    }
    const host::ScopedHandle handle(session.Process(), opened.handle);
    CardControl control(session.Process(), path.card);
    VrkFsVolumeSpaceInfo info{};
    info.Handle = opened.handle;
    info.VideoBlocksPerFrame = options.video;
    info.AlphaBlocksPerFrame = options.alpha;
    const host::Status status = control.Exchange(IOCTL_VRKFS_GET_VOLUME_SPACE_INFO, info);
    if (!status.Ok()) {
        return DriverFailure(Operation::kList, what, status);
    }
    DrivePath volume = path;
    volume.names.resize(kVolumeLevel);
    output.Report(volume.Display() + ": " + std::to_string(info.FrameEstimate) + " frames in one piece (" +
                      Duration(info.FrameEstimate, 25) + ", " + Duration(info.FrameEstimate, 30) + "), " +
                      FormatBytes(info.FreeBlocks * kBlockBytes) + " free",
                  {{"volume", volume.Display()},
                   {"video_blocks", options.video},
                   {"alpha_blocks", options.alpha},
                   {"frames", info.FrameEstimate},
                   {"free_bytes", info.FreeBlocks * kBlockBytes},
                   {"total_bytes", info.TotalBlocks * kBlockBytes},
                   {"last_data_block", info.LastBlock}});
    return std::nullopt;
}

Result EstimateAll(Session& session, const Output& output, const EstimateOptions& options) {
    return ForEachVolume(session, [&](const DrivePath& path, const Volume& volume) -> Result {
        VolumeSpace space;
        if ((volume.flags & VRKFS_VOLUME_HIDDEN) != 0 ||
            !MeasureVolume(session.Process(), path.card, path.drive, volume.name, space).Ok()) {
            output.Notice("volume " + DisplayName(volume.name) + " cannot be opened: see vrkfs volumes");
            return std::nullopt;
        }
        return Estimate(session, output, options, path);
    });
}

int RunEstimate(const CommonOptions& common, const EstimateOptions& options) {
    const Output output("space", common.json);
    if (options.video == 0) {
        return output.Fail(UsageFailure("--video wants the blocks of one field, 1 or more"));
    }
    if (options.path.empty()) {
        return RunOnStation(common, output, [&](Session& session) { return EstimateAll(session, output, options); });
    }
    return RunOnPath(common, output, options.path,
                     [&](Session& session, const DrivePath& path) { return Estimate(session, output, options, path); });
}

void AddDf(CLI::App& app, CommonOptions& common) {
    CLI::App* command = AddCommand(
        app, "df", "Say how much of each volume, and of each drive, is used and free",
        R"(The last line of a drive is the sum of its volumes; those that cannot be opened count nothing. Programs that ask the
drive itself are never told that less than 200 MiB are free.

  vrkfs df
  vrkfs df --json | jq 'select(.volumes == "all").free_bytes')");
    command->callback([&common] {
        const Output output("df", common.json);
        Finish(RunOnStation(common, output, [&](Session& session) { return ShowDrives(session, output); }));
    });
}

void AddEstimate(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<EstimateOptions>();
    CLI::App* command = AddCommand(
        app, "space", "Estimate how many frames can be recorded on a volume",
        R"(A recording takes one piece, so what counts is the largest free run, not the sum of what is free: vrkfs defrag makes it
larger. BLOCKS is what one field takes on its disk, in blocks of 512 bytes: 684 for uncompressed 8-bit video of 525
lines, 810 of 625. Without PATH every volume is told.

  vrkfs space --video 810
  vrkfs space P:/RZV/NEWS --video 684 --alpha 684)");
    command->add_option("PATH", options->path, "P:/RZV/VOLUME, or anything on it");
    command->add_option("--video", options->video, "blocks of a video field")->required()->type_name("BLOCKS");
    command->add_option("--alpha", options->alpha, "blocks of an alpha field; 0 without alpha")->type_name("BLOCKS");
    command->callback([options, &common] { Finish(RunEstimate(common, *options)); });
}

}  // namespace

void AddSpace(CLI::App& app, CommonOptions& common) {
    AddDf(app, common);
    AddEstimate(app, common);
}

}  // namespace tool
