#include "link/frame.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

namespace vlink {
namespace {

constexpr std::size_t kMaxPieces = 4;
constexpr std::size_t kDescriptorsAtOnce = 4;
constexpr std::chrono::microseconds kLooking{40};
constexpr int kMaxSleeps = 127;

// The pieces behind the first `skipped` bytes; how many there are.
std::size_t Vectors(std::span<const std::span<const std::byte>> pieces, std::size_t skipped, iovec* vectors) {
    std::size_t count = 0;
    for (const std::span<const std::byte> piece : pieces) {
        const std::size_t skip = std::min(skipped, piece.size());
        skipped -= skip;
        if (skip < piece.size() && count < kMaxPieces) {
            vectors[count++] = {const_cast<std::byte*>(piece.data() + skip), piece.size() - skip};
        }
    }
    return count;
}

}  // namespace

FrameReader::FrameReader(int socket, bool takesDescriptors)
    : socket_(socket),
      takesDescriptors_(takesDescriptors),
      buffer_(std::make_unique_for_overwrite<std::byte[]>(kBuffer)) {}

FrameHeader FrameReader::PeekHeader() const {
    FrameHeader header;
    std::memcpy(&header, buffer_.get() + begin_, sizeof(header));
    return header;
}

bool FrameReader::HasFrame() const {
    return end_ - begin_ >= sizeof(FrameHeader) && end_ - begin_ >= PeekHeader().length;
}

bool FrameReader::Check(const FrameHeader& header) {
    if (header.length < sizeof(header) || header.length > kMaxFrame) {
        wrong_ = "a frame of " + std::to_string(header.length) + " bytes";
    }
    return wrong_.empty();
}

FrameReader::Result FrameReader::Next(Frame& frame) {
    while (wrong_.empty()) {
        if (end_ - begin_ >= sizeof(FrameHeader)) {
            const FrameHeader header = PeekHeader();
            if (!Check(header)) {
                break;
            }
            if (end_ - begin_ >= header.length) {
                frame.header = header;
                frame.body = {buffer_.get() + begin_ + sizeof(header), header.length - sizeof(header)};
                begin_ += header.length;
                if ((header.flags & kDescriptor) == 0) {
                    frame.descriptor.Reset();
                } else if (descriptors_.empty()) {
                    wrong_ = "a frame without its descriptor";
                    break;
                } else {
                    frame.descriptor = std::move(descriptors_.front());
                    descriptors_.pop_front();
                }
                return Result::kFrame;
            }
        }
        if (const Result result = Fill(); result != Result::kFrame) {
            return result;
        }
    }
    return Result::kWrong;
}

// Reads what is there, and waits if there is nothing.
FrameReader::Result FrameReader::Fill() {
    if (begin_ == end_) {
        begin_ = end_ = 0;
    } else if (kBuffer - begin_ < kMaxFrame) {
        std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
    }
    iovec vector{buffer_.get() + end_, kBuffer - end_};
    alignas(cmsghdr) char control[CMSG_SPACE(kDescriptorsAtOnce * sizeof(int))];
    msghdr message{};
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    if (takesDescriptors_) {
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
    }
    const ssize_t got = Receive(message);
    if (got < 0) {
        return errno == EAGAIN || errno == EWOULDBLOCK ? Result::kTimeout : Result::kEnd;
    }
    if (takesDescriptors_ && !TakeDescriptors(message)) {
        return Result::kWrong;
    }
    if (got == 0) {
        return Result::kEnd;
    }
    end_ += static_cast<std::size_t>(got);
    return Result::kFrame;
}

// Waits for something to come. To be put to sleep and woken costs more than most answers take, so it looks about as
// long as that costs first. Where that was in vain, the other end being slow or the processors busy, it sleeps at once
// for more and more times before it looks again.
ssize_t FrameReader::Receive(msghdr& message) {
    using Clock = std::chrono::steady_clock;
    ssize_t got = 0;
    if (sleeps_ > 0) {
        --sleeps_;
    } else {
        const Clock::time_point end = Clock::now() + kLooking;
        do {
            got = recvmsg(socket_, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
            if (got >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
                inVain_ = 0;
                return got;
            }
        } while (Clock::now() < end);
        inVain_ = std::min(2 * inVain_ + 1, kMaxSleeps);
        sleeps_ = inVain_;
    }
    do {
        got = recvmsg(socket_, &message, MSG_CMSG_CLOEXEC);
    } while (got < 0 && errno == EINTR);
    return got;
}

bool FrameReader::TakeDescriptors(msghdr& message) {
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        const std::size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (std::size_t i = 0; i < count; ++i) {
            int descriptor = -1;
            std::memcpy(&descriptor, CMSG_DATA(part) + i * sizeof(int), sizeof(descriptor));
            descriptors_.emplace_back(descriptor);
        }
    }
    if ((message.msg_flags & MSG_CTRUNC) != 0 || descriptors_.size() > kDescriptorsAtOnce) {
        wrong_ = "too many descriptors";
    }
    return wrong_.empty();
}

bool SendWhole(int socket, std::span<const std::span<const std::byte>> pieces) {
    std::size_t sent = 0;
    for (;;) {
        iovec vectors[kMaxPieces];
        msghdr message{};
        message.msg_iov = vectors;
        message.msg_iovlen = Vectors(pieces, sent, vectors);
        if (message.msg_iovlen == 0) {
            return true;
        }
        const ssize_t now = sendmsg(socket, &message, MSG_NOSIGNAL);
        if (now < 0 && errno != EINTR) {
            return false;
        }
        sent += now > 0 ? static_cast<std::size_t>(now) : 0;
    }
}

std::ptrdiff_t SendNow(int socket, std::span<const std::span<const std::byte>> pieces, int descriptor) {
    iovec vectors[kMaxPieces];
    msghdr message{};
    message.msg_iov = vectors;
    message.msg_iovlen = Vectors(pieces, 0, vectors);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (descriptor >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        cmsghdr* const part = CMSG_FIRSTHDR(&message);
        part->cmsg_level = SOL_SOCKET;
        part->cmsg_type = SCM_RIGHTS;
        part->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(part), &descriptor, sizeof(descriptor));
    }
    ssize_t sent = 0;
    do {
        sent = sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    // ETOOMANYREFS: descriptors under way that nobody has received yet.
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS || errno == ETOOMANYREFS)) {
        return 0;
    }
    return sent;
}

}  // namespace vlink
