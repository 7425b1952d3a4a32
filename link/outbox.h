// What goes to one client. Answers come from kernel threads that hold driver locks, so nothing here waits: a frame that
// the socket does not take at once is kept, and the server's poll thread sends it when there is room.
#pragma once

#include <chrono>
#include <deque>
#include <mutex>
#include <span>
#include <vector>

#include "host/descriptor.h"
#include "link/protocol.h"
#include "link/watch.h"

namespace vlink {

using host::Descriptor;

class Outbox {
  public:
    using Clock = std::chrono::steady_clock;

    // `wake`: an event descriptor, written to when something begins to wait here.
    Outbox(int socket, Watch& watch, int wake, std::size_t limit)
        : socket_(socket), watch_(watch), wake_(wake), limit_(limit) {}

    // Two frames about one request in their order: nothing is sent when `unless` is set; `mark` is set with the frame's
    // place in the stream taken. Both are touched under the lock that orders the stream.
    struct Order {
        const bool* unless = nullptr;
        bool* mark = nullptr;
    };
    enum class Result : std::uint8_t { kGood, kGone, kFull };  // of the last two: the client is to be dropped
    Result Send(Op op, std::uint64_t id, std::uint16_t flags, std::span<const std::byte> record,
                std::span<const std::byte> data, Descriptor descriptor, Order order);
    // Room in the socket. False: it takes nothing all the same, because of the descriptors that are under way to
    // others.
    bool Flush();

    bool Empty() const;
    // Since when the client has read nothing of what waits for it; the end of time when nothing waits.
    Clock::time_point StalledSince() const;

  private:
    struct Letter {
        std::vector<std::byte> bytes;
        std::size_t sent = 0;
        Descriptor descriptor;
    };
    Result Keep(std::span<const std::span<const std::byte>> pieces, std::size_t sent, Descriptor descriptor);

    // The program's descriptors are few, and all clients' as well as the disks'. A socket takes more before any waits.
    static constexpr std::size_t kMaxDescriptors = 64;

    const int socket_;
    Watch& watch_;
    const int wake_;
    const std::size_t limit_;
    mutable std::mutex lock_;  // guards what follows, and the order of what is sent
    std::deque<Letter> letters_;
    std::size_t waiting_ = 0;      // bytes
    std::size_t descriptors_ = 0;  // that wait
    Clock::time_point progress_;
    Result state_ = Result::kGood;
};

}  // namespace vlink
