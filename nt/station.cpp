#include "nt/station.h"

#include "nt/station_internal.h"

namespace nt {

std::string AttachStation(const StationFiles& files) {
    std::string error = AttachRegistry(files.registry, files.readOnly);
    if (error.empty()) {
        error = AttachSystemRoot(files.systemRoot, files.readOnly);
    }
    if (error.empty()) {
        error = AttachEventLog(files.eventLog, files.readOnly);
    }
    return error;
}

}  // namespace nt
