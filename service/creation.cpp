#include "service/creation.h"

#include <algorithm>
#include <cstring>

namespace service {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint8_t kBlackPair[4] = {128, 16, 128, 16};  // in a key: transparent
constexpr std::uint32_t kCreate =
    VRKFS_OPEN_READ | VRKFS_OPEN_WRITE | VRKFS_OPEN_DELETE | VRKFS_OPEN_CREATE;  // for ourselves
constexpr std::chrono::milliseconds kJudgement{500};  // after so long the rate of writing is believed

bool IsStandard(std::uint32_t standard) {
    return standard == VRKFS_LINE_STANDARD_525 || standard == VRKFS_LINE_STANDARD_625;
}

std::uint32_t FieldSectors(std::uint32_t standard) {
    const std::uint32_t height = standard == VRKFS_LINE_STANDARD_625 ? VRKFS_VIDEO_HEIGHT_625 : VRKFS_VIDEO_HEIGHT_525;
    const std::uint32_t bytes = height / VRKFS_FIELDS_PER_FRAME * VRKFS_VIDEO_WIDTH * 2;
    return (bytes + VRKFS_SECTOR_SIZE - 1) / VRKFS_SECTOR_SIZE;
}

class Maker {
  public:
    Maker(Card& card, const VrkFsPortCreationParameters& wanted, Clock::time_point deadline)
        : card_(card), wanted_(wanted), deadline_(deadline), fieldSectors_(FieldSectors(wanted.LineStandard)) {}

    bool Make(const std::u16string& path, std::string& problem) {
        const VrkFsStatus opened = file_.Open(card_.Client(), path, kCreate);
        if (!VRKFS_SUCCEEDED(opened)) {
            problem = Failed("cannot make the file", opened);
            return false;
        }
        const bool made = GoesWithHandle(true, problem) && Reserve(problem) && MakeTables(problem) &&
                          FillAll(problem) && Settle(problem) && GoesWithHandle(false, problem);
        Unmap();
        return made;
    }

  private:
    struct Stream {
        VrkFsVideoSpace space = {};
        VrkFsNodeView nodes = {};
    };

    std::uint32_t Streams() const { return (wanted_.Flags & VRKFS_PORT_ALPHA) != 0 ? 2 : 1; }
    std::uint64_t Fields() const { return std::uint64_t{wanted_.FrameCount} * VRKFS_FIELDS_PER_FRAME; }
    std::uint32_t Disks() const { return streams_[0].space.Volume.DeviceCount; }
    // Fields go to the disks in turn, so the first ones may have one more.
    std::uint64_t FieldsOn(std::uint32_t position) const { return (Fields() + Disks() - 1 - position) / Disks(); }

    bool Check(const char* what, VrkFsStatus status, std::string& problem) {
        if (!VRKFS_SUCCEEDED(status)) {
            problem = Failed(what, status);
        }
        return VRKFS_SUCCEEDED(status);
    }

    // So that nothing is left of what is not finished, even if the service is killed meanwhile.
    bool GoesWithHandle(bool goes, std::string& problem) {
        return Check("cannot say that it is unfinished",
                     VrkFsClientSetDelete(card_.Client(), file_.Get(), goes ? 1 : 0), problem);
    }

    bool Reserve(std::string& problem) {
        VrkFsFileInfo info{};
        if (!Check("cannot ask for the volume",
                   VrkFsClientGetFileInfo(card_.Client(), card_.Control(), file_.Get(), &info), problem)) {
            return false;
        }
        const std::uint32_t disks = std::clamp<std::uint32_t>(info.Volume.DeviceCount, 1, VRKFS_VOLUME_MAX_DEVICES);
        const std::uint64_t blocks = (Fields() + disks - 1) / disks * fieldSectors_;
        if (blocks > 0xFFFFFFFFu) {
            problem = "no disk is that long";
            return false;
        }
        for (std::uint32_t stream = 0; stream < Streams(); ++stream) {
            VrkFsVideoSpace& space = streams_[stream].space;
            space.BodyTableBlocksWanted = static_cast<std::uint32_t>(VrkFsBodyTableSectors(wanted_.FrameCount));
            space.DataBlocksWanted = static_cast<std::uint32_t>(blocks);
            space.Flags = VRKFS_SPACE_SDTI_ALLOWED |
                          (wanted_.LineStandard == VRKFS_LINE_STANDARD_625 ? VRKFS_SPACE_625 : 0) |
                          (stream == VRKFS_STREAM_ALPHA ? VRKFS_SPACE_ALPHA : 0);
            if (!Check("cannot reserve space",
                       VrkFsClientAllocateVideoSpace(card_.Client(), card_.Control(), file_.Get(), &space), problem)) {
                return false;
            }
            if (space.Result != VRKFS_RESULT_DONE || space.Volume.DeviceCount != disks) {
                problem = "there is no room for it in one piece";
                return false;
            }
        }
        return true;
    }

    bool MakeTables(std::string& problem) {
        VrkFsClient* const client = card_.Client();
        if (!Check("cannot make its body tables",
                   VrkFsClientCreateNewBodyTable(client, card_.Control(), file_.Get(), wanted_.FrameCount), problem)) {
            return false;
        }
        for (std::uint32_t stream = 0; stream < Streams(); ++stream) {
            const auto add = stream == VRKFS_STREAM_VIDEO ? VrkFsClientAddVideoNodes : VrkFsClientAddAlphaNodes;
            Stream& made = streams_[stream];
            VrkFsSectionName name;
            VrkFsStatus status =
                add(client, card_.Control(), file_.Get(), made.space.BodyTableLba, made.space.BodyTableBlocks, &name);
            if (VRKFS_SUCCEEDED(status)) {
                status = VrkFsClientMapNodes(client, &name, 1, &made.nodes);
            }
            if (!Check("cannot make its body tables", status, problem)) {
                return false;
            }
            if (made.nodes.Count < Fields()) {
                problem = "somebody made its body tables meanwhile";
                return false;
            }
            Place(made);
        }
        return true;
    }

    // Field k is on disk k modulo the disks, right behind that disk's previous field.
    void Place(Stream& stream) {
        const auto second = static_cast<std::uint16_t>(fieldSectors_ / 2);
        const BodyTableNode length{static_cast<std::uint16_t>(fieldSectors_ - second), second};
        for (std::uint64_t field = 0; field < Fields(); ++field) {
            const auto before = static_cast<std::uint32_t>(field / Disks()) * fieldSectors_;
            const VrkFsPlacedNode node{stream.space.Volume.Devices[field % Disks()], stream.space.DataLba + before,
                                       length};
            VrkFsClientPublishNode(&stream.nodes.Nodes[field], &node);
        }
    }

    bool FillAll(std::string& problem) {
        for (std::size_t at = 0; at < kBufferBytes; at += sizeof(kBlackPair)) {
            std::memcpy(card_.Buffer() + at, kBlackPair, sizeof(kBlackPair));
        }
        start_ = Clock::now();
        for (std::uint32_t stream = 0; stream < Streams(); ++stream) {
            for (std::uint32_t position = 0; position < Disks(); ++position) {
                if (!Fill(streams_[stream].space, position, problem)) {
                    return false;
                }
            }
        }
        return true;
    }

    bool Fill(const VrkFsVideoSpace& space, std::uint32_t position, std::string& problem) {
        const std::uint64_t blocks = FieldsOn(position) * fieldSectors_;
        for (std::uint64_t done = 0; done < blocks;) {
            const auto count = static_cast<std::uint32_t>(std::min<std::uint64_t>(blocks - done, kMaxFieldSectors));
            if (!Check("cannot write its frames",
                       card_.Write(space.Volume.Devices[position], space.DataLba + static_cast<std::uint32_t>(done),
                                   count),
                       problem)) {
                return false;
            }
            done += count;
            written_ += count;
            if (IsTooSlow()) {
                problem = "it would take longer to write than the driver waits";
                return false;
            }
        }
        return true;
    }

    bool IsTooSlow() const {
        const Clock::duration spent = Clock::now() - start_;
        const double share =
            static_cast<double>(written_) / (static_cast<double>(Fields()) * fieldSectors_ * Streams());
        return spent > kJudgement && spent / share > deadline_ - start_;
    }

    bool Settle(std::string& problem) {
        const auto tableUsed = static_cast<std::uint32_t>(VrkFsBodyTableSectors(wanted_.FrameCount));
        const auto dataUsed = static_cast<std::uint32_t>(FieldsOn(0) * fieldSectors_);
        VrkFsVideoFileUpdate update{};
        update.FrameCount = wanted_.FrameCount;
        update.VideoBodyTableAllocated = streams_[0].space.BodyTableBlocks;
        update.VideoDataAllocated = streams_[0].space.DataBlocks;
        update.VideoBodyTableUsed = update.AlphaBodyTableUsed = tableUsed;
        update.VideoDataUsed = update.AlphaDataUsed = dataUsed;
        update.VideoDataLength = update.AlphaDataLength = Fields() * fieldSectors_;
        update.AlphaBodyTableAllocated = streams_[1].space.BodyTableBlocks;
        update.AlphaDataAllocated = streams_[1].space.DataBlocks;
        update.Flags = VRKFS_UPDATE_VIDEO | (Streams() == 2 ? VRKFS_UPDATE_ALPHA : 0);
        return Check("cannot settle its space",
                     VrkFsClientUpdateVideoFile(card_.Client(), card_.Control(), file_.Get(), &update), problem) &&
               Check("cannot let go of its body tables",
                     VrkFsClientDereferenceBodyTable(card_.Client(), card_.Control(), file_.Get()), problem) &&
               Check("cannot store its body tables",
                     VrkFsClientStoreBodyTable(card_.Client(), file_.Get(), wanted_.FrameCount, &streams_[0].nodes,
                                               Streams() == 2 ? &streams_[1].nodes : nullptr),
                     problem);
    }

    void Unmap() {
        for (Stream& stream : streams_) {
            if (stream.nodes.Nodes != nullptr) {
                VrkFsClientUnmapNodes(card_.Client(), &stream.nodes);
            }
        }
    }

    Card& card_;
    const VrkFsPortCreationParameters& wanted_;
    Clock::time_point deadline_;
    Clock::time_point start_;
    std::uint32_t fieldSectors_;
    std::uint64_t written_ = 0;  // blocks
    OpenFile file_;
    Stream streams_[2];
};

}  // namespace

bool CreateClip(Card& card, const std::u16string& path, const VrkFsPortCreationParameters& wanted,
                Clock::time_point deadline, std::string& problem) {
    if (wanted.Version != VRKFS_PORT_CREATION_VERSION || !IsStandard(wanted.LineStandard) || wanted.FrameCount == 0 ||
        wanted.FrameCount > VRKFS_MEDIA_MAX_FRAMES || (wanted.Flags & ~VRKFS_PORT_ALPHA) != 0 ||
        wanted.Reserved[0] != 0 || wanted.Reserved[1] != 0) {
        problem = "the parameters ask for something unknown";
        return false;
    }
    return Maker(card, wanted, deadline).Make(path, problem);
}

bool MeasureSpace(Card& card, const std::u16string& path, const VrkFsPortSpaceParameters& wanted,
                  VrkFsPortSpaceInfo& space, std::string& problem) {
    if ((wanted.LineStandard != 0 && !IsStandard(wanted.LineStandard)) || (wanted.Flags & ~VRKFS_PORT_ALPHA) != 0) {
        problem = "the parameters ask for something unknown";
        return false;
    }
    OpenFile volume;
    VrkFsStatus status = volume.Open(card.Client(), path, VRKFS_OPEN_PLAYER | VRKFS_OPEN_FOLDER);
    VrkFsVolumeSpaceInfo info{};
    space = {};
    if (VRKFS_SUCCEEDED(status)) {
        space.FieldSectors = wanted.LineStandard != 0 ? FieldSectors(wanted.LineStandard) : 0;
        info.VideoBlocksPerFrame = space.FieldSectors;
        info.AlphaBlocksPerFrame = (wanted.Flags & VRKFS_PORT_ALPHA) != 0 ? space.FieldSectors : 0;
        status = VrkFsClientGetVolumeSpace(card.Client(), card.Control(), volume.Get(), &info);
    }
    if (!VRKFS_SUCCEEDED(status)) {
        problem = Failed("cannot measure it", status);
        return false;
    }
    space.FreeBlocks = info.FreeBlocks;
    space.TotalBlocks = info.TotalBlocks;
    space.FrameCount = info.FrameEstimate;
    return true;
}

}  // namespace service
