// Where everything on a volume lies: its geometry, and of every folder and file the blocks that it owns, as the driver
// tells them.
//
//   0 .. 1                 volume record, on each disk its own
//   2 .. 1023              unused
//   1024 .. lastDataBlock  data area: video, alpha and plain data on every disk; file records and body tables on the
//                          first one
//   lastDataBlock + 1 ..   256 folder records of 18 blocks, on the first disk
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "host/process.h"
#include "tool/paths.h"

namespace tool {

inline constexpr std::uint32_t kDiskBlockBytes = 512;
inline constexpr std::uint32_t kVolumeRecordBlocks = 2;
inline constexpr std::uint32_t kFirstDataBlock = 1024;
inline constexpr std::uint32_t kFolderRecordBlocks = 18;
inline constexpr std::uint32_t kFolderSlots = 256;

// Blocks of a disk; none when `count` is 0.
struct BlockRange {
    std::uint32_t first = 0;
    std::uint32_t count = 0;

    explicit operator bool() const { return count != 0; }
    bool operator==(const BlockRange&) const = default;
    [[nodiscard]] std::uint64_t End() const { return std::uint64_t{first} + count; }  // behind the last one
    [[nodiscard]] bool Has(std::uint64_t block) const { return block >= first && block < End(); }
};

// What a file can own, numbered as VRKFS_SEGMENT_...
enum class Segment : std::uint8_t { kRecord, kData, kBodyTable, kAlphaData, kAlphaBodyTable };
inline constexpr std::size_t kSegments = 5;
[[nodiscard]] const char* SegmentName(Segment segment);  // "record", "data", "body table", "alpha data", ...
// Data lies on every disk of the volume at the same blocks; records and tables on the first disk only.
[[nodiscard]] constexpr bool IsOnEveryDisk(Segment segment) {
    return segment == Segment::kData || segment == Segment::kAlphaData;
}

struct FilePlacement {
    std::u16string name;
    host::Status status;             // of asking; when it failed the ranges are not known
    BlockRange segments[kSegments];  // by Segment

    [[nodiscard]] const BlockRange& Of(Segment segment) const { return segments[static_cast<std::size_t>(segment)]; }
};

struct FolderPlacement {
    std::u16string name;
    std::uint32_t slot = 0;  // 0 to 255
    BlockRange record;
    host::Status status;  // of listing it; when it failed its files are not known
    std::vector<FilePlacement> files;
};

struct VolumePlacement {
    DrivePath path;                      // P:/RZV/VOLUME
    std::vector<std::uint32_t> devices;  // SCSI IDs by position
    std::uint32_t lastDataBlock = 0;     // of the data area, on every disk
    std::uint64_t freeBlocks = 0;        // over all disks
    std::uint64_t totalBlocks = 0;       // over all disks, from block 0 of each
    std::vector<FolderPlacement> folders;

    // Whether every folder and file told its blocks, so that what is claimed by none of them is free.
    [[nodiscard]] bool Whole() const;
    [[nodiscard]] BlockRange FolderRecord(std::uint32_t slot) const {
        return {lastDataBlock + 1 + slot * kFolderRecordBlocks, kFolderRecordBlocks};
    }
    // "P:/RZV/VOLUME/FOLDER", ".../FILE"
    [[nodiscard]] DrivePath PathOf(const FolderPlacement& folder) const { return path.Child(folder.name); }
    [[nodiscard]] DrivePath PathOf(const FolderPlacement& folder, const FilePlacement& file) const {
        return PathOf(folder).Child(file.name);
    }
};

// Called for each folder; false stops the reading.
using PlacementWatch = std::function<bool(std::size_t folder, std::size_t folders)>;

// Reads all of it. `volume` is P:/RZV/VOLUME. A folder or file that cannot be asked keeps its place in the lists, with
// the status. Returns STATUS_CANCELLED when the watch said so.
[[nodiscard]] host::Status ReadVolumePlacement(host::Process& process, const DrivePath& volume,
                                               VolumePlacement& placement, const PlacementWatch& watch = {});

// The geometry and the counts alone.
[[nodiscard]] host::Status ReadVolumeGeometry(host::Process& process, const DrivePath& volume,
                                              VolumePlacement& placement);

// Of one open file; `control` is the card's control device.
[[nodiscard]] host::Status ReadFilePlacement(host::Process& process, host::Handle control, host::Handle file,
                                             FilePlacement& placement);

}  // namespace tool
