// What the driver's statuses are to an ordinary program, in one table.
#pragma once

#include "host/types.h"

namespace mount {

enum class Operation {
    kLook,
    kList,
    kOpen,
    kRead,
    kCreate,
    kWrite,
    kMakeFolder,
    kRemoveFile,
    kRemoveFolder,
    kRename,
    kSetTime,
    kAttribute,
    kSpace,
};

struct Meaning {
    int error;           // an errno
    const char* reason;  // for the log
};

// Of a status that is a failure.
[[nodiscard]] Meaning MeaningOf(Operation operation, host::Status status);

// "cannot remove", for the log.
[[nodiscard]] const char* Attempt(Operation operation);

}  // namespace mount
