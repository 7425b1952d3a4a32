// Gathers a volume's free space by moving the pieces of its files through the card's control device, one piece at a
// time. Between two moves every file is whole, on the disks too, so the work can stop after any of them.
#pragma once

#include <vrkfs/control.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/process.h"
#include "tool/defrag_plan.h"
#include "tool/file_placement.h"
#include "tool/volume_map.h"

namespace tool {

// What keeps free space apart, or may.
struct DefragObstacle {
    std::string path;   // of a file or folder; empty when the owner is not known
    std::string what;   // "data", "record", ...; empty when nobody could ask what it has
    BlockRange blocks;  // likewise
    std::string reason;
};

class Defragmenter {
  public:
    Defragmenter(host::Process& process, DrivePath volume) : process_(process), volume_(std::move(volume)) {}
    Defragmenter(const Defragmenter&) = delete;
    Defragmenter& operator=(const Defragmenter&) = delete;

    // Reads what lies where, finds out which files can be had alone, and plans. STATUS_CANCELLED when the watch stopped
    // it.
    [[nodiscard]] host::Status Survey(const PlacementWatch& watch = {});

    [[nodiscard]] const DefragPlan& Plan() const { return plan_; }
    [[nodiscard]] const VolumePlacement& Placement() const { return placement_; }
    // What keeps free runs apart when the plan is carried out.
    [[nodiscard]] std::vector<DefragObstacle> InTheWay() const;

    struct Move {
        std::string path;
        Segment segment = Segment::kRecord;
        BlockRange from;
        std::uint32_t to = 0;
        std::uint64_t bytes = 0;  // over all disks
    };
    [[nodiscard]] Move Describe(const DefragMove& move) const;

    struct Watch {
        // Several times a second while blocks move, and after each move; false stops after the move in hand.
        std::function<bool(std::uint64_t doneBytes, std::uint64_t totalBytes)> progress;
        std::function<void(const Move&)> moved;
    };
    // Carries out the plan. A file that cannot be moved stays, and what is left is planned anew, so this fails only
    // when the volume cannot be read any more; STATUS_CANCELLED when the watch stopped it.
    [[nodiscard]] host::Status Run(const Watch& watch);

    [[nodiscard]] std::size_t Moves() const { return moves_; }
    [[nodiscard]] std::uint64_t MovedBytes() const { return movedBytes_; }

  private:
    // What requests are made with while the plan is carried out.
    struct Tools {
        host::ScopedHandle control;    // for moves: overlapped
        host::ScopedHandle questions;  // for all else
        host::Process::NamedMemory counter;
    };
    struct Refusal {
        host::Status status;
        std::int32_t result = VRKFS_RESULT_DONE;
        bool changed = false;  // the file is not what the plan was made for
    };

    [[nodiscard]] host::Status Read(const PlacementWatch& watch);
    [[nodiscard]] bool PinWhatIsInUse();
    void MakePlan();

    [[nodiscard]] DrivePath PathOf(const OwnedRange& range) const;
    [[nodiscard]] host::OpenResult OpenAlone(const OwnedRange& range);
    [[nodiscard]] host::Status OpenTools(Tools& tools);
    // Nothing when it moved.
    [[nodiscard]] std::optional<Refusal> MoveOne(const Tools& tools, const DefragMove& move, const Watch& watch,
                                                 bool& stop);
    [[nodiscard]] host::IoResult Request(const Tools& tools, VrkFsSegmentMove& request, const DefragMove& move,
                                         const Watch& watch, bool& stop);
    void Remember(const Refusal& refusal, const DefragMove& move);
    [[nodiscard]] std::uint64_t BytesOf(const DefragMove& move) const;

    host::Process& process_;
    DrivePath volume_;
    VolumePlacement placement_;
    std::vector<OwnedRange> owned_;
    std::vector<DefragPiece> pieces_;  // of owned_, then those of refused_
    DefragPlan plan_;
    std::map<std::string, std::string> pinned_;  // path, why it stays
    std::set<std::string> hadAlone_;             // paths
    std::vector<DefragPiece> refused_;           // seemed free, but the driver did not give them
    std::size_t moves_ = 0;
    std::uint64_t movedBytes_ = 0;
};

}  // namespace tool
