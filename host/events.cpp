#include "host/events.h"

#include <vrkfs/messages.h>

#include <cstdio>
#include <string_view>

#include "nt/station.h"

namespace host {
namespace {

std::u16string Widened(std::string_view ascii) {
    return {ascii.begin(), ascii.end()};
}

// %1 is who logged; %2 and up are the entry's strings. An insert that the entry does not have stays as it is written,
// so that whoever reads the log sees that something is missing.
std::u16string Insert(std::string_view message, const nt::EventLogEntry& entry) {
    std::u16string text;
    for (std::size_t at = 0; at < message.size(); ++at) {
        const bool isInsert = message[at] == '%' && at + 1 < message.size();
        const std::size_t number = isInsert ? static_cast<std::size_t>(message[at + 1] - '0') : 0;
        if (number == 1) {
            text += Widened(entry.device.empty() ? entry.source : entry.device);
        } else if (number >= 2 && number - 2 < entry.strings.size()) {
            text += entry.strings[number - 2];
        } else {
            text += static_cast<char16_t>(static_cast<unsigned char>(message[at]));
            continue;
        }
        ++at;
    }
    return text;
}

// For an id that the message table does not have: what is known of the event.
std::u16string DescribeUnknown(const nt::EventLogEntry& entry) {
    std::u16string text = u"no message is known for this event";
    for (const std::u16string& string : entry.strings) {
        text += u"; " + string;
    }
    return text;
}

}  // namespace

Problem ReadEvents(const Station& station, EventList& list) {
    nt::EventLogContents contents = nt::ReadEventLog(station.EventLog().string());
    if (!contents.error.empty()) {
        return {contents.error, "check that you may read the station's events.log"};
    }
    list.damagedRecords = contents.damagedRecords;
    for (nt::EventLogEntry& entry : contents.entries) {
        const char* message = VrkFsMessageText(entry.eventId);
        Event& event = list.events.emplace_back();
        event.text = message != nullptr ? Insert(message, entry) : DescribeUnknown(entry);
        event.time = entry.time;
        event.source = std::move(entry.source);
        event.device = std::move(entry.device);
        event.id = entry.eventId;
        event.severity = VrkFsMessageSeverity(entry.eventId);
        event.finalStatus = entry.finalStatus;
        event.dumpData = std::move(entry.dumpData);
    }
    return {};
}

}  // namespace host
