// A volume behind a socket: what the daemon says of its clients, and how overlapped requests end.
#pragma once

#include <algorithm>

#include "tests/support/scripted_service.h"
#include "tests/system/client_fixture.h"
#include "tests/system/stranger.h"

namespace tests {

using vlink::IoRecord;
using vlink::Kind;
using vlink::Op;

constexpr std::chrono::seconds kLongEnough{60};
constexpr std::uint32_t kReadWrite = host::access::kReadData | host::access::kWriteData | host::access::kReadAttributes;
constexpr std::uint32_t kLooks = host::access::kReadData | host::access::kReadAttributes;
constexpr std::uint32_t kAllChanges = 0x1FF;
constexpr const char16_t* kFolder = u"P:\\RZV\\VOL\\CLIPS";

// What the daemon says of its clients.
class Diary {
  public:
    void Write(const std::string& line) {
        const std::lock_guard hold(lock_);
        lines_.push_back(line);
        written_.notify_all();
    }
    // Whether a line with these words comes within that time; takes it out.
    bool Says(const std::string& words, std::chrono::milliseconds within = kLongEnough) {
        std::unique_lock hold(lock_);
        const auto fits = [&](const std::string& line) { return line.find(words) != std::string::npos; };
        auto found = lines_.end();
        const auto comes = [&] { return (found = std::ranges::find_if(lines_, fits)) != lines_.end(); };
        if (!written_.wait_for(hold, within, comes)) {
            return false;
        }
        lines_.erase(found);
        return true;
    }

  private:
    std::mutex lock_;
    std::condition_variable written_;
    std::vector<std::string> lines_;
};

inline std::string Said(const host::IoResult& result) {
    return host::StatusName(result.status) + ", " + std::to_string(result.information);
}

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

inline PostedPtr Watch(host::Process& process, host::Handle folder) {
    return Posted::Begin({}, Bytes(4096), [&](Posted& posted, host::Completion done) {
        return process.NotifyChangeDirectory(folder, kAllChanges, true, posted.out, std::move(done), &posted.id);
    });
}

class LinkTest : public ClientTest {
  protected:
    LinkTest() {
        log_ = [this](const std::string& line) { diary_.Write(line); };
    }
    void SetUp() override { StartVolume(2, true); }

    bool OthersAreServed() {
        std::uint32_t count = 0;
        return VRKFS_SUCCEEDED(VrkFsClientQueryVolumes(client_.get(), control_, nullptr, 0, &count)) && count == 1;
    }

    static host::ScopedHandle OpenIn(host::Process& process, const std::u16string& path,
                                     std::uint32_t access = kReadWrite, bool overlapped = false,
                                     host::Disposition disposition = host::Disposition::kOpen) {
        const host::OpenResult opened =
            process.Create({.path = path, .access = access, .disposition = disposition, .overlapped = overlapped});
        EXPECT_EQ(host::StatusName(opened.status), "STATUS_SUCCESS");
        return {process, opened.handle};
    }
    // A clip of some megabytes, and its image.
    Bytes MakeClip() {
        examples::RecordOrder order = Order(u"CLIP.RZV", true, 5);
        order.frames = 100;
        EXPECT_TRUE(examples::Record(client_.get(), order));
        return ReadWhole(order.path);
    }
    const std::u16string clip_ = Path(u"CLIP.RZV");

    Diary diary_;
};

inline VrkScsiRequest ReadOfOneBlock(std::uint32_t memory) {
    VrkScsiRequest request{};
    request.Command = VRK_SCSI_READ;
    request.BlockCount = 1;
    request.HostBuffer = memory;
    request.HostBufferLength = VRK_BLOCK_SIZE;
    return request;
}

}  // namespace tests
