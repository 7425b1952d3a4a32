#include "mount/read_order.h"

#include <algorithm>
#include <chrono>

namespace mount {
namespace {

constexpr unsigned kEstablished = 2;
constexpr std::uint64_t kWindow = 4 << 20;  // no request is so far ahead of one that is still to come
constexpr std::chrono::microseconds kPatience{500};

}  // namespace

void ReadOrder::Enter(std::uint64_t offset, std::uint64_t size) {
    std::unique_lock hold(lock_);
    if (offset > next_ && offset - next_ <= kWindow && inOrder_ >= kEstablished) {
        moved_.wait_for(hold, kPatience, [&] { return next_ >= offset || inOrder_ < kEstablished; });
    }
    inOrder_ = offset == next_ ? inOrder_ + 1 : 0;
    next_ = offset + size;
    moved_.notify_all();
}

}  // namespace mount
