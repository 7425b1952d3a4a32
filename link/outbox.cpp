#include "link/outbox.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <new>

#include "link/frame.h"

namespace vlink {

Outbox::Result Outbox::Send(Op op, std::uint64_t id, std::uint16_t flags, std::span<const std::byte> record,
                            std::span<const std::byte> data, Descriptor descriptor, Order order) {
    const std::size_t length = sizeof(FrameHeader) + record.size() + data.size();
    const auto withDescriptor = static_cast<std::uint16_t>(descriptor ? kDescriptor : 0);
    const FrameHeader header{static_cast<std::uint32_t>(length), op, static_cast<std::uint16_t>(flags | withDescriptor),
                             id};
    const std::span<const std::byte> pieces[] = {BytesOf(header), record, data};
    const std::lock_guard hold(lock_);
    if (order.unless != nullptr && *order.unless) {
        return Result::kGood;
    }
    if (order.mark != nullptr) {
        *order.mark = true;
    }
    if (state_ != Result::kGood) {
        return state_;
    }
    std::size_t sent = 0;
    if (letters_.empty()) {
        const std::ptrdiff_t now = SendNow(socket_, pieces, descriptor.Get());
        if (now < 0) {
            return state_ = Result::kGone;
        }
        if (static_cast<std::size_t>(now) == length) {
            return state_;
        }
        sent = static_cast<std::size_t>(now);
        progress_ = Clock::now();
        (void)eventfd_write(wake_, 1);
    }
    if (sent > 0) {
        descriptor.Reset();
    }
    return Keep(pieces, sent, std::move(descriptor));
}

// What the socket did not take of a frame.
Outbox::Result Outbox::Keep(std::span<const std::span<const std::byte>> pieces, std::size_t sent,
                            Descriptor descriptor) {
    try {
        Letter letter;
        for (const std::span<const std::byte> piece : pieces) {
            letter.bytes.insert(letter.bytes.end(), piece.begin(), piece.end());
        }
        letter.sent = sent;
        letter.descriptor = std::move(descriptor);
        waiting_ += letter.bytes.size() - sent;
        descriptors_ += letter.descriptor ? 1 : 0;
        letters_.push_back(std::move(letter));
    } catch (const std::bad_alloc&) {
        return state_ = Result::kFull;
    }
    if (waiting_ > limit_ || descriptors_ > kMaxDescriptors) {
        return state_ = Result::kFull;
    }
    watch_.Set(EPOLLOUT, 0);
    return state_;
}

bool Outbox::Flush() {
    const std::lock_guard hold(lock_);
    bool moved = letters_.empty();
    while (!letters_.empty() && state_ == Result::kGood) {
        Letter& letter = letters_.front();
        const std::span<const std::byte> rest = std::span<const std::byte>(letter.bytes).subspan(letter.sent);
        const std::ptrdiff_t now = SendNow(socket_, std::span(&rest, 1), letter.descriptor.Get());
        if (now < 0) {
            state_ = Result::kGone;
        }
        if (now <= 0) {
            break;
        }
        moved = true;
        progress_ = Clock::now();
        descriptors_ -= letter.descriptor ? 1 : 0;
        letter.descriptor.Reset();
        letter.sent += static_cast<std::size_t>(now);
        waiting_ -= static_cast<std::size_t>(now);
        if (letter.sent == letter.bytes.size()) {
            letters_.pop_front();
        }
    }
    if (letters_.empty() || state_ != Result::kGood) {
        watch_.Set(0, EPOLLOUT);
    }
    return moved || state_ != Result::kGood;
}

bool Outbox::Empty() const {
    const std::lock_guard hold(lock_);
    return letters_.empty() || state_ != Result::kGood;
}

Outbox::Clock::time_point Outbox::StalledSince() const {
    const std::lock_guard hold(lock_);
    return letters_.empty() || state_ != Result::kGood ? Clock::time_point::max() : progress_;
}

}  // namespace vlink
