#include "tool/file_placement.h"

#include <vrkfs/control.h>

#include <algorithm>
#include <span>

#include "tool/text.h"
#include "tool/volume_list.h"

namespace tool {
namespace {

host::OpenResult OpenToAsk(host::Process& process, const DrivePath& path, std::uint32_t access, std::uint32_t options) {
    host::OpenRequest request;
    request.path = path.Open();
    request.access = access;
    request.options = options;
    return process.Create(request);
}

// A name with a separator in it would be the path of something else.
bool IsName(const std::u16string& name) {
    return !name.empty() && name.find_first_of(u"\\/") == name.npos;
}

template <typename Record>
host::Status Exchange(host::Process& process, host::Handle control, std::uint32_t code, Record& record) {
    return process
        .DeviceControl(control, code, std::as_bytes(std::span(&record, 1)),
                       std::as_writable_bytes(std::span(&record, 1)))
        .status;
}

// The volume's name as it is spelled on the disk, then its disks. The volume is open, so it is there under the name.
host::Status FindDevices(host::Process& process, VolumePlacement& placement) {
    std::u16string& name = placement.path.names.back();
    DrivePath type = placement.path;
    type.names.pop_back();
    const host::OpenResult opened =
        OpenToAsk(process, type, host::access::kListDirectory, host::option::kDirectoryFile);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    const host::ScopedHandle handle(process, opened.handle);
    std::vector<host::DirectoryEntry> entries;
    host::Status status = host::ListDirectory(process, opened.handle, entries, name);
    if (status.Ok() && entries.size() == 1) {
        name = entries.front().name;
    }
    std::vector<Volume> volumes;
    if (status.Ok()) {
        status = ListVolumes(process, placement.path.card, volumes);
    }
    if (!status.Ok()) {
        return status;
    }
    const auto found = std::ranges::find_if(volumes, [&](const Volume& volume) {
        return (volume.flags & VRKFS_VOLUME_HIDDEN) == 0 && volume.name == name;
    });
    if (found == volumes.end()) {
        return host::status::kObjectNameNotFound;
    }
    placement.devices = found->devices;
    return host::status::kSuccess;
}

host::Status ReadGeometry(host::Process& process, host::Handle control, host::Handle folder,
                          VolumePlacement& placement) {
    VrkFsVolumeSpaceInfo info{};
    info.Handle = folder;
    const host::Status status = Exchange(process, control, IOCTL_VRKFS_GET_VOLUME_SPACE_INFO, info);
    placement.freeBlocks = info.FreeBlocks;
    placement.totalBlocks = info.TotalBlocks;
    placement.lastDataBlock = info.LastBlock;
    return status;
}

void ReadFolder(host::Process& process, host::Handle control, const DrivePath& path, FolderPlacement& folder) {
    const host::OpenResult opened =
        OpenToAsk(process, path, host::access::kListDirectory, host::option::kDirectoryFile);
    folder.status = opened.status;
    if (!folder.status.Ok()) {
        return;
    }
    const host::ScopedHandle handle(process, opened.handle);
    std::vector<host::DirectoryEntry> entries;
    folder.status = host::ListDirectory(process, opened.handle, entries);
    for (const host::DirectoryEntry& entry : entries) {
        FilePlacement& file = folder.files.emplace_back();
        file.name = entry.name;
        if (!IsName(entry.name)) {
            file.status = host::status::kObjectNameInvalid;
            continue;
        }
        const host::OpenResult asked = OpenToAsk(process, path.Child(entry.name), host::access::kReadAttributes, 0);
        file.status = asked.status;
        if (file.status.Ok()) {
            const host::ScopedHandle fileHandle(process, asked.handle);
            file.status = ReadFilePlacement(process, control, asked.handle, file);
        }
    }
}

host::Status ListFolders(host::Process& process, host::Handle volume, VolumePlacement& placement) {
    std::vector<host::DirectoryEntry> entries;
    const host::Status status = host::ListDirectory(process, volume, entries);
    for (const host::DirectoryEntry& entry : entries) {
        if (entry.index < kFolderSlots) {
            placement.folders.push_back({entry.name, entry.index, placement.FolderRecord(entry.index), {}, {}});
        }
    }
    return status;
}

// Geometry, and with `folders` the list of folders without their files.
host::Status ReadVolume(host::Process& process, host::Handle control, const DrivePath& path, bool folders,
                        VolumePlacement& placement) {
    placement = {};
    placement.path = path;
    if (path.Depth() != kVolumeLevel || !IsName(path.names.back())) {
        return host::status::kObjectNameInvalid;
    }
    const host::OpenResult opened = OpenToAsk(
        process, path, host::access::kListDirectory | host::access::kReadAttributes, host::option::kDirectoryFile);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    const host::ScopedHandle handle(process, opened.handle);
    host::Status status = FindDevices(process, placement);
    if (status.Ok()) {
        status = ReadGeometry(process, control, opened.handle, placement);
    }
    return status.Ok() && folders ? ListFolders(process, opened.handle, placement) : status;
}

}  // namespace

const char* SegmentName(Segment segment) {
    constexpr const char* kNames[kSegments] = {"record", "data", "body table", "alpha data", "alpha body table"};
    return kNames[static_cast<std::size_t>(segment)];
}

bool VolumePlacement::Whole() const {
    return std::ranges::all_of(folders, [](const FolderPlacement& folder) {
        return folder.status.Ok() &&
               std::ranges::all_of(folder.files, [](const FilePlacement& file) { return file.status.Ok(); });
    });
}

host::Status ReadFilePlacement(host::Process& process, host::Handle control, host::Handle file,
                               FilePlacement& placement) {
    VrkFsFileLocation location{};
    location.Handle = file;
    const host::Status status = Exchange(process, control, IOCTL_VRKFS_GET_FILE_LOCATION_INFO, location);
    if (status.Ok()) {
        const BlockRange ranges[kSegments] = {{location.FileEntryLba, location.FileEntryBlocks},
                                              {location.DataLba, location.DataBlocks},
                                              {location.BodyTableLba, location.BodyTableBlocks},
                                              {location.AlphaDataLba, location.AlphaDataBlocks},
                                              {location.AlphaBodyTableLba, location.AlphaBodyTableBlocks}};
        // A start or a count of 0 says that there is none; a file may carry either alone.
        std::ranges::transform(ranges, placement.segments, [](const BlockRange& range) {
            return range.first != 0 && range.count != 0 ? range : BlockRange{};
        });
    }
    return status;
}

host::Status ReadVolumeGeometry(host::Process& process, const DrivePath& volume, VolumePlacement& placement) {
    const host::OpenResult control = OpenControl(process, volume.card);
    if (!control.status.Ok()) {
        return control.status;
    }
    const host::ScopedHandle handle(process, control.handle);
    return ReadVolume(process, control.handle, volume, false, placement);
}

host::Status ReadVolumePlacement(host::Process& process, const DrivePath& volume, VolumePlacement& placement,
                                 const PlacementWatch& watch) {
    const host::OpenResult control = OpenControl(process, volume.card);
    if (!control.status.Ok()) {
        return control.status;
    }
    const host::ScopedHandle handle(process, control.handle);
    if (const host::Status status = ReadVolume(process, control.handle, volume, true, placement); !status.Ok()) {
        return status;
    }
    for (std::size_t index = 0; index < placement.folders.size(); ++index) {
        if (watch && !watch(index, placement.folders.size())) {
            return host::status::kCancelled;
        }
        FolderPlacement& folder = placement.folders[index];
        if (IsName(folder.name)) {
            ReadFolder(process, control.handle, placement.PathOf(folder), folder);
        } else {
            folder.status = host::status::kObjectNameInvalid;
        }
    }
    return host::status::kSuccess;
}

}  // namespace tool
