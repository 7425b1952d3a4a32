#include <algorithm>
#include <new>

#include "link/under_way.h"

namespace vlink {
namespace {

// What the driver looks at more than once must not change under its eyes: all data but that of transfers is held here
// while the driver has it. This is more than any control code takes.
constexpr std::uint32_t kMaxHeld = 16 << 20;

host::LocalProcess::Request::Kind KindOf(Op op) {
    using Kind = host::LocalProcess::Request::Kind;
    switch (op) {
        case Op::kRead:
            return Kind::kRead;
        case Op::kWrite:
            return Kind::kWrite;
        case Op::kQueryDirectory:
            return Kind::kQueryDirectory;
        case Op::kNotify:
            return Kind::kNotify;
        case Op::kDeviceControl:
            return Kind::kDeviceControl;
        default:
            return Kind::kFileSystemControl;
    }
}

}  // namespace

Guest::Answer Guest::CarryRequest(const FrameHeader& header, const IoRecord& record, std::span<const std::byte> data) {
    auto way = std::make_shared<UnderWay>();
    way->op = header.op;
    way->id = header.id;
    way->overlapped = (record.options & kOverlapped) != 0 || header.op == Op::kNotify;
    const host::Status admitted = Admit(way, record, data);
    if (!admitted.Ok()) {
        return {.record = {admitted.code, 0, 0, 0}};
    }
    return Begin(way, record);
}

// Finds the data's places: in the client's memory, for a transfer; else room for a copy. A request that has them is
// under way from here on, and can be cancelled.
host::Status Guest::Admit(const std::shared_ptr<UnderWay>& request, const IoRecord& record,
                          std::span<const std::byte> data) {
    UnderWay& way = *request;
    const bool transfer = way.op == Op::kRead || way.op == Op::kWrite;
    const bool takesIn = way.op != Op::kRead && way.op != Op::kNotify;
    const bool givesOut = way.op != Op::kWrite;
    std::span<const std::byte> in = data;
    std::span<std::byte> shared;
    if (takesIn && record.in.memory != 0) {
        in = MemoryAt(record.in);
        if (in.size() != record.in.length) {
            return host::status::kAccessViolation;
        }
    }
    if (givesOut && record.out.memory != 0) {
        shared = MemoryAt(record.out);
        if (shared.size() != record.out.length) {
            return host::status::kAccessViolation;
        }
    }
    const bool holdsIn = takesIn && !(transfer && record.in.memory != 0);
    // A direct code's output buffer is the caller's own memory: a service's answer brings data there, too.
    const bool direct = way.op == Op::kDeviceControl && (record.code & 3) != 0;
    const bool holdsOut = givesOut && !((transfer || direct) && record.out.memory != 0);
    if ((holdsIn && in.size() > kMaxHeld) || (holdsOut && record.out.length > kMaxHeld)) {
        return host::status::kInsufficientResources;
    }
    const std::size_t inBytes = holdsIn ? in.size() : 0;
    const std::size_t outBytes = holdsOut ? record.out.length : 0;
    way.heldBytes = inBytes + outBytes;
    if (!Count(request)) {
        return host::status::kInsufficientResources;
    }
    if (way.heldBytes > 0) {
        way.held.reset(new (std::nothrow) std::byte[way.heldBytes]());
        if (!way.held) {
            Dismiss(way);
            return host::status::kInsufficientResources;
        }
    }
    if (takesIn) {
        way.in = in;
    }
    if (holdsIn) {
        std::copy(in.begin(), in.end(), way.held.get());
        way.in = {way.held.get(), inBytes};
    }
    way.out = holdsOut ? std::span(way.held.get() + inBytes, outBytes) : shared;
    way.copyTo = holdsOut ? shared : std::span<std::byte>();
    way.outInFrame = holdsOut && record.out.memory == 0;
    return host::status::kSuccess;
}

Guest::Answer Guest::Begin(const std::shared_ptr<UnderWay>& way, const IoRecord& record) {
    host::Process::DirectoryQuery query;
    if (way->op == Op::kQueryDirectory) {
        query.informationClass = record.code;
        query.restart = (record.options & kRestart) != 0;
        query.singleEntry = (record.options & kSingleEntry) != 0;
        if ((record.options & kHasIndex) != 0) {
            query.index = static_cast<std::uint32_t>(record.offset);
        }
        if ((record.options & kHasPattern) != 0) {
            query.pattern = TextOf(way->in);
        }
    }
    host::LocalProcess::Request request;
    request.kind = KindOf(way->op);
    request.overlappedOnly = way->overlapped;
    request.tree = (record.options & kTree) != 0;
    request.handle = record.handle;
    request.code = record.code;
    if ((record.options & kHasOffset) != 0) {
        request.offset = record.offset;
    }
    request.query = &query;
    request.in = way->in;
    request.out = way->out;
    host::RequestId id = 0;
    const host::IoResult result = process_->Start(
        request, [this, way](host::IoResult ended) { Ended(way, ended); }, &id);
    if (!result.status.Pending()) {
        Dismiss(*way);
        return Conclude(way, result);
    }
    // Whoever came with a cancel before the number was known has left a note.
    way->request.store(id);
    if (way->cancelled.load()) {
        process_->Cancel(id);
    }
    if (!way->overlapped) {
        return {.silent = true};
    }
    return {.flags = kStarted,
            .record = {host::status::kPending.code, 0, 0, 0},
            .underWay = way,
            .order = {.unless = &way->over}};
}

// Before it has what it wants: as many as there are threads could want all at once.
bool Guest::Count(const std::shared_ptr<UnderWay>& way) {
    const std::lock_guard hold(waysLock_);
    if (ways_.size() >= house_.limits.requests || held_ + way->heldBytes > house_.limits.heldBytes) {
        return false;
    }
    ways_.emplace(way->id, way);
    held_ += way->heldBytes;
    return true;
}

void Guest::Dismiss(const UnderWay& way) {
    const std::lock_guard hold(waysLock_);
    held_ -= way.heldBytes;
    ways_.erase(way.id);
}

// On whichever thread completes it, with driver locks held.
void Guest::Ended(const std::shared_ptr<UnderWay>& way, const host::IoResult& result) {
    Dismiss(*way);
    Answer answer = Conclude(way, result);
    answer.order.mark = &way->over;
    Send(way->op, way->id, std::move(answer));
}

Guest::Answer Guest::Conclude(const std::shared_ptr<UnderWay>& way, const host::IoResult& result) {
    const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(result.information, way->out.size()));
    const std::span<const std::byte> written = way->out.first(count);
    if (!way->copyTo.empty()) {
        std::copy(written.begin(), written.end(), way->copyTo.begin());
    }
    return {.record = {result.status.code, 0, result.information, 0},
            .data = way->outInFrame ? written : std::span<const std::byte>(),
            .underWay = way};
}

void Guest::Cancel(std::uint64_t id) {
    std::shared_ptr<UnderWay> way;
    {
        const std::lock_guard hold(waysLock_);
        const auto found = ways_.find(id);
        if (found == ways_.end()) {
            return;
        }
        way = found->second;
    }
    way->cancelled.store(true);
    if (const host::RequestId request = way->request.load(); request != 0) {
        process_->Cancel(request);
    }
}

}  // namespace vlink
