// Another program run in the foreground, with this one waiting behind it.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tool {

// Its words, searched along PATH, and what its environment has beside this one's.
struct ForegroundProgram {
    std::vector<std::string> words;
    std::vector<std::pair<std::string, std::string>> environment;
};

// Runs it to its end. Ctrl-C is the program's own business meanwhile; a request to end this one (SIGTERM) is passed on
// to it. `exitStatus` becomes what the program ended with, 128 and the signal's number if one ended it. Returns 0, or
// the system's error when it could not be started.
[[nodiscard]] int RunInForeground(const ForegroundProgram& program, int& exitStatus);

}  // namespace tool
