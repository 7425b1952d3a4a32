// A program that goes on in the background when it is ready.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "tool/output.h"

namespace tool {

// What is left to its starter: its process, and how it ended if it did before it was ready.
struct Detached {
    pid_t process = -1;             // below 0: it could not be started, errno says why
    std::optional<int> waitStatus;  // of waitpid; none: it is ready
    bool stopped = false;           // the user asked to stop while it was starting, and it has ended
};

// The exit status of the starter, which says what the other could not: `what` ("the daemon") was to be started, and
// otherwise `state` ("the station is not served").
[[nodiscard]] int StarterStatus(const Output& output, const Detached& detached, const std::string& what,
                                const std::string& state);

class Detachment {
  public:
    // Divides the program in two. In the one that goes on, in a session of its own, in the root directory, with nothing
    // of its starter's open but the standard streams, `detached` stays as it is and the result is true. The other waits
    // until the first is ready or has ended. Before anything is started that a fork leaves behind: threads, the
    // machine.
    [[nodiscard]] bool Divide(Detached& detached);

    // Said by the one that goes on: the starter returns. Standard input and output are let go of.
    void Ready();

  private:
    int ready_ = -1;
};

}  // namespace tool
