// What answers for the service while control codes are fuzzed.
#pragma once

#include <vrkfs/service.h>

#include <atomic>
#include <thread>

#include "fuzz/fuzz_station.h"
#include "tests/support/scripted_service.h"

namespace fuzz {

// The service, as hostile as the input: it fetches every request, since nobody else would end the driver's wait for an
// answer, and answers with whatever bytes come next until the driver wants no more.
class Answerer {
  public:
    Answerer(host::Process& user, std::span<const std::byte> bytes) : user_(user), bytes_(bytes) {
        control_ = Opened(user_, {.path = u"VrkFsDevice0", .access = kReadWrite, .overlapped = true});
        thread_ = std::thread([this] { Run(); });
    }
    ~Answerer() {
        stop_ = true;
        user_.CancelAll(control_.Get());
        thread_.join();
    }

  private:
    tests::PostedPtr Post(std::uint32_t code, std::span<const std::byte> in, std::size_t out) {
        return tests::ControlAside(user_, control_.Get(), code, in, std::vector<std::byte>(out));
    }
    std::size_t Next() {
        const std::size_t next = bytes_.empty() ? 0 : static_cast<std::size_t>(bytes_[0]);
        bytes_ = bytes_.subspan(std::min<std::size_t>(1, bytes_.size()));
        return next;
    }
    void Run() {
        while (!stop_) {
            const tests::PostedPtr fetch = Post(IOCTL_VRKFS_SEND_SERVICE_REQUEST, {}, 1568);
            while (stop_ && !fetch->IsOver()) {
                user_.Cancel(fetch->id);
            }
            if (fetch->Wait().status.Ok()) {
                const bool odd = Next() % 8 == 7;
                while (Respond(tests::WordAt(fetch->out, 0), odd)) {
                }
            }
        }
    }
    // False when the driver wants no more. An input that is used up refuses.
    bool Respond(std::uint32_t type, bool odd) {
        const bool over = bytes_.empty();
        std::vector<std::byte> in(56 + Next() % 3 * 44);
        for (std::size_t at = 8; at < in.size(); at += 4) {
            in[at] = static_cast<std::byte>(Next());
        }
        const std::uint32_t head[] = {odd ? static_cast<std::uint32_t>(Next()) : type, over ? 1u : 0u};
        std::memcpy(in.data(), head, sizeof(head));
        return Post(IOCTL_VRKFS_SEND_SERVICE_RESPONSE, in, 256)->Wait().status != host::status::kCancelled;
    }

    host::Process& user_;
    std::span<const std::byte> bytes_;
    host::ScopedHandle control_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace fuzz
