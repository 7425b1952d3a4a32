#include "mount/drive.h"

#include <algorithm>
#include <array>

#include "host/record_field.h"

namespace mount {
namespace {

constexpr std::uint32_t kFileFsSizeInformation = 3;

std::u16string DeviceName(std::u16string_view name, std::uint32_t card) {
    return std::u16string(name) + static_cast<char16_t>(u'0' + card);
}

bool IsGone(host::Status status) {
    return status == host::status::kObjectNameNotFound || status == host::status::kObjectPathNotFound ||
           status == host::status::kNoSuchFile;
}

}  // namespace

Drive::Drive(host::Process& process, const host::CardFacts& card)
    : process_(process), card_(card), prefix_(DeviceName(u"\\Device\\VrkFsDiskDevice", card.index)) {}

host::OpenResult Drive::Open(const std::u16string& path, std::uint32_t access, std::uint32_t share,
                             host::Disposition disposition, std::uint32_t options) {
    host::OpenRequest request;
    request.path = path;
    request.access = access;
    request.shareAccess = share;
    request.disposition = disposition;
    request.options = options;
    return process_.Create(request);
}

host::Status Drive::List(const std::u16string& path, std::vector<host::DirectoryEntry>& entries) {
    const host::OpenResult opened = Open(path, host::access::kListDirectory, host::share::kAll,
                                         host::Disposition::kOpen, host::option::kDirectoryFile);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    const host::ScopedHandle folder(process_, opened.handle);
    return host::ListDirectory(process_, opened.handle, entries);
}

host::Status Drive::Look(host::Handle handle, Facts& facts) {
    host::FileFacts found;
    const host::Status status = host::QueryFacts(process_, handle, found);
    if (status.Ok()) {
        facts = {found.size, found.lastWriteTime, found.isDirectory};
    }
    return status;
}

host::Status Drive::Look(const std::u16string& path, Facts& facts) {
    const host::OpenResult opened = Open(path, host::access::kReadAttributes, host::share::kAll);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    const host::ScopedHandle handle(process_, opened.handle);
    return Look(opened.handle, facts);
}

// A delete happens when the handle closes, where nobody can report its failure.
host::Status Drive::Remove(const std::u16string& path, bool folder, bool alone) {
    const host::OpenResult opened = Open(path, host::access::kDelete | host::access::kReadAttributes,
                                         alone ? host::share::kNone : host::share::kAll, host::Disposition::kOpen,
                                         folder ? host::option::kDirectoryFile : host::option::kNonDirectoryFile);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    host::ScopedHandle handle(process_, opened.handle);
    const host::Status marked = host::SetDeleteOnCleanup(process_, opened.handle, true);
    handle.Reset();
    if (!marked.Ok()) {
        return marked;
    }
    Facts facts;
    const host::Status after = Look(path, facts);
    return IsGone(after) ? host::status::kSuccess : after.Ok() ? host::status::kCannotDelete : after;
}

host::Status Drive::RemoveLater(const std::u16string& path) {
    const host::OpenResult opened =
        Open(path, host::access::kDelete | host::access::kReadAttributes, host::share::kAll);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    const host::ScopedHandle handle(process_, opened.handle);
    return host::SetDeleteOnCleanup(process_, opened.handle, true);
}

host::Status Drive::Rename(const std::u16string& path, const std::u16string& target) {
    const host::OpenResult opened =
        Open(path, host::access::kDelete | host::access::kReadAttributes, host::share::kAll);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    const host::ScopedHandle handle(process_, opened.handle);
    return host::Rename(process_, opened.handle, target);
}

// The record is written when a handle closes that could have changed the file; to be able to delete it is enough for
// that, and unlike the right to write keeps out of the way of readers who want no writer beside them.
host::Status Drive::SetTime(const std::u16string& path, std::int64_t time) {
    const host::OpenResult opened =
        Open(path, host::access::kDelete | host::access::kWriteAttributes | host::access::kReadAttributes,
             host::share::kAll);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    const host::ScopedHandle handle(process_, opened.handle);
    return host::SetLastWriteTime(process_, opened.handle, time);
}

host::Status Drive::MeasureVolume(const std::u16string& path, VrkFsVolumeSpaceInfo& space) {
    const host::OpenResult opened = Open(path, host::access::kReadAttributes, host::share::kAll);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    const host::ScopedHandle handle(process_, opened.handle);
    space = {};
    space.Handle = opened.handle;
    const VrkFsVolumeSpaceInfo asked = space;
    return Ask(IOCTL_VRKFS_GET_VOLUME_SPACE_INFO, asked, space);
}

host::Status Drive::MeasureDrive(std::uint64_t& total, std::uint64_t& free) {
    const host::OpenResult opened = Open(prefix_ + u"\\", host::access::kReadAttributes, host::share::kAll);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    const host::ScopedHandle handle(process_, opened.handle);
    std::array<std::byte, 24> record{};
    const host::IoResult result = process_.QueryVolumeInformation(opened.handle, kFileFsSizeInformation, record);
    if (result.status.Ok()) {
        const std::uint64_t unit =
            std::uint64_t{host::FieldAt<std::uint32_t>(record, 16)} * host::FieldAt<std::uint32_t>(record, 20);
        total = host::FieldAt<std::uint64_t>(record, 0) * unit;
        // The driver never tells less than 200 MiB free, whatever there is.
        free = std::min(total, host::FieldAt<std::uint64_t>(record, 8) * unit);
    }
    return result.status;
}

// Overlapped, so that threads do not wait for each other.
host::Status Drive::OpenControl(host::Handle& control) {
    const std::lock_guard hold(lock_);
    if (!control_) {
        host::OpenRequest request;
        request.path = DeviceName(u"\\Device\\VrkFsDevice", card_.index);
        request.access = host::access::kReadData | host::access::kWriteData;
        request.overlapped = true;
        const host::OpenResult opened = process_.Create(request);
        if (!opened.status.Ok()) {
            return opened.status;
        }
        control_ = host::ScopedHandle(process_, opened.handle);
    }
    control = control_.Get();
    return host::status::kSuccess;
}

host::Status Drive::Control(std::uint32_t code, std::span<const std::byte> in, std::span<std::byte> out) {
    host::Handle control = host::kNoHandle;
    const host::Status opened = OpenControl(control);
    return opened.Ok() ? process_.DeviceControl(control, code, in, out).status : opened;
}

}  // namespace mount
