// What a card's control device says about its volumes.
#pragma once

#include <vrkfs/control.h>

#include <cstdint>
#include <string>
#include <vector>

#include "host/process.h"

namespace tool {

struct Volume {
    std::u16string name;
    std::vector<std::uint32_t> devices;  // SCSI IDs by position; VRKFS_NO_DEVICE where the disk is missing
    std::uint32_t flags = 0;             // VRKFS_VOLUME_...

    [[nodiscard]] bool Has(std::uint32_t scsiId) const;
    // "0, 1", with "-" for a disk that is missing.
    [[nodiscard]] std::string Disks() const;
};

struct VolumeSpace {
    std::uint64_t totalBytes = 0;
    std::uint64_t freeBytes = 0;
};

[[nodiscard]] std::string ListOfIds(const std::vector<std::uint32_t>& ids);

// Opens a card's control device.
[[nodiscard]] host::OpenResult OpenControl(host::Process& process, std::uint32_t card, bool overlapped = false);

// SCSI IDs of the disks that answer on a card's bus, ascending.
[[nodiscard]] host::Status ListDisks(host::Process& process, std::uint32_t card, std::vector<std::uint32_t>& ids);

[[nodiscard]] host::Status ListVolumes(host::Process& process, std::uint32_t card, std::vector<Volume>& volumes);

// Of a volume that can be opened, over all its disks.
[[nodiscard]] host::Status MeasureVolume(host::Process& process, std::uint32_t card, char drive,
                                         const std::u16string& name, VolumeSpace& space);

}  // namespace tool
