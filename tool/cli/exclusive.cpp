#include <vrkfs/control.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>

#include "tool/advice.h"
#include "tool/card_control.h"
#include "tool/cli/commands.h"
#include "tool/foreground.h"
#include "tool/volume_list.h"

namespace tool {
namespace {

struct ExclusiveOptions {
    std::optional<std::uint32_t> card;
    std::vector<std::string> words;
};

// VRKFS_CARD, VRKFS_DISKS ("0 1 2") and VRKFS_DISK_0 ... with the path of each.
ForegroundProgram ProgramOf(const Session& session, const host::CardFacts& card, const ExclusiveOptions& options) {
    ForegroundProgram program{options.words, {{"VRKFS_CARD", std::to_string(card.index)}}};
    const auto& cards = session.Station()->Cards();
    const auto place = std::ranges::find(cards, card.index, &host::CardPlace::index);
    std::string ids;
    for (const host::DiskPlace& disk : place->disks) {
        const std::string id = std::to_string(disk.scsiId);
        ids += (ids.empty() ? "" : " ") + id;
        program.environment.emplace_back("VRKFS_DISK_" + id, std::filesystem::absolute(disk.path).string());
    }
    program.environment.emplace_back("VRKFS_DISKS", ids);
    return program;
}

// With the disks released; `ended` becomes the program's exit status.
Result RunProgramOnDisks(const ForegroundProgram& program, int& ended) {
    const int error = RunInForeground(program, ended);
    if (error == 0) {
        return std::nullopt;
    }
    return Failure{.what = "cannot start " + program.words.front() + ": " + std::strerror(error),
                   .advice = "check its name",
                   .state = "nothing was changed"};
}

Failure After(Failure failure, const ForegroundProgram& program, int ended) {
    failure.state = program.words.front() + " ended with status " + std::to_string(ended) +
                    (failure.state.empty() ? "" : "; " + failure.state);
    return failure;
}

Result Exclusive(Session& session, const Output& output, const ExclusiveOptions& options, int& ended) {
    host::CardFacts card;
    Result refused = session.NeedStation();
    if (!refused) {
        refused = session.ChooseCard(options.card, card);
    }
    if (!refused && session.Access().ReadOnly()) {
        refused = Failure{.what = "the station is open for reading only, and a program on the raw disks could write",
                          .advice = "leave --read-only out, for the daemon too"};
    }
    if (refused) {
        return refused;
    }
    const std::string cardName = "card " + std::to_string(card.index);
    const ForegroundProgram program = ProgramOf(session, card, options);
    CardControl control(session.Process(), card.index);
    const host::Status locked = control.Send(IOCTL_VRKFS_LOCK_FILE_SYSTEM, VrkFsLockRequest{1});
    if (!locked.Ok()) {
        return DriverFailure(Operation::kLock, "cannot lock the file system of " + cardName, locked);
    }
    Result failure;
    if (const host::Problem problem = session.Access().ReleaseDisks(card.index)) {
        failure = ProblemFailure(problem);
        failure->state = "nothing was run";
    } else {
        failure = RunProgramOnDisks(program, ended);
    }
    const bool ran = !failure;
    const host::Problem untaken = session.Access().TakeDisks(card.index);
    const host::Status unlocked = control.Send(IOCTL_VRKFS_UNLOCK_FILE_SYSTEM);
    if (failure) {
        return failure;
    }
    if (untaken) {
        return After(ProblemFailure(untaken), program, ended);
    }
    if (!unlocked.Ok()) {
        return After(DriverFailure(Operation::kLock, "the volumes of " + cardName + " cannot be found again", unlocked),
                     program, ended);
    }
    std::vector<Volume> volumes;
    const bool listed = ListVolumes(session.Process(), card.index, volumes).Ok();
    output.Object({{"card", card.index},
                   {"ran", ran},
                   {"status", ended},
                   {"volumes", listed ? Json(volumes.size()) : Json(nullptr)}});
    return std::nullopt;
}

int RunExclusive(const CommonOptions& common, const ExclusiveOptions& options) {
    const Output output("exclusive", common.json, true);
    if (common.behindMark.empty() || common.behindMark.front() != options.words.front()) {
        return output.Fail(UsageFailure("COMMAND stands behind --", "for example: vrkfs exclusive -- bash"));
    }
    int ended = 0;
    const int status = RunOnStation(common, output, [&](Session& session) {
        return Exclusive(session, output, {options.card, common.behindMark}, ended);
    });
    return status != kDone ? status : ended;
}

}  // namespace

void AddExclusive(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<ExclusiveOptions>();
    CLI::App* command = AddCommand(
        app, "exclusive", "Run a program that works on a card's raw disks, with the file system locked",
        R"(The card's volumes leave the driver and the images are closed; then COMMAND runs, and when it has ended the disks are
opened and the volumes found again, whatever it did to them. It finds the card's number in VRKFS_CARD, the SCSI IDs of
its disks in VRKFS_DISKS, and the path of each in VRKFS_DISK_0, VRKFS_DISK_1 and so on. The station stays in use
meanwhile, also for other vrkfs commands; beside a daemon the other cards go on. Refused while something on the drive is
open. Ctrl-C is for COMMAND alone.

  vrkfs exclusive -- sh -c 'dd if="$VRKFS_DISK_0" of=/backup/disk0 bs=1M'
  vrkfs exclusive --card 1 -- bash

The exit status is COMMAND's, or 128 and the number of the signal that ended it, unless vrkfs itself fails and says why.)");
    command->add_option("--card", options->card, "the card; may be left out when there is one");
    command->add_option("COMMAND", options->words, "the program and its arguments, behind --")
        ->required()
        ->expected(1, CLI::detail::expected_max_vector_size);
    command->callback([options, &common] { Finish(RunExclusive(common, *options)); });
}

}  // namespace tool
