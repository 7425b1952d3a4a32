#include "tool/defrag.h"

#include <algorithm>
#include <memory>

#include "tool/advice.h"
#include "tool/cli/commands.h"
#include "tool/cli/volume_choice.h"
#include "tool/interrupt.h"
#include "tool/text.h"

namespace tool {
namespace {

struct DefragOptions {
    std::string path;
    bool dryRun = false;
};

constexpr std::size_t kShownMoves = 20;  // of a plan that is carried out at once

std::string BlocksOf(BlockRange range) {
    return std::to_string(range.first) + ".." + std::to_string(range.End() - 1);
}

// "P:/RZV/NEWS/MONDAY/bars.rzv  data  5000..5119 to 1024, 60.0 KiB"
std::string LineOf(const Defragmenter::Move& move) {
    return move.path + "  " + SegmentName(move.segment) + "  " + BlocksOf(move.from) + " to " +
           std::to_string(move.to) + ", " + FormatBytes(move.bytes);
}

Json JsonOf(const Defragmenter::Move& move) {
    return {{"path", move.path},         {"segment", SegmentName(move.segment)},
            {"from", move.from.first},   {"to", move.to},
            {"blocks", move.from.count}, {"bytes", move.bytes}};
}

class DefragCommand {
  public:
    DefragCommand(Session& session, const Output& output, const DrivePath& path, bool dryRun)
        : output_(output), path_(path), dryRun_(dryRun), worker_(session.Process(), path) {}

    Result Run() {
        if (Result failure = Survey([](std::size_t, std::size_t) { return !Interrupted(); })) {
            return failure;
        }
        const FreeSpace before = worker_.Plan().before;
        ShowPlan();
        if (dryRun_) {
            ShowInTheWay();
            ShowSummary(before, worker_.Plan().after);
            return std::nullopt;
        }
        const host::Status status = Move();
        if (Result failure = Survey({})) {
            failure->state = Progressed();
            return failure;
        }
        const FreeSpace after = worker_.Plan().before;
        ShowInTheWay();
        ShowSummary(before, after);
        if (status == host::status::kCancelled) {
            return StoppedFailure(Progressed() + ", every file is whole; run it again to go on");
        }
        return status.Ok() ? std::nullopt
                           : Result(DriverFailure(Operation::kList, "cannot go on with " + path_.Display(), status));
    }

  private:
    Result Survey(const PlacementWatch& watch) {
        const host::Status status = worker_.Survey(watch);
        if (status == host::status::kCancelled) {
            return StoppedFailure("nothing was moved");
        }
        return status.Ok()
                   ? std::nullopt
                   : Result(DriverFailure(Operation::kList, "cannot read what lies on " + path_.Display(), status));
    }

    host::Status Move() {
        const std::size_t planned = worker_.Plan().moves.size();
        Progress progress(output_);
        const host::Status status = worker_.Run({
            .progress = [&](std::uint64_t done, std::uint64_t total) { return progress.Update(done, total); },
            .moved = [&](const Defragmenter::Move& move) { output_.Object(JsonOf(move)); },
        });
        if (planned != 0) {
            output_.Text(Progressed() + ", " + FormatRate(worker_.MovedBytes(), progress.Seconds()));
        }
        return status;
    }

    [[nodiscard]] std::string Progressed() const {
        return std::to_string(worker_.Moves()) + (worker_.Moves() == 1 ? " piece" : " pieces") + " moved, " +
               FormatBytes(worker_.MovedBytes());
    }

    void ShowPlan() const {
        const DefragPlan& plan = worker_.Plan();
        if (plan.moves.empty()) {
            output_.Text(path_.Display() + ": nothing to move" +
                         (plan.before.IsGathered() ? ", its free space is in one run" : ""));
            return;
        }
        output_.Text(path_.Display() + ": " + std::to_string(plan.moves.size()) +
                     (plan.moves.size() == 1 ? " move, " : " moves, ") + FormatBytes(plan.cost * kDiskBlockBytes) +
                     " to copy");
        const std::size_t shown = dryRun_ ? plan.moves.size() : std::min(plan.moves.size(), kShownMoves);
        for (std::size_t index = 0; index < shown; ++index) {
            const Defragmenter::Move move = worker_.Describe(plan.moves[index]);
            output_.Text("  " + LineOf(move));
            if (dryRun_) {
                output_.Object(JsonOf(move));
            }
        }
        if (shown < plan.moves.size()) {
            output_.Text("  and " + std::to_string(plan.moves.size() - shown) + " more (--dry-run shows all)");
        }
    }

    void ShowInTheWay() const {
        for (const DefragObstacle& obstacle : worker_.InTheWay()) {
            std::string text = "in the way: " + obstacle.path;
            Json fields{{"in_the_way", obstacle.path}, {"reason", obstacle.reason}};
            if (obstacle.blocks) {
                text += (obstacle.path.empty() ? "" : "  ") + obstacle.what + "  " + BlocksOf(obstacle.blocks);
                fields["segment"] = obstacle.what;
                fields["first"] = obstacle.blocks.first;
                fields["blocks"] = obstacle.blocks.count;
            }
            output_.Report(text + ": " + obstacle.reason, fields);
        }
    }

    void ShowSummary(const FreeSpace& before, const FreeSpace& after) const {
        const std::size_t disks = worker_.Placement().devices.size();
        const std::uint64_t blockBytes = kDiskBlockBytes * disks;
        const auto say = [&](const char* when, const FreeSpace& space) {
            output_.Text(PadRight(when, 8) + DescribeLargest(space, disks) + ", of " +
                         FormatBytes(space.blocks * blockBytes) + " free in " + std::to_string(space.runs) +
                         (space.runs == 1 ? " run" : " runs"));
        };
        say("before", before);
        say("after", after);
        output_.Object({{"volume", path_.Display()},
                        {"dry_run", dryRun_},
                        {"moves", dryRun_ ? worker_.Plan().moves.size() : worker_.Moves()},
                        {"bytes", dryRun_ ? worker_.Plan().cost * kDiskBlockBytes : worker_.MovedBytes()},
                        {"largest_free_bytes_before", before.largest.count * blockBytes},
                        {"largest_free_bytes_after", after.largest.count * blockBytes},
                        {"free_bytes", after.blocks * blockBytes},
                        {"gathered", after.IsGathered()}});
    }

    const Output& output_;
    const DrivePath& path_;
    bool dryRun_;
    Defragmenter worker_;
};

}  // namespace

void AddDefrag(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<DefragOptions>();
    CLI::App* command = AddCommand(
        app, "defrag", "Gather a volume's free space into one run",
        R"(A recording takes one run of free blocks for each stream, however much is free in all. defrag moves data down and
records up until what is free between them is one run. Each file is opened without sharing while a piece of it moves; a
file that is in use, or that cannot be read, stays where it is and is named as what stands in the way. Blocks are copied
disk to disk on the card, never over blocks that hold anything, so that at every moment each clip is whole. Ctrl-C stops
after the move in hand.

  vrkfs defrag --dry-run P:/RZV/NEWS     shows the moves, and moves nothing
  vrkfs defrag P:/RZV/NEWS
  vrkfs map P:/RZV/NEWS                  before and after)");
    command->add_option("PATH", options->path, "P:/RZV/VOLUME; left out: the only one there is");
    command->add_flag("--dry-run", options->dryRun, "show the plan and what stands in its way; write nothing");
    command->callback([options, &common] {
        common.onlyReads = options->dryRun;
        const Output output("defrag", common.json);
        Finish(RunOnVolume(common, output, options->path, [&](Session& session, const DrivePath& path) {
            Result refused =
                options->dryRun ? std::nullopt : session.NeedWritable("cannot move anything on " + path.Display());
            return refused ? refused : DefragCommand(session, output, path, options->dryRun).Run();
        }));
    });
}

}  // namespace tool
