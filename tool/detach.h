// A program that goes on in the background when it is ready.
#pragma once

#include <filesystem>
#include <functional>
#include <string>

#include "tool/daemon_log.h"
#include "tool/output.h"

namespace tool {

// Called in the background when nothing can fail any more that its starter should hear of: the starter returns.
// Standard input and output are let go of, standard error goes to the log. Empty in the foreground.
using Ready = std::function<void()>;

// For what the starter says when the other cannot: `what` ("the daemon") was to be started, and otherwise `state` ("the
// station is not served").
struct Undertaking {
    std::string what;
    std::string state;
};

// Divides the program in two. In the one that goes on, in a session of its own, in the root directory, with nothing of
// its starter's open but the standard streams, `serve` is called, and the log goes to the file. The other waits until
// the first is ready or has ended. Returns the exit status of each. Before anything is started that a fork leaves
// behind: threads, the machine.
[[nodiscard]] int RunDetached(const Output& output, DaemonLog& log, const std::filesystem::path& logFile,
                              const Undertaking& undertaking, const std::function<int(const Ready& ready)>& serve);

}  // namespace tool
