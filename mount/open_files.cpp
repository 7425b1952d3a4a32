// Opening, reading and closing files.
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "mount/file_system.h"
#include "mount/names.h"

namespace mount {
namespace {

constexpr auto kCloseWait = std::chrono::milliseconds(100);
constexpr auto kCloseStep = std::chrono::milliseconds(2);
constexpr std::uint32_t kReaders = host::access::kReadData | host::access::kReadAttributes;

bool Writes(int flags) {
    return (flags & O_ACCMODE) != O_RDONLY;
}

}  // namespace

// Pages are kept for a reader beside whom nobody can write. Who finds a writer there already reads past them.
int FileSystem::OpenHandle(OpenFile& file, bool cached, Tree::Opening& opening) {
    Drive& drive = *file.node->drive;
    const std::u16string path = tree_->PathOf(file.node);
    if (path.empty()) {
        return ENOENT;
    }
    constexpr std::uint32_t kNoWriters = host::share::kRead | host::share::kDelete;
    host::OpenResult opened = drive.Open(path, kReaders, cached ? kNoWriters : host::share::kAll);
    opening.cached = cached && opened.status.Ok();
    if (cached && opened.status == host::status::kSharingViolation) {
        opened = drive.Open(path, kReaders, host::share::kAll);
    }
    if (!opened.status.Ok()) {
        return journal_.Refused(Operation::kOpen, tree_->Display(file.node), opened.status);
    }
    file.handle = host::ScopedHandle(*process_, opened.handle);
    Facts facts;
    if (drive.Look(opened.handle, facts).Ok() && !tree_->SetFacts(file.node, facts, &opening)) {
        return ESTALE;  // the kernel looks again
    }
    return 0;
}

int FileSystem::OpenPassing(const NodePointer& node, int flags, OpenFile& file) {
    const std::uint32_t access = kReaders | (Writes(flags) ? host::access::kWriteData : 0);
    const std::u16string path = tree_->PathOf(node);
    const host::OpenResult opened =
        node->drive->Open(path, access, host::share::kAll, host::Disposition::kOpen, host::option::kNonDirectoryFile);
    if (!opened.status.Ok()) {
        return journal_.Refused(Operation::kOpen, tree_->Display(node), opened.status);
    }
    file.passes = true;
    file.handle = host::ScopedHandle(*process_, opened.handle);
    file.isOpened = true;
    if (node->kind != Kind::kPort && (flags & O_TRUNC) != 0) {
        return Truncate(node, &file, 0);
    }
    return 0;
}

// The kernel may not have heard yet that it went, nor we from the driver: told so, the kernel looks again, and may find
// another under that name. Who writes finds out before a copy is lost over it; who reads, when the driver opens it.
bool FileSystem::IsStale(const NodePointer& node, bool writes) {
    if (tree_->Look(node).gone) {
        return true;
    }
    const NodePointer folder = tree_->ParentOf(node);
    if (!writes || folder == nullptr || !node->IsClip() || tree_->IsUnderWay(node)) {
        return false;
    }
    Facts facts;
    if (node->drive->Look(tree_->PathOf(node), facts) != host::status::kObjectNameNotFound) {
        return false;
    }
    Refresh(folder);
    return tree_->Look(node).gone;
}

// No copy takes its place and no name changes meanwhile: the clip under the name is the node's. The kernel is to ask
// for its size before the first byte, where it may know another clip's; that waits for nobody, so the lock may be held.
int FileSystem::OpenReader(OpenFile& file) {
    const FolderAtWork at = WorkAround(file.node);
    if (at.folder == nullptr) {
        return ESTALE;
    }
    const bool cached = tree_->CanCache(file.node, file.opening);
    if (CopyToRead(file) == nullptr) {
        if (const int error = OpenHandle(file, cached, file.opening); error != 0) {
            return error;
        }
        file.isOpened = true;
    }
    Count(file);
    if (tree_->MustAskSize(file.node, file.opening)) {
        caches_.ForgetSizeNow(file.node->inode);
    }
    return 0;
}

// The kernel tells of a close in its own time, and maybe after the open that came next: what is left of a copy then is
// in nobody's way. One that somebody is still at stays, after a moment.
void FileSystem::AwaitClose(const NodePointer& node) {
    const auto isHeld = [&] {
        const std::shared_ptr<ClipWriter> writer = tree_->WriterOf(node);
        return writer != nullptr && !writer->IsOver() && writer->HasBytes() && tree_->WritersOf(node) != 0;
    };
    for (auto waited = kCloseStep * 0; isHeld() && waited < kCloseWait; waited += kCloseStep) {
        std::this_thread::sleep_for(kCloseStep);
    }
}

// The kernel keeps one size for a node, and who reads its pages would find the clip cut off, or go on in zeros, where
// the copy has got to. They keep the node, and what they have open; the name gets another for the copy.
void FileSystem::LeaveToReaders(const NodePointer& node) {
    OpenForReaders(node);
    tree_->Renew(node);
}

// Who has read of a copy goes on in it when another takes its place. The folder's work is held.
void FileSystem::OpenForReaders(const NodePointer& node) {
    const std::lock_guard hold(opensLock_);
    for (OpenFile* const file : opens_) {
        if (file->node == node && !file->opening.writes && !file->isOpened) {
            (void)OpenAfterCopy(*file);
        }
    }
}

// Begins a copy or joins one, with what the last writer left ended first. No copy begins or ends in the folder
// meanwhile.
int FileSystem::OpenWriter(OpenFile& file, int flags) {
    const NodePointer& node = file.node;
    if ((flags & O_TRUNC) != 0) {
        AwaitClose(node);
    }
    FolderAtWork at = WorkAround(node);
    if (at.folder != nullptr && tree_->WritersOf(node) == 0) {
        EndCopy(node, at);
        if (!at.work) {
            at = WorkAround(node);
        }
    }
    if (at.folder == nullptr || tree_->Look(node).gone) {
        return ESTALE;
    }
    if (tree_->HasReadersOfPages(node)) {
        LeaveToReaders(node);
        return ESTALE;  // the kernel looks again
    }
    const std::shared_ptr<ClipWriter> writer = tree_->NeedWriter(node);
    if ((flags & O_TRUNC) != 0 && writer->HasBytes()) {
        return journal_.Refused(Operation::kWrite, tree_->Display(node), EBUSY, "another copy onto it is under way");
    }
    if ((flags & O_TRUNC) != 0 && !writer->HasFile()) {
        tree_->SetTruncated(node);
    }
    Count(file);
    return 0;
}

void FileSystem::Count(OpenFile& file) {
    tree_->Opened(file.node, file.opening, file.keepPages);
    const std::lock_guard hold(opensLock_);
    opens_.insert(&file);
}

int FileSystem::Open(std::uint64_t inode, int flags, std::unique_ptr<OpenFile>& file) {
    const NodePointer node = tree_->Find(inode);
    if (node == nullptr) {
        return ENOENT;
    }
    if (IsStale(node, Writes(flags))) {
        return ESTALE;
    }
    if (node->IsFolder()) {
        return EISDIR;
    }
    if (readOnly_ && Writes(flags)) {
        return EROFS;
    }
    file = std::make_unique<OpenFile>();
    file->node = node;
    file->opening.writes = Writes(flags);
    if (node->IsClip()) {
        return Writes(flags) ? OpenWriter(*file, flags) : OpenReader(*file);
    }
    const int error = OpenPassing(node, flags, *file);
    if (error == 0) {
        Count(*file);
    }
    return error;
}

int FileSystem::ReadHandle(OpenFile& file, std::uint64_t offset, std::span<std::byte> buffer, std::size_t& count) {
    const host::IoResult result = process_->Read(file.handle.Get(), buffer, offset);
    count = static_cast<std::size_t>(result.information);
    if (result.status.Ok() || result.status == host::status::kEndOfFile) {
        return 0;
    }
    // A file that nothing was recorded into has no bytes, and the driver none to refuse.
    if (tree_->Look(file.node).size == 0) {
        return 0;
    }
    return journal_.Refused(Operation::kRead, tree_->Display(file.node), result.status);
}

// The copy that a file without a handle shows. Who reads one keeps to it: another that has begun since is another
// clip's.
std::shared_ptr<ClipWriter> FileSystem::CopyToRead(OpenFile& file) {
    const std::lock_guard hold(file.lock);
    if (file.opening.writes || file.copy == nullptr || !file.copy->HasBytes()) {
        file.copy = tree_->IsUnderWay(file.node) ? tree_->WriterOf(file.node) : nullptr;
    }
    return file.copy;
}

// The copy has ended; when it has its place, or has been given up, what is under the name is read. The folder's work is
// held.
int FileSystem::OpenAfterCopy(OpenFile& file) {
    const std::lock_guard hold(file.lock);
    if (file.isOpened) {
        return 0;
    }
    // What has been read of it belongs to no clip.
    if (file.hasRead && file.copy != nullptr && !file.copy->IsClosed()) {
        return ESTALE;
    }
    Tree::Opening opening = file.opening;  // it stays counted as it was
    const int error = OpenHandle(file, false, opening);
    file.isOpened = error == 0;
    return error;
}

int FileSystem::Read(OpenFile& file, std::uint64_t offset, std::span<std::byte> buffer, std::size_t& count) {
    count = 0;
    if (!file.isOpened) {
        const std::shared_ptr<ClipWriter> copy = CopyToRead(file);
        if (const auto status = copy == nullptr ? std::nullopt : copy->Read(offset, buffer, count)) {
            file.hasRead = file.hasRead || (count != 0 && !file.opening.writes);
            return status->Ok() ? 0 : journal_.Refused(Operation::kRead, tree_->Display(file.node), *status);
        }
        const FolderAtWork at = WorkAround(file.node);
        if (const int error = OpenAfterCopy(file); error != 0) {
            return error;
        }
    }
    if (file.opening.cached) {
        if (!file.hasRead.exchange(true)) {
            tree_->PagesHold(file.node, file.opening);
        }
        file.order.Enter(offset, buffer.size());
    }
    return ReadHandle(file, offset, buffer, count);
}

void FileSystem::Release(std::unique_ptr<OpenFile> file) {
    {
        const std::lock_guard hold(opensLock_);
        opens_.erase(file.get());
    }
    // Before its handle goes: from then on somebody else may write, and what the kernel has kept is not to be joined.
    const bool wasLastWriter = tree_->Closed(file->node, file->opening);
    file->handle.Reset();
    if (wasLastWriter && file->node->IsClip()) {
        EndWriting(file->node);
    }
}

int FileSystem::Sync(OpenFile* file) {
    // A copy goes on after it, unless it is whole.
    bool part = false;
    if (const int error = file == nullptr ? 0 : FinishIfWhole(*file, part); error != 0) {
        return error;
    }
    return SyncImages("the station");
}

}  // namespace mount
