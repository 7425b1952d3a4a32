#include "examples/recorder.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

#include "examples/session.h"

namespace examples {
namespace {

// Where a stream goes: field k on disk k modulo the disk count, right behind that disk's previous field.
struct Stream {
    VrkFsVideoSpace space = {};
    std::array<std::uint32_t, VRKFS_VOLUME_MAX_DEVICES> next = {};  // block, by position of the disk
    std::uint64_t recordedBlocks = 0;                               // on all disks

    std::uint32_t UsedBlocks() const {
        const std::uint32_t end = *std::max_element(next.begin(), next.begin() + space.Volume.DeviceCount);
        return end - space.DataLba;
    }
};

class Recorder {
  public:
    Recorder(VrkFsClient* client, const RecordOrder& order) : session_(client), order_(order) {}

    bool Run() {
        const bool whole = Prepare() && RecordFields() && Finish();
        if (!whole) {
            session_.Abandon();
        }
        return whole;
    }

  private:
    std::uint32_t Streams() const { return order_.alpha ? 2 : 1; }
    bool Told(RecordStep step) const { return !order_.watch || order_.watch(step, fields_); }

    bool Prepare() {
        const Pattern& pattern = order_.pattern;
        if (pattern.maxSectors == 0 || pattern.minSectors > pattern.maxSectors ||
            pattern.maxSectors > VRKFS_FIELD_MAX_SECTORS) {
            throw std::runtime_error("begin: no field has such lengths");
        }
        session_.OpenCard(order_.card);
        Need(VrkFsClientAllocateBuffer(session_.client, std::size_t{order_.pattern.maxSectors} * VRKFS_SECTOR_SIZE,
                                       &session_.buffer),
             "get memory for a field");
        Need(VrkFsClientOpenFile(session_.client, order_.path.c_str(), VRKFS_OPEN_RECORDER, &session_.file),
             "make the file");
        if (!Told(RecordStep::kOpened)) {
            return false;
        }
        ReserveSpace(VRKFS_STREAM_VIDEO);
        if (!Told(RecordStep::kVideoSpace)) {
            return false;
        }
        if (order_.alpha) {
            ReserveSpace(VRKFS_STREAM_ALPHA);
            if (!Told(RecordStep::kAlphaSpace)) {
                return false;
            }
        }
        return MakeTables();
    }

    // One range for the stream, the same on every disk, long enough if every field had the greatest length. How many
    // disks there are is learnt with the space, so it is asked for by the volume first.
    void ReserveSpace(std::uint32_t stream) {
        VrkFsFileInfo info{};
        Need(VrkFsClientGetFileInfo(session_.client, session_.control, session_.file, &info), "ask for the volume");
        const std::uint32_t disks = info.Volume.DeviceCount;
        if (disks == 0 || disks > VRKFS_VOLUME_MAX_DEVICES) {
            throw std::runtime_error("ask for the volume: it has no disks");
        }
        const std::uint64_t fields = std::uint64_t{order_.reservedFrames} * VRKFS_FIELDS_PER_FRAME;
        const std::uint64_t blocks = (fields + disks - 1) / disks * order_.pattern.maxSectors;
        if (blocks > std::numeric_limits<std::uint32_t>::max()) {
            throw std::runtime_error("reserve space: no disk holds so many frames");
        }
        Stream& made = streams_[stream];
        made.space.BodyTableBlocksWanted = static_cast<std::uint32_t>(VrkFsBodyTableSectors(order_.reservedFrames));
        made.space.DataBlocksWanted = static_cast<std::uint32_t>(blocks);
        made.space.Flags = VRKFS_SPACE_SDTI_ALLOWED | (order_.is625 ? VRKFS_SPACE_625 : 0) |
                           (stream == VRKFS_STREAM_ALPHA ? VRKFS_SPACE_ALPHA : 0);
        Need(VrkFsClientAllocateVideoSpace(session_.client, session_.control, session_.file, &made.space),
             "reserve space");
        if (made.space.Result != VRKFS_RESULT_DONE) {
            throw std::runtime_error("reserve space: there is no room in one piece");
        }
        made.next.fill(made.space.DataLba);
    }

    bool MakeTables() {
        VrkFsClient* const client = session_.client;
        Need(VrkFsClientCreateNewBodyTable(client, session_.control, session_.file, order_.reservedFrames),
             "make body tables");
        if (!Told(RecordStep::kTableMade)) {
            return false;
        }
        for (std::uint32_t stream = 0; stream < Streams(); ++stream) {
            const auto add = stream == VRKFS_STREAM_VIDEO ? VrkFsClientAddVideoNodes : VrkFsClientAddAlphaNodes;
            const VrkFsVideoSpace& space = streams_[stream].space;
            VrkFsSectionName name;
            Need(add(client, session_.control, session_.file, space.BodyTableLba, space.BodyTableBlocks, &name),
                 "make a body table's section");
            MapNodes(stream, name);
        }
        if (!Told(RecordStep::kNodesAdded)) {
            return false;
        }
        const RecordingNote note = MakeNote(order_.pattern);
        Need(VrkFsClientSetApplicationInfo(client, session_.control, session_.file, &note), "announce the recording");
        return Told(RecordStep::kAnnounced);
    }

    void MapNodes(std::uint32_t stream, const VrkFsSectionName& name) {
        VrkFsNodeView& view = session_.nodes[stream];
        Need(VrkFsClientMapNodes(session_.client, &name, 1, &view), "map a body table");
        if (view.Count / VRKFS_FIELDS_PER_FRAME < order_.reservedFrames) {
            throw std::runtime_error("map a body table: somebody attached an older one");
        }
        // A section that outlived an earlier recording of this name has its nodes.
        std::memset(view.Nodes, 0, view.Bytes);
    }

    bool RecordFields() {
        for (; fields_ < order_.frames * VRKFS_FIELDS_PER_FRAME;) {
            for (std::uint32_t stream = 0; stream < Streams(); ++stream) {
                RecordField(stream, fields_);
            }
            ++fields_;
            if (!Told(RecordStep::kField)) {
                return false;
            }
        }
        return true;
    }

    void RecordField(std::uint32_t stream, std::uint32_t field) {
        Stream& to = streams_[stream];
        const std::uint32_t position = field % to.space.Volume.DeviceCount;
        const std::uint32_t sectors = FieldSectors(order_.pattern, stream, field);
        VrkFsPlacedNode node;
        node.ScsiId = to.space.Volume.Devices[position];
        node.Lba = to.next[position];
        node.Node.First = static_cast<std::uint16_t>(sectors - sectors / 2);
        node.Node.Second = static_cast<std::uint16_t>(sectors / 2);
        if (sectors != 0) {
            MakeField(order_.pattern, stream, field,
                      {static_cast<std::byte*>(session_.buffer.Bytes), std::size_t{sectors} * VRKFS_SECTOR_SIZE});
            Need(VrkFsClientWriteBlocks(session_.client, session_.disks, node.ScsiId, node.Lba, sectors,
                                        &session_.buffer),
                 "write a field");
        }
        VrkFsClientPublishNode(&session_.nodes[stream].Nodes[field], &node);
        to.next[position] += sectors;
        to.recordedBlocks += sectors;
    }

    bool Finish() {
        Settle();
        if (!Told(RecordStep::kSettled)) {
            return false;
        }
        Need(VrkFsClientDereferenceBodyTable(session_.client, session_.control, session_.file), "let go of the tables");
        if (!Told(RecordStep::kTableLetGo)) {
            return false;
        }
        Need(VrkFsClientStoreBodyTable(session_.client, session_.file, order_.frames,
                                       &session_.nodes[VRKFS_STREAM_VIDEO],
                                       order_.alpha ? &session_.nodes[VRKFS_STREAM_ALPHA] : nullptr),
             "store the tables");
        if (!Told(RecordStep::kTableStored)) {
            return false;
        }
        session_.CloseFile();
        session_.Close();
        return Told(RecordStep::kClosed);
    }

    void Settle() {
        const auto tableUsed = static_cast<std::uint32_t>(VrkFsBodyTableSectors(order_.frames));
        const Stream& video = streams_[VRKFS_STREAM_VIDEO];
        VrkFsVideoFileUpdate update{};
        update.FrameCount = order_.frames;
        update.VideoBodyTableAllocated = video.space.BodyTableBlocks;
        update.VideoDataAllocated = video.space.DataBlocks;
        update.VideoBodyTableUsed = tableUsed;
        update.VideoDataUsed = video.UsedBlocks();
        update.VideoDataLength = video.recordedBlocks;
        update.Flags = VRKFS_UPDATE_VIDEO;
        if (order_.alpha) {
            const Stream& alpha = streams_[VRKFS_STREAM_ALPHA];
            update.AlphaBodyTableAllocated = alpha.space.BodyTableBlocks;
            update.AlphaDataAllocated = alpha.space.DataBlocks;
            update.AlphaBodyTableUsed = tableUsed;
            update.AlphaDataUsed = alpha.UsedBlocks();
            update.AlphaDataLength = alpha.recordedBlocks;
            update.Flags |= VRKFS_UPDATE_ALPHA;
        }
        Need(VrkFsClientUpdateVideoFile(session_.client, session_.control, session_.file, &update), "settle the space");
    }

    Session session_;
    const RecordOrder& order_;
    Stream streams_[2];
    std::uint32_t fields_ = 0;  // recorded of each stream
};

}  // namespace

bool Record(VrkFsClient* client, const RecordOrder& order) {
    return Recorder(client, order).Run();
}

}  // namespace examples
