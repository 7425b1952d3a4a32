#include <cstdio>

#include "host/events.h"
#include "tool/cli/commands.h"
#include "tool/text.h"

namespace tool {
namespace {

std::string Hex(const std::vector<std::uint8_t>& bytes, const char* between) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        char digits[4];
        std::snprintf(digits, sizeof(digits), "%02x", byte);
        text += (text.empty() ? "" : between) + std::string(digits);
    }
    return text;
}

std::string HexId(std::uint32_t id) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08X", id);
    return text;
}

void ReportEvent(const Output& output, const host::Event& event) {
    const std::string source = event.device.empty() ? event.source : event.device;
    const std::string text = DisplayText(event.text);
    std::string line = FormatTime(event.time) + "  " + PadRight(event.severity, 11) + "  " + HexId(event.id) + "  " +
                       source + ": " + text;
    if (!event.dumpData.empty()) {
        line += "\n    data: " + Hex(event.dumpData, " ");
    }
    Json fields{{"time", event.time > 0 ? Json(FormatTime(event.time, true)) : Json(nullptr)},
                {"severity", event.severity},
                {"id", HexId(event.id)},
                {"source", event.source},
                {"device", event.device.empty() ? Json(nullptr) : Json(event.device)},
                {"text", text},
                {"final_status", event.finalStatus},
                {"data", Hex(event.dumpData, "")}};
    output.Report(line, fields);
}

int ShowEvents(const CommonOptions& common) {
    const Output output("events", common.json);
    std::string directory;
    if (const Result none = FindStation(common, directory)) {
        return output.Fail(*none);
    }
    host::Problem problem;
    const auto station = host::Station::Read(directory, problem);
    if (!station) {
        return output.Fail(ProblemFailure(problem));
    }
    host::EventList list;
    if (const host::Problem unread = host::ReadEvents(*station, list)) {
        return output.Fail(ProblemFailure(unread));
    }
    for (const host::Event& event : list.events) {
        ReportEvent(output, event);
    }
    if (list.damagedRecords > 0) {
        output.Notice(std::to_string(list.damagedRecords) + " damaged lines of the log were passed over");
    }
    if (list.events.empty()) {
        output.Text("no events");
    }
    return kDone;
}

}  // namespace

void AddEvents(CLI::App& app, CommonOptions& common) {
    CLI::App* command = AddCommand(
        app, "events", "Show what the driver noted in the system's event log",
        R"(Oldest first: time (UTC), severity, event id, who noted it, the message, and the event's data if it has any. The station
need not be idle.

  vrkfs events | tail
  vrkfs events --json | jq 'select(.severity == "error").text')");
    command->callback([&common] { Finish(ShowEvents(common)); });
}

}  // namespace tool
