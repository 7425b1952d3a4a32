#include "link/remote_process.h"

#include <algorithm>
#include <array>

namespace vlink {
namespace {

// Up to here the copies in and out of a frame cost less than a window's.
constexpr std::size_t kInFrame = 16 << 10;
// A longer transfer is made in pieces.
constexpr std::size_t kPiece = 128 << 10;
static_assert(kInFrame <= kMaxInline && kPiece <= Windows::kSize);

std::uint32_t Length(std::size_t size) {
    return size > 0xFFFFFFFF ? 0xFFFFFFFF : static_cast<std::uint32_t>(size);
}

// A span of 4 GiB or more is what a 32-bit length says of it.
template <typename Byte>
std::span<Byte> Cut(std::span<Byte> bytes) {
    return bytes.first(Length(bytes.size()));
}

bool IsTransfer(Op op) {
    return op == Op::kRead || op == Op::kWrite;
}

// A control code whose output buffer is the caller's own memory for the driver, with what is in it: a service's answer
// brings data there.
bool IsDirect(Op op, const IoRecord& record) {
    return op == Op::kDeviceControl && (record.code & 3) != 0;
}

IoRecord RecordOf(host::Handle handle, std::uint32_t code = 0, std::uint32_t options = 0, std::uint64_t offset = 0) {
    IoRecord record{};
    record.handle = handle;
    record.code = code;
    record.options = options;
    record.offset = offset;
    return record;
}

IoRecord TransferRecord(host::Handle handle, std::optional<std::uint64_t> offset) {
    return RecordOf(handle, 0, offset ? kHasOffset : 0, offset.value_or(0));
}

bool IsError(host::Status status) {
    return status.code >> 30 == 3;
}

// Whatever the daemon says of it, an error has moved nothing.
host::IoResult ResultOf(const Reply& reply) {
    return {reply.Status(), IsError(reply.Status()) ? 0 : reply.record.information};
}

// No record that the driver knows is as long as a frame: one that is longer is as good cut there.
template <typename Byte>
std::span<Byte> CutToFrame(std::span<Byte> bytes) {
    return bytes.first(std::min<std::size_t>(bytes.size(), kMaxInline));
}

std::span<const std::byte> BytesOfText(std::u16string_view text) {
    return std::as_bytes(std::span(text));
}

}  // namespace

RemoteProcess::~RemoteProcess() {
    channel_.Close();  // while what its last answers want is there
}

// ---- The way of a request ----

// Finds a place for the data: in the frame, in memory that both ends have, or in a window. False: there is no window.
bool RemoteProcess::Pack(Order order, Parcel& parcel) {
    order.in = Cut(order.in);
    order.out = Cut(order.out);
    order.record.in = {0, Length(order.in.size()), 0};
    order.record.out = {0, Length(order.out.size()), 0};
    const std::size_t inFrame = IsTransfer(order.op) ? kInFrame : kMaxInline;
    Place in{};
    Place out{};
    if (IsTransfer(order.op)) {
        in = order.in.empty() ? Place{} : memory_.Find(order.in);
    }
    if (IsTransfer(order.op) || IsDirect(order.op, order.record)) {
        out = order.out.empty() ? Place{} : memory_.Find(order.out);
    }
    const std::size_t outInFrame = IsDirect(order.op, order.record) ? 0 : inFrame;
    const std::size_t inWindow = in.memory == 0 && order.in.size() > inFrame ? order.in.size() : 0;
    const std::size_t outWindow = out.memory == 0 && order.out.size() > outInFrame ? order.out.size() : 0;
    if (inWindow + outWindow > 0) {
        parcel.window = windows_.Take(inWindow + outWindow);
        if (parcel.window.name == 0) {
            return false;
        }
    }
    if (inWindow > 0) {
        std::copy(order.in.begin(), order.in.end(), parcel.window.bytes.begin());
        in = {parcel.window.name, Length(inWindow), 0};
    }
    if (outWindow > 0) {
        parcel.outWindow = parcel.window.bytes.subspan(inWindow, outWindow);
        if (IsDirect(order.op, order.record)) {
            std::copy(order.out.begin(), order.out.end(), parcel.outWindow.begin());
        }
        out = {parcel.window.name, Length(outWindow), inWindow};
    }
    if (in.memory != 0) {
        order.record.in = in;
    } else {
        parcel.inFrame = order.in;
    }
    if (out.memory != 0) {
        order.record.out = out;
    } else {
        parcel.outFrame = order.out;
    }
    parcel.order = order;
    return true;
}

host::IoResult RemoteProcess::Unpack(const Parcel& parcel, const Reply& reply) {
    if (!parcel.outWindow.empty()) {
        const std::uint64_t whole = parcel.outWindow.size();
        const auto count = IsDirect(parcel.order.op, parcel.order.record)
                               ? whole
                               : std::min<std::uint64_t>(reply.record.information, whole);
        if (!IsError(reply.Status())) {
            std::copy_n(parcel.outWindow.begin(), count, parcel.order.out.begin());
        }
    }
    if (parcel.window.name != 0) {
        windows_.GiveBack(parcel.window);
    }
    return ResultOf(reply);
}

host::IoResult RemoteProcess::Ask(Order order) {
    Parcel parcel;
    if (!Pack(order, parcel)) {
        return {host::status::kInsufficientResources};
    }
    const std::span<const std::byte> pieces[] = {BytesOf(parcel.order.record), parcel.inFrame};
    return Unpack(parcel, channel_.Ask(order.op, pieces, parcel.outFrame));
}

host::Status RemoteProcess::Start(Order order, const host::Completion& done, host::RequestId* id) {
    order.record.options |= kOverlapped;
    const auto parcel = std::make_shared<Parcel>();
    if (!Pack(order, *parcel)) {
        return host::status::kInsufficientResources;
    }
    const std::span<const std::byte> pieces[] = {BytesOf(parcel->order.record), parcel->inFrame};
    const Reply reply = channel_.Begin(
        order.op, pieces, parcel->outFrame, [this, parcel, done](Reply& last) { done(Unpack(*parcel, last)); }, id);
    if (reply.Status().Pending()) {
        return host::status::kPending;
    }
    const host::IoResult result = Unpack(*parcel, reply);
    if (result.status.Ok()) {
        done(result);
    }
    return result.status;
}

// ---- Long transfers ----

namespace {

// A part of a long transfer: one half of a window, and the request for it.
struct Piece {
    std::span<std::byte> place;  // in the window
    std::uint64_t offset = 0;    // of that, in the memory
    std::size_t begin = 0;       // in the caller's span
    std::size_t size = 0;
    std::optional<Channel::Call> call;
};

}  // namespace

host::IoResult RemoteProcess::TransferInPieces(const Order& order) {
    const bool writes = order.op == Op::kWrite;
    const std::size_t whole = writes ? order.in.size() : order.out.size();
    if (whole <= kPiece || memory_.Find(writes ? order.in : order.out).memory != 0) {
        return Ask(order);
    }
    const Windows::Window window = windows_.Take(2 * kPiece);
    if (window.name == 0) {
        return {host::status::kInsufficientResources};
    }
    const auto prepare = [&](Piece& piece, std::size_t begin) {
        piece.begin = begin;
        piece.size = std::min(kPiece, whole - begin);
        if (writes) {
            std::copy_n(order.in.begin() + static_cast<std::ptrdiff_t>(begin), piece.size, piece.place.begin());
        }
    };
    const auto post = [&](Piece& piece) {
        IoRecord record = order.record;
        record.offset += (record.options & kHasOffset) != 0 ? piece.begin : 0;
        (writes ? record.in : record.out) = {window.name, Length(piece.size), piece.offset};
        const std::span<const std::byte> pieces[] = {BytesOf(record)};
        channel_.Post(piece.call.emplace(), order.op, pieces, {});
    };
    std::array<Piece, 2> halves;
    for (std::size_t i = 0; i < halves.size(); ++i) {
        halves[i].offset = i * kPiece;
        halves[i].place = window.bytes.subspan(i * kPiece, kPiece);
    }
    prepare(halves[0], 0);
    post(halves[0]);
    host::IoResult result{};
    std::size_t moved = 0;
    for (std::size_t turn = 0;; turn = 1 - turn) {
        Piece& now = halves[turn];
        Piece& next = halves[1 - turn];
        const bool last = now.begin + now.size == whole;
        if (!last) {
            prepare(next, now.begin + now.size);
        }
        result = ResultOf(channel_.Await(*now.call));
        const std::size_t count = std::min<std::uint64_t>(result.information, now.size);
        const bool more = !last && result.status == host::status::kSuccess && count == now.size;
        if (more) {
            post(next);
        }
        if (!writes) {
            std::copy_n(now.place.begin(), count, order.out.begin() + static_cast<std::ptrdiff_t>(now.begin));
        }
        moved += count;
        if (!more) {
            break;
        }
    }
    windows_.GiveBack(window);
    if (result.status == host::status::kEndOfFile && moved > 0) {
        result.status = host::status::kSuccess;  // it ended where a piece did
    }
    result.information = IsError(result.status) ? 0 : moved;
    return result;
}

// ---- The calls ----

host::OpenResult RemoteProcess::Create(const host::OpenRequest& request) {
    if (request.path.size() * sizeof(char16_t) > kMaxInline) {
        return {host::status::kObjectNameInvalid};
    }
    const CreateRecord record{
        request.access,  request.shareAccess,          static_cast<std::uint32_t>(request.disposition),
        request.options, request.overlapped ? 1u : 0u, request.root};
    const std::span<const std::byte> pieces[] = {BytesOf(record), BytesOfText(request.path)};
    const Reply reply = channel_.Ask(Op::kCreate, pieces);
    if (!reply.Status().Ok()) {
        return {reply.Status()};
    }
    return {reply.Status(), reply.record.value, static_cast<std::uint32_t>(reply.record.information)};
}

host::Status RemoteProcess::Close(host::Handle handle) {
    return Ask({Op::kClose, RecordOf(handle), {}, {}}).status;
}

host::Status RemoteProcess::Flush(host::Handle handle) {
    return Ask({Op::kFlush, RecordOf(handle), {}, {}}).status;
}

host::IoResult RemoteProcess::Read(host::Handle handle, std::span<std::byte> buffer,
                                   std::optional<std::uint64_t> offset) {
    return TransferInPieces({Op::kRead, TransferRecord(handle, offset), {}, Cut(buffer)});
}

host::IoResult RemoteProcess::Write(host::Handle handle, std::span<const std::byte> buffer,
                                    std::optional<std::uint64_t> offset) {
    return TransferInPieces({Op::kWrite, TransferRecord(handle, offset), Cut(buffer), {}});
}

host::IoResult RemoteProcess::QueryInformation(host::Handle handle, std::uint32_t informationClass,
                                               std::span<std::byte> buffer) {
    return Ask({Op::kQueryInformation, RecordOf(handle, informationClass), {}, CutToFrame(buffer)});
}

host::IoResult RemoteProcess::SetInformation(host::Handle handle, std::uint32_t informationClass,
                                             std::span<const std::byte> buffer) {
    return Ask({Op::kSetInformation, RecordOf(handle, informationClass), CutToFrame(buffer), {}});
}

host::IoResult RemoteProcess::QueryVolumeInformation(host::Handle handle, std::uint32_t informationClass,
                                                     std::span<std::byte> buffer) {
    return Ask({Op::kQueryVolumeInformation, RecordOf(handle, informationClass), {}, CutToFrame(buffer)});
}

host::IoResult RemoteProcess::SetVolumeInformation(host::Handle handle, std::uint32_t informationClass,
                                                   std::span<const std::byte> buffer) {
    return Ask({Op::kSetVolumeInformation, RecordOf(handle, informationClass), CutToFrame(buffer), {}});
}

host::IoResult RemoteProcess::QueryDirectory(host::Handle handle, const DirectoryQuery& query,
                                             std::span<std::byte> buffer) {
    IoRecord record = RecordOf(handle, query.informationClass, 0, query.index.value_or(0));
    record.options = (query.restart ? kRestart : 0) | (query.singleEntry ? kSingleEntry : 0) |
                     (query.pattern ? kHasPattern : 0) | (query.index ? kHasIndex : 0);
    const std::u16string_view pattern = query.pattern ? std::u16string_view(*query.pattern) : std::u16string_view();
    return Ask({Op::kQueryDirectory, record, BytesOfText(pattern), buffer});
}

host::IoResult RemoteProcess::DeviceControl(host::Handle handle, std::uint32_t code, std::span<const std::byte> in,
                                            std::span<std::byte> out) {
    return Ask({Op::kDeviceControl, RecordOf(handle, code), in, out});
}

host::IoResult RemoteProcess::FileSystemControl(host::Handle handle, std::uint32_t code, std::span<const std::byte> in,
                                                std::span<std::byte> out) {
    return Ask({Op::kFileSystemControl, RecordOf(handle, code), in, out});
}

host::Status RemoteProcess::ReadOverlapped(host::Handle handle, std::span<std::byte> buffer, std::uint64_t offset,
                                           host::Completion done, host::RequestId* id) {
    return Start({Op::kRead, TransferRecord(handle, offset), {}, buffer}, done, id);
}

host::Status RemoteProcess::WriteOverlapped(host::Handle handle, std::span<const std::byte> buffer,
                                            std::uint64_t offset, host::Completion done, host::RequestId* id) {
    return Start({Op::kWrite, TransferRecord(handle, offset), buffer, {}}, done, id);
}

host::Status RemoteProcess::DeviceControlOverlapped(host::Handle handle, std::uint32_t code,
                                                    std::span<const std::byte> in, std::span<std::byte> out,
                                                    host::Completion done, host::RequestId* id) {
    return Start({Op::kDeviceControl, RecordOf(handle, code), in, out}, done, id);
}

host::Status RemoteProcess::NotifyChangeDirectory(host::Handle handle, std::uint32_t filter, bool tree,
                                                  std::span<std::byte> buffer, host::Completion done,
                                                  host::RequestId* id) {
    return Start({Op::kNotify, RecordOf(handle, filter, tree ? kTree : 0), {}, buffer}, done, id);
}

void RemoteProcess::Cancel(host::RequestId id) {
    const IoRecord record = RecordOf(host::kNoHandle, 0, 0, id);
    const std::span<const std::byte> pieces[] = {BytesOf(record)};
    channel_.Tell(Op::kCancel, pieces);
}

void RemoteProcess::CancelAll(host::Handle handle) {
    const IoRecord record = RecordOf(handle);
    const std::span<const std::byte> pieces[] = {BytesOf(record)};
    channel_.Tell(Op::kCancelAll, pieces);
}

host::Status RemoteProcess::AllocateMemory(std::size_t size, NamedMemory& memory) {
    return memory_.Allocate(size, memory);
}

void RemoteProcess::FreeMemory(const NamedMemory& memory) {
    memory_.Free(memory);
}

host::Status RemoteProcess::MapSection(std::u16string_view name, bool writable, SectionView& view) {
    if (name.size() * sizeof(char16_t) > kMaxInline) {
        return host::status::kObjectNameInvalid;
    }
    IoRecord record = RecordOf(host::kNoHandle, 0, writable ? kWritable : 0);
    record.in.length = Length(name.size() * sizeof(char16_t));
    const std::span<const std::byte> pieces[] = {BytesOf(record), BytesOfText(name)};
    const Reply reply = channel_.Ask(Op::kMapSection, pieces);
    if (!reply.Status().Ok()) {
        return reply.Status();
    }
    const auto size = static_cast<std::size_t>(reply.record.information);
    std::byte* const address = MapWhole(reply.descriptor, size, writable);
    if (address == nullptr) {
        (void)Close(reply.record.value);
        return host::status::kInsufficientResources;
    }
    view = {{address, size}, reply.record.value};
    views_.Add(view);
    return host::status::kSuccess;
}

void RemoteProcess::UnmapSection(const SectionView& view) {
    if (const host::Handle handle = views_.Unmap(view.bytes.data()); handle != host::kNoHandle) {
        (void)Close(handle);
    }
}

}  // namespace vlink
