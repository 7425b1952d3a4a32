#include <unistd.h>
#include <vrkfs/control.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <span>

#include "host/disk_peek.h"
#include "tool/advice.h"
#include "tool/cli/commands.h"
#include "tool/interrupt.h"
#include "tool/text.h"
#include "tool/volume_list.h"

namespace tool {
namespace {

constexpr std::uint32_t kMaxScsiId = 15;
constexpr std::uint32_t kOwnScsiId = 7;
constexpr std::size_t kMaxDisks = 14;

struct FormatOptions {
    std::optional<std::uint32_t> card;
    std::string name;
    std::string disks;
    bool yes = false;
    bool force = false;
};

struct FormatRequest {
    std::uint32_t card = 0;
    std::u16string name;
    std::vector<std::uint32_t> disks;  // SCSI IDs by position
};

struct Refusal {
    std::int32_t result;
    const char* name;
    const char* what;
    const char* advice;
};

constexpr Refusal kRefusals[] = {
    {VRKFS_FORMAT_BAD_DEVICE_COUNT, "VRKFS_FORMAT_BAD_DEVICE_COUNT", "a volume cannot have that many disks",
     "name 1 disk, or an even number up to 14"},
    {VRKFS_FORMAT_DEVICE_ABSENT, "VRKFS_FORMAT_DEVICE_ABSENT", "a disk does not answer",
     "check the images of the disks: vrkfs volumes lists those that are there"},
    {VRKFS_FORMAT_DEVICE_IN_USE, "VRKFS_FORMAT_DEVICE_IN_USE", "a disk belongs to a volume that is open",
     "wait until nobody has it open"},
    {VRKFS_FORMAT_BAD_NAME, "VRKFS_FORMAT_BAD_NAME", "the name is not valid",
     "a name has 1 to 255 characters and none of \\ / : * ? \" < > |"},
    {VRKFS_FORMAT_NAME_TAKEN, "VRKFS_FORMAT_NAME_TAKEN", "another volume of the card has that name",
     "take another name, or name that volume's disks too"},
};

// "0,1,2": what is wrong with it, or nothing.
std::string ParseDisks(const std::string& text, std::vector<std::uint32_t>& disks) {
    const char* at = text.data();
    const char* const end = at + text.size();
    while (true) {
        std::uint32_t id = 0;
        const auto parsed = std::from_chars(at, end, id);
        if (parsed.ec != std::errc() || (parsed.ptr != end && *parsed.ptr != ',')) {
            return "--disks wants SCSI IDs with commas between them, for example 0,1";
        }
        if (id > kMaxScsiId || id == kOwnScsiId) {
            return "a disk has a SCSI ID from 0 to 15 other than 7, not " + std::to_string(id);
        }
        if (std::ranges::find(disks, id) != disks.end()) {
            return "disk " + std::to_string(id) + " is named twice";
        }
        disks.push_back(id);
        if (parsed.ptr == end) {
            break;
        }
        at = parsed.ptr + 1;
    }
    const bool countFits = disks.size() == 1 || (disks.size() <= kMaxDisks && disks.size() % 2 == 0);
    return countFits ? "" : "a volume has 1 disk, or an even number up to 14";
}

Result ReadRequest(const FormatOptions& options, FormatRequest& request) {
    if (std::string wrong = ParseDisks(options.disks, request.disks); !wrong.empty()) {
        return UsageFailure(wrong);
    }
    const auto name = ParseName(options.name);
    if (!name || name->empty() || name->size() >= VRKFS_VOLUME_NAME_CHARS) {
        return UsageFailure("--name wants 1 to 255 characters in UTF-8");
    }
    if (DrivePath{.names = {*name}}.IsReserved()) {
        return UsageFailure("the name '" + options.name + "' is reserved");
    }
    request.name = *name;
    return std::nullopt;
}

Result ChooseCard(const host::Station& station, const FormatOptions& options, FormatRequest& request,
                  const host::CardPlace*& place) {
    const auto& cards = station.Cards();
    if (!options.card && cards.size() != 1) {
        return UsageFailure("the station has " + std::to_string(cards.size()) + " cards", "say which one: --card N");
    }
    const auto found = std::ranges::find_if(
        cards, [&](const host::CardPlace& card) { return card.index == options.card.value_or(card.index); });
    if (found == cards.end()) {
        return Failure{.what = "the station has no card " + std::to_string(*options.card),
                       .advice = "give --card the number of one that is there"};
    }
    request.card = found->index;
    place = &*found;
    return std::nullopt;
}

std::string ListOfDisks(const host::CardPlace& card) {
    std::vector<std::uint32_t> ids;
    for (const host::DiskPlace& disk : card.disks) {
        ids.push_back(disk.scsiId);
    }
    return ListOfIds(ids);
}

// Looks at each disk that would be written; fills in what it holds, by position.
Result PeekDisks(const host::CardPlace& card, const FormatRequest& request, bool force,
                 std::vector<host::DiskFacts>& facts) {
    for (const std::uint32_t id : request.disks) {
        const auto disk = std::ranges::find(card.disks, id, &host::DiskPlace::scsiId);
        const std::string name = "disk " + std::to_string(id);
        if (disk == card.disks.end()) {
            return Failure{.what = "card " + std::to_string(card.index) + " has no " + name,
                           .advice = "it has disks " + ListOfDisks(card)};
        }
        host::DiskFacts& fact = facts.emplace_back();
        if (const host::Problem problem = host::PeekDisk(*disk, fact)) {
            return ProblemFailure(problem);
        }
        if (!fact.usedBy.empty()) {
            return Failure{.what = name + " ('" + disk->path.string() + "') is " + fact.usedBy,
                           .advice = "unmount it first",
                           .state = "nothing was changed"};
        }
        if (fact.content == host::DiskContent::kForeign && !force) {
            return Failure{.what = name + " ('" + disk->path.string() + "') begins with something that is no volume",
                           .advice = "if it may be lost, give --force",
                           .state = "nothing was changed"};
        }
    }
    return std::nullopt;
}

// What the format destroys, for the question; empty when nothing.
std::string DescribeLoss(const std::vector<Volume>& volumes, const FormatRequest& request,
                         const std::vector<host::DiskFacts>& facts) {
    std::vector<std::string> losses;
    for (const Volume& volume : volumes) {
        if (std::ranges::any_of(request.disks, [&](std::uint32_t id) { return volume.Has(id); })) {
            losses.push_back("volume '" + DisplayName(volume.name) + "' on disks " + volume.Disks());
        }
    }
    for (std::size_t position = 0; position < request.disks.size(); ++position) {
        const std::uint32_t id = request.disks[position];
        if (std::ranges::any_of(volumes, [&](const Volume& volume) { return volume.Has(id); })) {
            continue;
        }
        const std::string disk = " on disk " + std::to_string(id);
        if (facts[position].content == host::DiskContent::kForeign) {
            losses.push_back("what is" + disk);
        } else if (facts[position].content == host::DiskContent::kVolume) {
            losses.push_back("what is left of volume '" + DisplayName(facts[position].volumeName) + "'" + disk);
        }
    }
    std::string text;
    for (const std::string& loss : losses) {
        text += (text.empty() ? "" : ", ") + loss;
    }
    return text;
}

bool AskOnTerminal(const std::string& loss) {
    std::cerr << "This destroys " << loss << ".\nFormat? [y/N] " << std::flush;
    std::string answer;
    char character = 0;
    while (WaitReadable(STDIN_FILENO) && ::read(STDIN_FILENO, &character, 1) == 1 && character != '\n') {
        answer += character;
    }
    return !Interrupted() && (answer == "y" || answer == "Y" || answer == "yes");
}

Result Confirm(const Output& output, const FormatOptions& options, const std::string& loss) {
    if (loss.empty() || options.yes) {
        return std::nullopt;
    }
    if (output.IsJson() || ::isatty(STDIN_FILENO) == 0) {
        return Failure{.what = "this would destroy " + loss,
                       .advice = "if that is what you want, give --yes",
                       .state = "nothing was changed"};
    }
    if (!AskOnTerminal(loss)) {
        return StoppedFailure("nothing was changed");
    }
    return std::nullopt;
}

Result SendFormat(Session& session, const FormatRequest& request) {
    const std::string what = "cannot format volume '" + DisplayName(request.name) + "'";
    const host::OpenResult control = OpenControl(session.Process(), request.card);
    if (!control.status.Ok()) {
        return DriverFailure(Operation::kFormat, what, control.status);
    }
    const host::ScopedHandle handle(session.Process(), control.handle);
    VrkFsVolumeInfoRecord record{};
    std::memcpy(record.Name, request.name.data(), request.name.size() * sizeof(char16_t));
    record.DeviceCount = static_cast<std::uint32_t>(request.disks.size());
    std::ranges::fill(record.Devices, VRKFS_NO_DEVICE);
    std::ranges::copy(request.disks, record.Devices);
    std::int32_t refused = VRKFS_RESULT_DONE;
    const host::IoResult result =
        session.Process().DeviceControl(handle.Get(), IOCTL_VRKFS_FORMAT_VOLUME, std::as_bytes(std::span(&record, 1)),
                                        std::as_writable_bytes(std::span(&refused, 1)));
    if (!result.status.Ok()) {
        Failure failure = DriverFailure(Operation::kFormat, what, result.status);
        failure.state = "its disks may belong to no volume now: format them again";
        return failure;
    }
    if (refused == VRKFS_RESULT_DONE) {
        return std::nullopt;
    }
    const auto known = std::ranges::find(kRefusals, refused, &Refusal::result);
    if (known == std::end(kRefusals)) {
        return Failure{.what = what, .status = "result " + std::to_string(refused), .state = "nothing was changed"};
    }
    return Failure{.what = what + ": " + known->what,
                   .status = known->name,
                   .advice = known->advice,
                   .state = "nothing was changed"};
}

void ReportFormatted(Session& session, const Output& output, const FormatRequest& request) {
    const auto& cards = session.Cards();
    const auto card = std::ranges::find(cards, request.card, &host::CardFacts::index);
    const char drive = card != cards.end() ? card->driveLetter : '?';
    VolumeSpace space;
    const bool measured = MeasureVolume(session.Process(), request.card, drive, request.name, space).Ok();
    const std::string path = DrivePath{drive, request.card, {u"RZV", request.name}}.Display();
    Json fields{{"path", path}, {"card", request.card}, {"disks", request.disks}};
    if (measured) {
        fields.update({{"total_bytes", space.totalBytes}, {"free_bytes", space.freeBytes}});
    }
    output.Report(path + ": formatted over " + (request.disks.size() == 1 ? "disk " : "disks ") +
                      ListOfIds(request.disks) + (measured ? ", " + FormatBytes(space.freeBytes) + " free" : ""),
                  fields);
}

int Format(const CommonOptions& common, const FormatOptions& options) {
    const Output output("format", common.json);
    FormatRequest request;
    if (const Result wrong = ReadRequest(options, request)) {
        return output.Fail(*wrong);
    }
    std::string directory;
    if (const Result none = FindStation(common, directory)) {
        return output.Fail(*none);
    }
    host::Problem problem;
    const auto station = host::Station::Read(directory, problem);
    if (!station) {
        return output.Fail(ProblemFailure(problem));
    }
    const host::CardPlace* card = nullptr;
    std::vector<host::DiskFacts> facts;
    Result failure = ChooseCard(*station, options, request, card);
    if (!failure) {
        failure = PeekDisks(*card, request, options.force, facts);
    }
    if (failure) {
        return output.Fail(*failure);
    }
    return RunOnStation(common, output, [&](Session& session) -> Result {
        if (Result other = session.NeedStation()) {
            return other;  // what was looked at are another station's disks
        }
        std::vector<Volume> volumes;
        const host::Status status = ListVolumes(session.Process(), request.card, volumes);
        if (!status.Ok()) {
            return DriverFailure(Operation::kListVolumes,
                                 "cannot list the volumes of card " + std::to_string(request.card), status);
        }
        if (Result refused = Confirm(output, options, DescribeLoss(volumes, request, facts))) {
            return refused;
        }
        if (Result failed = SendFormat(session, request)) {
            return failed;
        }
        ReportFormatted(session, output, request);
        return std::nullopt;
    });
}

}  // namespace

void AddFormat(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<FormatOptions>();
    CLI::App* command = AddCommand(
        app, "format", "Make a new, empty volume over one or more disks",
        R"(A volume lies over 1 disk, or over an even number up to 14; fields are spread over its disks in turn, so more disks are
faster. Where a volume would be destroyed it asks first, when standard input is a terminal; elsewhere it wants --yes.
A disk that begins with something that is neither empty nor a volume is refused without --force, and one that this
system has mounted is always refused.

  vrkfs format --name NEWS --disks 0
  vrkfs format --card 1 --name SPORT --disks 0,1,2,3 --yes)");
    command->add_option("--card", options->card, "the card; may be left out when there is one");
    command->add_option("--name", options->name, "the volume's name")->required();
    command->add_option("--disks", options->disks, "SCSI IDs in the order of their positions")
        ->required()
        ->type_name("ID,ID...");
    command->add_flag("--yes", options->yes, "do not ask, even if something is destroyed");
    command->add_flag("--force", options->force, "take disks that begin with something that is no volume");
    command->callback([options, &common] { Finish(Format(common, *options)); });
}

}  // namespace tool
