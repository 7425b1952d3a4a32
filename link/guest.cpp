#include "link/guest.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <system_error>

namespace vlink {
namespace {

constexpr std::chrono::seconds kIdleTime{10};

constexpr const char* kWentAway = "went away";
constexpr const char* kDoesNotRead = "it reads none of its answers";

}  // namespace

Guest::Guest(House& house, Descriptor socket, std::uint64_t number, pid_t program)
    : house_(house),
      socket_(std::move(socket)),
      number_(number),
      program_(program),
      watch_(house.epoll, socket_.Get(), number),
      outbox_(socket_.Get(), watch_, house.wake, house.limits.unreadBytes),
      reader_(socket_.Get(), false) {}

Guest::~Guest() {
    if (owner_.joinable()) {
        owner_.join();
    }
}

std::string Guest::Name() const {
    return "client " + std::to_string(number_) + " (process " + std::to_string(program_) + ")";
}

void Guest::Start() {
    {
        const std::lock_guard hold(lock_);
        if (!Spawn(true)) {
            throw std::system_error(EAGAIN, std::generic_category());
        }
    }
    try {
        owner_ = std::thread([this] { Live(); });
    } catch (const std::system_error&) {
        Drop("no thread for it");
        Live();
        throw;
    }
}

// ---- The end ----

void Guest::Drop(const std::string& fault) {
    End(true, "dropped: " + fault);
}

void Guest::LetGo(const std::string& reason) {
    End(false, reason);
}

void Guest::End(bool atFault, const std::string& reason) {
    const std::lock_guard hold(lock_);
    if (dropped_) {
        return;
    }
    dropped_ = true;
    atFault_ = atFault;
    reason_ = reason;
    shutdown(socket_.Get(), SHUT_RDWR);
    ownerWake_.notify_all();
}

// The owner's thread.
void Guest::Live() {
    bool leaving = false;
    {
        std::unique_lock hold(lock_);
        ownerWake_.wait(hold, [this] { return dropped_ || leaving_; });
        leaving = leaving_;
    }
    EndProcess(leaving);
    if (leaving) {
        SayGoodbye();
    }
    watch_.End();
    process_.reset();
    Note(leaving);
    over_.store(true, std::memory_order_release);
    (void)eventfd_write(house_.wake, 1);
}

// The end, unless it was said goodbye to like any other.
void Guest::Note(bool leaving) {
    std::string line = Name() + " ";
    {
        const std::lock_guard hold(lock_);
        shutdown(socket_.Get(), SHUT_RDWR);
        if (!atFault_ && (leaving || (session_ && !session_->TakeMention()))) {
            return;
        }
        line += reason_;
    }
    house_.log(line);
}

void Guest::EndProcess(bool leaving) {
    std::shared_ptr<Session> session;
    host::LocalProcess* process = nullptr;
    Kind kind = Kind::kProcess;
    {
        const std::lock_guard hold(lock_);
        session = session_;
        process = process_.get();
        kind = kind_;
    }
    if (session) {
        // A program that may go on is one that closed a process politely.
        const bool forGood = kind == Kind::kAdministration || !leaving;
        host::Problem problem;
        if (session->TakeBack(forGood, problem) > 0) {
            house_.log(Name() + ": the disks that it had released are taken back" +
                       (problem ? ", but " + problem.what : ""));
        }
    }
    if (process != nullptr) {
        process->Exit();
    }
    std::unique_lock hold(lock_);
    closing_ = true;
    workerWake_.notify_all();
    ownerWake_.wait(hold, [this] { return workers_.empty(); });
    JoinRetired();
    if (session_ && kind_ == Kind::kAdministration) {  // there may be one only now
        house_.sessions.End(session_->Number());
    }
}

// The answer to a goodbye, and all that was sent before it, on its way.
void Guest::SayGoodbye() {
    Send(Op::kGoodbye, goodbye_, {});
    std::unique_lock hold(lock_);
    ownerWake_.wait(hold, [this] { return dropped_ || outbox_.Empty(); });
}

// ---- Threads and the role of the reader ----

// Under the lock, which a retired thread does not take any more.
void Guest::JoinRetired() {
    for (std::thread& thread : retired_) {
        thread.join();
    }
    retired_.clear();
}

// Under the lock.
bool Guest::Spawn(bool reading) {
    JoinRetired();
    const auto self = workers_.emplace(workers_.end());
    try {
        *self = std::thread([this, self, reading] { Work(self, reading); });
        return true;
    } catch (const std::system_error&) {
        workers_.erase(self);
        return false;
    }
}

void Guest::Work(std::list<std::thread>::iterator self, bool reading) {
    Desk desk;
    while (reading || (reading = AwaitRole())) {
        if (!ReadOne(desk)) {
            SetOver();
            break;
        }
        Serve(desk, reading);
    }
    const std::lock_guard hold(lock_);
    retired_.push_back(std::move(*self));
    workers_.erase(self);
    ownerWake_.notify_all();
}

void Guest::SetOver() {
    const std::lock_guard hold(lock_);
    role_ = Role::kOver;
}

bool Guest::AwaitRole() {
    std::unique_lock hold(lock_);
    ++idle_;
    workerWake_.wait_for(hold, kIdleTime, [this] { return grants_ > 0 || closing_; });
    --idle_;
    if (grants_ == 0) {
        return false;
    }
    --grants_;
    return true;
}

// Reads a request onto the desk, with the role.
bool Guest::ReadOne(Desk& desk) {
    Frame frame;
    switch (reader_.Next(frame)) {
        case FrameReader::Result::kFrame:
            break;
        case FrameReader::Result::kWrong:
            Drop("it sent " + reader_.Wrong());
            return false;
        default:
            LetGo(kWentAway);
            return false;
    }
    {
        const std::lock_guard hold(lock_);
        if (dropped_) {
            return false;  // what it has sent may be much, and comes from nobody now
        }
    }
    if (frame.header.id <= lastId_) {
        Drop("it sent the id " + std::to_string(frame.header.id) + " behind " + std::to_string(lastId_));
        return false;
    }
    lastId_ = frame.header.id;
    desk.header = frame.header;
    desk.body.assign(frame.body.begin(), frame.body.end());
    return true;
}

// Does what is on the desk; `reading` is cleared when the role has gone to another thread, or nothing more is read.
void Guest::Serve(Desk& desk, bool& reading) {
    const bool quick = IsQuick(desk.header.op);
    if (!quick) {
        LookOut();
    }
    Answer answer;
    try {
        answer = Carry(desk);
    } catch (const std::bad_alloc&) {
        answer.record.status = host::status::kInsufficientResources.code;
    }
    reading = quick ? desk.header.op != Op::kGoodbye : TakeBack();
    if (!answer.breach.empty()) {
        Drop("it sent " + answer.breach);
    } else if (!answer.silent) {
        const std::string last = std::move(answer.last);
        Send(desk.header.op, desk.header.id, std::move(answer));
        if (!last.empty()) {
            Drop(last);
        }
    }
}

void Guest::LookOut() {
    std::unique_lock hold(lock_);
    if (role_ == Role::kOver) {
        return;
    }
    role_ = Role::kWatched;
    watcher_ = std::this_thread::get_id();
    if (hungUp_) {
        hold.unlock();
        LetGo(kWentAway);
    } else if (reader_.HasBytes()) {
        GiveRole();  // the socket has nothing more to tell of those
    } else {
        watch_.Set(EPOLLIN | EPOLLRDHUP, 0);
    }
}

bool Guest::TakeBack() {
    const std::lock_guard hold(lock_);
    const bool mine = role_ == Role::kWatched && watcher_ == std::this_thread::get_id();
    if (!mine && role_ != Role::kWanted) {
        return false;
    }
    role_ = Role::kReading;
    watch_.Set(0, EPOLLIN | EPOLLRDHUP);
    return true;
}

// Under the lock, in role kWatched.
void Guest::GiveRole() {
    if (idle_ > grants_) {
        ++grants_;
        workerWake_.notify_one();
    } else if (workers_.size() >= house_.limits.threads || !Spawn(true)) {
        role_ = Role::kWanted;
        watch_.Set(EPOLLRDHUP, EPOLLIN);
        return;
    }
    role_ = Role::kReading;
    watch_.Set(0, EPOLLIN | EPOLLRDHUP);
}

void Guest::Send(Op op, std::uint64_t id, Answer answer) {
    const std::span<const std::byte> record = answer.bare ? std::span<const std::byte>() : BytesOf(answer.record);
    const Outbox::Result result =
        outbox_.Send(op, id, answer.flags, record, answer.data, std::move(answer.descriptor), answer.order);
    if (result == Outbox::Result::kGone) {
        LetGo(kWentAway);
    } else if (result != Outbox::Result::kGood) {
        Drop(kDoesNotRead);
    }
}

// ---- The poll thread's calls ----

void Guest::Readable() {
    const std::lock_guard hold(lock_);
    if (role_ == Role::kWatched) {
        GiveRole();
    }
}

bool Guest::Writable() {
    const bool moved = outbox_.Flush();
    const std::lock_guard hold(lock_);
    ownerWake_.notify_all();
    return moved;
}

void Guest::HungUp() {
    {
        const std::lock_guard hold(lock_);
        if (role_ == Role::kReading) {
            hungUp_ = true;  // the reader finds out, and why
            watch_.End();
            return;
        }
    }
    LetGo(kWentAway);
    watch_.End();
}

void Guest::CheckPatience(Clock::time_point now) {
    if (!welcome_.load(std::memory_order_relaxed) && now >= born_ + house_.limits.patience) {
        Drop("it says no hello");
    }
    const Clock::time_point stalled = outbox_.StalledSince();
    if (stalled != Clock::time_point::max() && now >= stalled + house_.limits.patience) {
        Drop(kDoesNotRead);
    }
}

Guest::Clock::time_point Guest::NextCheck() const {
    {
        const std::lock_guard hold(lock_);
        if (dropped_) {
            return Clock::time_point::max();
        }
    }
    if (!welcome_.load(std::memory_order_relaxed)) {
        return born_ + house_.limits.patience;
    }
    const Clock::time_point stalled = outbox_.StalledSince();
    return stalled == Clock::time_point::max() ? stalled : stalled + house_.limits.patience;
}

}  // namespace vlink
