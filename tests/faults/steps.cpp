#include "tests/faults/steps.h"

#include <vrkfs/media.h>
#include <vrkfs/records.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "tests/support/machine_fixture.h"

namespace faults {

using host::Disposition;
using host::Process;
using host::ScopedHandle;

namespace {
constexpr std::uint32_t kReadWrite = host::access::kReadData | host::access::kWriteData;
constexpr std::size_t kChunk = 100'000;  // no multiple of a sector: partial sectors are part of the life
}  // namespace

host::OpenResult OpenPath(Process& user, const std::u16string& path, Disposition disposition, std::uint32_t access,
                          std::uint32_t options) {
    host::OpenRequest request;
    request.path = u"P:" + path;
    request.disposition = disposition;
    request.access = access;
    request.options = options;
    return user.Create(request);
}

host::Status MakeFolder(Process& user, const std::u16string& path) {
    const auto opened =
        OpenPath(user, path, Disposition::kCreate, host::access::kReadData, host::option::kDirectoryFile);
    const ScopedHandle folder(user, opened.handle);
    return opened.status;
}

host::Status Format(Process& user, const std::u16string& name, std::uint32_t first, std::uint32_t count) {
    host::OpenRequest request;
    request.path = u"VrkFsDevice0";
    request.access = kReadWrite;
    const auto opened = user.Create(request);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    const ScopedHandle control(user, opened.handle);
    VrkFsVolumeInfoRecord record{};
    std::memcpy(record.Name, name.data(), name.size() * sizeof(char16_t));
    record.DeviceCount = count;
    std::fill(std::begin(record.Devices), std::end(record.Devices), 0xFFFFFFFF);
    for (std::uint32_t i = 0; i < count; ++i) {
        record.Devices[i] = first + i;
    }
    std::int32_t result = -1;
    const auto answer = user.DeviceControl(control.Get(), IOCTL_VRKFS_FORMAT_VOLUME, tests::BytesOf(record),
                                           tests::WritableBytesOf(result));
    return answer.status.Ok() && result != 0 ? host::status::kUnsuccessful : answer.status;
}

host::Status PutClip(Process& user, const std::u16string& path, const Bytes& image) {
    const auto opened = OpenPath(user, path, Disposition::kCreate, kReadWrite);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    const ScopedHandle file(user, opened.handle);
    for (std::size_t done = 0; done < image.size();) {
        const auto piece = std::span(image).subspan(done, std::min(kChunk, image.size() - done));
        const auto written = user.Write(file.Get(), piece, done);
        if (!written.status.Ok()) {
            return written.status;
        }
        done += written.information;
    }
    return host::status::kSuccess;
}

host::Status GetClip(Process& user, const std::u16string& path, Bytes& image) {
    const auto opened =
        OpenPath(user, path, Disposition::kOpen, host::access::kReadData | host::access::kReadAttributes);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    const ScopedHandle file(user, opened.handle);
    host::FileFacts facts;
    if (const host::Status status = host::QueryFacts(user, file.Get(), facts); !status.Ok()) {
        return status;
    }
    if (facts.size > (64 << 20)) {
        return host::status::kFileInvalid;
    }
    image.resize(facts.size);
    for (std::size_t done = 0; done < image.size();) {
        const auto piece = std::span(image).subspan(done, std::min(kChunk, image.size() - done));
        const auto read = user.Read(file.Get(), piece, done);
        if (!read.status.Ok()) {
            return read.status;
        }
        done += read.information;
    }
    return host::status::kSuccess;
}

host::Status DeleteFile(Process& user, const std::u16string& path) {
    const auto opened = OpenPath(user, path, Disposition::kOpen, host::access::kDelete);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    ScopedHandle file(user, opened.handle);
    return host::SetDeleteOnCleanup(user, file.Get(), true);
}

bool Listed(Process& user, const std::u16string& folder, const std::u16string& name, host::Status& status) {
    const auto opened =
        OpenPath(user, folder, Disposition::kOpen, host::access::kListDirectory, host::option::kDirectoryFile);
    status = opened.status;
    if (!status.Ok()) {
        return false;
    }
    const ScopedHandle directory(user, opened.handle);
    std::vector<host::DirectoryEntry> entries;
    status = host::ListDirectory(user, directory.Get(), entries);
    return std::any_of(entries.begin(), entries.end(), [&](const auto& entry) { return entry.name == name; });
}

// Free blocks of a volume, by one of its folders.
std::uint64_t FreeBlocks(Process& user, const std::u16string& folder) {
    host::OpenRequest request;
    request.path = u"VrkFsDevice0";
    request.access = kReadWrite;
    const ScopedHandle control(user, user.Create(request).handle);
    const ScopedHandle directory(
        user,
        OpenPath(user, folder, Disposition::kOpen, host::access::kListDirectory, host::option::kDirectoryFile).handle);
    VrkFsVolumeSpaceInfo info{};
    info.Handle = directory.Get();
    const auto answer = user.DeviceControl(control.Get(), IOCTL_VRKFS_GET_VOLUME_SPACE_INFO, tests::BytesOf(info),
                                           tests::WritableBytesOf(info));
    return answer.status.Ok() ? info.FreeBlocks : ~std::uint64_t{0};
}

host::Status RenameTo(Process& user, const std::u16string& path, const std::u16string& target) {
    const auto opened = OpenPath(user, path, Disposition::kOpen, host::access::kReadData | host::access::kDelete);
    const ScopedHandle object(user, opened.handle);
    return opened.status.Ok() ? host::Rename(user, object.Get(), target) : opened.status;
}

namespace {

host::OpenResult OpenAlone(Process& user, const std::u16string& path, Disposition disposition) {
    host::OpenRequest request;
    request.path = u"P:" + path;
    request.disposition = disposition;
    request.access = kReadWrite;
    request.shareAccess = 0;
    return user.Create(request);
}

ScopedHandle Control(Process& user) {
    host::OpenRequest request;
    request.path = u"VrkFsDevice0";
    request.access = kReadWrite;
    return {user, user.Create(request).handle};
}

template <typename Record>
bool Ask(Process& user, const ScopedHandle& control, std::uint32_t code, Record& record) {
    return user.DeviceControl(control.Get(), code, tests::BytesOf(record), tests::WritableBytesOf(record)).status.Ok();
}

// Every field one sector, as the table in shared memory is told.
bool FillNodes(Process& user, const std::u16string& section, std::uint32_t frames) {
    Process::SectionView view;
    if (!user.MapSection(section, true, view).Ok()) {
        return false;
    }
    for (std::uint32_t field = 0; field < 2 * frames; ++field) {
        const VrkFsPlacedNode node = {field % 2, 0, {1, 0}};
        std::memcpy(view.bytes.data() + field * sizeof(node), &node, sizeof(node));
    }
    user.UnmapSection(view);
    return true;
}

}  // namespace

bool MoveSegment(Process& user, const std::u16string& path, std::uint32_t segment, std::int64_t step) {
    const ScopedHandle file(user, OpenAlone(user, path, Disposition::kOpen).handle);
    const ScopedHandle control = Control(user);
    VrkFsFileLocation place{};
    place.Handle = file.Get();
    Process::NamedMemory counter;
    if (!file || !control || !Ask(user, control, IOCTL_VRKFS_GET_FILE_LOCATION_INFO, place) ||
        !user.AllocateMemory(sizeof(std::uint32_t), counter).Ok()) {
        return false;
    }
    const std::uint32_t from[] = {place.FileEntryLba, place.DataLba, place.BodyTableLba, place.AlphaDataLba,
                                  place.AlphaBodyTableLba};
    VrkFsSegmentMove move{};
    move.Handle = file.Get();
    move.NewLba[segment] = static_cast<std::uint32_t>(from[segment] + step);
    move.ProgressAddress = counter.name;
    const bool answered = Ask(user, control, IOCTL_VRKFS_MOVE_FILE_SEGMENTS, move);
    user.FreeMemory(counter);
    return answered && move.Results[segment] == VRKFS_RESULT_DONE;
}

bool RecordInPlace(Process& user, const std::u16string& path) {
    constexpr std::uint32_t kRecorded = 4;  // frames, of twice as many that there is room for
    const ScopedHandle file(user, OpenAlone(user, path, Disposition::kCreate).handle);
    const ScopedHandle control = Control(user);
    VrkFsVideoSpace space{};
    space.Handle = file.Get();
    space.BodyTableBlocksWanted = 2;
    space.DataBlocksWanted = 2 * kRecorded;
    if (!file || !Ask(user, control, IOCTL_VRKFS_ALLOCATE_VIDEO_SPACE, space) || space.Result != VRKFS_RESULT_DONE) {
        return false;
    }
    const auto post = [&](std::uint32_t code, std::span<const std::byte> in, std::span<std::byte> out) {
        return user.DeviceControl(control.Get(), code, in, out).status.Ok();
    };
    const VrkFsBodyTableCreation creation = {file.Get(), 2 * kRecorded, 0};
    const VrkFsBodyTableNodes nodes = {file.Get(), space.BodyTableLba, space.BodyTableBlocks, 0};
    std::array<char16_t, 300> name{};
    bool done = post(IOCTL_VRKFS_CREATE_NEW_BODY_TABLE, tests::BytesOf(creation), {}) &&
                post(IOCTL_VRKFS_ADD_VIDEO_NODES_TO_BODY_TABLE, tests::BytesOf(nodes), tests::WritableBytesOf(name)) &&
                FillNodes(user, name.data(), kRecorded);
    VrkFsVideoFileUpdate update{};
    update.Handle = file.Get();
    update.FrameCount = kRecorded;
    update.VideoBodyTableAllocated = space.BodyTableBlocks;
    update.VideoDataAllocated = space.DataBlocks;
    update.VideoBodyTableUsed = 1;
    update.VideoDataUsed = kRecorded;
    update.VideoDataLength = 2 * kRecorded;
    update.Flags = VRKFS_UPDATE_VIDEO;
    done = Ask(user, control, IOCTL_VRKFS_UPDATE_VIDEO_FILE, update) && done;
    const VrkFsBodyTableDereference end = {file.Get(), 0};
    return post(IOCTL_VRKFS_DEREFERENCE_BODY_TABLE, tests::BytesOf(end), {}) && done;
}

bool LookAtTable(Process& user, const std::u16string& path) {
    const ScopedHandle file(user, OpenAlone(user, path, Disposition::kOpen).handle);
    const ScopedHandle control = Control(user);
    const VrkFsBodyTableReference reference = {file.Get(), 0, {}, 0};
    std::array<char16_t, 300> name{};
    return user
        .DeviceControl(control.Get(), IOCTL_VRKFS_REFERENCE_BODY_TABLE, tests::BytesOf(reference),
                       tests::WritableBytesOf(name))
        .status.Ok();
}

}  // namespace faults
