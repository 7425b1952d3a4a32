#include "examples/player.h"

#include <cstring>
#include <thread>

#include "examples/pattern.h"
#include "examples/session.h"

namespace examples {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::microseconds kGlance{500};  // between two looks

class Player {
  public:
    Player(VrkFsClient* client, const PlayOrder& order) : session_(client), order_(order) {}

    PlayReport Run() {
        session_.OpenCard(order_.card);
        if (Await([&] { return OpenFile(); }) && Await([&] { return FindNote(); })) {
            Need(VrkFsClientAllocateBuffer(session_.client, std::size_t{pattern_.maxSectors} * VRKFS_SECTOR_SIZE,
                                           &session_.buffer),
                 "get memory for a field");
            LookAtClip();
            for (std::uint32_t stream = 0; stream < streams_; ++stream) {
                MapNodes(stream);
            }
            Follow();
        }
        return report_;
    }

  private:
    // Looks until there is something to see or the patience ends.
    template <typename Look>
    bool Await(Look look) {
        const auto end = Clock::now() + order_.patience;
        while (!look()) {
            if (Clock::now() > end) {
                return false;
            }
            std::this_thread::sleep_for(kGlance);
        }
        return true;
    }

    bool OpenFile() {
        const VrkFsStatus status =
            VrkFsClientOpenFile(session_.client, order_.path.c_str(), VRKFS_OPEN_PLAYER, &session_.file);
        if (status == VRKFS_STATUS_OBJECT_NAME_NOT_FOUND) {
            return false;
        }
        Need(status, "open the file");
        return true;
    }

    bool FindNote() {
        std::byte entry[VRKFS_FILE_ENTRY_SIZE];
        Need(VrkFsClientGetFileEntry(session_.client, session_.control, session_.file, entry), "read the file's entry");
        RecordingNote note;
        std::memcpy(&note, entry + VRKFS_FILE_ENTRY_APPLICATION_INFO, sizeof(note));
        return ReadNote(note, pattern_);
    }

    // How far the clip is, as the driver has it.
    void LookAtClip() {
        VrkFsFileInfo info{};
        Need(VrkFsClientGetFileInfo(session_.client, session_.control, session_.file, &info), "ask for the clip");
        live_ = (info.Flags & (VRKFS_FILE_VIDEO_PENDING | VRKFS_FILE_ALPHA_PENDING)) != 0;
        settledFields_ = info.FrameCount * VRKFS_FIELDS_PER_FRAME;
        streams_ = (info.Flags & VRKFS_FILE_HAS_ALPHA) != 0 ? 2 : 1;
        if (live_) {
            report_.liveFields = report_.fields;
        }
    }

    void MapNodes(std::uint32_t stream) {
        VrkFsSectionName name;
        Need(VrkFsClientReferenceBodyTable(session_.client, session_.control, session_.file, stream, &name),
             "reference a body table");
        Need(VrkFsClientMapNodes(session_.client, &name, 0, &session_.nodes[stream]), "map a body table");
    }

    void Follow() {
        while (Await([&] { return IsNextThere() || IsAtEnd(); }) && !IsAtEnd()) {
            for (std::uint32_t stream = 0; stream < streams_; ++stream) {
                PlayField(stream);
            }
            ++report_.fields;
            if (order_.watch) {
                order_.watch(report_.fields);
            }
            LookAtClip();
        }
        report_.ended = IsAtEnd();
    }

    bool IsNextThere() const {
        for (std::uint32_t stream = 0; stream < streams_; ++stream) {
            const VrkFsNodeView& view = session_.nodes[stream];
            VrkFsPlacedNode node;
            if (report_.fields >= view.Count || VrkFsClientReadNode(&view.Nodes[report_.fields], &node) == 0) {
                return false;
            }
        }
        return true;
    }

    bool IsAtEnd() {
        if (live_) {
            LookAtClip();
        }
        return !live_ && report_.fields >= settledFields_;
    }

    void PlayField(std::uint32_t stream) {
        VrkFsPlacedNode node;
        (void)VrkFsClientReadNode(&session_.nodes[stream].Nodes[report_.fields], &node);
        const std::uint32_t sectors = VrkFsBodyTableNodeSectors(node.Node);
        if (sectors > pattern_.maxSectors) {
            ++report_.wrongFields;
            return;
        }
        if (sectors != 0) {
            Need(VrkFsClientReadBlocks(session_.client, session_.disks, node.ScsiId, node.Lba, sectors,
                                       &session_.buffer),
                 "read a field");
        }
        const std::span<const std::byte> content(static_cast<const std::byte*>(session_.buffer.Bytes),
                                                 std::size_t{sectors} * VRKFS_SECTOR_SIZE);
        report_.wrongFields += IsField(pattern_, stream, report_.fields, content) ? 0 : 1;
    }

    Session session_;
    const PlayOrder& order_;
    Pattern pattern_;
    PlayReport report_;
    bool live_ = true;
    std::uint32_t settledFields_ = 0;
    std::uint32_t streams_ = 1;
};

}  // namespace

PlayReport Play(VrkFsClient* client, const PlayOrder& order) {
    return Player(client, order).Run();
}

}  // namespace examples
