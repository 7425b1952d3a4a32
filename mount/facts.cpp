// Times, space, and what is known of a clip beside its bytes.
#include <sys/xattr.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>

#include "mount/file_system.h"

namespace mount {
namespace {

constexpr std::string_view kApplicationInfo = "user.vrkfs.appinfo";
constexpr std::string_view kFrames = "user.vrkfs.frames";
constexpr std::string_view kStandard = "user.vrkfs.standard";
constexpr std::string_view kStreams = "user.vrkfs.streams";
constexpr std::string_view kPlacement = "user.vrkfs.placement";
constexpr std::string_view kUserNames = "user.";
constexpr std::string_view kAll[] = {kApplicationInfo, kFrames, kStandard, kStreams, kPlacement};

constexpr std::uint64_t kBlockBytes = 512;

std::string Range(const char* what, std::uint32_t lba, std::uint32_t blocks) {
    return blocks == 0 ? std::string()
                       : std::string(what) + " " + std::to_string(lba) + "+" + std::to_string(blocks) + "\n";
}

// "record 4711+2", a line for each piece: its first block and how many, of every disk for data, else of the first one.
std::string DescribePlacement(const VrkFsFileLocation& location) {
    return Range("record", location.FileEntryLba, location.FileEntryBlocks) +
           Range("video", location.DataLba, location.DataBlocks) +
           Range("video-table", location.BodyTableLba, location.BodyTableBlocks) +
           Range("alpha", location.AlphaDataLba, location.AlphaDataBlocks) +
           Range("alpha-table", location.AlphaBodyTableLba, location.AlphaBodyTableBlocks);
}

}  // namespace

int FileSystem::SetTime(const NodePointer& node, std::int64_t time) {
    if (readOnly_) {
        return EROFS;
    }
    // Folders, volumes and types have the time that they were made at; copies of trees set it all the same.
    if (node->kind != Kind::kFile) {
        return 0;
    }
    const std::shared_ptr<ClipWriter> writer = tree_->WriterOf(node);
    if (writer != nullptr && tree_->IsUnderWay(node)) {
        writer->SetTime(time);
        return 0;
    }
    const FolderAtWork at = WorkAround(node);
    const std::u16string path = tree_->PathOf(node);
    if (path.empty()) {
        return ENOENT;
    }
    const host::Status status = node->drive->SetTime(path, time);
    if (!status.Ok()) {
        return journal_.Refused(Operation::kSetTime, tree_->Display(node), status);
    }
    // The record is written at the close, where a failure is told to nobody; and not every file's time can be set.
    Facts facts;
    if (node->drive->Look(path, facts).Ok()) {
        tree_->SetFacts(node, facts, nullptr);
    }
    return 0;
}

int FileSystem::Measure(const NodePointer& node, Space& space) {
    const NodePointer volume = tree_->VolumeOf(node);
    if (volume != nullptr) {
        VrkFsVolumeSpaceInfo info{};
        const host::Status status = node->drive->MeasureVolume(tree_->PathOf(volume), info);
        space = {info.TotalBlocks, std::min<std::uint64_t>(info.FreeBlocks, info.TotalBlocks)};
        return status.Ok() ? 0 : journal_.Refused(Operation::kSpace, tree_->Display(volume), status);
    }
    for (const std::unique_ptr<Drive>& drive : drives_) {
        if (node->drive == nullptr || node->drive == drive.get()) {
            std::uint64_t total = 0;
            std::uint64_t free = 0;
            const host::Status status = drive->MeasureDrive(total, free);
            if (!status.Ok()) {
                return journal_.Refused(Operation::kSpace, std::string{drive->Letter(), ':', '/'}, status);
            }
            space.totalBlocks += total / kBlockBytes;
            space.freeBlocks += free / kBlockBytes;
        }
    }
    return 0;
}

// ---- Extended attributes ----

int FileSystem::OpenForFacts(const NodePointer& node, std::uint32_t access, host::ScopedHandle& handle) {
    const host::OpenResult opened = node->drive->Open(tree_->PathOf(node), access, host::share::kAll);
    handle = host::ScopedHandle(*process_, opened.handle);
    if (opened.status == host::status::kSharingViolation) {
        return EBUSY;
    }
    return opened.status.Ok() ? 0 : journal_.Refused(Operation::kAttribute, tree_->Display(node), opened.status);
}

int FileSystem::GetAttribute(const NodePointer& node, std::string_view name, std::string& value) {
    if (!name.starts_with(kUserNames)) {
        return EOPNOTSUPP;
    }
    // While a copy is under way there is nothing to say yet.
    if (std::ranges::find(kAll, name) == std::end(kAll) || !node->IsClip() || tree_->IsUnderWay(node)) {
        return ENODATA;
    }
    host::ScopedHandle handle;
    if (const int error = OpenForFacts(node, host::access::kReadAttributes, handle); error != 0) {
        return error;
    }
    VrkFsFileInfo info{};
    info.Handle = handle.Get();
    const VrkFsFileInfo asked = info;
    host::Status status = node->drive->Ask(IOCTL_VRKFS_GET_FILE_INFO, asked, info);
    if (!status.Ok() || info.Kind != VRKFS_FILE_MEDIA) {
        return ENODATA;
    }
    if (name == kFrames) {
        value = std::to_string(info.FrameCount);
    } else if (name == kStandard) {
        value = std::to_string(info.LineStandard);
    } else if (name == kStreams) {
        value = (info.Flags & VRKFS_FILE_HAS_ALPHA) != 0 ? "video,alpha" : "video";
    } else if (name == kPlacement) {
        VrkFsFileLocation location{};
        location.Handle = handle.Get();
        const VrkFsFileLocation question = location;
        status = node->drive->Ask(IOCTL_VRKFS_GET_FILE_LOCATION_INFO, question, location);
        value = DescribePlacement(location);
    } else {
        std::array<char, VRKFS_FILE_ENTRY_SIZE> entry{};
        status = node->drive->Ask(IOCTL_VRKFS_GET_FILE_ENTRY, VrkFsHandleRequest{handle.Get()}, entry);
        value.assign(entry.data() + VRKFS_FILE_ENTRY_APPLICATION_INFO, VRKFS_APPLICATION_INFO_SIZE);
    }
    return status.Ok() ? 0 : journal_.Refused(Operation::kAttribute, tree_->Display(node), status);
}

int FileSystem::SetAttribute(const NodePointer& node, std::string_view name, std::string_view value, int flags) {
    if (readOnly_) {
        return EROFS;
    }
    if (!name.starts_with(kUserNames)) {
        return EOPNOTSUPP;
    }
    if (std::ranges::find(kAll, name) == std::end(kAll)) {
        return EOPNOTSUPP;
    }
    if (value.size() > VRKFS_APPLICATION_INFO_SIZE && name == kApplicationInfo) {
        return E2BIG;
    }
    const std::shared_ptr<ClipWriter> writer = tree_->WriterOf(node);
    if (writer != nullptr && tree_->IsUnderWay(node)) {
        // Programs that copy a clip with its attributes bring the facts along, which follow from the clip anyhow.
        if (name == kApplicationInfo) {
            writer->SetApplicationInfo(value);
        }
        return 0;
    }
    if (name != kApplicationInfo) {
        return EPERM;
    }
    std::string before;
    if (const int error = GetAttribute(node, name, before); error != 0) {
        return error == ENODATA ? EPERM : error;
    }
    if ((flags & XATTR_CREATE) != 0) {
        return EEXIST;  // every clip has it
    }
    // As for times: to be able to delete it has the record written.
    host::ScopedHandle handle;
    const std::uint32_t access = host::access::kDelete | host::access::kReadAttributes;
    if (const int error = OpenForFacts(node, access, handle); error != 0) {
        return error;
    }
    VrkFsApplicationInfoRequest request{};
    request.Handle = handle.Get();
    std::ranges::copy(value, request.ApplicationInfo);
    const host::Status status =
        node->drive->Control(IOCTL_VRKFS_SET_APP_FILE_ENTRY_INFO, std::as_bytes(std::span(&request, 1)), {});
    return status.Ok() ? 0 : journal_.Refused(Operation::kAttribute, tree_->Display(node), status);
}

int FileSystem::RemoveAttribute(const NodePointer& node, std::string_view name) {
    std::string value;
    if (readOnly_) {
        return EROFS;
    }
    const int error = GetAttribute(node, name, value);
    return error == 0 ? EPERM : error;
}

int FileSystem::ListAttributes(const NodePointer& node, std::string& names) {
    std::string value;
    const int error = node->kind == Kind::kFile ? GetAttribute(node, kFrames, value) : ENODATA;
    if (error == 0) {
        for (const std::string_view name : kAll) {
            names += std::string(name) + '\0';
        }
    }
    return error == ENODATA ? 0 : error;
}

}  // namespace mount
