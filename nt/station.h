#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "nt/ps.h"

// What of a station the kernel keeps in files, and the doors of hosts and tests to it. Nothing here is for drivers.

namespace nt {

struct StationFiles {
    std::string registry;    // Registry file; it is made by the first change if it does not exist.
    std::string eventLog;    // Event log; made by the first entry.
    std::string systemRoot;  // The directory that \SystemRoot stands for; it need not exist.
    bool readOnly = false;   // Nothing of the station is written: settings are refused, events dropped.
};

// Gives the booted kernel a station, before any driver is loaded; it lasts until shutdown. Returns a sentence that says
// what is wrong with a file, or an empty string. An empty path leaves that family without files: a registry in memory,
// no log, no \SystemRoot.
std::string AttachStation(const StationFiles& files);

// Makes a registry key and those above it, for the installation of a driver and for tests. STATUS_OBJECT_NAME_INVALID,
// STATUS_OBJECT_PATH_NOT_FOUND, STATUS_MEDIA_WRITE_PROTECTED, STATUS_REGISTRY_IO_FAILED.
NTSTATUS CreateRegistryKey(std::u16string_view path);

// ---- sections ----

struct SectionDescriptor {
    int descriptor = -1;  // The caller's, to close.
    uint64_t size = 0;    // Bytes.
};

// What a user program does to reach a section: opens \BaseNamedObjects\<name> in its process, whose handle keeps
// section and name alive until it is closed, and gets a descriptor to map. STATUS_OBJECT_NAME_NOT_FOUND,
// STATUS_PROCESS_IS_TERMINATING, STATUS_INSUFFICIENT_RESOURCES.
NTSTATUS OpenSectionFor(PEPROCESS process, std::u16string_view name, ACCESS_MASK access, uint32_t* handle,
                        SectionDescriptor* section);

// The same for a handle of the current process that is already open.
NTSTATUS DuplicateSection(HANDLE handle, SectionDescriptor* section);

// Takes down the views that a process still has: for the end of processes.
void UnmapViewsOfProcess(PEPROCESS process);

// ---- event log ----

struct EventLogEntry {
    LONGLONG time = 0;            // 100-ns units since 1601.
    std::string source;           // The driver's name, "VrkFs".
    std::string device;           // The device's name; empty for an event of the driver itself.
    std::vector<uint8_t> packet;  // The IO_ERROR_LOG_PACKET as written, all of it.
    uint32_t eventId = 0;         // The following are taken from the packet.
    uint32_t finalStatus = 0;
    std::vector<std::u16string> strings;  // Insertion strings: the message's %2, %3, ...
    std::vector<uint8_t> dumpData;
};

struct EventLogContents {
    std::vector<EventLogEntry> entries;  // Oldest first.
    uint64_t damagedRecords = 0;         // Lines that are no entry; a torn last one is not counted.
    std::string error;                   // Why the file could not be read; empty when it was, or does not exist.
};

// Reads an event log, also while a kernel writes it.
EventLogContents ReadEventLog(const std::string& path);

}  // namespace nt
