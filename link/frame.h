// Frames on a socket: reading them out of the byte stream, whatever that holds, and sending them.
#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>
#include <span>
#include <string>

#include "host/descriptor.h"
#include "link/protocol.h"

namespace vlink {

using host::Descriptor;

template <typename Record>
std::span<const std::byte> BytesOf(const Record& record) {
    return std::as_bytes(std::span(&record, 1));
}

// Takes a record off the front of a frame's body; false when the body is too short for it.
template <typename Record>
bool TakeRecord(std::span<const std::byte>& body, Record& record) {
    static_assert(std::is_trivially_copyable_v<Record>);
    if (body.size() < sizeof(record)) {
        return false;
    }
    std::memcpy(&record, body.data(), sizeof(record));
    body = body.subspan(sizeof(record));
    return true;
}

// What a frame's data says in characters; half a one at the end is left out.
inline std::u16string TextOf(std::span<const std::byte> bytes) {
    std::u16string text(bytes.size() / sizeof(char16_t), u'\0');
    const std::span<std::byte> room = std::as_writable_bytes(std::span(text));
    std::copy_n(bytes.begin(), room.size(), room.begin());
    return text;
}

struct Frame {
    FrameHeader header{};
    std::span<const std::byte> body;  // behind the header; until the next frame is read
    Descriptor descriptor;            // with kDescriptor
};

// Several threads may use one, one after the other.
class FrameReader {
  public:
    enum class Result { kFrame, kEnd, kTimeout, kWrong };

    // `takesDescriptors`: what comes with the bytes is kept, else it is thrown away unseen.
    FrameReader(int socket, bool takesDescriptors);

    // Waits for the next frame. kEnd: the other end closed, or the connection broke. kTimeout: the socket's own.
    // kWrong: what came is no frame, and Wrong() says why; nothing can be read any more.
    Result Next(Frame& frame);
    bool HasBytes() const { return end_ > begin_; }  // something of the next frame is here
    bool HasFrame() const;                           // all of it is
    const std::string& Wrong() const { return wrong_; }

  private:
    FrameHeader PeekHeader() const;
    bool Check(const FrameHeader& header);
    Result Fill();
    ssize_t Receive(msghdr& message);
    bool TakeDescriptors(msghdr& message);

    const int socket_;
    const bool takesDescriptors_;
    std::string wrong_;
    std::deque<Descriptor> descriptors_;  // come, and not given out yet
    int inVain_ = 0;                      // how often it sleeps at once, and how many of these are left
    int sleeps_ = 0;
    std::size_t begin_ = 0;  // of what is in the buffer and not given out
    std::size_t end_ = 0;
    static constexpr std::size_t kBuffer = 2 * kMaxFrame;
    std::unique_ptr<std::byte[]> buffer_;
};

// Sends the pieces one behind the other, waiting as long as it takes. False: the connection is broken.
bool SendWhole(int socket, std::span<const std::span<const std::byte>> pieces);

// Sends what the socket takes at once, with the descriptor unless it is -1. The bytes sent, 0 if it takes none now, or
// -1: the connection is broken.
std::ptrdiff_t SendNow(int socket, std::span<const std::span<const std::byte>> pieces, int descriptor);

}  // namespace vlink
