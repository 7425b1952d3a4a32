// A user-mode service for the cases: a process of its own that speaks the two raw codes, step by step as a case says or
// by itself, with a clip whose frames it serves under the type TGA.
#pragma once

#include <vrkfs/service.h>

#include <condition_variable>
#include <functional>
#include <future>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "nt/kernel.h"
#include "nt/station.h"
#include "tests/driver/media_rig.h"

namespace tests {

inline std::uint32_t WordAt(std::span<const std::byte> bytes, std::size_t offset) {
    std::uint32_t word = 0;
    std::memcpy(&word, bytes.data() + offset, sizeof(word));
    return word;
}
// A buffer of zeros with words in it.
inline Bytes Record(std::size_t size, std::initializer_list<std::pair<std::size_t, std::uint32_t>> words) {
    Bytes bytes(size);
    for (const auto& [offset, word] : words) {
        std::memcpy(bytes.data() + offset, &word, sizeof(word));
    }
    return bytes;
}
inline void PutText(Bytes& bytes, std::size_t offset, const std::u16string& text) {
    std::memcpy(bytes.data() + offset, text.data(), text.size() * sizeof(char16_t));
}

// A request of the service, posted; its buffers live as long as it does.
class Posted {
  public:
    Bytes in, out;
    host::RequestId id = 0;

    void Finish(host::IoResult result) {
        std::lock_guard guard(lock_);
        result_ = result;
        over_.notify_all();
    }
    bool IsOver() {
        std::lock_guard guard(lock_);
        return result_.has_value();
    }
    host::IoResult Wait() {
        std::unique_lock guard(lock_);
        if (!over_.wait_for(guard, std::chrono::seconds(60), [&] { return result_.has_value(); })) {
            ADD_FAILURE() << "a request of the service does not end";
            return {};
        }
        return *result_;
    }
    std::string WaitName() { return host::StatusName(Wait().status); }

  private:
    std::mutex lock_;
    std::condition_variable over_;
    std::optional<host::IoResult> result_;
};
using PostedPtr = std::shared_ptr<Posted>;

class ScriptedService {
  public:
    static constexpr std::uint32_t kTypeCode = 7;
    static constexpr std::uint32_t kFrameSize = 5000;

    explicit ScriptedService(host::Machine& machine) : process_(machine.NewProcess()) {
        host::OpenRequest request;
        request.path = u"VrkFsDevice0";
        request.access = host::access::kReadData | host::access::kWriteData;
        request.overlapped = true;
        control_ = process_->Create(request).handle;
        EXPECT_NE(control_, host::kNoHandle);
    }
    ~ScriptedService() { Stop(); }

    host::Process& Process() { return *process_; }

    void Announce() {
        VrkFsFileTypeList list{};
        list.Count = 1;
        list.Rows[0].TypeCode = kTypeCode;
        list.Rows[0].AccessMode = VRKFS_FILE_TYPE_FRAME_FOLDERS;
        std::memcpy(list.Rows[0].Extension, u"TGA", 6);
        list.Rows[0].FrameSize = list.Rows[0].FrameSizeSdti1 = list.Rows[0].FrameSizeSdti12 = kFrameSize;
        list.Rows[0].Dot = VRKFS_FILE_TYPE_DOT;
        EXPECT_TRUE(process_->DeviceControl(control_, IOCTL_VRKFS_REGISTER_FILE_TYPES, BytesOf(list), {}).status.Ok());
    }
    void Leave() {
        EXPECT_TRUE(process_->DeviceControl(control_, IOCTL_VRKFS_UNREGISTER_FILE_TYPES, {}, {}).status.Ok());
    }

    PostedPtr Fetch() { return Post(IOCTL_VRKFS_SEND_SERVICE_REQUEST, {}, Bytes(1568)); }
    PostedPtr Respond(Bytes in, Bytes out = {}) {
        return Post(IOCTL_VRKFS_SEND_SERVICE_RESPONSE, std::move(in), std::move(out));
    }
    PostedPtr Respond(std::uint32_t type, std::uint32_t result, std::uint32_t word = 0, Bytes out = {}) {
        return Respond(Record(56, {{0, type}, {4, result}, {8, word}}), std::move(out));
    }
    void Cancel(const PostedPtr& posted) { process_->Cancel(posted->id); }

    // Fetches one request; its first word is the type.
    Bytes Take() {
        const PostedPtr fetch = Fetch();
        const host::IoResult result = fetch->Wait();
        EXPECT_EQ(host::StatusName(result.status), "STATUS_SUCCESS");
        EXPECT_EQ(result.information, 1568u);
        return fetch->out;
    }
    // Does what a service does: reads deliver Content in pieces of at most `piece` bytes, writes are kept.
    void Answer(const Bytes& request, std::uint32_t piece = 2000) {
        const std::uint32_t type = WordAt(request, 0);
        {
            std::lock_guard guard(lock_);
            types_ += static_cast<char>('0' + type);
        }
        switch (type) {
            case VRKFS_SERVICE_OPEN:
                EXPECT_EQ(Respond(type, 0, ++lastHandle_)->WaitName(), "STATUS_SUCCESS");
                break;
            case VRKFS_SERVICE_READ:
            case VRKFS_SERVICE_WRITE:
                Transfer(request, piece);
                break;
            default:
                EXPECT_EQ(Respond(type, 0)->WaitName(), "STATUS_SUCCESS");
        }
    }
    std::uint32_t LastHandle() const { return lastHandle_; }
    static std::byte Content(std::uint32_t frame, std::uint32_t offset) {
        return static_cast<std::byte>(frame * 17 + offset * 3 + offset / 256);
    }
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
    void Serve(std::function<void(const Bytes&)> before = {}, std::uint32_t piece = 2000) {
        stopping_ = false;
        fetch_ = Fetch();
        thread_ = std::thread([this, before = std::move(before), piece] {
            while (fetch_->Wait().status.Ok()) {
                const Bytes request = fetch_->out;
                if (before) {
                    before(request);
                }
                Answer(request, piece);
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
    // As a crash does: nothing is taken back, the process just ends.
    void Die() { process_.reset(); }

  private:
    PostedPtr Post(std::uint32_t code, Bytes in, Bytes out) {
        auto posted = std::make_shared<Posted>();
        posted->in = std::move(in);
        posted->out = std::move(out);
        const host::Status status = process_->DeviceControlOverlapped(
            control_, code, posted->in, posted->out, [posted](host::IoResult result) { posted->Finish(result); },
            &posted->id);
        if (!status.Ok()) {
            posted->Finish({status, 0});
        }
        return posted;
    }
    void Transfer(const Bytes& request, std::uint32_t piece) {
        const std::uint32_t type = WordAt(request, 0);
        const std::uint32_t offset = WordAt(request, 16);
        const std::uint32_t count = WordAt(request, 24);
        std::uint32_t moved = 0;
        Bytes whole(count);
        do {
            Bytes part(std::min(piece, count - moved));
            for (std::uint32_t i = 0; type == VRKFS_SERVICE_READ && i < part.size(); ++i) {
                part[i] = Content(WordAt(request, 28), offset + moved + i);
            }
            const auto size = static_cast<std::uint32_t>(part.size());
            const PostedPtr posted = Respond(type, 0, size, std::move(part));
            if (posted->WaitName() != "STATUS_SUCCESS") {
                return;
            }
            std::copy(posted->out.begin(), posted->out.end(), whole.begin() + moved);
            moved += size;
        } while (moved < count);
        if (type == VRKFS_SERVICE_WRITE) {
            std::lock_guard guard(lock_);
            written_ = std::move(whole);
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

class ServiceTest : public MediaTest {
  protected:
    static constexpr std::uint32_t kFrames = 8;
    static constexpr LONGLONG kLimit = 600'000'000;

    void SetUp() override { StartWith({}); }
    void StartWith(const host::MachineOptions& options) {
        ASSERT_NO_FATAL_FAILURE(StartVolume(1, options));
        std::mt19937 random(3);
        clip_ = RandomClip(random, kFrames, false, false, 1, 9);
        clip_.videoSdti = 1;
        PutClip(u"CLIP.RZV", clip_);
        service_ = std::make_unique<ScriptedService>(Machine());
        service_->Announce();
        const host::ScopedHandle folder = OpenFile(u"\\TGA\\VOL\\F\\CLIP.RZV");
        std::vector<host::DirectoryEntry> entries;
        ASSERT_TRUE(host::ListDirectory(User(), folder.Get(), entries, u"*.TGA").Ok());
        ASSERT_EQ(entries.size(), kFrames);
        names_.clear();
        for (const auto& entry : entries) {
            EXPECT_EQ(entry.size, ScriptedService::kFrameSize);
            names_.push_back(entry.name);
        }
    }
    void TearDown() override {
        service_.reset();
        MediaTest::TearDown();
    }
    ScriptedService& Service() { return *service_; }

    std::u16string FramePath(std::uint32_t frame) const { return u"\\TGA\\VOL\\F\\CLIP.RZV\\" + names_.at(frame); }
    host::ScopedHandle OpenFile(const std::u16string& path, bool overlapped = false,
                                host::Disposition disposition = host::Disposition::kOpen) {
        host::OpenRequest request;
        request.path = u"P:" + path;
        request.access = host::access::kReadData | host::access::kWriteData | host::access::kDelete;
        request.disposition = disposition;
        request.overlapped = overlapped;
        const host::OpenResult opened = User().Create(request);
        EXPECT_EQ(host::StatusName(opened.status), "STATUS_SUCCESS");
        return {User(), opened.handle};
    }
    host::ScopedHandle OpenFrame(std::uint32_t frame, bool overlapped = false) {
        return OpenFile(FramePath(frame), overlapped);
    }
    static Bytes FrameBytes(std::uint32_t frame, std::uint32_t offset, std::uint32_t count) {
        Bytes bytes(count);
        for (std::uint32_t i = 0; i < count; ++i) {
            bytes[i] = ScriptedService::Content(frame, offset + i);
        }
        return bytes;
    }
    // A status, or the bytes read, as text that a failing case prints.
    std::string Read(const host::ScopedHandle& handle, std::uint32_t frame, std::uint32_t offset, std::uint32_t count) {
        Bytes bytes(count);
        const host::IoResult result = User().Read(handle.Get(), bytes, offset);
        if (!result.status.Ok()) {
            EXPECT_EQ(result.information, 0u);
            return host::StatusName(result.status);
        }
        bytes.resize(result.information);
        return bytes == FrameBytes(frame, offset, count) ? "right" : "wrong bytes";
    }
    // On a thread of its own, to be waited for while the service does its part.
    template <typename Call>
    static auto Beside(Call call) {
        return std::async(std::launch::async, std::move(call));
    }
    std::string SetPrefs() {
        VrkFsPreferences prefs = VrkFsGlobPreferencesOf(Card());
        const host::ScopedHandle control(User(), OpenControl().handle);
        return host::StatusName(
            User().DeviceControl(control.Get(), IOCTL_VRKFS_SET_PREFERENCES, BytesOf(prefs), {}).status);
    }
    // The command's result word.
    std::uint32_t Command(const std::u16string& folder, std::uint32_t code, const std::u16string& path) {
        const host::ScopedHandle port = OpenFile(folder + u"\\___Port0___");
        Bytes command = Record(code == VRKFS_PORT_CREATE_MEDIA_FILE ? 1056 : 1040, {{4, code}});
        const auto size = static_cast<std::uint32_t>(command.size());
        std::memcpy(command.data(), &size, 4);
        PutText(command, 8, path);
        std::memset(command.data() + 1032, 0xA5, size - 1032);
        EXPECT_TRUE(User().Write(port.Get(), command, 0).status.Ok());
        reply_.assign(256, std::byte{});
        reply_.resize(User().Read(port.Get(), reply_, 0).information);
        return WordAt(reply_, 4);
    }
    // Texts of the time-outs logged so far.
    std::vector<std::string> TimeOuts() {
        std::vector<std::string> texts;
        for (const nt::EventLogEntry& entry : nt::ReadEventLog((StationPath() / "events.log").string()).entries) {
            if (entry.eventId == 0xC0050004) {
                EXPECT_EQ(entry.strings.size(), 1u);
                texts.emplace_back(entry.strings.back().begin(), entry.strings.back().end());
            }
        }
        return texts;
    }
    // The flush thread and so many threads that wait for the service.
    static void PassLimit(std::size_t waiting = 1) {
        ASSERT_TRUE(nt::ClockAwaitTimedWaits(1 + waiting, std::chrono::seconds(60)));
        nt::ClockAdvance(kLimit);
    }

    ClipSpec clip_;
    std::unique_ptr<ScriptedService> service_;
    Bytes reply_;
    std::vector<std::u16string> names_;  // of the frames
};

}  // namespace tests
