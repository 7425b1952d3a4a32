#include "mount/clip_writer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace mount {
namespace {

constexpr std::size_t kFillBytes = 1 << 20;
constexpr std::uint32_t kAccess = host::access::kReadData | host::access::kWriteData | host::access::kDelete |
                                  host::access::kReadAttributes | host::access::kWriteAttributes;

}  // namespace

ClipWriter::~ClipWriter() {
    if (!over_ && end_ != 0) {
        (void)DiscardLocked();
    }
}

host::Status ClipWriter::CreateLocked() {
    const host::OpenResult made =
        drive_.Open(path_, kAccess, host::share::kNone, host::Disposition::kCreate, host::option::kNonDirectoryFile);
    if (made.status.Ok()) {
        handle_ = host::ScopedHandle(drive_.Process(), made.handle);
    }
    return made.status;
}

host::Status ClipWriter::Create(const std::u16string& path, Facts& facts) {
    const std::lock_guard hold(lock_);
    path_ = path;
    const host::Status status = CreateLocked();
    if (!status.Ok()) {
        return status;
    }
    made_ = true;
    return drive_.Look(handle_.Get(), facts);
}

host::Status ClipWriter::Restart() {
    const std::lock_guard hold(lock_);
    host::Status status = Reopen();
    if (status.Ok()) {
        status = host::SetDeleteOnCleanup(drive_.Process(), handle_.Get(), true);
    }
    handle_.Reset();
    headerBytes_ = 0;
    end_ = 0;
    total_ = 0;
    failed_ = {};
    status = status.Ok() ? CreateLocked() : status;
    made_ = status.Ok();  // else whatever is under that name now is not ours
    return status.Ok() ? status : Fail(status).status;
}

void ClipWriter::Rest() {
    const std::lock_guard hold(lock_);
    if (end_ == 0 && handle_) {
        if (const auto time = Time()) {
            (void)host::SetLastWriteTime(drive_.Process(), handle_.Get(), *time);
        }
        handle_.Reset();
    }
}

void ClipWriter::SetPath(const std::u16string& path) {
    const std::lock_guard hold(lock_);
    path_ = path;
}

std::optional<std::int64_t> ClipWriter::Time() const {
    const std::int64_t time = time_;
    return time == 0 ? std::nullopt : std::optional(time);
}

bool ClipWriter::IsWhole() const {
    const std::lock_guard hold(lock_);
    return failed_.Ok() && total_ != 0 && end_ == total_;
}

std::u16string ClipWriter::Path() const {
    const std::lock_guard hold(lock_);
    return path_;
}

ClipWriter::Outcome ClipWriter::Failed() const {
    const std::lock_guard hold(lock_);
    return failed_;
}

ClipWriter::Outcome ClipWriter::Fail(host::Status status) {
    failed_ = {.status = status};
    return failed_;
}

// It rested empty, and others could have it: what they have recorded into it is theirs.
host::Status ClipWriter::Reopen() {
    if (handle_) {
        return host::status::kSuccess;
    }
    const host::OpenResult opened =
        drive_.Open(path_, kAccess, host::share::kNone, host::Disposition::kOpen, host::option::kNonDirectoryFile);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    handle_ = host::ScopedHandle(drive_.Process(), opened.handle);
    Facts facts;
    host::Status status = drive_.Look(opened.handle, facts);
    if (status.Ok() && facts.size != 0) {
        status = host::status::kObjectNameCollision;
    }
    if (!status.Ok()) {
        handle_.Reset();
    }
    return status;
}

host::Status ClipWriter::Put(std::uint64_t offset, std::span<const std::byte> bytes) {
    const host::IoResult result = drive_.Process().Write(handle_.Get(), bytes, offset);
    if (result.status.Ok() && result.information != bytes.size()) {
        return host::status::kUnsuccessful;
    }
    return result.status;
}

// What cannot be done without harm to the copy, or to a reader of it, is refused and leaves it as it is.
ClipWriter::Outcome ClipWriter::CheckPlace(std::uint64_t offset, std::size_t size) const {
    if (over_) {
        return {.error = EPERM, .reason = "a finished clip is not written into: copy a whole one over it"};
    }
    if (!failed_.Ok()) {
        return failed_;
    }
    if (offset > end_ && (headerBytes_ == 0 || end_ < headerBytes_)) {
        return {.error = EINVAL, .reason = "a clip is written from its start"};
    }
    if (total_ != 0 && offset < headerBytes_) {
        return {.error = EPERM, .reason = "a clip's header is not changed once the clip has its place"};
    }
    if (total_ != 0 && (offset > total_ || size > total_ - offset)) {
        return {.error = EINVAL, .reason = "more was written than the clip's header says"};
    }
    return {};
}

ClipWriter::Outcome ClipWriter::Write(std::uint64_t offset, std::span<const std::byte> bytes) {
    const std::lock_guard hold(lock_);
    Outcome outcome = CheckPlace(offset, bytes.size());
    if (!outcome.Ok() || bytes.empty()) {
        return outcome;
    }
    if (const host::Status opened = Reopen(); !opened.Ok()) {
        return Fail(opened);
    }
    outcome = FillTo(offset);
    if (outcome.Ok() && headerBytes_ == 0) {
        const std::size_t taken = GatherHead(offset, bytes);
        if (headerBytes_ == 0) {
            return {};  // the head is still to come
        }
        // It goes in one request with what follows it, if it came so.
        if (offset != 0 || taken != head_.size()) {
            outcome = PutNext(0, head_);
            bytes = bytes.subspan(taken);
            offset = head_.size();
        }
    }
    return outcome.Ok() && !bytes.empty() ? PutNext(offset, bytes) : outcome;
}

ClipWriter::Outcome ClipWriter::Extend(std::uint64_t size) {
    const std::lock_guard hold(lock_);
    if (size < end_) {
        return {.error = EPERM, .reason = "a clip cannot be made shorter"};
    }
    const Outcome outcome = CheckPlace(size, 0);
    return outcome.Ok() ? FillTo(size) : outcome;
}

// Takes what belongs to the head; how many bytes.
std::size_t ClipWriter::GatherHead(std::uint64_t offset, std::span<const std::byte> bytes) {
    const std::size_t taken = std::min<std::size_t>(bytes.size(), head_.size() - static_cast<std::size_t>(offset));
    std::copy_n(bytes.begin(), taken, head_.begin() + static_cast<std::ptrdiff_t>(offset));
    end_ = std::max<std::uint64_t>(end_, offset + taken);
    if (end_ >= head_.size()) {
        MediaFileHeader header{};
        std::memcpy(&header, head_.data(), sizeof(header));
        headerBytes_ = std::max<std::uint64_t>(header.HeaderSize, head_.size());
    }
    return taken;
}

ClipWriter::Outcome ClipWriter::PutNext(std::uint64_t offset, std::span<const std::byte> bytes) {
    if (const host::Status status = Put(offset, bytes); !status.Ok()) {
        return Fail(status);
    }
    end_ = std::max<std::uint64_t>(end_, offset + bytes.size());
    if (total_ == 0 && end_ >= headerBytes_) {
        if (const host::Status status = LearnTotal(); !status.Ok()) {
            return Fail(status);
        }
    }
    return {};
}

// With its header whole the clip has its place, and its record the size.
host::Status ClipWriter::LearnTotal() {
    Facts facts;
    const host::Status status = drive_.Look(handle_.Get(), facts);
    total_ = facts.size;
    return status.Ok() && total_ < end_ ? host::status::kFileInvalid : status;
}

// What a program leaves out (copies of files with holes do) is zeros to whoever reads it, not what the disks held.
ClipWriter::Outcome ClipWriter::FillTo(std::uint64_t offset) {
    static const std::vector<std::byte> zeros(kFillBytes);
    while (end_ < offset) {
        const auto piece =
            std::span(zeros).first(static_cast<std::size_t>(std::min<std::uint64_t>(offset - end_, kFillBytes)));
        const Outcome outcome = PutNext(end_, piece);
        if (!outcome.Ok()) {
            return outcome;
        }
    }
    return {};
}

std::optional<host::Status> ClipWriter::Read(std::uint64_t offset, std::span<std::byte> buffer, std::size_t& count) {
    const std::lock_guard hold(lock_);
    count = 0;
    if (over_) {
        return std::nullopt;
    }
    if (offset >= end_) {
        return host::status::kSuccess;
    }
    buffer = buffer.first(static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), end_ - offset)));
    if (headerBytes_ == 0) {
        std::memcpy(buffer.data(), head_.data() + offset, buffer.size());
        count = buffer.size();
        return host::status::kSuccess;
    }
    const host::IoResult result = drive_.Process().Read(handle_.Get(), buffer, offset);
    count = static_cast<std::size_t>(result.information);
    return result.status == host::status::kEndOfFile ? host::status::kSuccess : result.status;
}

void ClipWriter::SetApplicationInfo(std::string_view info) {
    const std::lock_guard hold(lock_);
    info_ = info;
}

host::Status ClipWriter::SetRecord() {
    host::Status status = host::status::kSuccess;
    if (const auto time = Time()) {
        status = host::SetLastWriteTime(drive_.Process(), handle_.Get(), *time);
    }
    if (info_ && status.Ok()) {
        VrkFsApplicationInfoRequest request{};
        request.Handle = handle_.Get();
        std::copy_n(info_->begin(), std::min(info_->size(), sizeof(request.ApplicationInfo)), request.ApplicationInfo);
        status = drive_.Control(IOCTL_VRKFS_SET_APP_FILE_ENTRY_INFO, std::as_bytes(std::span(&request, 1)), {});
    }
    return status;
}

host::Status ClipWriter::Close() {
    const std::lock_guard hold(lock_);
    const host::Status status = SetRecord();
    closed_ = true;
    over_ = true;
    const host::Status closed = drive_.Process().Close(handle_.Release());
    return status.Ok() ? closed : status;
}

bool ClipWriter::Discard() {
    const std::lock_guard hold(lock_);
    return DiscardLocked();
}

bool ClipWriter::DiscardLocked() {
    if (over_ || !made_) {
        over_ = true;
        return true;
    }
    over_ = true;
    bool gone = Reopen().Ok() && host::SetDeleteOnCleanup(drive_.Process(), handle_.Get(), true).Ok();
    handle_.Reset();
    Facts facts;
    gone = gone && !drive_.Look(path_, facts).Ok();
    return gone;
}

}  // namespace mount
