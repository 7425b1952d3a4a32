#include "nt/durable_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "nt/descriptor.h"

namespace nt {
namespace {

std::string Failure(const std::string& what, const std::string& path) {
    return what + " " + path + ": " + std::strerror(errno);
}

// Reads to the end or to the limit; false on an error.
bool ReadUpTo(int file, size_t limit, std::string* text) {
    char buffer[65536];
    while (text->size() <= limit) {
        const ssize_t count = read(file, buffer, sizeof(buffer));
        if (count == 0) {
            return true;
        }
        if (count > 0) {
            text->append(buffer, static_cast<size_t>(count));
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

std::string WriteAside(const std::string& aside, mode_t mode, std::string_view text) {
    // Whatever a crash left there, or somebody put there, is not written through.
    unlink(aside.c_str());
    const Descriptor file(open(aside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode));
    if (!file || !WriteWhole(file.Get(), text) || fsync(file.Get()) != 0) {
        return Failure("cannot write", aside);
    }
    return {};
}

// Follows links, dangling ones excepted, to the place that holds the file.
std::string PlaceOf(const std::string& path) {
    std::error_code error;
    const std::filesystem::path place = std::filesystem::canonical(path, error);
    return error ? path : place.string();
}

mode_t ModeOf(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 0777 : 0644;
}

}  // namespace

bool WriteWhole(int file, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(file, text.data(), text.size());
        if (count >= 0) {
            text.remove_prefix(static_cast<size_t>(count));
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

std::string ReadSmallFile(const std::string& path, size_t limit, std::string* text, bool* exists) {
    text->clear();
    *exists = false;
    // Not blocking, lest a pipe of that name hold up the boot.
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file) {
        return errno == ENOENT ? std::string() : Failure("cannot open", path);
    }
    *exists = true;
    struct stat status;
    if (fstat(file.Get(), &status) != 0) {
        return Failure("cannot read", path);
    }
    if (!S_ISREG(status.st_mode)) {
        return path + " is not a file";
    }
    if (!ReadUpTo(file.Get(), limit, text)) {
        return Failure("cannot read", path);
    }
    if (text->size() > limit) {
        return path + " is longer than " + std::to_string(limit) + " bytes";
    }
    return {};
}

std::string ReplaceFile(const std::string& path, std::string_view text) {
    const std::string place = PlaceOf(path);
    const std::string aside = place + ".new";
    if (std::string error = WriteAside(aside, ModeOf(place), text); !error.empty()) {
        unlink(aside.c_str());
        return error;
    }
    if (rename(aside.c_str(), place.c_str()) != 0) {
        std::string error = Failure("cannot replace", place);
        unlink(aside.c_str());
        return error;
    }
    const std::string directory = std::filesystem::path(place).parent_path().string();
    const Descriptor folder(open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder || fsync(folder.Get()) != 0) {
        return Failure("cannot sync the directory of", place);
    }
    return {};
}

}  // namespace nt
