#include <memory>

#include "host/station.h"
#include "tool/cli/commands.h"
#include "tool/text.h"

namespace tool {
namespace {

struct CreateOptions {
    std::string directory;
    std::uint32_t cards = 1;
    std::uint32_t disks = 4;
    std::string size = "2G";
};

int CreateStation(const CommonOptions& common, const CreateOptions& options) {
    const Output output("create-station", common.json);
    const auto bytes = ParseBytes(options.size);
    if (common.readOnly) {
        return output.Fail(UsageFailure("a station cannot be made with --read-only"));
    }
    if (!bytes) {
        return output.Fail(UsageFailure("--size wants a number with K, M, G or T, for example 2G"));
    }
    if (options.cards < 1 || options.cards > 10 || options.disks < 1 || options.disks > 15) {
        return output.Fail(UsageFailure("a station has 1 to 10 cards, a card 1 to 15 disks"));
    }
    const host::StationLayout layout{options.cards, options.disks, *bytes};
    if (const host::Problem problem = host::CreateStation(options.directory, layout)) {
        return output.Fail(ProblemFailure(problem));
    }
    output.Report(options.directory + ": " + std::to_string(options.cards) + (options.cards == 1 ? " card" : " cards") +
                      " with " + std::to_string(options.disks) + (options.disks == 1 ? " disk" : " disks") +
                      (options.cards == 1 ? " of " : " each, of ") + FormatBytes(*bytes),
                  {{"station", options.directory},
                   {"cards", options.cards},
                   {"disks_per_card", options.disks},
                   {"disk_bytes", *bytes}});
    return kDone;
}

}  // namespace

void AddCreateStation(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<CreateOptions>();
    CLI::App* command = AddCommand(
        app, "create-station", "Make a station: cards with disks as sparse image files",
        R"(The directory must be new or empty. SCSI ID 7 belongs to the card itself, so disk numbers skip it. A disk can be moved
elsewhere afterwards, or be a block device: put a link under its name.

  vrkfs create-station /tmp/st
  vrkfs create-station /tmp/big --cards 2 --disks 14 --size 73G)");
    command->add_option("DIR", options->directory, "the directory to make")->required();
    command->add_option("--cards", options->cards, "number of cards, 1 to 10")->capture_default_str();
    command->add_option("--disks", options->disks, "disks of each card, 1 to 15")->capture_default_str();
    command->add_option("--size", options->size, "size of each disk, 4M or more")->capture_default_str();
    command->callback([options, &common] { Finish(CreateStation(common, *options)); });
}

}  // namespace tool
