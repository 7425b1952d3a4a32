// A user-mode service for cases: a process of its own that speaks the two raw codes, step by step as a case says, or by
// itself. It never judges what it meets: the driver may be failing under it.
#pragma once

#include <vrkfs/control.h>
#include <vrkfs/service.h>

#include <cstring>
#include <functional>
#include <future>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/machine.h"

namespace tests {

inline std::uint32_t WordAt(std::span<const std::byte> bytes, std::size_t offset) {
    std::uint32_t word = 0;
    std::memcpy(&word, bytes.data() + offset, sizeof(word));
    return word;
}
// A buffer of zeros with words and a text in it.
inline std::vector<std::byte> Record(std::size_t size,
                                     std::initializer_list<std::pair<std::size_t, std::uint32_t>> words,
                                     const std::u16string& text = {}, std::size_t textOffset = 0) {
    std::vector<std::byte> bytes(size);
    for (const auto& [offset, word] : words) {
        std::memcpy(bytes.data() + offset, &word, sizeof(word));
    }
    std::memcpy(bytes.data() + textOffset, text.data(), text.size() * sizeof(char16_t));
    return bytes;
}

// A request under way; its buffers live as long as it does. It ends once: a second end is an exception.
class Posted {
  public:
    std::vector<std::byte> in, out;
    host::RequestId id = 0;

    bool IsOver() const { return over_.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }
    // STATUS_PENDING for one that does not end.
    host::IoResult Wait() const {
        const bool over = over_.wait_for(std::chrono::seconds(100)) == std::future_status::ready;
        return over ? over_.get() : host::IoResult{host::status::kPending, 0};
    }
    std::string End() const { return host::StatusName(Wait().status); }

    // Sends the request with `send`, which gets the completion to use.
    template <typename Send>
    static std::shared_ptr<Posted> Begin(std::vector<std::byte> in, std::vector<std::byte> out, Send send) {
        auto posted = std::make_shared<Posted>();
        posted->in = std::move(in);
        posted->out = std::move(out);
        const host::Status status = send(*posted, [posted](host::IoResult result) { posted->end_.set_value(result); });
        if (!status.Ok()) {
            posted->end_.set_value({status, 0});
        }
        return posted;
    }

  private:
    std::promise<host::IoResult> end_;
    std::shared_future<host::IoResult> over_ = end_.get_future();
};
using PostedPtr = std::shared_ptr<Posted>;

inline PostedPtr ReadAside(host::Process& process, host::Handle file, std::uint64_t offset, std::size_t bytes) {
    return Posted::Begin({}, std::vector<std::byte>(bytes), [&](Posted& posted, host::Completion done) {
        return process.ReadOverlapped(file, posted.out, offset, std::move(done), &posted.id);
    });
}

inline PostedPtr ControlAside(host::Process& process, host::Handle device, std::uint32_t code,
                              std::span<const std::byte> in, std::vector<std::byte> out) {
    return Posted::Begin({in.begin(), in.end()}, std::move(out), [&](Posted& posted, host::Completion done) {
        return process.DeviceControlOverlapped(device, code, posted.in, posted.out, std::move(done), &posted.id);
    });
}

class ScriptedService {
  public:
    using Bytes = std::vector<std::byte>;
    static constexpr std::uint32_t kTypeCode = 7;  // of the type TGA, whose frame files all have this size
    static constexpr std::uint32_t kFrameSize = 5000;

    explicit ScriptedService(host::Machine& machine) : process_(machine.NewProcess()) {
        control_ = process_->Create({.path = u"VrkFsDevice0", .overlapped = true}).handle;
    }
    ~ScriptedService() { Stop(); }
    host::Process& Process() { return *process_; }

    bool Announce() {
        VrkFsFileTypeList list{};
        VrkFsFileType& type = list.Rows[0];
        list.Count = 1;
        type.TypeCode = kTypeCode;
        type.AccessMode = VRKFS_FILE_TYPE_FRAME_FOLDERS;
        std::memcpy(type.Extension, u"TGA", 6);
        type.FrameSize = type.FrameSizeWithAlpha = type.FrameSizeSdti1 = type.FrameSizeSdti1WithAlpha = kFrameSize;
        type.FrameSizeSdti12 = type.FrameSizeSdti12WithAlpha = kFrameSize;
        return process_
            ->DeviceControl(control_, IOCTL_VRKFS_REGISTER_FILE_TYPES, std::as_bytes(std::span(&list, 1)), {})
            .status.Ok();
    }
    void Leave() { (void)process_->DeviceControl(control_, IOCTL_VRKFS_UNREGISTER_FILE_TYPES, {}, {}); }
    // As a crash does: nothing is taken back, the process just ends.
    void Die() { process_.reset(); }

    PostedPtr Fetch() { return Post(IOCTL_VRKFS_SEND_SERVICE_REQUEST, {}, Bytes(1568)); }
    PostedPtr Respond(const Bytes& in, Bytes out = {}) {
        return Post(IOCTL_VRKFS_SEND_SERVICE_RESPONSE, in, std::move(out));
    }
    PostedPtr Respond(std::uint32_t type, std::uint32_t result, std::uint32_t word = 0, Bytes out = {}) {
        return Respond(Record(56, {{0, type}, {4, result}, {8, word}}), std::move(out));
    }
    void Cancel(const PostedPtr& posted) { process_->Cancel(posted->id); }
    // Fetches one request.
    Bytes Take() {
        const PostedPtr fetch = Fetch();
        return fetch->Wait().information == 1568 ? fetch->out : Bytes(1568);
    }
    // What a service does with a request: frames deliver Content in pieces of at most `piece` bytes, and what is
    // written is kept; handles count up; space information is a 0x5A each.
    void Answer(const Bytes& request, std::uint32_t piece = 2000) {
        const std::uint32_t type = WordAt(request, 0);
        {
            std::lock_guard guard(lock_);
            types_ += static_cast<char>('0' + type);
        }
        if (type == VRKFS_SERVICE_READ || type == VRKFS_SERVICE_WRITE) {
            Transfer(request, piece);
        } else if (type == VRKFS_SERVICE_AVAILABLE_SPACE) {
            Bytes answer(56, std::byte{0x5A});
            std::memcpy(answer.data(), Record(8, {{0, type}}).data(), 8);
            (void)Respond(answer)->Wait();
        } else {
            (void)Respond(type, 0, type == VRKFS_SERVICE_OPEN ? ++lastHandle_ : 0)->Wait();
        }
    }
    static Bytes Content(std::uint32_t frame, std::uint32_t offset, std::uint32_t count) {
        Bytes bytes(count);
        for (std::uint32_t i = 0; i < count; ++i) {
            bytes[i] = static_cast<std::byte>(frame * 17 + (offset + i) * 3 + (offset + i) / 256);
        }
        return bytes;
    }
    // What the last write brought.
    Bytes Written() {
        std::lock_guard guard(lock_);
        return written_;
    }
    // The types of the requests answered so far, a digit each; forgets them.
    std::string TakeTypes() {
        std::lock_guard guard(lock_);
        return std::exchange(types_, {});
    }

    // Answers by itself until Stop. `before` comes before every answer.
    void Serve(std::function<void(const Bytes&)> before = {}) {
        stopping_ = false;
        fetch_ = Fetch();
        thread_ = std::thread([this, before = std::move(before)] {
            while (fetch_->Wait().information != 0) {
                const Bytes request = fetch_->out;
                if (before) {
                    before(request);
                }
                Answer(request);
                std::lock_guard guard(lock_);
                if (stopping_) {
                    return;
                }
                fetch_ = Fetch();
            }
        });
    }
    void Stop() {
        if (!thread_.joinable()) {
            return;
        }
        {
            std::lock_guard guard(lock_);
            stopping_ = true;
            Cancel(fetch_);
        }
        thread_.join();
    }

  private:
    PostedPtr Post(std::uint32_t code, const Bytes& in, Bytes out) {
        return ControlAside(*process_, control_, code, in, std::move(out));
    }
    void Transfer(const Bytes& request, std::uint32_t piece) {
        const std::uint32_t type = WordAt(request, 0);
        const std::uint32_t count = WordAt(request, 24);
        const Bytes whole = Content(WordAt(request, 28), WordAt(request, 16), count);
        Bytes written;
        std::uint32_t moved = 0;
        do {
            const std::uint32_t size = std::min(piece, count - moved);
            const auto part = whole.begin() + moved;
            const PostedPtr posted =
                Respond(type, 0, size, type == VRKFS_SERVICE_READ ? Bytes(part, part + size) : Bytes(size));
            if (!posted->Wait().status.Ok()) {
                return;
            }
            written.insert(written.end(), posted->out.begin(), posted->out.end());
            moved += size;
        } while (moved < count);
        if (type == VRKFS_SERVICE_WRITE) {
            std::lock_guard guard(lock_);
            written_ = std::move(written);
        }
    }

    std::unique_ptr<host::Process> process_;
    host::Handle control_ = host::kNoHandle;
    std::uint32_t lastHandle_ = 0x70;
    std::mutex lock_;  // the following
    Bytes written_;
    std::string types_;
    bool stopping_ = false;
    PostedPtr fetch_;
    std::thread thread_;
};

}  // namespace tests
