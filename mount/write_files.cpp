// Copying clips onto a drive. A new clip is written under its own name, one over another beside it. When all of it is
// there, at the latest when the program closes it, it is closed and checked, and takes its place; what is not whole by
// then is deleted, and what stood there before stays.
#include <vrkfs/results.h>

#include <cerrno>

#include "mount/file_system.h"
#include "mount/names.h"

namespace mount {
namespace {

std::string Bytes(std::uint64_t count) {
    return std::to_string(count);
}

// A command that fails is a write that succeeds, and who writes it from a script may not look at the reply.
bool HasCommandFailed(host::Process& process, host::Handle port) {
    std::int32_t reply[2] = {};  // its length and the result
    const host::IoResult read = process.Read(port, std::as_writable_bytes(std::span(reply)), 0);
    return read.status.Ok() && read.information == sizeof(reply) &&
           (reply[1] == VRKFS_PORT_FAILED || reply[1] == VRKFS_PORT_UNKNOWN_COMMAND);
}

}  // namespace

// ESTALE: somebody else has made it meanwhile, and the kernel is to open that one.
int FileSystem::Create(std::uint64_t folder, std::string_view spelling, bool mustBeNew, Found& made,
                       std::unique_ptr<OpenFile>& file) {
    Place place;
    if (const int error = FindPlace(Operation::kCreate, folder, spelling, place); error != 0) {
        return error;
    }
    if (const int error = CheckNewName(Operation::kCreate, place); error != 0) {
        return error;
    }
    const std::string display = tree_->DisplayBelow(place.folder, place.name);
    if (place.folder->level < kFolderLevel) {
        return journal_.Refused(Operation::kCreate, display, EPERM, "clips stand in folders only");
    }
    file = std::make_unique<OpenFile>();
    file->opening.writes = true;
    file->passes = place.folder->level > kFolderLevel;
    const std::lock_guard work(place.folder->listing->work);
    const std::u16string path = tree_->PathBelow(place.folder, place.name);
    Facts facts;
    std::shared_ptr<ClipWriter> writer;
    host::Status status;
    if (file->passes) {
        const host::OpenResult opened = place.folder->drive->Open(
            path, host::access::kReadData | host::access::kWriteData | host::access::kReadAttributes, host::share::kAll,
            host::Disposition::kCreate, host::option::kNonDirectoryFile);
        status = opened.status;
        if (status.Ok()) {
            file->handle = host::ScopedHandle(*process_, opened.handle);
            file->isOpened = true;
            status = place.folder->drive->Look(opened.handle, facts);
        }
    } else {
        writer = std::make_shared<ClipWriter>(*place.folder->drive);
        status = writer->Create(path, facts);
    }
    if (status == host::status::kObjectNameCollision && !mustBeNew && ListLocked(place.folder).Ok() &&
        tree_->Child(place.folder, place.key) != nullptr) {
        return ESTALE;
    }
    if (!status.Ok()) {
        return CheckRoom(place, Operation::kCreate, status);
    }
    const NodePointer node = tree_->Add(place.folder, place.name, false, facts, spelling);
    tree_->SetWriter(node, writer);
    file->node = node;
    Count(*file);
    Fill(node, spelling, made);
    return 0;
}

int FileSystem::Report(const NodePointer& node, const ClipWriter::Outcome& outcome) {
    const std::string display = tree_->Display(node);
    return outcome.error != 0 ? journal_.Refused(Operation::kWrite, display, outcome.error, outcome.reason)
                              : journal_.Refused(Operation::kWrite, display, outcome.status);
}

// Who opens a clip to write has a node without readers of pages, until a copy onto it has ended: a second one that its
// program then begins, without opening it anew, would cut off who has come since. The folder's work is held.
int FileSystem::CheckReaders(const NodePointer& node) {
    return tree_->HasReadersOfPages(node)
               ? journal_.Refused(Operation::kWrite, tree_->Display(node), EBUSY, "what was copied there is being read")
               : 0;
}

// The copy goes beside the clip that it is to replace.
int FileSystem::BeginReplacement(const NodePointer& node, ClipWriter& writer) {
    const FolderAtWork at = WorkAround(node);
    if (at.folder == nullptr) {
        return ENOENT;
    }
    if (writer.HasFile()) {
        return 0;
    }
    if (const int error = CheckReaders(node); error != 0) {
        return error;
    }
    host::Status status = host::status::kObjectNameCollision;
    std::u16string name;
    for (unsigned attempt = 0; attempt < kSideNames && status == host::status::kObjectNameCollision; ++attempt) {
        name = SideName(tree_->NameOf(node), u"new", attempt);
        Facts facts;
        status = writer.Create(tree_->PathBelow(at.folder, name), facts);
    }
    if (!status.Ok()) {
        return CheckRoom({at.folder, tree_->NameOf(node), {}}, Operation::kCreate, status);
    }
    tree_->Hide(at.folder, name);
    return 0;
}

int FileSystem::Write(OpenFile& file, std::uint64_t offset, std::span<const std::byte> bytes) {
    if (file.passes) {
        const host::IoResult result = process_->Write(file.handle.Get(), bytes, offset);
        if (result.status.Ok() && result.information == bytes.size()) {
            if (file.node->kind == Kind::kPort && HasCommandFailed(*process_, file.handle.Get())) {
                journal_.Line(tree_->Display(file.node) + ": the command has failed");
            }
            return 0;
        }
        const host::Status status = result.status.Ok() ? host::status::kEndOfFile : result.status;
        return journal_.Refused(Operation::kWrite, tree_->Display(file.node), status);
    }
    file.wrote = true;
    const std::shared_ptr<ClipWriter> writer = tree_->NeedWriter(file.node);
    if (!writer->HasFile()) {
        if (tree_->Look(file.node).gone) {
            return ENOENT;
        }
        if (offset != 0 && !tree_->IsTruncated(file.node)) {
            return journal_.Refused(Operation::kWrite, tree_->Display(file.node), EPERM,
                                    "a finished clip is not written into: copy a whole one over it");
        }
        if (const int error = BeginReplacement(file.node, *writer); error != 0) {
            return error;
        }
    }
    const bool hadFailed = !writer->Failed().Ok();
    const ClipWriter::Outcome outcome = writer->Write(offset, bytes);
    if (outcome.Ok()) {
        return 0;
    }
    // What ended the copy is told once.
    return hadFailed && outcome.error == 0 ? MeaningOf(Operation::kWrite, outcome.status).error
                                           : Report(file.node, outcome);
}

int FileSystem::FinishIfWhole(const OpenFile& file, bool& part) {
    part = false;
    if (!file.opening.writes || file.passes) {
        return 0;
    }
    const std::shared_ptr<ClipWriter> writer = tree_->WriterOf(file.node);
    if (writer == nullptr || writer->IsOver()) {
        return 0;
    }
    const ClipWriter::Outcome failed = writer->Failed();
    if (!failed.Ok()) {
        return MeaningOf(Operation::kWrite, failed.status).error;
    }
    if (!writer->HasBytes()) {
        writer->Rest();
        return 0;
    }
    part = !writer->IsWhole();
    if (part) {
        return 0;
    }
    FolderAtWork at = WorkAround(file.node);
    return Finish(file.node, *writer, at);
}

// A program may close one of several descriptors of what it goes on writing, and shells do before the first byte: what
// is not whole yet is only said to be so.
int FileSystem::Flush(OpenFile& file) {
    bool part = false;
    const int error = FinishIfWhole(file, part);
    return error == 0 && part && file.wrote ? EINVAL : error;
}

// A record is written when its clip is closed, where a failure is told to nobody.
int FileSystem::CheckWritten(const NodePointer& node, const std::u16string& path, std::uint64_t total, Facts& facts) {
    const host::Status status = node->drive->Look(path, facts);
    if (status.Ok() && facts.size == total) {
        return 0;
    }
    const bool gone = node->drive->Remove(path, false, false).Ok();
    return journal_.Refused(Operation::kWrite, tree_->Display(node), EIO,
                            std::string("its record is not on the disk: see vrkfs events") +
                                (gone ? "" : "; what is left of the copy can be deleted"));
}

int FileSystem::Finish(const NodePointer& node, ClipWriter& writer, FolderAtWork& at) {
    const NodePointer folder = at.folder;
    if (folder == nullptr) {
        if (!writer.IsOver()) {
            journal_.Line(tree_->Display(node) + ": was removed while a copy onto it was under way: so is the copy");
        }
        writer.Discard();
        return 0;
    }
    if (writer.IsOver()) {
        return 0;
    }
    if (!writer.IsWhole()) {
        return EINVAL;  // begun again meanwhile
    }
    const std::u16string path = writer.Path();
    const std::u16string own = tree_->PathOf(node);
    const std::u16string sideName = path.substr(path.rfind(u'\\') + 1);
    host::Status status = writer.Close();
    Facts facts;
    int error = CheckWritten(node, path, writer.Total(), facts);
    std::u16string aside;
    if (error == 0 && path != own) {
        const Place place{folder, tree_->NameOf(node), {}};
        status = Swap({folder, sideName, {}}, place, aside);
        if (!status.Ok()) {
            error = journal_.Refused(Operation::kWrite, tree_->Display(node), status);
            (void)node->drive->Remove(path, false, false);
        }
    }
    if (path != own) {
        tree_->Show(folder, sideName);
    } else if (error != 0) {
        tree_->Remove(node);
        caches_.TellRemoved(folder->inode, node->inode, TreeName(tree_->NameOf(node)));
    }
    if (error != 0) {
        writer.LosePlace();
    }
    tree_->WriterDone(node, writer, error == 0 ? &facts : nullptr);
    if (error == 0) {
        OpenForReaders(node);
    }
    at.work.unlock();
    return aside.empty() ? error : RemoveOld(folder, aside, tree_->Display(node));
}

// Whether the copy is under a name of its own: nobody wants that one empty either.
bool FileSystem::IsBeside(const NodePointer& node, const ClipWriter& writer) {
    const std::u16string path = writer.Path();
    return writer.HasFile() && path.substr(path.rfind(u'\\') + 1) != tree_->NameOf(node);
}

// Deletes what is not whole. The folder's work is held.
void FileSystem::GiveUp(const NodePointer& node, ClipWriter& writer, const NodePointer& folder) {
    const std::string display = tree_->Display(node);
    const std::u16string path = writer.Path();
    const bool replaces = path != tree_->PathOf(node);
    const std::string how = !writer.Failed().Ok() ? "could not be written"
                            : writer.Total() == 0
                                ? "was closed with " + Bytes(writer.End()) + " bytes, less than a header"
                                : "was closed with " + Bytes(writer.End()) + " of " + Bytes(writer.Total()) + " bytes";
    const bool gone = writer.Discard();
    journal_.Line(display + ": the copy " + how + ": " +
                  (replaces ? "the clip that was there stays as it is"
                   : gone   ? "it was deleted"
                            : "it is to be deleted") +
                  (gone ? "" : ", and something is left under " + TreeName(path.substr(path.rfind(u'\\') + 1))));
    if (replaces) {
        tree_->Show(folder, path.substr(path.rfind(u'\\') + 1));
    } else {
        const std::string name = TreeName(tree_->NameOf(node));
        tree_->Remove(node);
        caches_.TellRemoved(folder->inode, node->inode, name);
        if (!gone) {
            (void)ListLocked(folder);
        }
    }
}

// Nobody has it open for writing any more. `at`: where it is.
void FileSystem::EndCopy(const NodePointer& node, FolderAtWork& at) {
    const std::shared_ptr<ClipWriter> writer = tree_->WriterOf(node);
    if (writer == nullptr) {
        return;
    }
    if (!writer->IsOver()) {
        if (writer->IsWhole()) {
            (void)Finish(node, *writer, at);
            return;
        }
        if (at.folder == nullptr) {
            writer->Discard();
        } else if (writer->HasBytes() || !writer->Failed().Ok() || IsBeside(node, *writer)) {
            GiveUp(node, *writer, at.folder);
        } else {
            writer->Rest();
            if (!writer->HasFile() && tree_->IsTruncated(node)) {
                journal_.Line(tree_->Display(node) + ": stays as it is: nothing was written over it");
            }
        }
    }
    tree_->WriterDone(node, *writer, nullptr);
}

// The last who could write has closed it. The kernel tells of that when it likes: somebody else may have it open by now
// and have ended the copy that we came for.
void FileSystem::EndWriting(const NodePointer& node) {
    FolderAtWork at = WorkAround(node);
    if (tree_->WritersOf(node) == 0) {
        EndCopy(node, at);
    }
}

int FileSystem::Truncate(const NodePointer& node, OpenFile* file, std::uint64_t size) {
    if (node->kind == Kind::kPort) {
        return 0;
    }
    if (readOnly_) {
        return EROFS;
    }
    if (node->IsFolder()) {
        return EISDIR;
    }
    return node->IsClip() ? TruncateClip(node, file, size) : TruncatePassing(node, size);
}

// Frame files keep the size of their frame, whatever is asked: the driver takes it and changes nothing.
int FileSystem::TruncatePassing(const NodePointer& node, std::uint64_t size) {
    constexpr std::uint32_t kFileEndOfFileInformation = 20;
    const host::OpenResult opened =
        node->drive->Open(tree_->PathOf(node), host::access::kWriteData | host::access::kReadAttributes,
                          host::share::kAll, host::Disposition::kOpen, host::option::kNonDirectoryFile);
    host::Status status = opened.status;
    if (status.Ok()) {
        const host::ScopedHandle handle(*process_, opened.handle);
        status = process_->SetInformation(opened.handle, kFileEndOfFileInformation, std::as_bytes(std::span(&size, 1)))
                     .status;
        Facts facts;
        if (status.Ok() && node->drive->Look(opened.handle, facts).Ok()) {
            tree_->SetFacts(node, facts, nullptr);
        }
    }
    return status.Ok() ? 0 : journal_.Refused(Operation::kWrite, tree_->Display(node), status);
}

// Of a copy under way.
int FileSystem::TruncateCopy(const NodePointer& node, const OpenFile* file, ClipWriter& writer, std::uint64_t size) {
    if (size == writer.End()) {
        return 0;
    }
    if (size != 0) {
        const ClipWriter::Outcome outcome = writer.Extend(size);
        return outcome.Ok() ? 0 : Report(node, outcome);
    }
    if (file == nullptr) {
        return journal_.Refused(Operation::kWrite, tree_->Display(node), EBUSY, "another copy onto it is under way");
    }
    const FolderAtWork at = WorkAround(node);
    if (at.folder == nullptr) {
        return ENOENT;
    }
    const host::Status status = writer.Restart();
    return status.Ok() ? 0 : journal_.Refused(Operation::kWrite, tree_->Display(node), status);
}

int FileSystem::TruncateClip(const NodePointer& node, const OpenFile* file, std::uint64_t size) {
    const std::shared_ptr<ClipWriter> writer = tree_->WriterOf(node);
    if (writer != nullptr && writer->HasFile() && !writer->IsOver()) {
        return TruncateCopy(node, file, *writer, size);
    }
    if (size == 0 && file != nullptr) {
        const FolderAtWork at = WorkAround(node);
        if (const int error = CheckReaders(node); error != 0) {
            return error;
        }
        (void)tree_->NeedWriter(node);
        tree_->SetTruncated(node);
        return 0;
    }
    if (size == tree_->Look(node).size) {
        return 0;
    }
    return journal_.Refused(Operation::kWrite, tree_->Display(node), EPERM,
                            "a clip has the size that its frames take: copy a whole one over it");
}

}  // namespace mount
