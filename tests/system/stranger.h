// A client of the socket without manners, and frames put together by hand. It never judges what it meets.
#pragma once

#include <sys/socket.h>
#include <sys/time.h>

#include <filesystem>
#include <string>
#include <vector>

#include "host/types.h"
#include "link/address.h"
#include "link/frame.h"

namespace tests {

using Bytes = std::vector<std::byte>;

// Of a text, of bytes, or of a record.
template <typename Part>
std::span<const std::byte> PieceOf(const Part& part) {
    if constexpr (requires { std::span(part); }) {
        return std::as_bytes(std::span(part));
    } else {
        return vlink::BytesOf(part);
    }
}
template <typename... Parts>
Bytes Joined(const Parts&... parts) {
    Bytes all;
    const auto add = [&](std::span<const std::byte> bytes) { all.insert(all.end(), bytes.begin(), bytes.end()); };
    (add(PieceOf(parts)), ...);
    return all;
}
template <typename... Parts>
Bytes FrameOf(vlink::Op op, std::uint64_t id, std::uint16_t flags, const Parts&... parts) {
    const std::size_t length = (sizeof(vlink::FrameHeader) + ... + PieceOf(parts).size());
    return Joined(vlink::FrameHeader{static_cast<std::uint32_t>(length), op, flags, id}, parts...);
}
inline vlink::IoRecord Io(host::Handle handle, std::uint32_t code = 0, std::uint32_t out = 0, std::uint32_t options = 0,
                          std::uint32_t in = 0) {
    return {handle, code, options, 0, 0, {0, in, 0}, {0, out, 0}};
}
inline vlink::IoRecord OfSize(std::uint64_t bytes) {
    return {0, 0, 0, 0, bytes, {}, {}};
}

class Stranger {
  public:
    explicit Stranger(vlink::Descriptor socket) : socket_(std::move(socket)), reader_(socket_.Get(), true) {
        const timeval patience{60, 0};
        setsockopt(socket_.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    }
    // Connected, and silent so far.
    explicit Stranger(const std::filesystem::path& socket) : Stranger(ConnectedTo(socket)) {}
    // Behind its hello.
    Stranger(const std::filesystem::path& socket, vlink::Kind kind, std::uint64_t session = 0) : Stranger(socket) {
        session_ = Hello(kind, session).session;
    }

    void Send(const Bytes& bytes) {
        const std::span<const std::byte> piece(bytes);
        (void)vlink::SendWhole(socket_.Get(), std::span(&piece, 1));
    }
    vlink::HelloAnswer Hello(vlink::Kind kind, std::uint64_t session = 0) {
        Post(vlink::Op::kHello, vlink::HelloRecord{vlink::kMagic, vlink::kVersion, kind, session});
        return Receive(vlink::HelloAnswer{});
    }
    template <typename... Parts>
    void Post(vlink::Op op, const Parts&... parts) {
        Send(FrameOf(op, ++id_, 0, parts...));
    }
    template <typename... Parts>
    vlink::AnswerRecord Ask(vlink::Op op, const Parts&... parts) {
        Post(op, parts...);
        return Receive(vlink::AnswerRecord{host::status::kPortDisconnected.code, 0, 0, 0});
    }
    template <typename... Parts>
    std::string AskStatus(vlink::Op op, const Parts&... parts) {
        return host::StatusName(host::Status{Ask(op, parts...).status});
    }
    // Nobody else may open it meanwhile. 0: it is not opened.
    host::Handle Open(const std::u16string& path, bool overlapped = false,
                      std::uint32_t access = host::access::kReadData | host::access::kWriteData) {
        return Ask(vlink::Op::kCreate, vlink::CreateRecord{access, 0, 1, 0, overlapped ? 1u : 0u, 0}, path).value;
    }
    // Whether the daemon closes, whatever it says before.
    bool IsLetGo() {
        vlink::Frame frame;
        vlink::FrameReader::Result result = reader_.Next(frame);
        for (; result == vlink::FrameReader::Result::kFrame; result = reader_.Next(frame)) {
        }
        return result == vlink::FrameReader::Result::kEnd;
    }
    void Die() { socket_.Reset(); }
    int Socket() const { return socket_.Get(); }
    std::uint64_t Session() const { return session_; }  // that its hello was answered with; 0: none

  private:
    static vlink::Descriptor ConnectedTo(const std::filesystem::path& path) {
        vlink::Address address;
        return vlink::Descriptor(address.Set(path) == 0 ? vlink::ConnectTo(address) : -1);
    }
    // The next answer's record, or the one that stands for none.
    template <typename Record>
    Record Receive(Record record) {
        vlink::Frame frame;
        if (reader_.Next(frame) == vlink::FrameReader::Result::kFrame) {
            (void)vlink::TakeRecord(frame.body, record);
        }
        return record;
    }

    vlink::Descriptor socket_;
    vlink::FrameReader reader_;
    std::uint64_t id_ = 0;
    std::uint64_t session_ = 0;
};

}  // namespace tests
