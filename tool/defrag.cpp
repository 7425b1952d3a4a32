#include "tool/defrag.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "tool/volume_list.h"

namespace tool {
namespace {

// Refusals in a row after which there is no use in going on: a disk has failed, or records of the volume cannot be read
// and the driver gives no blocks that may be theirs.
constexpr int kMostRefusals = 8;

constexpr std::chrono::milliseconds kPoll{50};

// The end of one overlapped request.
class Ending {
  public:
    host::Completion Completion() {
        return [this](host::IoResult result) {
            const std::lock_guard hold(lock_);
            result_ = result;
            over_.notify_all();  // under the lock: who waits may take this away at once
        };
    }

    // Nothing when it has not come within the time.
    std::optional<host::IoResult> Await(std::chrono::milliseconds time) {
        std::unique_lock hold(lock_);
        over_.wait_for(hold, time, [this] { return result_.has_value(); });
        return result_;
    }

  private:
    std::mutex lock_;
    std::condition_variable over_;
    std::optional<host::IoResult> result_;
};

std::string ReasonOf(host::Status status) {
    if (status == host::status::kSharingViolation || status == host::status::kAccessDenied) {
        return "in use: " + host::StatusName(status);
    }
    return host::StatusName(status);
}

}  // namespace

// ---- What lies where ----

host::Status Defragmenter::Survey(const PlacementWatch& watch) {
    host::Status status = Read(watch);
    while (status.Ok() && PinWhatIsInUse()) {
        MakePlan();
    }
    return status;
}

host::Status Defragmenter::Read(const PlacementWatch& watch) {
    const host::Status status = ReadVolumePlacement(process_, volume_, placement_, watch);
    if (status.Ok()) {
        owned_ = OwnedRanges(placement_);
        MakePlan();
    }
    return status;
}

void Defragmenter::MakePlan() {
    pieces_.clear();
    for (const OwnedRange& range : owned_) {
        pieces_.push_back(PieceOf(placement_, range));
        pieces_.back().fixed = pinned_.contains(PathOf(range).Display());
    }
    pieces_.insert(pieces_.end(), refused_.begin(), refused_.end());
    plan_ = PlanDefrag(DataArea(placement_), pieces_);
}

// Whether the plan has files that have to stay.
bool Defragmenter::PinWhatIsInUse() {
    bool found = false;
    for (const DefragMove& move : plan_.moves) {
        const OwnedRange& range = owned_[move.piece];
        const std::string path = PathOf(range).Display();
        if (pinned_.contains(path) || hadAlone_.contains(path)) {
            continue;
        }
        const host::OpenResult opened = OpenAlone(range);
        const host::ScopedHandle handle(process_, opened.handle);
        if (opened.status.Ok()) {
            hadAlone_.insert(path);
        } else {
            pinned_[path] = ReasonOf(opened.status);
            found = true;
        }
    }
    return found;
}

DrivePath Defragmenter::PathOf(const OwnedRange& range) const {
    const FolderPlacement& folder = placement_.folders[range.folder];
    return placement_.PathOf(folder, folder.files[range.file]);
}

host::OpenResult Defragmenter::OpenAlone(const OwnedRange& range) {
    host::OpenRequest request;
    request.path = PathOf(range).Open();
    request.shareAccess = host::share::kNone;
    request.options = host::option::kNonDirectoryFile;
    return process_.Create(request);
}

std::vector<DefragObstacle> Defragmenter::InTheWay() const {
    std::vector<DefragObstacle> obstacles;
    for (const std::size_t piece : plan_.inTheWay) {
        const BlockRange blocks = pieces_[piece].blocks;
        if (piece >= owned_.size()) {
            obstacles.push_back({{}, "blocks", blocks, "the driver does not give them: see vrkfs events"});
            continue;
        }
        const std::string path = PathOf(owned_[piece]).Display();
        const auto pinned = pinned_.find(path);
        obstacles.push_back(
            {path, SegmentName(owned_[piece].segment), blocks,
             pinned != pinned_.end() ? pinned->second : "no free run is long enough to move it through"});
    }
    for (const FolderPlacement& folder : placement_.folders) {
        if (!folder.status.Ok()) {
            obstacles.push_back({placement_.PathOf(folder).Display(), {}, {}, host::StatusName(folder.status)});
        }
        for (const FilePlacement& file : folder.files) {
            if (!file.status.Ok()) {
                obstacles.push_back({placement_.PathOf(folder, file).Display(), {}, {}, host::StatusName(file.status)});
            }
        }
    }
    return obstacles;
}

std::uint64_t Defragmenter::BytesOf(const DefragMove& move) const {
    return std::uint64_t{move.from.count} * kDiskBlockBytes * pieces_[move.piece].weight;
}

Defragmenter::Move Defragmenter::Describe(const DefragMove& move) const {
    return {PathOf(owned_[move.piece]).Display(), owned_[move.piece].segment, move.from, move.to, BytesOf(move)};
}

// ---- Moves ----

host::Status Defragmenter::Run(const Watch& watch) {
    Tools tools;
    if (const host::Status status = OpenTools(tools); !status.Ok()) {
        return status;
    }
    host::Status status = host::status::kSuccess;
    std::size_t next = 0;
    int refusals = 0;
    bool stop = false;
    while (status.Ok() && next < plan_.moves.size() && !stop) {
        const DefragMove move = plan_.moves[next];
        if (const std::optional<Refusal> refusal = MoveOne(tools, move, watch, stop)) {
            Remember(*refusal, move);
            hadAlone_.clear();
            status = Survey();
            next = 0;
            if (++refusals == kMostRefusals && status.Ok()) {
                status = refusal->status.Ok() ? host::status::kUnsuccessful : refusal->status;
            }
            continue;
        }
        refusals = 0;
        ++next;
        ++moves_;
        movedBytes_ += BytesOf(move);
        plan_.cost -= std::uint64_t{move.from.count} * pieces_[move.piece].weight;
        watch.moved(Describe(move));
    }
    process_.FreeMemory(tools.counter);
    return status.Ok() && next < plan_.moves.size() ? host::status::kCancelled : status;
}

host::Status Defragmenter::OpenTools(Tools& tools) {
    for (host::ScopedHandle* handle : {&tools.control, &tools.questions}) {
        const host::OpenResult opened = OpenControl(process_, volume_.card, handle == &tools.control);
        if (!opened.status.Ok()) {
            return opened.status;
        }
        *handle = host::ScopedHandle(process_, opened.handle);
    }
    return process_.AllocateMemory(sizeof(std::uint32_t), tools.counter);
}

std::optional<Defragmenter::Refusal> Defragmenter::MoveOne(const Tools& tools, const DefragMove& move,
                                                           const Watch& watch, bool& stop) {
    const OwnedRange& range = owned_[move.piece];
    const host::OpenResult opened = OpenAlone(range);
    if (!opened.status.Ok()) {
        return Refusal{opened.status};
    }
    const host::ScopedHandle file(process_, opened.handle);
    FilePlacement now;
    const host::Status asked = ReadFilePlacement(process_, tools.questions.Get(), file.Get(), now);
    if (!asked.Ok() || now.Of(range.segment) != move.from) {
        return Refusal{.status = asked, .changed = true};
    }
    VrkFsSegmentMove request{};
    request.Handle = file.Get();
    request.NewLba[static_cast<std::size_t>(range.segment)] = move.to;
    request.ProgressAddress = tools.counter.name;
    const host::IoResult answer = Request(tools, request, move, watch, stop);
    const std::int32_t result = request.Results[static_cast<std::size_t>(range.segment)];
    if (!answer.status.Ok() || result != VRKFS_RESULT_DONE) {
        return Refusal{answer.status, result};
    }
    return std::nullopt;
}

host::IoResult Defragmenter::Request(const Tools& tools, VrkFsSegmentMove& request, const DefragMove& move,
                                     const Watch& watch, bool& stop) {
    const std::atomic_ref<std::uint32_t> moved(*reinterpret_cast<std::uint32_t*>(tools.counter.bytes.data()));
    moved = 0;
    const auto record = std::as_writable_bytes(std::span(&request, 1));
    const std::uint64_t bytesOfBlock = std::uint64_t{kDiskBlockBytes} * pieces_[move.piece].weight;
    const std::uint64_t total = movedBytes_ + plan_.cost * kDiskBlockBytes;
    Ending ending;
    const host::Status started = process_.DeviceControlOverlapped(tools.control.Get(), IOCTL_VRKFS_MOVE_FILE_SEGMENTS,
                                                                  record, record, ending.Completion(), nullptr);
    if (!started.Ok()) {
        return {started, 0};
    }
    while (true) {
        const std::optional<host::IoResult> over = ending.Await(kPoll);
        stop = !watch.progress(movedBytes_ + moved * bytesOfBlock, total) || stop;
        if (over) {
            return *over;
        }
    }
}

// What a refusal says about the next plan.
void Defragmenter::Remember(const Refusal& refusal, const DefragMove& move) {
    const std::string path = PathOf(owned_[move.piece]).Display();
    if (!refusal.status.Ok()) {
        pinned_[path] = ReasonOf(refusal.status);
    } else if (refusal.changed) {
        pinned_[path] = "somebody changed it meanwhile";
    } else if (refusal.result == VRKFS_MOVE_NOT_FREE) {
        refused_.push_back({{move.to, move.from.count}, pieces_[move.piece].side, true, 1});
    } else if (refusal.result == VRKFS_MOVE_NO_SEGMENT) {
        pinned_[path] = "the driver moves only clips";
    } else {
        pinned_[path] = "it could not be copied, or is being recorded: see vrkfs events";
    }
}

}  // namespace tool
