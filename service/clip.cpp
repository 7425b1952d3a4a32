#include "service/clip.h"

#include <algorithm>
#include <cstring>

namespace service {
namespace {

constexpr std::uint32_t kChange = VRKFS_OPEN_READ | VRKFS_OPEN_SHARE_READ | VRKFS_OPEN_SHARE_DELETE;

// Whether the tables that are mapped may have been replaced.
bool SameSpace(const VrkFsFileInfo& one, const VrkFsFileInfo& other) {
    return one.BodyTableLba == other.BodyTableLba && one.AlphaBodyTableLba == other.AlphaBodyTableLba &&
           one.DataLba == other.DataLba && one.AlphaDataLba == other.AlphaDataLba && one.Flags == other.Flags &&
           one.FrameCount == other.FrameCount;
}

}  // namespace

std::unique_ptr<Clip> Clip::Open(Card& card, const std::u16string& path, Use use, std::string& problem) {
    std::unique_ptr<Clip> clip(new Clip(card));
    const VrkFsStatus status = clip->file_.Open(card.Client(), path, use == Use::kChange ? kChange : VRKFS_OPEN_PLAYER);
    if (!VRKFS_SUCCEEDED(status)) {
        problem = status == VRKFS_STATUS_SHARING_VIOLATION && use == Use::kChange ? "somebody has it open for writing"
                                                                                  : Failed("cannot open it", status);
        return nullptr;
    }
    return clip->Refresh(problem) ? std::move(clip) : nullptr;
}

Clip::~Clip() {
    Unmap();
}

void Clip::Unmap() {
    for (VrkFsNodeView& view : nodes_) {
        if (view.Nodes != nullptr) {
            VrkFsClientUnmapNodes(card_.Client(), &view);
        }
    }
}

bool Clip::Is(const Clip& other) const {
    VrkFsFileLocation places[2] = {};
    const Clip* const clips[2] = {this, &other};
    for (int each = 0; each < 2; ++each) {
        const VrkFsStatus status =
            VrkFsClientGetFileLocation(card_.Client(), card_.Control(), clips[each]->file_.Get(), &places[each]);
        if (!VRKFS_SUCCEEDED(status)) {
            return false;
        }
    }
    return std::ranges::equal(info_.Volume.Devices, other.info_.Volume.Devices) &&
           places[0].FileEntryLba == places[1].FileEntryLba && places[0].DataLba == places[1].DataLba;
}

// A clip may be recorded anew while it is open.
bool Clip::Refresh(std::string& problem) {
    VrkFsFileInfo now{};
    const VrkFsStatus status = VrkFsClientGetFileInfo(card_.Client(), card_.Control(), file_.Get(), &now);
    if (!VRKFS_SUCCEEDED(status)) {
        problem = Failed("cannot ask what it is", status);
        return false;
    }
    if (now.Kind != VRKFS_FILE_MEDIA) {
        problem = "it is no clip";
        return false;
    }
    if (!SameSpace(info_, now)) {
        Unmap();
    }
    info_ = now;
    return true;
}

bool Clip::Map(std::uint32_t stream, std::string& problem) {
    if (nodes_[stream].Nodes != nullptr) {
        return true;
    }
    VrkFsSectionName name;
    VrkFsStatus status = VrkFsClientReferenceBodyTable(card_.Client(), card_.Control(), file_.Get(), stream, &name);
    if (VRKFS_SUCCEEDED(status)) {
        status = VrkFsClientMapNodes(card_.Client(), &name, 0, &nodes_[stream]);
    }
    if (!VRKFS_SUCCEEDED(status)) {
        problem = Failed("cannot get at its body table", status);
    }
    return VRKFS_SUCCEEDED(status);
}

bool Clip::IsOurs(std::uint32_t stream, const Place& place) const {
    const std::uint64_t first = stream == VRKFS_STREAM_ALPHA ? info_.AlphaDataLba : info_.DataLba;
    const std::uint64_t blocks = stream == VRKFS_STREAM_ALPHA ? info_.AlphaDataBlocks : info_.DataBlocks;
    const auto& disks = info_.Volume.Devices;
    const std::uint32_t count = std::min(info_.Volume.DeviceCount, VRKFS_VOLUME_MAX_DEVICES);
    return std::find(disks, disks + count, place.scsiId) != disks + count && place.lba >= first &&
           std::uint64_t{place.lba} + place.sectors <= first + blocks;
}

bool Clip::FindField(std::uint32_t stream, std::uint64_t field, Place& place, std::string& problem) {
    VrkFsPlacedNode node;
    if (!Map(stream, problem)) {
        return false;
    }
    if (field >= nodes_[stream].Count || VrkFsClientReadNode(&nodes_[stream].Nodes[field], &node) == 0) {
        problem = "it is not recorded yet";
        return false;
    }
    place = {node.ScsiId, node.Lba, VrkFsBodyTableNodeSectors(node.Node)};
    if (place.sectors > kMaxFieldSectors) {
        problem = "a field of " + std::to_string(place.sectors) + " sectors is no picture";
        return false;
    }
    if (!IsOurs(stream, place)) {
        problem = "its body table points out of its own space";
        return false;
    }
    return true;
}

bool Clip::ReadFrame(std::uint32_t index, Frame& frame, std::string& problem) {
    if (!Refresh(problem)) {
        return false;
    }
    frame.standard = info_.LineStandard;
    frame.alpha = (info_.Flags & VRKFS_FILE_HAS_ALPHA) != 0;
    for (std::uint32_t stream = 0; stream < frame.Streams(); ++stream) {
        for (std::uint32_t field = 0; field < kFields; ++field) {
            Place& place = places_[stream][field];
            if (!FindField(stream, std::uint64_t{index} * kFields + field, place, problem)) {
                return false;
            }
            const VrkFsStatus status =
                place.sectors != 0 ? card_.Read(place.scsiId, place.lba, place.sectors) : VRKFS_STATUS_SUCCESS;
            if (!VRKFS_SUCCEEDED(status)) {
                problem = Failed("cannot read a field", status);
                return false;
            }
            frame.fields[stream][field].assign(card_.Buffer(),
                                               card_.Buffer() + std::size_t{place.sectors} * VRKFS_SECTOR_SIZE);
        }
    }
    return true;
}

bool Clip::WriteFrame(const Frame& before, const Frame& after, std::string& problem) {
    for (std::uint32_t stream = 0; stream < after.Streams(); ++stream) {
        for (std::uint32_t field = 0; field < kFields; ++field) {
            const Bytes& old = before.fields[stream][field];
            const Bytes& wanted = after.fields[stream][field];
            const auto start = std::mismatch(old.begin(), old.end(), wanted.begin()).first;
            if (start == old.end()) {
                continue;
            }
            const auto end = std::mismatch(old.rbegin(), old.rend(), wanted.rbegin()).first.base();
            const auto first = static_cast<std::uint32_t>((start - old.begin()) / VRKFS_SECTOR_SIZE);
            const auto last = static_cast<std::uint32_t>((end - old.begin() - 1) / VRKFS_SECTOR_SIZE);
            const std::uint32_t sectors = last - first + 1;
            std::memcpy(card_.Buffer(), wanted.data() + std::size_t{first} * VRKFS_SECTOR_SIZE,
                        std::size_t{sectors} * VRKFS_SECTOR_SIZE);
            const Place& place = places_[stream][field];
            const VrkFsStatus status = card_.Write(place.scsiId, place.lba + first, sectors);
            if (!VRKFS_SUCCEEDED(status)) {
                problem = Failed("cannot write a field", status);
                return false;
            }
        }
    }
    return true;
}

}  // namespace service
