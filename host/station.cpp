#include "host/station.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>
#include <thread>

namespace host {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kMaxCards = 10;
constexpr std::uint32_t kMaxScsiId = 15;
constexpr std::uint32_t kReservedScsiId = 7;
constexpr std::uint32_t kMaxDisksPerCard = 15;
// Two ends of the disk that are not data, and room for something between them.
constexpr std::uint64_t kSmallestDisk = 4ull << 20;

std::string Quoted(const fs::path& path) {
    return "'" + path.string() + "'";
}

Problem SystemProblem(const std::string& what, std::error_code error, std::string advice) {
    return {what + ": " + error.message(), std::move(advice)};
}

// The number behind `prefix` in a name made of prefix, digits and suffix, when the name is exactly that.
std::optional<std::uint32_t> NumberIn(const std::string& name, const std::string& prefix, const std::string& suffix) {
    if (name.size() <= prefix.size() + suffix.size() || !name.starts_with(prefix) || !name.ends_with(suffix)) {
        return std::nullopt;
    }
    const char* begin = name.data() + prefix.size();
    const char* end = name.data() + name.size() - suffix.size();
    std::uint32_t number = 0;
    const auto parsed = std::from_chars(begin, end, number);
    if (parsed.ec != std::errc() || parsed.ptr != end || std::to_string(number).size() != std::size_t(end - begin)) {
        return std::nullopt;
    }
    return number;
}

Problem MakeSparseImage(const fs::path& path, std::uint64_t bytes) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
        Problem problem = {Quoted(path) + ": " + std::strerror(errno), "check the directory and its free space"};
        if (fd >= 0) {
            ::close(fd);
        }
        return problem;
    }
    ::close(fd);
    return {};
}

nlohmann::ordered_json Dword(std::uint32_t value) {
    return {{"type", "REG_DWORD"}, {"value", value}};
}

// The service key with one subkey of defaults for each card, as an installation would leave it.
Problem WriteRegistry(const fs::path& path, std::uint32_t cards) {
    const std::string service = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\VrkFs";
    nlohmann::ordered_json keys;
    keys[service] = nlohmann::ordered_json::object();
    for (std::uint32_t card = 0; card < cards; ++card) {
        const std::string name = service + "\\Parameters" + (card == 0 ? "" : std::to_string(card));
        keys[name] = {{"MinFrameDigits", Dword(4)},
                      {"BaseFrameNumber", Dword(0)},
                      {"HCrop", Dword(0)},
                      {"VCrop", Dword(0)},
                      {"RAMFileMaxSize", Dword(2097152)},
                      {"TotalRAMFiles", Dword(10)},
                      {"DriveLetter0", {{"type", "REG_SZ"}, {"value", std::string(1, static_cast<char>('P' + card))}}},
                      {"ImportProcessingVideo", Dword(0)},
                      {"ImportProcessingAlpha", Dword(0)},
                      {"ScsiMaxRetries", Dword(4)},
                      {"ScsiVerifyWrite", Dword(1)}};
    }
    std::ofstream out(path);
    const nlohmann::ordered_json document = {{"format", 1}, {"keys", keys}};
    out << document.dump(4) << "\n";
    out.close();
    return out ? Problem{} : Problem{Quoted(path) + ": cannot be written", "check the directory and its free space"};
}

Problem FillStation(const fs::path& directory, const StationLayout& layout) {
    std::error_code error;
    fs::create_directory(directory / "SystemRoot", error);
    for (std::uint32_t card = 0; card < layout.cards && !error; ++card) {
        const fs::path folder = directory / ("card" + std::to_string(card));
        fs::create_directory(folder, error);
        std::uint32_t made = 0;
        for (std::uint32_t id = 0; made < layout.disks && !error; ++id) {
            if (id == kReservedScsiId) {
                continue;
            }
            if (Problem problem = MakeSparseImage(folder / ("scsi" + std::to_string(id) + ".img"), layout.diskBytes)) {
                return problem;
            }
            made += 1;
        }
    }
    if (error) {
        return SystemProblem(Quoted(directory), error, "check that you may write there");
    }
    return WriteRegistry(directory / "registry.json", layout.cards);
}

// 0, or what kept the lock from being had.
int TryLock(int fd, bool shared) {
    struct flock range {};
    range.l_type = static_cast<short>(shared ? F_RDLCK : F_WRLCK);
    range.l_whence = SEEK_SET;
    return ::fcntl(fd, F_OFD_SETLK, &range) == 0 ? 0 : errno;
}

// Whether what keeps the lock from being had is somebody who only reads the station: such a one writes no name.
bool IsHeldByReader(int fd) {
    struct flock range {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    return ::fcntl(fd, F_OFD_GETLK, &range) == 0 && range.l_type == F_RDLCK;
}

// Who runs the station, by what it wrote into the lock's file; it may be about to.
std::string HolderOf(int fd) {
    std::string name;
    if (IsHeldByReader(fd)) {
        return "another program, which only reads it";
    }
    for (int attempt = 0; name.empty() && attempt < 10; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(attempt * 5));
        char text[200];
        const ssize_t length = ::pread(fd, text, sizeof(text), 0);
        name.assign(text, length > 0 ? static_cast<std::size_t>(length) : 0);
        name.erase(name.find_last_not_of('\n') + 1);
    }
    return name;
}

bool IsDisk(int fd) {
    struct stat status {};
    return ::fstat(fd, &status) == 0 && (S_ISREG(status.st_mode) || S_ISBLK(status.st_mode));
}

bool SameFile(int first, int second) {
    struct stat one {};
    struct stat other {};
    return ::fstat(first, &one) == 0 && ::fstat(second, &other) == 0 && one.st_dev == other.st_dev &&
           one.st_ino == other.st_ino;
}

}  // namespace

Problem CreateStation(const fs::path& directory, const StationLayout& layout) {
    if (layout.cards < 1 || layout.cards > kMaxCards) {
        return {"a station has 1 to 10 cards", "give --cards a number from 1 to 10"};
    }
    if (layout.disks < 1 || layout.disks > kMaxDisksPerCard) {
        return {"a card has 1 to 15 disks", "give --disks a number from 1 to 15"};
    }
    if (layout.diskBytes < kSmallestDisk) {
        return {"a disk has at least 4M", "give --size 4M or more (the default is 2G; images are sparse)"};
    }
    std::error_code error;
    const bool existed = fs::exists(directory, error);
    if (existed && (!fs::is_directory(directory, error) || !fs::is_empty(directory, error))) {
        return {Quoted(directory) + " is there already and not empty", "name a new directory, or empty this one"};
    }
    if (!existed && !fs::create_directories(directory, error)) {
        return SystemProblem(Quoted(directory), error, "check that you may write there");
    }
    Problem problem = FillStation(directory, layout);
    if (problem) {
        for (const auto& entry : fs::directory_iterator(directory, error)) {
            fs::remove_all(entry.path(), error);
        }
        if (!existed) {
            fs::remove(directory, error);
        }
    }
    return problem;
}

std::unique_ptr<Station> Station::Read(const fs::path& directory, Problem& problem) {
    std::error_code error;
    if (!fs::is_directory(directory, error)) {
        const bool there = fs::exists(directory, error);
        problem = {Quoted(directory) + (there ? " is no station: it is no directory, or you may not look into it"
                                              : " is no station: there is no such directory"),
                   there ? "name a station's directory" : "make one with: vrkfs create-station " + directory.string()};
        return nullptr;
    }
    auto station = std::make_unique<Station>();
    station->directory_ = fs::absolute(directory, error);
    for (std::uint32_t card = 0; card < kMaxCards; ++card) {
        const fs::path folder = directory / ("card" + std::to_string(card));
        if (!fs::is_directory(folder, error)) {
            continue;
        }
        CardPlace place{card, {}};
        auto entry = fs::directory_iterator(folder, error);
        for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
            const auto id = NumberIn(entry->path().filename().string(), "scsi", ".img");
            if (id && *id <= kMaxScsiId) {
                place.disks.push_back({*id, entry->path()});
            }
        }
        if (error) {
            problem = SystemProblem(Quoted(folder), error, "check that you may read it");
            return nullptr;
        }
        std::sort(place.disks.begin(), place.disks.end(),
                  [](const DiskPlace& a, const DiskPlace& b) { return a.scsiId < b.scsiId; });
        station->cards_.push_back(std::move(place));
    }
    if (station->cards_.empty()) {
        problem = {Quoted(directory) + " is no station: it holds no card0 ... card9",
                   "make one with: vrkfs create-station DIR"};
        return nullptr;
    }
    return station;
}

std::unique_ptr<StationLock> StationLock::Take(const Station& station, const std::string& program, bool shared,
                                               Problem& problem) {
    const fs::path path = station.LockFile();
    // Who only reads writes nothing here either. A station that nobody has run yet has no such file; then the locks on
    // the images keep others away.
    const int fd =
        shared ? ::open(path.c_str(), O_RDONLY | O_CLOEXEC) : ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0 && !shared) {
        problem = {Quoted(path) + ": " + std::strerror(errno), "check that you may write to the station's directory"};
        return nullptr;
    }
    if (fd >= 0 && TryLock(fd, shared) != 0) {
        const std::string name = HolderOf(fd);
        ::close(fd);
        problem = {"the station " + Quoted(station.Directory()) + " is in use by " +
                       (name.empty() ? std::string("another program") : name),
                   "wait until it is done, or end it; several programs share a station through vrkfs serve", true};
        return nullptr;
    }
    std::unique_ptr<StationLock> lock(new StationLock(fd, shared));
    if (!shared) {
        // Nobody runs the station now, so whatever name stands there is of one who crashed.
        const std::string text = program + " (process " + std::to_string(::getpid()) + ")\n";
        if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, text.data(), text.size(), 0) < 0) {
            // The text only helps whoever waits; the lock itself stands.
        }
        lock->named_ = true;
    }
    for (const CardPlace& card : station.Cards()) {
        problem = lock->LockImages(card);
        if (problem) {
            return nullptr;
        }
    }
    return lock;
}

// What cannot be opened is left to whoever plugs the disk, who says so.
Problem StationLock::LockImages(const CardPlace& card) {
    for (const DiskPlace& disk : card.disks) {
        const int fd = ::open(disk.path.c_str(), (shared_ ? O_RDONLY : O_RDWR) | O_CLOEXEC | O_NONBLOCK);
        if (fd < 0) {
            continue;
        }
        const bool twice = std::ranges::any_of(images_, [fd](const Image& image) { return SameFile(image.fd, fd); });
        images_.push_back({card.index, fd});
        const std::string what = "disk " + std::to_string(disk.scsiId) + " of card " + std::to_string(card.index) +
                                 " (" + Quoted(disk.path) + ")";
        if (!IsDisk(fd)) {
            return {what + " is neither a file nor a block device", "put an image in its place, or move it away"};
        }
        if (twice) {
            return {what + " is the image of another disk too", "give each disk an image of its own"};
        }
        if (const int error = TryLock(fd, shared_); error == EAGAIN || error == EACCES) {
            return {what + " is in use by another station", "wait until that one is done, or unlink the disk", true};
        }
    }
    return {};
}

void StationLock::UnlockImages(const CardPlace& card) {
    std::erase_if(images_, [&card](const Image& image) {
        const bool ours = image.card == card.index;
        if (ours) {
            ::close(image.fd);
        }
        return ours;
    });
}

StationLock::~StationLock() {
    for (const Image& image : images_) {
        ::close(image.fd);
    }
    if (fd_ < 0) {
        return;
    }
    if (named_ && ::ftruncate(fd_, 0) != 0) {
        // The next holder writes over it; until then it misleads only those who find a reader here.
    }
    ::close(fd_);
}

}  // namespace host
