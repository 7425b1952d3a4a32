// Both ends of the socket, and one that speaks its bytes as it pleases.
#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>

#include "link/address.h"
#include "link/frame.h"
#include "tests/system/client_fixture.h"

namespace tests {

constexpr std::chrono::seconds kLongEnough{60};

// What the daemon said of its clients.
class Diary {
  public:
    void Write(const std::string& line) {
        const std::lock_guard hold(lock_);
        lines_.push_back(line);
        written_.notify_all();
    }
    // Whether a line with these words comes, and takes it out.
    bool Says(const std::string& words) {
        std::unique_lock hold(lock_);
        const auto found = [&] {
            return std::find_if(lines_.begin(), lines_.end(),
                                [&](const std::string& line) { return line.find(words) != std::string::npos; });
        };
        if (!written_.wait_for(hold, kLongEnough, [&] { return found() != lines_.end(); })) {
            return false;
        }
        lines_.erase(found());
        return true;
    }
    std::size_t Count(const std::string& words) {
        const std::lock_guard hold(lock_);
        return static_cast<std::size_t>(std::count_if(lines_.begin(), lines_.end(), [&](const std::string& line) {
            return line.find(words) != std::string::npos;
        }));
    }

  private:
    std::mutex lock_;
    std::condition_variable written_;
    std::vector<std::string> lines_;
};

// How overlapped requests ended.
class Endings {
  public:
    host::Completion Next() {
        return [this](host::IoResult result) {
            const std::lock_guard hold(lock_);
            results_.push_back(result);
            ended_.notify_all();
        };
    }
    std::vector<host::IoResult> Take(std::size_t count) {
        std::unique_lock hold(lock_);
        EXPECT_TRUE(ended_.wait_for(hold, kLongEnough, [&] { return results_.size() >= count; }));
        return std::exchange(results_, {});
    }
    std::size_t Count() {
        const std::lock_guard hold(lock_);
        return results_.size();
    }
    std::string TakeStatus() {
        const std::vector<host::IoResult> results = Take(1);
        return results.size() == 1 ? host::StatusName(results[0].status) : std::to_string(results.size()) + " endings";
    }

  private:
    std::mutex lock_;
    std::condition_variable ended_;
    std::vector<host::IoResult> results_;
};

// Frames put together by hand.
template <typename... Parts>
Bytes FrameOf(vlink::Op op, std::uint64_t id, std::uint16_t flags, const Parts&... parts) {
    Bytes frame(sizeof(vlink::FrameHeader));
    [[maybe_unused]] const auto add = [&](std::span<const std::byte> bytes) {
        frame.insert(frame.end(), bytes.begin(), bytes.end());
    };
    (add(parts), ...);
    const vlink::FrameHeader header{static_cast<std::uint32_t>(frame.size()), op, flags, id};
    std::memcpy(frame.data(), &header, sizeof(header));
    return frame;
}
inline std::span<const std::byte> BytesOfText(std::u16string_view text) {
    return std::as_bytes(std::span(text));
}
inline vlink::IoRecord Io(host::Handle handle, std::uint32_t code = 0, std::uint32_t out = 0,
                          std::uint32_t options = 0) {
    vlink::IoRecord record{};
    record.handle = handle;
    record.code = code;
    record.options = options;
    record.out.length = out;
    return record;
}

// A client without manners.
class Stranger {
  public:
    explicit Stranger(const std::filesystem::path& socket) : Stranger(ConnectedTo(socket)) {}
    explicit Stranger(vlink::Descriptor socket) : socket_(std::move(socket)), reader_(socket_.Get(), true) {
        const timeval patience{kLongEnough.count(), 0};
        setsockopt(socket_.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    }
    static vlink::Descriptor ConnectedTo(const std::filesystem::path& path) {
        vlink::Address address;
        EXPECT_EQ(address.Set(path), 0);
        vlink::Descriptor socket(vlink::ConnectTo(address));
        EXPECT_TRUE(socket);
        return socket;
    }

    void Send(const Bytes& bytes) {
        const std::span<const std::byte> piece(bytes);
        (void)vlink::SendWhole(socket_.Get(), std::span(&piece, 1));
    }
    // The session that the answer names.
    std::uint64_t Hello(vlink::Kind kind, std::uint64_t session = 0) {
        Send(FrameOf(vlink::Op::kHello, ++id_, 0,
                     vlink::BytesOf(vlink::HelloRecord{vlink::kMagic, vlink::kVersion, kind, session})));
        vlink::Frame frame;
        vlink::HelloAnswer answer{};
        EXPECT_EQ(reader_.Next(frame), vlink::FrameReader::Result::kFrame);
        EXPECT_TRUE(vlink::TakeRecord(frame.body, answer));
        EXPECT_EQ(answer.welcome, vlink::Welcome::kYes);
        return answer.session;
    }
    std::uint64_t Post(vlink::Op op, const vlink::IoRecord& record, std::span<const std::byte> data = {}) {
        Send(FrameOf(op, ++id_, 0, vlink::BytesOf(record), data));
        return id_;
    }
    vlink::AnswerRecord Receive() {
        vlink::Frame frame;
        vlink::AnswerRecord answer{};
        EXPECT_EQ(reader_.Next(frame), vlink::FrameReader::Result::kFrame);
        EXPECT_TRUE(vlink::TakeRecord(frame.body, answer));
        return answer;
    }
    vlink::AnswerRecord Ask(vlink::Op op, const vlink::IoRecord& record, std::span<const std::byte> data = {}) {
        Post(op, record, data);
        return Receive();
    }
    std::string AskStatus(vlink::Op op, const vlink::IoRecord& record, std::span<const std::byte> data = {}) {
        return host::StatusName(host::Status{Ask(op, record, data).status});
    }
    host::Handle Open(const std::u16string& path, bool overlapped = false,
                      std::uint32_t access = host::access::kReadData | host::access::kWriteData) {
        const vlink::CreateRecord record{access, host::share::kNone, 1, 0, overlapped ? 1u : 0u, 0};
        Send(FrameOf(vlink::Op::kCreate, ++id_, 0, vlink::BytesOf(record), BytesOfText(path)));
        const vlink::AnswerRecord answer = Receive();
        EXPECT_EQ(host::StatusName(host::Status{answer.status}), "STATUS_SUCCESS");
        return answer.value;
    }
    // Whether the daemon closes, whatever it says before.
    bool IsLetGo() {
        vlink::Frame frame;
        vlink::FrameReader::Result result{};
        do {
            result = reader_.Next(frame);
        } while (result == vlink::FrameReader::Result::kFrame);
        return result == vlink::FrameReader::Result::kEnd;
    }
    void Die() { socket_.Reset(); }
    int Socket() const { return socket_.Get(); }

  private:
    vlink::Descriptor socket_;
    vlink::FrameReader reader_;
    std::uint64_t id_ = 0;
};

class LinkTest : public ClientTest {
  protected:
    LinkTest() {
        log_ = [this](const std::string& line) { diary_.Write(line); };
    }
    // Past the socket.
    std::unique_ptr<host::Process> Insider() { return Machine().NewProcess(); }

    Diary diary_;
};

template <typename Condition>
bool Eventually(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + kLongEnough;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace tests
