#include <vrkfs/records.h>

#include <algorithm>
#include <memory>

#include "tool/advice.h"
#include "tool/cli/commands.h"
#include "tool/text.h"
#include "tool/volume_list.h"

namespace tool {
namespace {

struct Row {
    char drive = 0;
    std::uint32_t card = 0;
    Volume volume;
    VolumeSpace space;
    host::Status measured = host::status::kSuccess;  // how the measuring went

    [[nodiscard]] bool IsHidden() const { return (volume.flags & VRKFS_VOLUME_HIDDEN) != 0; }
    [[nodiscard]] bool HasSpace() const { return !IsHidden() && measured.Ok(); }
};

std::string StateOf(const Row& row) {
    const Volume& volume = row.volume;
    std::string state;
    if ((volume.flags & VRKFS_VOLUME_INCOMPLETE) != 0) {
        state = "incomplete: a disk is missing";
    }
    if ((volume.flags & VRKFS_VOLUME_NAME_CONFLICT) != 0) {
        state += std::string(state.empty() ? "" : ", ") + "name conflict: another volume has the name";
    }
    if (!row.IsHidden() && !row.measured.Ok()) {
        state = "cannot be opened: " + host::StatusName(row.measured);
    }
    return state;
}

Json JsonOf(const Row& row) {
    Json devices = Json::array();
    for (const std::uint32_t device : row.volume.devices) {
        devices.push_back(device == VRKFS_NO_DEVICE ? Json(nullptr) : Json(device));
    }
    Json fields{{"drive", std::string{row.drive, ':'}},
                {"card", row.card},
                {"name", DisplayName(row.volume.name)},
                {"disks", devices},
                {"total_bytes", row.HasSpace() ? Json(row.space.totalBytes) : Json(nullptr)},
                {"free_bytes", row.HasSpace() ? Json(row.space.freeBytes) : Json(nullptr)},
                {"incomplete", (row.volume.flags & VRKFS_VOLUME_INCOMPLETE) != 0},
                {"name_conflict", (row.volume.flags & VRKFS_VOLUME_NAME_CONFLICT) != 0}};
    if (!row.IsHidden() && !row.measured.Ok()) {
        fields["status"] = host::StatusName(row.measured);
    }
    return fields;
}

// A volume that cannot be measured must not hide the others: a disk may come with any name on it.
Result ReadCard(Session& session, const host::CardFacts& card, std::vector<Row>& rows) {
    std::vector<Volume> volumes;
    const host::Status status = ListVolumes(session.Process(), card.index, volumes);
    if (!status.Ok()) {
        return DriverFailure(Operation::kListVolumes, "cannot list the volumes of card " + std::to_string(card.index),
                             status);
    }
    for (Volume& volume : volumes) {
        Row& row = rows.emplace_back(Row{card.driveLetter, card.index, std::move(volume), {}});
        if (!row.IsHidden()) {
            row.measured = MeasureVolume(session.Process(), card.index, card.driveLetter, row.volume.name, row.space);
        }
    }
    return std::nullopt;
}

void ReportRows(const Output& output, const std::vector<Row>& rows) {
    std::size_t nameWidth = DisplayWidth("VOLUME");
    std::size_t diskWidth = DisplayWidth("DISKS");
    for (const Row& row : rows) {
        nameWidth = std::max(nameWidth, DisplayWidth(DisplayName(row.volume.name)));
        diskWidth = std::max(diskWidth, DisplayWidth(row.volume.Disks()));
    }
    const auto line = [&](const std::string& drive, const std::string& name, const std::string& disks,
                          const std::string& total, const std::string& free, const std::string& state) {
        std::string text = drive + "  " + PadRight(name, nameWidth) + "  " + PadRight(disks, diskWidth) +
                           PadLeft(total, 11) + PadLeft(free, 11) + (state.empty() ? "" : "  ") + state;
        return text;
    };
    if (!rows.empty()) {
        output.Text(line("  ", "VOLUME", "DISKS", "TOTAL", "FREE", ""));
    }
    for (const Row& row : rows) {
        output.Report(line({row.drive, ':'}, DisplayName(row.volume.name), row.volume.Disks(),
                           row.HasSpace() ? FormatBytes(row.space.totalBytes) : "-",
                           row.HasSpace() ? FormatBytes(row.space.freeBytes) : "-", StateOf(row)),
                      JsonOf(row));
    }
}

// The disks that belong to no volume, and that there are no disks at all.
Result ReportFreeDisks(Session& session, const Output& output, const std::vector<Row>& rows) {
    bool any = false;
    for (const host::CardFacts& card : session.Cards()) {
        std::vector<std::uint32_t> unused;
        const host::Status status = ListDisks(session.Process(), card.index, unused);
        if (!status.Ok()) {
            return DriverFailure(Operation::kListVolumes, "cannot list the disks of card " + std::to_string(card.index),
                                 status);
        }
        any = any || !unused.empty();
        std::erase_if(unused, [&](std::uint32_t id) {
            return std::ranges::any_of(rows,
                                       [&](const Row& row) { return row.card == card.index && row.volume.Has(id); });
        });
        if (!unused.empty()) {
            const std::string drive{card.driveLetter, ':'};
            output.Report(drive + "  in no volume: " + (unused.size() == 1 ? "disk " : "disks ") + ListOfIds(unused),
                          {{"drive", drive}, {"card", card.index}, {"disks_in_no_volume", unused}});
        }
    }
    if (!any) {
        output.Text("no disks");
    }
    return std::nullopt;
}

int ShowVolumes(const CommonOptions& common) {
    const Output output("volumes", common.json);
    return RunOnStation(common, output, [&](Session& session) -> Result {
        std::vector<Row> rows;
        for (const host::CardFacts& card : session.Cards()) {
            if (Result failure = ReadCard(session, card, rows)) {
                return failure;
            }
        }
        ReportRows(output, rows);
        return ReportFreeDisks(session, output, rows);
    });
}

}  // namespace

void AddVolumes(CLI::App& app, CommonOptions& common) {
    CLI::App* command = AddCommand(
        app, "volumes", "List the volumes of all cards, with their disks and space",
        R"(A volume whose disk is missing is incomplete, and of two volumes with one name on a card both are told; such a volume
cannot be opened, and its space is not known. Disks that belong to no volume are listed last.

  vrkfs volumes
  vrkfs volumes --json | jq 'select(.name == "NEWS").free_bytes')");
    command->callback([&common] { Finish(ShowVolumes(common)); });
}

}  // namespace tool
