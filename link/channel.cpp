#include "link/channel.h"

#include <poll.h>

#include <algorithm>
#include <system_error>
#include <utility>

#include "link/signals.h"

namespace vlink {
namespace {

constexpr std::size_t kMaxPieces = 3;

Reply Disconnected() {
    Reply reply;
    reply.record.status = host::status::kPortDisconnected.code;
    return reply;
}

}  // namespace

Channel::Channel(Descriptor socket) : socket_(std::move(socket)), reader_(socket_.Get(), true) {}

void Channel::Close() {
    if (std::exchange(closed_, true)) {
        return;
    }
    (void)Ask(Op::kGoodbye, {});  // at once when the connection is broken
    {
        const std::lock_guard hold(lock_);
        stop_ = true;
        helperWake_.notify_all();
    }
    shutdown(socket_.Get(), SHUT_RDWR);
    if (helper_.joinable()) {
        helper_.join();
    }
    Break();  // of a daemon that said goodbye before all was over
}

// ---- Out ----

// Sends a frame, whose answer is somebody's unless `whose` is empty.
void Channel::Transmit(Op op, Pieces pieces, const Unanswered& whose, std::uint64_t* id) {
    std::size_t length = sizeof(FrameHeader);
    for (const std::span<const std::byte> piece : pieces) {
        length += piece.size();
    }
    const std::lock_guard order(sendLock_);
    const std::uint64_t number = ++lastId_;
    if (id != nullptr) {
        *id = number;
    }
    if (whose.call != nullptr) {
        const std::lock_guard hold(lock_);
        whose.call->op_ = op;
        if (broken_) {
            whose.call->reply_ = Disconnected();
            whose.call->answered_ = true;
            return;
        }
        calls_[number] = whose;
    }
    const FrameHeader header{static_cast<std::uint32_t>(length), op, 0, number};
    std::span<const std::byte> all[1 + kMaxPieces] = {BytesOf(header)};
    std::copy(pieces.begin(), pieces.end(), all + 1);
    if (!SendWhole(socket_.Get(), std::span(all, 1 + pieces.size()))) {
        shutdown(socket_.Get(), SHUT_RDWR);  // whoever reads finds the end, behind what has come before
    }
}

void Channel::Tell(Op op, Pieces pieces) {
    Transmit(op, pieces, {}, nullptr);
}

void Channel::Post(Call& call, Op op, Pieces pieces, std::span<std::byte> out) {
    call.out_ = out;
    Transmit(op, pieces, {&call, nullptr}, nullptr);
}

Reply Channel::Ask(Op op, Pieces pieces, std::span<std::byte> out) {
    Call call;
    Post(call, op, pieces, out);
    return Await(call);
}

Reply Channel::Begin(Op op, Pieces pieces, std::span<std::byte> out, Ended ended, std::uint64_t* id) {
    if (!EnsureHelper()) {
        Reply reply;
        reply.record.status = host::status::kInsufficientResources.code;
        return reply;
    }
    const auto call = std::make_shared<Call>();
    call->out_ = out;
    call->ended_ = std::move(ended);
    Transmit(op, pieces, {call.get(), call}, id);
    return Await(*call);
}

// ---- In ----

Reply Channel::Await(Call& call) {
    std::unique_lock hold(lock_);
    while (!call.answered_) {
        if (!reading_) {
            reading_ = true;
            hold.unlock();
            ReadOn();
            hold.lock();
            reading_ = false;
        } else {
            const auto place = waiting_.insert(waiting_.end(), &call);
            call.wake_.wait(hold);
            waiting_.erase(place);
        }
    }
    PassOn();
    return std::move(call.reply_);
}

// Somebody who waits is to read now, else the helper if it is needed. Under the lock.
void Channel::PassOn() {
    if (reading_) {
        return;
    }
    if (!waiting_.empty()) {
        waiting_.front()->wake_.notify_one();
    } else if (started_ > 0 && helperWaits_) {
        helperWake_.notify_one();
    }
}

// Waits for a frame, and deals out what has come: whole frames do not stay behind, where no poll would tell of them.
void Channel::ReadOn() {
    do {
        Frame frame;
        if (reader_.Next(frame) != FrameReader::Result::kFrame || !Deal(frame)) {
            Break();
            return;
        }
    } while (reader_.HasFrame());
}

// False: the frame makes no sense.
bool Channel::Deal(Frame& frame) {
    Reply reply;
    if (!TakeRecord(frame.body, reply.record)) {
        return false;
    }
    reply.bytes = frame.body.size();
    reply.descriptor = std::move(frame.descriptor);
    const bool starts = (frame.header.flags & kStarted) != 0;
    std::unique_lock hold(lock_);
    const auto found = calls_.find(frame.header.id);
    if (found == calls_.end()) {
        return false;
    }
    const Unanswered whose = found->second;
    Call& call = *whose.call;
    const bool fits = frame.header.op == call.op_ && frame.body.size() <= call.out_.size();
    const bool pending = reply.Status().Pending();
    if (!fits || pending != starts || (starts && (call.started_ || !whose.own || !frame.body.empty()))) {
        return false;
    }
    std::copy(frame.body.begin(), frame.body.end(), call.out_.begin());
    if (starts) {
        call.started_ = true;
        ++started_;
    } else {
        calls_.erase(found);
        if (call.started_) {
            --started_;
            hold.unlock();
            call.ended_(reply);
            return true;
        }
    }
    call.reply_ = std::move(reply);
    call.answered_ = true;
    call.wake_.notify_one();
    return true;
}

// The connection is over, and with it everything that is under way.
void Channel::Break() {
    std::vector<Unanswered> ended;
    {
        const std::lock_guard hold(lock_);
        broken_ = true;
        shutdown(socket_.Get(), SHUT_RDWR);
        for (const auto& [id, whose] : calls_) {
            if (whose.call->started_) {
                ended.push_back(whose);
                continue;
            }
            whose.call->reply_ = Disconnected();
            whose.call->answered_ = true;
            whose.call->wake_.notify_one();
        }
        calls_.clear();
        started_ = 0;
    }
    for (const Unanswered& whose : ended) {
        Reply reply = Disconnected();
        whose.call->ended_(reply);
    }
}

// ---- The channel's own thread ----

bool Channel::EnsureHelper() {
    const std::lock_guard hold(lock_);
    if (!helper_.joinable()) {
        const SignalsBlocked blocked;
        try {
            helper_ = std::thread([this] { Help(); });
        } catch (const std::system_error&) {
            return false;
        }
    }
    return true;
}

void Channel::Help() {
    std::unique_lock hold(lock_);
    const auto needed = [this] { return started_ > 0 && !reading_ && !broken_; };
    while (!stop_) {
        if (!needed()) {
            helperWaits_ = true;
            helperWake_.wait(hold);
            helperWaits_ = false;
            continue;
        }
        hold.unlock();
        pollfd socket{socket_.Get(), POLLIN, 0};
        poll(&socket, 1, -1);
        hold.lock();
        if (stop_ || !needed()) {
            continue;
        }
        reading_ = true;
        hold.unlock();
        ReadOn();
        hold.lock();
        reading_ = false;
        PassOn();
    }
}

}  // namespace vlink
