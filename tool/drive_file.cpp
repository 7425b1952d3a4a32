#include "tool/drive_file.h"

#include <algorithm>

namespace tool {

std::size_t DriveFile::Read(std::uint64_t offset, std::span<std::byte> buffer) {
    std::size_t got = 0;
    while (got < buffer.size()) {
        const auto piece = buffer.subspan(got, std::min(buffer.size() - got, kRequestBytes));
        const host::IoResult result = process_.Read(handle_.Get(), piece, offset + got);
        if (result.status == host::status::kEndOfFile) {
            break;
        }
        if (!result.status.Ok()) {
            throw DriveError("cannot read " + name_ + " at byte " + std::to_string(offset + got), result.status);
        }
        if (result.information == 0) {
            break;
        }
        got += static_cast<std::size_t>(result.information);
    }
    return got;
}

void DriveFile::Write(std::uint64_t offset, std::span<const std::byte> bytes) {
    while (!bytes.empty()) {
        const auto piece = bytes.first(std::min(bytes.size(), kRequestBytes));
        const host::IoResult result = process_.Write(handle_.Get(), piece, offset);
        if (!result.status.Ok() || result.information != piece.size()) {
            throw DriveError("cannot write " + name_ + " at byte " + std::to_string(offset),
                             result.status.Ok() ? host::status::kUnsuccessful : result.status);
        }
        offset += piece.size();
        bytes = bytes.subspan(piece.size());
    }
}

clip::ClipSource DriveFile::Source(std::uint64_t size) {
    return {[this](std::uint64_t offset, std::span<std::byte> buffer) { return Read(offset, buffer); }, size};
}

host::Status OpenForReading(host::Process& process, const DrivePath& path, std::unique_ptr<DriveFile>& file,
                            host::FileFacts& facts) {
    host::OpenRequest request;
    request.path = path.Open();
    const host::OpenResult opened = process.Create(request);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    file = std::make_unique<DriveFile>(process, path, opened.handle);
    return host::QueryFacts(process, opened.handle, facts);
}

host::Status LookAt(host::Process& process, const DrivePath& path, host::FileFacts& facts) {
    host::OpenRequest request;
    request.path = path.Open();
    request.access = host::access::kReadAttributes;
    const host::OpenResult opened = process.Create(request);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    const host::ScopedHandle handle(process, opened.handle);
    return host::QueryFacts(process, opened.handle, facts);
}

host::Status Delete(host::Process& process, const DrivePath& path, bool folder) {
    host::OpenRequest request;
    request.path = path.Open();
    request.access = host::access::kDelete | host::access::kReadAttributes;
    request.options = folder ? host::option::kDirectoryFile : host::option::kNonDirectoryFile;
    const host::OpenResult opened = process.Create(request);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    host::ScopedHandle handle(process, opened.handle);
    const host::Status marked = host::SetDeleteOnCleanup(process, opened.handle, true);
    handle.Reset();
    if (!marked.Ok()) {
        return marked;
    }
    host::FileFacts facts;
    const host::Status after = LookAt(process, path, facts);
    if (after.Ok()) {
        return host::status::kCannotDelete;
    }
    const bool gone = after == host::status::kObjectNameNotFound || after == host::status::kNoSuchFile;
    return gone ? host::status::kSuccess : after;
}

host::Status RenameOnDrive(host::Process& process, const DrivePath& path, const std::u16string& target) {
    host::OpenRequest request;
    request.path = path.Open();
    request.access = host::access::kDelete | host::access::kReadAttributes;
    const host::OpenResult opened = process.Create(request);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    const host::ScopedHandle handle(process, opened.handle);
    return host::Rename(process, opened.handle, target);
}

}  // namespace tool
