// The station's event log as a person or a program wants it: every entry with its message rendered.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/station.h"

namespace host {

struct Event {
    std::int64_t time = 0;  // 100 ns since 1601, UTC
    std::string source;     // the driver's name
    std::string device;     // the device's name; empty for an event of the driver itself
    std::uint32_t id = 0;   // severity, facility and message number, as an NT status has them
    std::string severity;   // "error", "warning", "information", "success"
    std::uint32_t finalStatus = 0;
    std::u16string text;                 // the message with its strings filled in, without a line end
    std::vector<std::uint8_t> dumpData;  // as the driver logged it
};

struct EventList {
    std::vector<Event> events;         // oldest first
    std::uint64_t damagedRecords = 0;  // lines of the file that are no entry
};

// Reads the log without starting the station, also while somebody else runs it. A log that does not exist is empty.
Problem ReadEvents(const Station& station, EventList& list);

}  // namespace host
