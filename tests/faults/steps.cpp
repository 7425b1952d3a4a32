#include "tests/faults/steps.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <numeric>

#include "client/client.h"
#include "examples/recorder.h"
#include "tests/support/machine_fixture.h"

namespace faults {

using host::Disposition;
using host::Process;
using host::ScopedHandle;

namespace {

constexpr std::uint32_t kReadWrite = host::access::kReadData | host::access::kWriteData;
constexpr std::size_t kChunk = 100'000;  // no multiple of a sector: partial sectors are part of the life

ScopedHandle Control(Process& user) {
    return {user, user.Create({.path = u"VrkFsDevice0", .access = kReadWrite}).handle};
}

// One record in and out.
template <typename Record>
bool Ask(Process& user, const ScopedHandle& control, std::uint32_t code, Record& record) {
    return user.DeviceControl(control.Get(), code, tests::BytesOf(record), tests::WritableBytesOf(record)).status.Ok();
}

}  // namespace

host::OpenResult OpenPath(Process& user, const std::u16string& path, Disposition disposition, std::uint32_t access,
                          std::uint32_t options, std::uint32_t shareAccess) {
    return user.Create({.path = u"P:" + path,
                        .access = access,
                        .shareAccess = shareAccess,
                        .disposition = disposition,
                        .options = options});
}

host::Status MakeFolder(Process& user, const std::u16string& path) {
    const auto opened =
        OpenPath(user, path, Disposition::kCreate, host::access::kReadData, host::option::kDirectoryFile);
    const ScopedHandle folder(user, opened.handle);
    return opened.status;
}

host::Status Format(Process& user, const std::u16string& name, std::uint32_t first, std::uint32_t count) {
    const ScopedHandle control = Control(user);
    VrkFsVolumeInfoRecord record{};
    std::memcpy(record.Name, name.data(), name.size() * sizeof(char16_t));
    record.DeviceCount = count;
    std::fill(std::begin(record.Devices), std::end(record.Devices), 0xFFFFFFFF);
    std::iota(record.Devices, record.Devices + count, first);
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
    const ScopedHandle file(user, opened.handle);
    return opened.status.Ok() ? host::SetDeleteOnCleanup(user, file.Get(), true) : opened.status;
}

bool Listed(Process& user, const std::u16string& folder, const std::u16string& name) {
    const ScopedHandle directory(
        user,
        OpenPath(user, folder, Disposition::kOpen, host::access::kListDirectory, host::option::kDirectoryFile).handle);
    std::vector<host::DirectoryEntry> entries;
    (void)host::ListDirectory(user, directory.Get(), entries);
    return std::any_of(entries.begin(), entries.end(), [&](const auto& entry) { return entry.name == name; });
}

std::uint64_t FreeBlocks(Process& user, const std::u16string& folder) {
    const ScopedHandle control = Control(user);
    const ScopedHandle directory(
        user,
        OpenPath(user, folder, Disposition::kOpen, host::access::kListDirectory, host::option::kDirectoryFile).handle);
    VrkFsVolumeSpaceInfo info{};
    info.Handle = directory.Get();
    return Ask(user, control, IOCTL_VRKFS_GET_VOLUME_SPACE_INFO, info) ? info.FreeBlocks : ~std::uint64_t{0};
}

host::Status RenameTo(Process& user, const std::u16string& path, const std::u16string& target) {
    const auto opened = OpenPath(user, path, Disposition::kOpen, host::access::kReadData | host::access::kDelete);
    const ScopedHandle object(user, opened.handle);
    return opened.status.Ok() ? host::Rename(user, object.Get(), target) : opened.status;
}

bool MoveSegment(Process& user, const std::u16string& path, std::uint32_t segment, std::int64_t step) {
    const ScopedHandle file(user, OpenPath(user, path, Disposition::kOpen, kReadWrite, 0, host::share::kNone).handle);
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

bool RecordInPlace(host::Machine& machine, const std::u16string& path) {
    examples::RecordOrder order;
    order.path = u"P:" + path;
    order.reservedFrames = 8;
    order.frames = 4;
    order.pattern = {1, 0, 4};
    try {
        return examples::Record(client::MakeClient(machine.NewProcess()).get(), order);
    } catch (const std::runtime_error&) {
        return false;
    }
}

bool LookAtTable(Process& user, const std::u16string& path) {
    const ScopedHandle file(user, OpenPath(user, path, Disposition::kOpen, kReadWrite, 0, host::share::kNone).handle);
    const ScopedHandle control = Control(user);
    const VrkFsBodyTableReference reference = {file.Get(), 0, {}, 0};
    std::array<char16_t, 300> name{};
    return user
        .DeviceControl(control.Get(), IOCTL_VRKFS_REFERENCE_BODY_TABLE, tests::BytesOf(reference),
                       tests::WritableBytesOf(name))
        .status.Ok();
}

}  // namespace faults
