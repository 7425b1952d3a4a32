// What a person says about a mount, on the command line of whichever command makes one.
#pragma once

#include <CLI/CLI.hpp>
#include <filesystem>
#include <string>
#include <vector>

#include "mount/mount.h"
#include "tool/output.h"

namespace tool {

struct MountArguments {
    std::string drive;                 // --drive
    std::vector<std::string> options;  // -o, each a list with commas
};

void AddMountArguments(CLI::App& command, MountArguments& arguments);

// At `place`, as this process would find it; `options.readOnly` is set when the arguments or the caller want it so.
[[nodiscard]] Result ReadMountArguments(const MountArguments& arguments, const std::filesystem::path& place,
                                        bool readOnly, mount::Options& options);

// Part of the help of such a command.
extern const char* const kMountOptionsHelp;

}  // namespace tool
