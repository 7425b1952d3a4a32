#include "tool/mount_options.h"

#include <unistd.h>

#include <charconv>
#include <optional>
#include <sstream>

namespace tool {
namespace {

constexpr mode_t kModeBits = 0777;

Result Wrong(const std::string& option, const std::string& wanted) {
    return UsageFailure("the mount option '" + option + "' is not understood", wanted);
}

std::optional<unsigned> Number(const std::string& text, int base) {
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(value) : std::nullopt;
}

Result ReadOption(const std::string& option, mount::Options& options) {
    const std::size_t mark = option.find('=');
    const std::string name = option.substr(0, mark);
    const std::string value = mark == option.npos ? "" : option.substr(mark + 1);
    if (mark == option.npos) {
        if (name == "ro") {
            options.readOnly = true;
        } else if (name == "allow_other") {
            options.allowOther = true;
        } else if (name != "rw") {
            return Wrong(option, "there are ro, rw, allow_other, uid=, gid=, fmode= and dmode=");
        }
        return std::nullopt;
    }
    const bool isMode = name == "fmode" || name == "dmode";
    const auto number = Number(value, isMode ? 8 : 10);
    if (!number || (isMode && *number > kModeBits)) {
        return Wrong(option, isMode ? "a mode is up to three octal digits: fmode=640" : "give the number: uid=1000");
    }
    if (name == "uid") {
        options.owner = *number;
    } else if (name == "gid") {
        options.group = *number;
    } else if (name == "fmode") {
        options.fileMode = *number;
    } else if (name == "dmode") {
        options.folderMode = *number;
    } else {
        return Wrong(option, "there are ro, rw, allow_other, uid=, gid=, fmode= and dmode=");
    }
    return std::nullopt;
}

}  // namespace

const char* const kMountOptionsHelp =
    R"(Mount options (-o): ro; uid= and gid= of everything (yours); fmode= and dmode=, the permissions of clips and folders (644,
755); allow_other lets other users in.)";

void AddMountArguments(CLI::App& command, MountArguments& arguments) {
    command.add_option("--drive", arguments.drive, "mount that drive's root, not a directory for each drive")
        ->type_name("LETTER");
    command.add_option("-o", arguments.options, "mount options: ro,uid=,gid=,fmode=,dmode=,allow_other")
        ->type_name("LIST");
}

Result ReadMountArguments(const MountArguments& arguments, const std::filesystem::path& place, bool readOnly,
                          mount::Options& options) {
    options = {};
    options.mountpoint = std::filesystem::absolute(place).lexically_normal();
    options.readOnly = readOnly;
    options.owner = ::geteuid();
    options.group = ::getegid();
    const std::string drive =
        arguments.drive.ends_with(':') ? arguments.drive.substr(0, arguments.drive.size() - 1) : arguments.drive;
    if (drive.size() > 1 || (drive.empty() && !arguments.drive.empty())) {
        return UsageFailure("'" + arguments.drive + "' is no drive letter", "give one letter: --drive P");
    }
    if (!drive.empty()) {
        options.drive = drive.front();
    }
    for (const std::string& list : arguments.options) {
        std::istringstream words(list);
        for (std::string option; std::getline(words, option, ',');) {
            if (Result wrong = ReadOption(option, options)) {
                return wrong;
            }
        }
    }
    return std::nullopt;
}

}  // namespace tool
