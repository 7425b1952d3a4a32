#include <cstring>
#include <memory>
#include <vector>

#include "tool/advice.h"
#include "tool/cli/commands.h"
#include "tool/text.h"

namespace tool {
namespace {

// FILE_FS_VOLUME_INFORMATION and FILE_FS_LABEL_INFORMATION.
constexpr std::uint32_t kFsVolumeInformation = 1;
constexpr std::uint32_t kFsLabelInformation = 2;
constexpr std::size_t kVolumeLabelLength = 12;
constexpr std::size_t kVolumeLabel = 18;
constexpr std::size_t kLabelRecordFixed = 4;
constexpr std::size_t kLabelRecordSmallest = 8;
constexpr std::size_t kMaxLabelCharacters = 32;

struct LabelOptions {
    std::optional<std::string> label;
    std::optional<std::uint32_t> card;
};

host::Status ReadLabel(host::Process& process, host::Handle drive, std::u16string& label) {
    std::vector<std::byte> record(kVolumeLabel + 2 * kMaxLabelCharacters + 8);
    const host::IoResult result = process.QueryVolumeInformation(drive, kFsVolumeInformation, record);
    if (result.status.Ok()) {
        std::uint32_t bytes = 0;
        std::memcpy(&bytes, record.data() + kVolumeLabelLength, sizeof(bytes));
        label.resize(std::min<std::size_t>(bytes, record.size() - kVolumeLabel) / sizeof(char16_t));
        std::memcpy(label.data(), record.data() + kVolumeLabel, label.size() * sizeof(char16_t));
    }
    return result.status;
}

host::Status WriteLabel(host::Process& process, host::Handle drive, const std::u16string& label) {
    const auto bytes = static_cast<std::uint32_t>(label.size() * sizeof(char16_t));
    std::vector<std::byte> record(std::max(kLabelRecordFixed + bytes, kLabelRecordSmallest));
    std::memcpy(record.data(), &bytes, sizeof(bytes));
    std::memcpy(record.data() + kLabelRecordFixed, label.data(), bytes);
    return process.SetVolumeInformation(drive, kFsLabelInformation, record).status;
}

Result Label(Session& session, const Output& output, const LabelOptions& options) {
    host::CardFacts card;
    if (Result failure = session.ChooseCard(options.card, card)) {
        return failure;
    }
    // The drive itself: a label is nothing that a folder could be asked to change.
    host::OpenRequest request;
    request.path = {static_cast<char16_t>(card.driveLetter), u':'};
    request.access = host::access::kReadAttributes | (options.label ? host::access::kWriteData : 0);
    const host::OpenResult opened = session.Process().Create(request);
    const host::ScopedHandle handle(session.Process(), opened.handle);
    host::Status status = opened.status;
    if (status.Ok() && options.label) {
        status = WriteLabel(session.Process(), opened.handle, *ParseName(*options.label));
    }
    std::u16string label;
    if (status.Ok()) {
        status = ReadLabel(session.Process(), opened.handle, label);
    }
    if (!status.Ok()) {
        return DriverFailure(Operation::kLabel,
                             std::string("cannot ") + (options.label ? "set" : "read") + " the label of " +
                                 std::string{card.driveLetter, ':'},
                             status);
    }
    output.Report(DisplayText(label), {{"drive", std::string{card.driveLetter, ':'}}, {"label", DisplayText(label)}});
    if (options.label) {
        output.Notice(
            "the driver keeps a label while it runs, and it stops with this command: nothing is on the disks");
    }
    return std::nullopt;
}

}  // namespace

void AddLabel(CLI::App& app, CommonOptions& common) {
    auto options = std::make_shared<LabelOptions>();
    CLI::App* command = AddCommand(
        app, "label", "Show or set the label of a drive",
        R"(A label of up to 32 characters belongs to the drive as a whole, not to one of its volumes (those are renamed with vrkfs
mv). The driver keeps it in memory only: it is RZV_VFS again when the driver starts again, which for this program is the
next command.

  vrkfs label
  vrkfs label Studio --card 1)");
    command->add_option("NEW", options->label, "the label to set");
    command->add_option("--card", options->card, "the card; may be left out when there is one");
    command->callback([options, &common] {
        const Output output("label", common.json);
        const auto label = options->label ? ParseName(*options->label) : std::u16string();
        if (!label || label->size() > kMaxLabelCharacters) {
            Finish(output.Fail(UsageFailure("a label has at most 32 characters, in UTF-8")));
        }
        Finish(RunOnStation(common, output, [&](Session& session) { return Label(session, output, *options); }));
    });
}

}  // namespace tool
