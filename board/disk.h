// One disk on a card's SCSI bus: a raw image file (sparse is fine) or a block device, moved in whole 512-byte blocks
// with positioned I/O. Any number of threads may transfer at once. A disk can lose power: see PowerLoss.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace board {

constexpr std::uint32_t kBlockSize = 512;

struct DiskOptions {
    bool readOnly = false;      // writes fail; the file is opened for reading only
    bool writeThrough = false;  // O_DSYNC: what is acknowledged is durable
};

class Disk {
  public:
    // Opens `path`; the error text names the path and what the system said. A file shorter than one block is refused.
    static std::optional<Disk> Open(const std::string& path, const DiskOptions& options, std::string& error);

    Disk(Disk&& other) noexcept;
    Disk& operator=(Disk&&) = delete;
    ~Disk();

    std::uint64_t Blocks() const { return blocks_; }
    const std::string& Path() const { return path_; }

    // False when the range leaves the disk or the system refuses; the caller reports a device error.
    [[nodiscard]] bool Read(std::uint32_t lba, std::uint32_t count, void* buffer) const;
    [[nodiscard]] bool Write(std::uint32_t lba, std::uint32_t count, const void* buffer);
    [[nodiscard]] bool Sync();

    // From here on remember what unsynced writes replaced, so that LosePower can take some of them back.
    void KeepUndo(bool keep);

    // Power goes: of the writes since the last sync each is kept or lost as `random` says, in any order of arrival on
    // the medium; a lost write leaves the old blocks. The disk itself stays usable (the next boot looks at it).
    [[nodiscard]] bool LosePower(std::mt19937& random);

  private:
    struct UnsyncedWrite {
        std::uint32_t lba;
        std::vector<std::byte> before;
        std::vector<std::byte> after;
    };

    Disk(std::string path, int fd, std::uint64_t blocks) : path_(std::move(path)), fd_(fd), blocks_(blocks) {}
    bool InRange(std::uint32_t lba, std::uint32_t count) const {
        return static_cast<std::uint64_t>(lba) + count <= blocks_;
    }

    std::string path_;
    int fd_ = -1;
    std::uint64_t blocks_ = 0;
    std::mutex undoLock_;  // guards the two below, and orders undo records with the writes they describe
    bool keepUndo_ = false;
    std::vector<UnsyncedWrite> unsynced_;
};

}  // namespace board
