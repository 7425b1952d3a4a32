// What a person can do about a status that the driver answered, by what was being done.
#pragma once

#include <string>

#include "host/types.h"
#include "tool/output.h"

namespace tool {

enum class Operation {
    kFormat,
    kListVolumes,
    kList,
    kMakeFolder,
    kRemoveFolder,
    kRemoveFile,
    kPut,
    kRead,
    kMove,
    kTouch,
    kLabel,
    kSettings,
    kLock,
    kRecord,
};

[[nodiscard]] std::string AdviceFor(Operation operation, host::Status status);

// "WHAT: STATUS_...; advice"
[[nodiscard]] Failure DriverFailure(Operation operation, const std::string& what, host::Status status);
// For a name that nothing is to get.
[[nodiscard]] Failure ReservedName(const std::string& what);

}  // namespace tool
