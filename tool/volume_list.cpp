#include "tool/volume_list.h"

#include <vrkfs/board.h>

#include <algorithm>
#include <cstring>
#include <span>

#include "tool/paths.h"

namespace tool {
namespace {

constexpr std::uint64_t kBlockBytes = 512;

Volume VolumeOf(const VrkFsVolumeInfoRecord& record) {
    Volume volume;
    static_assert(sizeof(VrkFsChar) == sizeof(char16_t));
    volume.name.resize(VRKFS_VOLUME_NAME_CHARS);
    std::memcpy(volume.name.data(), record.Name, sizeof(record.Name));
    volume.name.resize(std::min(volume.name.size(), volume.name.find(u'\0')));
    const std::uint32_t count = std::min(record.DeviceCount, VRKFS_VOLUME_MAX_DEVICES);
    volume.devices.assign(record.Devices, record.Devices + count);
    volume.flags = record.Flags;
    return volume;
}

}  // namespace

bool Volume::Has(std::uint32_t scsiId) const {
    return std::ranges::find(devices, scsiId) != devices.end();
}

std::string Volume::Disks() const {
    return ListOfIds(devices);
}

std::string ListOfIds(const std::vector<std::uint32_t>& ids) {
    std::string text;
    for (const std::uint32_t id : ids) {
        text += (text.empty() ? "" : ", ") + (id == VRKFS_NO_DEVICE ? std::string("-") : std::to_string(id));
    }
    return text;
}

host::OpenResult OpenControl(host::Process& process, std::uint32_t card, bool overlapped) {
    host::OpenRequest request;
    request.path = u"VrkFsDevice" + std::u16string(1, static_cast<char16_t>(u'0' + card));
    request.access = host::access::kReadData | host::access::kWriteData;
    request.overlapped = overlapped;
    return process.Create(request);
}

host::Status ListDisks(host::Process& process, std::uint32_t card, std::vector<std::uint32_t>& ids) {
    host::OpenRequest request;
    request.path = u"\\Device\\Vrk" + std::u16string(1, static_cast<char16_t>(u'0' + card));
    request.access = host::access::kReadData;
    const host::OpenResult bus = process.Create(request);
    if (!bus.status.Ok()) {
        return bus.status;
    }
    const host::ScopedHandle handle(process, bus.handle);
    for (std::uint32_t id = 0; id < VRK_SCSI_ID_COUNT; ++id) {
        VrkScsiDeviceInfo info{};
        info.ScsiId = id;
        const auto bytes = std::as_writable_bytes(std::span(&info, 1));
        const host::IoResult result =
            process.DeviceControl(handle.Get(), IOCTL_VRK_SCSI_DEVICE_QUERY, std::as_bytes(std::span(&info, 1)), bytes);
        if (result.status.Ok() && info.State == VRK_DEVICE_STATE_DISK) {
            ids.push_back(id);
        }
    }
    return host::status::kSuccess;
}

host::Status ListVolumes(host::Process& process, std::uint32_t card, std::vector<Volume>& volumes) {
    const host::OpenResult control = OpenControl(process, card);
    if (!control.status.Ok()) {
        return control.status;
    }
    const host::ScopedHandle handle(process, control.handle);
    const std::uint32_t ignored = 0;
    std::uint32_t count = 0;
    std::vector<std::byte> answer(sizeof(count));
    // More volumes may appear between the question how many there are and the question which.
    while (true) {
        const host::IoResult result = process.DeviceControl(handle.Get(), IOCTL_VRKFS_QUERY_VOLUME_INFO,
                                                            std::as_bytes(std::span(&ignored, 1)), answer);
        if (!result.status.Ok()) {
            return result.status;
        }
        std::memcpy(&count, answer.data(), sizeof(count));
        if (answer.size() >= sizeof(count) + count * sizeof(VrkFsVolumeInfoRecord)) {
            break;
        }
        answer.resize(sizeof(count) + std::size_t{count} * sizeof(VrkFsVolumeInfoRecord));
    }
    for (std::uint32_t index = 0; index < count; ++index) {
        VrkFsVolumeInfoRecord record;
        std::memcpy(&record, answer.data() + sizeof(count) + index * sizeof(record), sizeof(record));
        volumes.push_back(VolumeOf(record));
    }
    return host::status::kSuccess;
}

host::Status MeasureVolume(host::Process& process, std::uint32_t card, char drive, const std::u16string& name,
                           VolumeSpace& space) {
    if (name.find(u'\\') != name.npos) {
        return host::status::kObjectNameInvalid;  // it would be the path of something else
    }
    host::OpenRequest request;
    request.path = DrivePath{drive, card, {u"RZV", name}}.Open();
    request.access = host::access::kReadAttributes;
    request.options = host::option::kDirectoryFile;
    const host::OpenResult volume = process.Create(request);
    if (!volume.status.Ok()) {
        return volume.status;
    }
    const host::ScopedHandle volumeHandle(process, volume.handle);
    const host::OpenResult control = OpenControl(process, card);
    if (!control.status.Ok()) {
        return control.status;
    }
    const host::ScopedHandle controlHandle(process, control.handle);
    VrkFsVolumeSpaceInfo info{};
    info.Handle = volume.handle;
    const host::IoResult result =
        process.DeviceControl(controlHandle.Get(), IOCTL_VRKFS_GET_VOLUME_SPACE_INFO,
                              std::as_bytes(std::span(&info, 1)), std::as_writable_bytes(std::span(&info, 1)));
    space = {info.TotalBlocks * kBlockBytes, info.FreeBlocks * kBlockBytes};
    return result.status;
}

}  // namespace tool
