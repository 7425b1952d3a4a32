#include "mount/mountpoint.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "mount/system_unmount.h"

extern char** environ;

namespace mount {
namespace {

namespace fs = std::filesystem;

constexpr auto kStaleWait = std::chrono::seconds(2);
constexpr auto kStaleStep = std::chrono::milliseconds(20);

// A word on the line: all is well. Its end without one: the mount's program died. A place that answers is no dead
// mount.
constexpr const char* kDeathScript =
    R"(trap '' INT TERM HUP; read -r word && exit 0; stat -- "$0" >/dev/null 2>&1 && exit 0
umount -l -- "$0" 2>/dev/null || exec fusermount3 -u -z -q -- "$0")";

// Runs a program with our standard streams closed to it but for `input`; its process, or -1.
pid_t Spawn(std::vector<std::string> words, int input) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    if (::posix_spawn_file_actions_init(&actions) != 0) {
        return -1;
    }
    if (::posix_spawnattr_init(&attributes) != 0) {
        ::posix_spawn_file_actions_destroy(&actions);
        return -1;
    }
    if (input >= 0) {
        ::posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    } else {
        ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    ::posix_spawn_file_actions_addchdir_np(&actions, "/");
    ::posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    sigset_t signals;
    sigemptyset(&signals);
    ::posix_spawnattr_setsigmask(&attributes, &signals);
    sigfillset(&signals);
    ::posix_spawnattr_setsigdefault(&attributes, &signals);
    ::posix_spawnattr_setflags(&attributes,
                               static_cast<short>(POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF));
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    pid_t process = -1;
    if (::posix_spawnp(&process, pointers.front(), &actions, &attributes, pointers.data(), environ) != 0) {
        process = -1;
    }
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
    return process;
}

void Await(pid_t process) {
    while (process > 0 && ::waitpid(process, nullptr, 0) < 0 && errno == EINTR) {
    }
}

// What would break a line of the kernel's is in it as octal digits.
std::string Unescaped(const std::string& text) {
    std::string path;
    for (std::size_t index = 0; index < text.size(); ++index) {
        if (text[index] == '\\' && text.size() - index > 3) {
            path += static_cast<char>(std::stoi(text.substr(index + 1, 3), nullptr, 8));
            index += 3;
        } else {
            path += text[index];
        }
    }
    return path;
}

struct MountLine {
    std::string device;
    fs::path place;
};

// The mounts of our kind that this program sees, the last made last: "ID PARENT MAJOR:MINOR ROOT PLACE ... - TYPE ...".
std::vector<MountLine> ReadMounts() {
    std::vector<MountLine> found;
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        std::istringstream words(line);
        std::string skipped;
        MountLine mount;
        std::string place;
        if (words >> skipped >> skipped >> mount.device >> skipped >> place && line.find(" - fuse") != line.npos) {
            mount.place = Unescaped(place);
            found.push_back(std::move(mount));
        }
    }
    return found;
}

bool IsDead(const fs::path& place) {
    struct stat status {};
    return ::stat(place.c_str(), &status) != 0 && (errno == ENOTCONN || errno == ECONNABORTED);
}

// What watches over a mount that died clears its place; if that died too, we do.
void ClearDead(const fs::path& place) {
    for (auto waited = kStaleStep * 0; IsDead(place) && waited < kStaleWait; waited += kStaleStep) {
        std::this_thread::sleep_for(kStaleStep);
    }
    if (IsDead(place)) {
        Unmount(place, true);
    }
}

}  // namespace

host::Problem CheckMountpoint(const fs::path& place) {
    const std::string name = "'" + place.string() + "'";
    ClearDead(place);
    struct stat status {};
    if (::stat(place.c_str(), &status) != 0) {
        return {name + ": " + std::strerror(errno), "make the directory first: mkdir"};
    }
    if (!S_ISDIR(status.st_mode)) {
        return {name + " is no directory", "a drive is mounted on an empty directory"};
    }
    struct stat above {};
    if (::stat((place / "..").c_str(), &above) == 0 &&
        (above.st_dev != status.st_dev || above.st_ino == status.st_ino)) {
        return {"something is mounted on " + name + " already", "unmount it (umount), or take another directory"};
    }
    std::error_code error;
    const bool empty = fs::is_empty(place, error);
    if (error) {
        return {name + ": " + error.message(), "check your rights to the directory"};
    }
    if (!empty) {
        return {name + " is not empty", "take an empty directory: what is in this one would be out of sight"};
    }
    return {};
}

fs::path RealPlace(const fs::path& place) {
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(place.c_str(), nullptr), &std::free);
    return real ? fs::path(real.get()) : place;
}

std::string DeviceAt(const fs::path& place) {
    std::string device;
    for (const MountLine& mount : ReadMounts()) {
        device = mount.place == place ? mount.device : device;
    }
    return device;
}

fs::path PlaceOf(const std::string& device, const fs::path& last) {
    fs::path place = last;
    for (const MountLine& mount : ReadMounts()) {
        if (mount.device == device && mount.place == last) {
            return last;
        }
        place = mount.device == device ? mount.place : place;
    }
    return place;
}

void Unmount(const fs::path& place, bool lazily) {
    if (system_call::Unmount(place.c_str(), lazily) != EPERM) {
        return;
    }
    std::vector<std::string> words{"fusermount3", "-u", "-q"};
    if (lazily) {
        words.emplace_back("-z");
    }
    words.insert(words.end(), {"--", place.string()});
    Await(Spawn(std::move(words), -1));
}

void RaiseReadAhead(const fs::path& place) {
    const std::string device = DeviceAt(place);
    if (!device.empty()) {
        // Four requests: some wait for the disk while the program takes the bytes of another.
        std::ofstream("/sys/class/bdi/" + device + "/read_ahead_kb") << "4096";
    }
}

void DeathWatch::Start(const fs::path& place) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        return;
    }
    process_ = Spawn({"sh", "-c", kDeathScript, place.string()}, ends[0]);
    ::close(ends[0]);
    line_ = ends[1];
}

DeathWatch::~DeathWatch() {
    if (line_ < 0) {
        return;
    }
    // Nobody there to read is as good as done; the signal of that is not ours to take.
    sigset_t pipe;
    sigset_t before;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipe, &before);
    if (::write(line_, "done\n", 5) < 0) {
        const timespec none{};
        ::sigtimedwait(&pipe, nullptr, &none);
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    ::close(line_);
    Await(process_);
}

}  // namespace mount
