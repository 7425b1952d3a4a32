// Making, removing and renaming. The folder's `work` is held from the look at what is known to the change of it, so
// that both agree with the drive.
#include <algorithm>
#include <cerrno>
#include <mutex>

#include "host/names.h"
#include "mount/file_system.h"
#include "mount/names.h"

namespace mount {
namespace {

constexpr std::size_t kMostFiles = 2048;   // in a folder
constexpr std::size_t kMostFolders = 256;  // in a volume

bool IsSameDrive(const NodePointer& one, const NodePointer& other) {
    return one->drive == other->drive;
}

}  // namespace

int FileSystem::FindPlace(Operation operation, std::uint64_t folderInode, std::string_view spelling, Place& place) {
    place.folder = tree_->Find(folderInode);
    if (place.folder == nullptr || !place.folder->IsFolder()) {
        return ENOENT;
    }
    if (readOnly_) {
        return EROFS;
    }
    const auto name = DriveName(spelling);
    if (!name && IsTooLong(spelling)) {
        return ENAMETOOLONG;
    }
    if (!name) {
        return journal_.Refused(operation, tree_->Display(place.folder) + "/" + std::string(spelling), EINVAL,
                                "no drive can hold that name");
    }
    place.name = *name;
    place.key = host::UpcaseName(*name);
    return place.folder->kind == Kind::kTop ? EPERM : NeedNames(place.folder);
}

// Two names mean other places to whoever types them, and one is the driver's own in every folder.
int FileSystem::CheckNewName(Operation operation, const Place& place) {
    if (place.name == u"." || place.name == u".." || IsPortName(place.key)) {
        return journal_.Refused(operation, tree_->DisplayBelow(place.folder, place.name), EINVAL,
                                "the name is reserved");
    }
    return 0;
}

// The driver says only that it would not: a full place is told apart here.
int FileSystem::CheckRoom(const Place& place, Operation operation, host::Status status) {
    const std::size_t most = place.folder->level == kFolderLevel ? kMostFiles : kMostFolders;
    const std::size_t there = tree_->Children(place.folder).size();
    const std::string display = tree_->DisplayBelow(place.folder, place.name);
    if (status == host::status::kAccessDenied && there >= most) {
        return journal_.Refused(
            operation, display, ENOSPC,
            place.folder->level == kFolderLevel ? "the folder has its 2048 files" : "the volume has its 256 folders");
    }
    return journal_.Refused(operation, display, status);
}

int FileSystem::MakeFolder(std::uint64_t folder, std::string_view spelling, Found& made) {
    Place place;
    if (const int error = FindPlace(Operation::kMakeFolder, folder, spelling, place); error != 0) {
        return error;
    }
    if (const int error = CheckNewName(Operation::kMakeFolder, place); error != 0) {
        return error;
    }
    if (place.folder->level != kVolumeLevel) {
        return journal_.Refused(Operation::kMakeFolder, tree_->DisplayBelow(place.folder, place.name), EPERM,
                                place.folder->level < kVolumeLevel
                                    ? "volumes are made by formatting disks: vrkfs format"
                                    : "folders stand in volumes only, none in another");
    }
    const std::lock_guard work(place.folder->listing->work);
    const host::OpenResult opened = place.folder->drive->Open(
        tree_->PathBelow(place.folder, place.name), host::access::kListDirectory | host::access::kReadAttributes,
        host::share::kAll, host::Disposition::kCreate, host::option::kDirectoryFile);
    if (!opened.status.Ok()) {
        return CheckRoom(place, Operation::kMakeFolder, opened.status);
    }
    const host::ScopedHandle handle(*process_, opened.handle);
    Facts facts;
    (void)place.folder->drive->Look(opened.handle, facts);
    Fill(tree_->Add(place.folder, place.name, true, facts, spelling), spelling, made);
    return 0;
}

int FileSystem::RemoveFolder(std::uint64_t folder, std::string_view spelling) {
    Place place;
    if (const int error = FindPlace(Operation::kRemoveFolder, folder, spelling, place); error != 0) {
        return error;
    }
    const std::lock_guard work(place.folder->listing->work);
    const NodePointer node = tree_->Child(place.folder, place.key);
    if (node == nullptr) {
        return ENOENT;
    }
    if (!node->IsFolder()) {
        return ENOTDIR;
    }
    const std::string display = tree_->Display(node);
    if (node->level < kFolderLevel) {
        return journal_.Refused(Operation::kRemoveFolder, display, EPERM,
                                "a volume goes only with its disks' next format: vrkfs format");
    }
    const host::Status status = node->drive->Remove(tree_->PathOf(node), true, false);
    if (!status.Ok()) {
        return journal_.Refused(Operation::kRemoveFolder, display, status);
    }
    Leave(node, place, spelling);
    return 0;
}

// The kernel has seen the spelling go that the program gave, and has to be told of the drive's own.
void FileSystem::Leave(const NodePointer& node, const Place& place, std::string_view spelling) {
    const std::string own = TreeName(tree_->NameOf(node));
    if (own != spelling) {
        caches_.ForgetName(place.folder->inode, own);
    }
    tree_->Remove(node);
}

int FileSystem::RemoveFile(std::uint64_t folder, std::string_view spelling) {
    Place place;
    if (const int error = FindPlace(Operation::kRemoveFile, folder, spelling, place); error != 0) {
        return error;
    }
    if (IsPortName(place.key)) {
        return EPERM;
    }
    const std::lock_guard work(place.folder->listing->work);
    const NodePointer node = tree_->Child(place.folder, place.key);
    if (node == nullptr) {
        return ENOENT;
    }
    if (node->IsFolder()) {
        return EISDIR;
    }
    if (const auto writer = tree_->WriterOf(node); writer != nullptr && !writer->IsOver()) {
        const bool isNew = writer->HasFile() && writer->Path() == tree_->PathOf(node);
        if (writer->Discard() && isNew) {
            Leave(node, place, spelling);
            return 0;
        }
    }
    const host::Status status = node->drive->Remove(tree_->PathOf(node), false, true);
    if (status == host::status::kSharingViolation) {
        return RemoveOpen(node, place, spelling);
    }
    if (!status.Ok()) {
        return journal_.Refused(Operation::kRemoveFile, tree_->Display(node), status);
    }
    Leave(node, place, spelling);
    return 0;
}

// Somebody has it open and goes on reading it, as programs expect. Its name is free at once: it goes aside, and away
// with its last reader.
int FileSystem::RemoveOpen(const NodePointer& node, const Place& place, std::string_view spelling) {
    std::u16string aside;
    const Place at{place.folder, tree_->NameOf(node), place.key};
    const std::string display = tree_->Display(node);
    if (!node->IsClip()) {
        const host::Status status = node->drive->RemoveLater(tree_->PathOf(node));
        if (!status.Ok()) {
            return journal_.Refused(Operation::kRemoveFile, display, status);
        }
        tree_->Hide(place.folder, at.name);
        Leave(node, place, spelling);
        return 0;
    }
    const host::Status status = PutAside(at, u"deleted", aside);
    if (!status.Ok()) {
        return journal_.Refused(Operation::kRemoveFile, display, status);
    }
    Leave(node, place, spelling);
    RemoveAside(place.folder, aside, display);
    return 0;
}

// ---- Renaming ----

int FileSystem::CheckMove(const NodePointer& node, const Place& from, const Place& to) {
    if (from.folder == to.folder) {
        return 0;
    }
    // Programs copy what cannot be moved.
    const bool isClip = node->kind == Kind::kFile && node->level == kClipLevel && to.folder->level == kFolderLevel;
    return isClip && IsSameDrive(node, to.folder) && tree_->VolumeOf(node) == tree_->VolumeOf(to.folder) ? 0 : EXDEV;
}

host::Status FileSystem::RenameTo(const NodePointer& node, const Place& from, const Place& to) {
    const std::u16string target = from.folder == to.folder ? to.name : tree_->PathBelow(to.folder, to.name);
    return node->drive->Rename(tree_->PathOf(node), target);
}

// An empty folder gives way; the driver says whether it is empty.
int FileSystem::ClearTarget(const NodePointer& node, const NodePointer& target, const Place& to) {
    if (node->IsFolder() != target->IsFolder()) {
        return target->IsFolder() ? EISDIR : ENOTDIR;
    }
    if (!target->IsFolder()) {
        return 0;
    }
    if (target->level != kFolderLevel) {
        return EEXIST;
    }
    const host::Status status = target->drive->Remove(tree_->PathBelow(to.folder, to.name), true, false);
    if (!status.Ok()) {
        return MeaningOf(Operation::kRemoveFolder, status).error;
    }
    tree_->Remove(target);
    return 0;
}

// A file beside the frames takes the name of a frame to become it, and is no more: whatever there is then is the
// driver's to say. The kernel takes the frame's name for the file's, and has to look at both again.
int FileSystem::RenameRam(const NodePointer& node, const Place& from, const Place& to, std::string_view spelling,
                          std::string_view newSpelling) {
    if (from.folder != to.folder) {
        return EXDEV;
    }
    const host::Status status = node->drive->Rename(tree_->PathOf(node), to.name);
    if (!status.Ok()) {
        return journal_.Refused(Operation::kRename, tree_->Display(node), status);
    }
    (void)ListLocked(from.folder);
    for (const std::string_view name : {spelling, newSpelling}) {
        caches_.ForgetName(from.folder->inode, std::string(name));
    }
    return 0;
}

int FileSystem::RenameAtWork(const Place& asked, const Place& to, std::string_view spelling,
                             std::string_view newSpelling, bool mayReplace, NodePointer& node, std::u16string& aside) {
    Place from = asked;
    node = tree_->Child(from.folder, from.key);
    if (node == nullptr) {
        return ENOENT;
    }
    from.name = tree_->NameOf(node);
    if (node->level == kFrameLevel) {
        return RenameRam(node, from, to, spelling, newSpelling);
    }
    if (const int error = CheckMove(node, from, to); error != 0) {
        return error;
    }
    if (const auto writer = tree_->WriterOf(node); writer != nullptr && !writer->IsOver()) {
        if (writer->HasBytes() || IsBeside(node, *writer)) {
            return journal_.Refused(Operation::kRename, tree_->Display(node), EBUSY, "it is being written");
        }
        writer->Rest();
    }
    const std::string display = tree_->Display(node);
    const NodePointer target = tree_->Child(to.folder, to.key);
    const bool replaces = target != nullptr && target != node;
    if (replaces && !mayReplace) {
        return EEXIST;
    }
    if (const int error = replaces ? ClearTarget(node, target, to) : 0; error != 0) {
        return error;
    }
    host::Status status;
    if (replaces && !target->IsFolder()) {
        if (const auto writer = tree_->WriterOf(target); writer != nullptr && !writer->IsOver()) {
            writer->Discard();
        }
        status = Swap(from, to, aside);
    } else {
        status = RenameTo(node, from, to);
    }
    // Somebody else has made it meanwhile: the kernel is to look again.
    if (status == host::status::kObjectNameCollision && target == nullptr && ListLocked(to.folder).Ok() && mayReplace &&
        tree_->Child(to.folder, to.key) != nullptr) {
        return ESTALE;
    }
    if (!status.Ok()) {
        return journal_.Refused(Operation::kRename, display, status);
    }
    if (replaces) {
        Leave(target, to, newSpelling);
    }
    if (const std::string own = TreeName(from.name); own != spelling) {
        caches_.ForgetName(from.folder->inode, own);
    }
    tree_->Move(node, to.folder, to.name, newSpelling);
    if (replaces) {
        tree_->AwaitAs(node, target);
    }
    if (const auto writer = tree_->WriterOf(node); writer != nullptr && writer->HasFile()) {
        writer->SetPath(tree_->PathOf(node));
    }
    return 0;
}

int FileSystem::Rename(std::uint64_t folder, std::string_view spelling, std::uint64_t newFolder,
                       std::string_view newSpelling, bool mayReplace) {
    Place from;
    Place to;
    if (const int error = FindPlace(Operation::kRename, folder, spelling, from); error != 0) {
        return error;
    }
    if (const int error = FindPlace(Operation::kRename, newFolder, newSpelling, to); error != 0) {
        return error;
    }
    if (const int error = CheckNewName(Operation::kRename, to); error != 0) {
        return error;
    }
    NodePointer node;
    std::u16string aside;
    {
        std::unique_lock work(from.folder->listing->work, std::defer_lock);
        std::unique_lock otherWork(to.folder->listing->work, std::defer_lock);
        if (from.folder == to.folder) {
            work.lock();
        } else {
            std::lock(work, otherWork);
        }
        if (const int error = RenameAtWork(from, to, spelling, newSpelling, mayReplace, node, aside); error != 0) {
            return error;
        }
    }
    return aside.empty() ? 0 : RemoveOld(to.folder, aside, tree_->Display(node));
}

}  // namespace mount
