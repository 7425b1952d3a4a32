// A request that may outlast its frame, from its making to its answer. It holds the data that goes in and comes out,
// unless that lies in memory which both ends map.
#pragma once

#include <atomic>
#include <memory>
#include <span>

#include "link/guest.h"

namespace vlink {

struct Guest::UnderWay {
    Op op = Op::kRead;
    std::uint64_t id = 0;
    bool overlapped = false;  // the client wants to know when it has started
    bool over = false;        // its last answer is in the stream; under the outbox's lock

    std::unique_ptr<std::byte[]> held;  // room for `in` and `out`, where they are not in memory of the client's
    std::size_t heldBytes = 0;
    std::span<const std::byte> in;
    std::span<std::byte> out;
    std::span<std::byte> copyTo;  // where `out` goes at the end
    bool outInFrame = false;

    std::atomic<host::RequestId> request = 0;  // 0: not known yet
    std::atomic<bool> cancelled = false;
};

}  // namespace vlink
