// Opening, reading and closing files.
#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "mount/file_system.h"
#include "mount/names.h"

namespace mount {
namespace {

constexpr std::uint32_t kReaders = host::access::kReadData | host::access::kReadAttributes;

bool Writes(int flags) {
    return (flags & O_ACCMODE) != O_RDONLY;
}

}  // namespace

// Pages are kept for a reader beside whom nobody can write. Who finds a writer there already reads past them.
int FileSystem::OpenHandle(OpenFile& file, bool cached) {
    Drive& drive = *file.node->drive;
    const std::u16string path = tree_->PathOf(file.node);
    if (path.empty()) {
        return ENOENT;
    }
    constexpr std::uint32_t kNoWriters = host::share::kRead | host::share::kDelete;
    host::OpenResult opened = drive.Open(path, kReaders, cached ? kNoWriters : host::share::kAll);
    file.opening.cached = cached && opened.status.Ok();
    if (cached && opened.status == host::status::kSharingViolation) {
        opened = drive.Open(path, kReaders, host::share::kAll);
    }
    if (!opened.status.Ok()) {
        return journal_.Refused(Operation::kOpen, tree_->Display(file.node), opened.status);
    }
    file.handle = host::ScopedHandle(*process_, opened.handle);
    Facts facts;
    if (drive.Look(opened.handle, facts).Ok()) {
        tree_->SetFacts(file.node, facts, &file.opening);
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

int FileSystem::Open(std::uint64_t inode, int flags, std::unique_ptr<OpenFile>& file) {
    const NodePointer node = Known(inode);
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
    int error = 0;
    if (!node->IsClip()) {
        error = OpenPassing(node, flags, *file);
    } else if (Writes(flags)) {
        (void)tree_->NeedWriter(node);
        error = (flags & O_TRUNC) != 0 ? Truncate(node, file.get(), 0) : 0;
    } else {
        const bool cached = tree_->CanCache(node, file->opening);
        error = tree_->IsUnderWay(node) ? 0 : OpenHandle(*file, cached);
    }
    if (error != 0) {
        return error;
    }
    tree_->Opened(node, file->opening, file->keepPages);
    file->isOpen = true;
    AddOpen(file.get());
    return 0;
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

int FileSystem::Read(OpenFile& file, std::uint64_t offset, std::span<std::byte> buffer, std::size_t& count) {
    count = 0;
    {
        std::unique_lock hold(file.lock);
        if (!file.handle) {
            const std::shared_ptr<ClipWriter> writer = tree_->WriterOf(file.node);
            if (writer != nullptr && tree_->IsUnderWay(file.node)) {
                hold.unlock();
                const host::Status status = writer->Read(offset, buffer, count);
                return status.Ok() ? 0 : journal_.Refused(Operation::kRead, tree_->Display(file.node), status);
            }
            const Tree::Opening opening = file.opening;
            const int error = OpenHandle(file, false);
            file.opening = opening;
            if (error != 0) {
                return error;
            }
        }
    }
    if (file.opening.cached) {
        file.order.Enter(offset, buffer.size());
    }
    return ReadHandle(file, offset, buffer, count);
}

void FileSystem::Release(std::unique_ptr<OpenFile> file) {
    {
        const std::lock_guard hold(opensLock_);
        opens_.erase(file.get());
    }
    file->handle.Reset();
    if (tree_->Closed(file->node, file->opening) && file->node->IsClip()) {
        EndWriting(file->node);
    }
}

int FileSystem::Sync(OpenFile* file) {
    if (file != nullptr && file->opening.writes && file->node->IsClip()) {
        if (const int error = Flush(*file); error != 0) {
            return error;
        }
    }
    return SyncImages("the station");
}

}  // namespace mount
