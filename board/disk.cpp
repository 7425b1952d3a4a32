#include "board/disk.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace board {
namespace {

// Moves all of it: a transfer may be cut by a signal or the end of a kernel-side chunk.
template <typename Transfer>
bool MoveAll(Transfer transfer, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t moved = transfer(done, size - done);
        if (moved < 0 && errno == EINTR) {
            continue;
        }
        if (moved <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(moved);
    }
    return true;
}

bool ReadAll(int fd, void* buffer, std::size_t size, off_t offset) {
    return MoveAll(
        [&](std::size_t done, std::size_t left) {
            return ::pread(fd, static_cast<std::byte*>(buffer) + done, left, offset + static_cast<off_t>(done));
        },
        size);
}

bool WriteAll(int fd, const void* buffer, std::size_t size, off_t offset) {
    return MoveAll(
        [&](std::size_t done, std::size_t left) {
            return ::pwrite(fd, static_cast<const std::byte*>(buffer) + done, left, offset + static_cast<off_t>(done));
        },
        size);
}

off_t OffsetOf(std::uint32_t lba) {
    return static_cast<off_t>(lba) * kBlockSize;
}

}  // namespace

std::optional<Disk> Disk::Open(const std::string& path, const DiskOptions& options, std::string& error) {
    int flags = O_CLOEXEC | (options.readOnly ? O_RDONLY : O_RDWR);
    if (options.writeThrough && !options.readOnly) {
        flags |= O_DSYNC;
    }
    const int fd = ::open(path.c_str(), flags);
    if (fd < 0) {
        error = path + ": " + std::strerror(errno);
        return std::nullopt;
    }
    struct stat info {};
    std::uint64_t bytes = 0;
    if (::fstat(fd, &info) == 0 && S_ISBLK(info.st_mode)) {
        if (::ioctl(fd, BLKGETSIZE64, &bytes) != 0) {
            bytes = 0;
        }
    } else if (S_ISREG(info.st_mode)) {
        bytes = static_cast<std::uint64_t>(info.st_size);
    }
    // Block addresses on the bus are 32-bit: a larger disk is used as far as they reach.
    const std::uint64_t blocks = std::min<std::uint64_t>(bytes / kBlockSize, std::uint64_t{1} << 32);
    if (blocks == 0) {
        error = path + ": is no disk: neither a block device nor a file of at least one 512-byte block";
        ::close(fd);
        return std::nullopt;
    }
    return Disk(path, fd, blocks);
}

Disk::Disk(Disk&& other) noexcept
    : path_(std::move(other.path_)), fd_(std::exchange(other.fd_, -1)), blocks_(other.blocks_) {}

Disk::~Disk() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

bool Disk::Read(std::uint32_t lba, std::uint32_t count, void* buffer) const {
    return InRange(lba, count) && ReadAll(fd_, buffer, std::size_t{count} * kBlockSize, OffsetOf(lba));
}

bool Disk::Write(std::uint32_t lba, std::uint32_t count, const void* buffer) {
    if (!InRange(lba, count)) {
        return false;
    }
    const std::size_t size = std::size_t{count} * kBlockSize;
    if (!__atomic_load_n(&keepUndo_, __ATOMIC_RELAXED)) {
        return WriteAll(fd_, buffer, size, OffsetOf(lba));
    }
    const std::lock_guard hold(undoLock_);
    UnsyncedWrite record{lba, std::vector<std::byte>(size), std::vector<std::byte>(size)};
    std::memcpy(record.after.data(), buffer, size);
    if (!ReadAll(fd_, record.before.data(), size, OffsetOf(lba)) || !WriteAll(fd_, buffer, size, OffsetOf(lba))) {
        return false;
    }
    unsynced_.push_back(std::move(record));
    return true;
}

bool Disk::Sync() {
    const std::lock_guard hold(undoLock_);
    if (::fdatasync(fd_) != 0) {
        return false;  // what was written may still be lost
    }
    unsynced_.clear();
    return true;
}

void Disk::KeepUndo(bool keep) {
    const std::lock_guard hold(undoLock_);
    __atomic_store_n(&keepUndo_, keep, __ATOMIC_RELAXED);
    if (!keep) {
        unsynced_.clear();
    }
}

bool Disk::LosePower(std::mt19937& random) {
    const std::lock_guard hold(undoLock_);
    bool whole = true;
    for (auto write = unsynced_.rbegin(); write != unsynced_.rend(); ++write) {
        whole = WriteAll(fd_, write->before.data(), write->before.size(), OffsetOf(write->lba)) && whole;
    }
    for (const UnsyncedWrite& write : unsynced_) {
        if (random() & 1) {
            whole = WriteAll(fd_, write.after.data(), write.after.size(), OffsetOf(write.lba)) && whole;
        }
    }
    unsynced_.clear();
    return whole;
}

}  // namespace board
