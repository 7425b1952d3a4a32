// A station is a directory that stands for a machine with recording cards:
//
//   card0/ ... card9/          one folder per card, each with
//     scsi0.img ... scsi15.img   its disks by SCSI ID: regular files or links to block devices
//   registry.json              the driver's service key, readable and editable
//   events.log                 the system event log
//   SystemRoot/                what the driver sees as \SystemRoot
//   lock                       held by whoever runs the station; names the holder
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace host {

// A failure for a person: what went wrong, on what, and what to do about it.
struct [[nodiscard]] Problem {
    std::string what;  // empty: no problem
    std::string advice;
    bool inUse = false;  // somebody else runs the station
    explicit operator bool() const { return !what.empty(); }
};

struct StationLayout {
    std::uint32_t cards = 1;  // 1 to 10
    std::uint32_t disks = 4;  // per card, 1 to 15; ID 7 is skipped
    std::uint64_t diskBytes = 2ull << 30;
};

// Makes a new station: sparse images and registry keys with their defaults. Refuses a directory that holds anything,
// and leaves nothing behind when it fails.
Problem CreateStation(const std::filesystem::path& directory, const StationLayout& layout);

struct DiskPlace {
    std::uint32_t scsiId = 0;
    std::filesystem::path path;
};

struct CardPlace {
    std::uint32_t index = 0;
    std::vector<DiskPlace> disks;  // ascending SCSI ID
};

class Station {
  public:
    // Reads what is there; takes no lock. `problem` says what is wrong with it.
    static std::unique_ptr<Station> Read(const std::filesystem::path& directory, Problem& problem);

    const std::filesystem::path& Directory() const { return directory_; }
    const std::vector<CardPlace>& Cards() const { return cards_; }
    std::filesystem::path Registry() const { return directory_ / "registry.json"; }
    std::filesystem::path EventLog() const { return directory_ / "events.log"; }
    std::filesystem::path SystemRoot() const { return directory_ / "SystemRoot"; }
    std::filesystem::path LockFile() const { return directory_ / "lock"; }

  private:
    std::filesystem::path directory_;
    std::vector<CardPlace> cards_;
};

// The station's lock, for as long as this object lives. It is the kernel's lock on an open file, so it goes with its
// holder and is never stale; the file's text (the program and its process ID, of who runs the station, not of who only
// reads it) is for the one who finds it held. The images are locked with it: links can lead from two stations, or twice
// from one, to the same image, and two drivers on it would destroy it.
class StationLock {
  public:
    static std::unique_ptr<StationLock> Take(const Station& station, const std::string& program, bool shared,
                                             Problem& problem);
    ~StationLock();
    StationLock(const StationLock&) = delete;
    StationLock& operator=(const StationLock&) = delete;

    // While the images of a card are given to another program: they are closed here, and locked again afterwards,
    // whichever they are then.
    void UnlockImages(const CardPlace& card);
    Problem LockImages(const CardPlace& card);

  private:
    struct Image {
        std::uint32_t card;
        int fd;
    };

    StationLock(int fd, bool shared) : fd_(fd), shared_(shared) {}

    int fd_;
    bool shared_;
    bool named_ = false;  // the file says who holds it
    std::vector<Image> images_;
};

}  // namespace host
