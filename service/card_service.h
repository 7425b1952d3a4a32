// What the driver asks of the service on one card, answered.
//
// A service handle stands for a clip that somebody looks into; it keeps the clip open, so that its blocks stay its own
// while frames are written to them. A frame's file is made once and serves the pieces of a read for a moment; what is
// written to a frame's file is collected until it is a picture, or until its last user closes it.
#pragma once

#include <vrkfs/service.h>

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "service/card.h"
#include "service/clip.h"
#include "service/frame_edit.h"

namespace service {

using Log = std::function<void(const std::string& line)>;

// Sends a response of `size` bytes, with the first `dataBytes` of the card's buffer, and waits until the driver has
// taken or filled them. False when the driver does not want it (any more); the request is over then.
using Respond = std::function<bool(const VrkFsServiceResponse& response, std::size_t size, std::size_t dataBytes)>;

class CardService {
  public:
    // firstHandle: the first service handle, not 0. One that another service gave out is best not given again soon.
    CardService(Card& card, Log log, std::uint32_t firstHandle)
        : card_(card), log_(std::move(log)), nextHandle_(firstHandle) {}
    ~CardService();
    CardService(const CardService&) = delete;
    CardService& operator=(const CardService&) = delete;

    // Nothing that the record says is taken for granted.
    void Answer(const VrkFsServiceRequest& request, const Respond& respond);

  private:
    using Clock = std::chrono::steady_clock;
    static constexpr double kMostLines = 50;  // at once
    // A frame's file under a handle.
    struct FrameKey {
        std::uint32_t handle;
        std::uint32_t frame;
        FileKind kind;
        auto operator<=>(const FrameKey&) const = default;
    };
    struct Rendered {
        FrameKey key;
        Bytes file;
        Clock::time_point made;
    };
    struct LookedInto {
        std::u16string path;
        std::unique_ptr<Clip> clip;
    };

    void AnswerOpen(const VrkFsServiceOpen& open, const Respond& respond);
    void AnswerClean(const VrkFsServiceClean& clean, const Respond& respond);
    void AnswerClose(const VrkFsServiceClose& close, const Respond& respond);
    void AnswerRead(const VrkFsServiceTransfer& read, const Respond& respond);
    void AnswerWrite(const VrkFsServiceTransfer& write, const Respond& respond);
    void AnswerPrefs(const Respond& respond);
    void AnswerSpace(const VrkFsPortSpaceQuery& query, const Respond& respond);
    void AnswerCreation(const VrkFsPortCreation& creation, const Respond& respond);

    bool FindFrame(const VrkFsServiceTransfer& transfer, FrameKey& key);
    const Bytes* Render(const FrameKey& key);
    FrameEdit* Edit(const FrameKey& key);
    FrameEdit* EditFor(const VrkFsServiceTransfer& write, const FrameKey& key);
    bool Pull(const VrkFsServiceTransfer& write, const FrameKey& key, const Respond& respond);
    void Reject(const FrameKey& key);
    bool StoreIfWhole(FrameEdit& edit, const FrameKey& key);
    bool Store(FrameEdit& edit, const FrameKey& key);
    std::unique_ptr<Clip> OpenToChange(const FrameKey& key, std::string& problem);
    void EndEdit(std::map<FrameKey, FrameEdit>::iterator edit);
    void Forget(std::uint32_t handle);

    bool Refuse(std::uint32_t type, const Respond& respond) const;
    void Say(const std::string& line);
    void SayOfFrame(const FrameKey& key, const std::string& what);

    Card& card_;
    Log log_;
    std::string lastLine_;
    Clock::time_point lastSaid_;
    Clock::time_point lastTried_;
    double credit_ = kMostLines;  // lines that may be said at once, as of lastTried_
    unsigned long unsaid_ = 0;
    std::uint32_t nextHandle_;
    std::map<std::uint32_t, LookedInto> open_;
    std::deque<Rendered> rendered_;  // newest first
    std::map<FrameKey, FrameEdit> edits_;
    std::set<FrameKey> refused_;  // a write to it was, and it has not been begun anew nor closed since
};

}  // namespace service
