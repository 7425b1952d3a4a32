// A card's preferences, by name.
#include <vrkfs/control.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>
#include <span>

#include "tool/advice.h"
#include "tool/card_control.h"
#include "tool/cli/commands.h"
#include "tool/text.h"

namespace tool {
namespace {

constexpr std::uint32_t kAny = 0xFFFFFFFF;

// A setting as the registry and the control codes know it. A largest value of 0 marks a drive letter of one byte.
struct Setting {
    const char* name;
    std::size_t offset;
    std::uint32_t largest;
    const char* help;
};

constexpr Setting kPreferences[] = {
    {"MinFrameDigits", offsetof(VrkFsPreferences, MinFrameDigits), 255,
     "digits of a frame's number, 0 for as many as the last one needs"},
    {"BaseFrameNumber", offsetof(VrkFsPreferences, BaseFrameNumber), kAny, "number of a clip's first frame"},
    {"HCrop", offsetof(VrkFsPreferences, HCrop), kAny, "horizontal crop, for the file-type service"},
    {"VCrop", offsetof(VrkFsPreferences, VCrop), kAny, "vertical crop, for the file-type service"},
    {"RAMFileMaxSize", offsetof(VrkFsPreferences, RAMFileMaxSize), kAny, "bytes that a RAM file can have"},
    {"TotalRAMFiles", offsetof(VrkFsPreferences, TotalRAMFiles), kAny, "RAM files that a volume can have"},
    {"DriveLetter", offsetof(VrkFsPreferences, DriveLetter), 0, "letter of the card's drive, A to Z"},
    {"ImportProcessingVideo", offsetof(VrkFsPreferences, ImportProcessingVideo), kAny,
     "what the file-type service does to imported video"},
    {"ImportProcessingAlpha", offsetof(VrkFsPreferences, ImportProcessingAlpha), kAny,
     "what the file-type service does to imported alpha"},
};

constexpr Setting kScsiPreferences[] = {
    {"ScsiMaxRetries", offsetof(VrkFsScsiPrefs, MaxRetries), 100, "repeats of a failed transfer"},
    {"ScsiVerifyWrite", offsetof(VrkFsScsiPrefs, VerifyWrite), 1, "1: records are read back after they are written"},
};

struct SettingOptions {
    std::string name;
    std::optional<std::string> value;
    std::optional<std::uint32_t> card;
};

// One kind of preferences.
struct SettingKind {
    const char* command;
    std::span<const Setting> settings;
    std::uint32_t getCode;
    std::uint32_t setCode;
};

constexpr SettingKind kPreferenceKind{"prefs", kPreferences, IOCTL_VRKFS_GET_PREFERENCES, IOCTL_VRKFS_SET_PREFERENCES};
constexpr SettingKind kScsiKind{"scsi-prefs", kScsiPreferences, IOCTL_VRKFS_GET_SCSI_PREFS, IOCTL_VRKFS_SET_SCSI_PREFS};

bool SameWord(std::string_view left, std::string_view right) {
    const auto small = [](char letter) { return letter >= 'A' && letter <= 'Z' ? letter - 'A' + 'a' : letter; };
    return std::ranges::equal(left, right, {}, small, small);
}

template <typename Record>
Json ValueOf(const Record& record, const Setting& setting) {
    const char* const at = reinterpret_cast<const char*>(&record) + setting.offset;
    if (setting.largest == 0) {
        return std::string(1, *at);
    }
    std::uint32_t value = 0;
    std::memcpy(&value, at, sizeof(value));
    return value;
}

std::string Shown(const Json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

// Puts a value into the record; what is wrong with it otherwise.
template <typename Record>
Result PutValue(Record& record, const Setting& setting, const std::string& text) {
    char* const at = reinterpret_cast<char*>(&record) + setting.offset;
    const std::string what = "'" + text + "' is no value for " + setting.name;
    if (setting.largest == 0) {
        const char typed = text.size() == 1 ? text[0] : '\0';
        const char letter = typed >= 'a' && typed <= 'z' ? static_cast<char>(typed - 'a' + 'A') : typed;
        if (letter < 'A' || letter > 'Z') {
            return UsageFailure(what, "give one letter, A to Z");
        }
        *at = letter;
        return std::nullopt;
    }
    std::uint32_t value = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), value);
    if (parsed.ec != std::errc() || parsed.ptr != text.data() + text.size() || value > setting.largest) {
        return UsageFailure(what, "give a number from 0 to " + std::to_string(setting.largest));
    }
    std::memcpy(at, &value, sizeof(value));
    return std::nullopt;
}

Result FindSetting(const SettingKind& kind, const std::string& name, const Setting*& found) {
    std::string names;
    for (const Setting& setting : kind.settings) {
        if (SameWord(setting.name, name)) {
            found = &setting;
            return std::nullopt;
        }
        names += (names.empty() ? "" : ", ") + std::string(setting.name);
    }
    return UsageFailure("there is no setting '" + name + "'", "there are " + names);
}

template <typename Record>
Result ChangeSetting(CardControl& control, const SettingKind& kind, const SettingOptions& options,
                     const Setting& setting, Record& record) {
    if (Result wrong = PutValue(record, setting, *options.value)) {
        return wrong;
    }
    const std::string what = std::string("cannot set ") + setting.name;
    const Json asked = ValueOf(record, setting);
    host::Status status = control.Send(kind.setCode, record);
    if (status.Ok()) {
        status = control.Get(kind.getCode, record);
    }
    if (!status.Ok()) {
        return DriverFailure(Operation::kSettings, what, status);
    }
    if (ValueOf(record, setting) != asked) {
        const std::string got = Shown(ValueOf(record, setting));
        return Failure{.what = what + " to " + *options.value + ": it is taken",
                       .advice = "see the letters of the cards with vrkfs volumes",
                       .state = "it is " + got + " now"};
    }
    return std::nullopt;
}

template <typename Record>
Result Settings(Session& session, const Output& output, const SettingKind& kind, const SettingOptions& options,
                const Setting* chosen) {
    host::CardFacts card;
    if (Result failure = session.ChooseCard(options.card, card)) {
        return failure;
    }
    CardControl control(session.Process(), card.index);
    Record record{};
    const host::Status status = control.Get(kind.getCode, record);
    if (!status.Ok()) {
        return DriverFailure(Operation::kSettings, "cannot read the settings of card " + std::to_string(card.index),
                             status);
    }
    if (options.value) {
        if (Result refused = session.NeedWritable(std::string("cannot set ") + chosen->name)) {
            return refused;
        }
        if (Result failure = ChangeSetting(control, kind, options, *chosen, record)) {
            return failure;
        }
    }
    std::size_t width = 0;
    for (const Setting& setting : kind.settings) {
        width = std::max(width, std::strlen(setting.name));
    }
    for (const Setting& setting : kind.settings) {
        if (chosen == nullptr || chosen == &setting) {
            const Json value = ValueOf(record, setting);
            const std::string shown = Shown(value);
            output.Report(chosen != nullptr
                              ? shown
                              : PadRight(setting.name, width) + "  " + PadRight(shown, 10) + "  " + setting.help,
                          {{"card", card.index}, {"name", setting.name}, {"value", value}});
        }
    }
    return std::nullopt;
}

// The line is checked before the station is touched.
template <typename Record>
int RunSettings(const CommonOptions& common, const SettingKind& kind, const SettingOptions& options) {
    const Output output(kind.command, common.json);
    const Setting* chosen = nullptr;
    if (!options.name.empty() || options.value) {
        if (const Result wrong = FindSetting(kind, options.name, chosen)) {
            return output.Fail(*wrong);
        }
    }
    if (options.value && chosen != nullptr) {
        Record trial{};
        if (const Result wrong = PutValue(trial, *chosen, *options.value)) {
            return output.Fail(*wrong);
        }
    }
    return RunOnStation(common, output,
                        [&](Session& session) { return Settings<Record>(session, output, kind, options, chosen); });
}

void AddKind(CLI::App& app, CommonOptions& common, const char* help, const char* more, const SettingKind& kind,
             int (*run)(const CommonOptions&, const SettingKind&, const SettingOptions&)) {
    auto options = std::make_shared<SettingOptions>();
    CLI::App* command = AddCommand(app, kind.command, help, more);
    command->add_option("NAME", options->name, "the setting; all when it is left out");
    command->add_option("VALUE", options->value, "what it becomes; it is shown when this is left out");
    command->add_option("--card", options->card, "the card; may be left out when there is one");
    command->callback([options, &common, &kind, run] { Finish(run(common, kind, *options)); });
}

}  // namespace

void AddSettings(CLI::App& app, CommonOptions& common) {
    AddKind(
        app, common, "Show or set a card's preferences",
        R"(They are kept in the station's registry. A drive letter that another card has goes to the next free one, and the
command says which.

  vrkfs prefs
  vrkfs prefs DriveLetter V
  vrkfs prefs MinFrameDigits 6 --card 1)",
        kPreferenceKind, &RunSettings<VrkFsPreferences>);
    AddKind(app, common, "Show or set how a card treats its disks",
            R"(They are kept in the station's registry.

  vrkfs scsi-prefs
  vrkfs scsi-prefs ScsiMaxRetries 10)",
            kScsiKind, &RunSettings<VrkFsScsiPrefs>);
}

}  // namespace tool
