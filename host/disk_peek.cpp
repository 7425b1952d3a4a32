#include "host/disk_peek.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <system_error>

#include "host/descriptor.h"

namespace host {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kPeekBytes = 1 << 20;

// The volume record in a disk's first two blocks, as far as a look needs it.
constexpr std::size_t kRecordBytes = 1024;
constexpr std::uint32_t kMagic = 0x304C4F56;  // "VOL0"
constexpr std::uint32_t kVersion = 0x00010000;
constexpr std::uint32_t kMaxDevices = 16;
constexpr std::size_t kVersionOffset = 4;
constexpr std::size_t kDeviceCountOffset = 20;
constexpr std::size_t kPositionOffset = 24;
constexpr std::size_t kReservedOffset = 28;
constexpr std::size_t kNameOffset = 512;

std::uint32_t Word(const std::vector<char>& bytes, std::size_t offset) {
    std::uint32_t word = 0;
    std::memcpy(&word, bytes.data() + offset, sizeof(word));
    return word;
}

bool IsZero(const char* begin, const char* end) {
    return std::all_of(begin, end, [](char byte) { return byte == 0; });
}

bool IsVolumeRecord(const std::vector<char>& bytes) {
    return bytes.size() >= kRecordBytes && Word(bytes, 0) == kMagic && Word(bytes, kVersionOffset) == kVersion &&
           Word(bytes, kDeviceCountOffset) >= 1 && Word(bytes, kDeviceCountOffset) <= kMaxDevices &&
           Word(bytes, kPositionOffset) < Word(bytes, kDeviceCountOffset) &&
           IsZero(bytes.data() + kReservedOffset, bytes.data() + kNameOffset);
}

std::u16string NameOf(const std::vector<char>& bytes) {
    std::u16string name((kRecordBytes - kNameOffset) / sizeof(char16_t), u'\0');
    std::memcpy(name.data(), bytes.data() + kNameOffset, kRecordBytes - kNameOffset);
    name.resize(std::min(name.size(), name.find(u'\0')));
    return name;
}

bool SameFile(const struct stat& file, const fs::path& other) {
    struct stat status {};
    return ::stat(other.c_str(), &status) == 0 && status.st_dev == file.st_dev && status.st_ino == file.st_ino;
}

std::string FirstLine(const fs::path& path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

// The loop device that stands on an image, if there is one: whatever is mounted there would be destroyed.
std::string LoopDeviceOn(const struct stat& file) {
    std::error_code error;
    for (const auto& device : fs::directory_iterator("/sys/block", error)) {
        const std::string backing = FirstLine(device.path() / "loop" / "backing_file");
        if (!backing.empty() && SameFile(file, backing)) {
            return "/dev/" + device.path().filename().string();
        }
    }
    return {};
}

bool IsSwap(const struct stat& file) {
    std::ifstream in("/proc/swaps");
    std::string line;
    std::getline(in, line);  // the heading
    while (std::getline(in, line)) {
        if (SameFile(file, line.substr(0, line.find_first_of(" \t")))) {
            return true;
        }
    }
    return false;
}

// A block device that is mounted, swapped to or part of an array refuses to be opened exclusively.
std::string UseOfBlockDevice(const fs::path& path) {
    const Descriptor exclusive(::open(path.c_str(), O_RDONLY | O_EXCL | O_CLOEXEC));
    return !exclusive && errno == EBUSY ? "mounted, or otherwise in use by this system" : "";
}

std::string UseBySystem(const struct stat& file, const fs::path& path) {
    if (S_ISBLK(file.st_mode)) {
        return UseOfBlockDevice(path);
    }
    if (const std::string loop = LoopDeviceOn(file); !loop.empty()) {
        return "in use by this system as " + loop;
    }
    return IsSwap(file) ? "in use by this system as swap space" : "";
}

std::optional<std::vector<char>> ReadStart(int fd) {
    std::vector<char> bytes(kPeekBytes);
    std::size_t got = 0;
    while (got < bytes.size()) {
        const ssize_t done = ::pread(fd, bytes.data() + got, bytes.size() - got, static_cast<off_t>(got));
        if (done < 0 && errno == EINTR) {
            continue;
        }
        if (done < 0) {
            return std::nullopt;
        }
        if (done == 0) {
            break;
        }
        got += static_cast<std::size_t>(done);
    }
    bytes.resize(got);
    return bytes;
}

}  // namespace

Problem PeekDisk(const DiskPlace& disk, DiskFacts& facts) {
    const std::string what = "disk " + std::to_string(disk.scsiId) + " ('" + disk.path.string() + "')";
    const Descriptor file(::open(disk.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file || ::fstat(file.Get(), &status) != 0) {
        return {what + " cannot be opened: " + std::strerror(errno), "check the image and your rights to it"};
    }
    if (!S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode)) {
        return {what + " is neither a file nor a block device", "put an image in its place, or move it away"};
    }
    facts.usedBy = UseBySystem(status, disk.path);
    const auto bytes = ReadStart(file.Get());
    if (!bytes) {
        return {what + " cannot be read: " + std::strerror(errno), "check the disk that holds it"};
    }
    if (IsVolumeRecord(*bytes)) {
        facts.content = DiskContent::kVolume;
        facts.volumeName = NameOf(*bytes);
    } else {
        const bool empty = IsZero(bytes->data(), bytes->data() + bytes->size());
        facts.content = empty ? DiskContent::kEmpty : DiskContent::kForeign;
    }
    return {};
}

}  // namespace host
