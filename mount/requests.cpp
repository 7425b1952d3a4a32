#include "mount/requests.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include "host/names.h"
#include "mount/mountpoint.h"
#include "mount/names.h"

namespace mount {

struct OpenFolder {
    NodePointer node;
    Uses uses;
    std::mutex lock;  // guards the following
    bool listed = false;
    std::vector<FileSystem::Row> rows;
};

namespace {

constexpr std::uint64_t kBlockBytes = 512;
constexpr std::uint64_t kRecordBlocks = 2;               // of a file
constexpr std::uint64_t kFolderBlocks = 18;              // of a folder's record
constexpr std::int64_t kUnixEpoch = 116444736000000000;  // 1970 in 100 ns since 1601
constexpr std::int64_t kUnitsASecond = 10000000;
constexpr std::int64_t kNanosecondsAUnit = 100;
constexpr unsigned kMostBackground = 128;
constexpr unsigned kMostName = 255;

RequestContext& ContextOf(fuse_req_t request) {
    return *static_cast<RequestContext*>(fuse_req_userdata(request));
}

FileSystem& FilesOf(fuse_req_t request) {
    return ContextOf(request).files;
}

timespec TimeOf(std::int64_t time) {
    timespec spec{};
    if (time != 0) {
        // Whole seconds first: what stands on a disk may be any number.
        std::int64_t seconds = time / kUnitsASecond - kUnixEpoch / kUnitsASecond;
        std::int64_t rest = time % kUnitsASecond;
        if (rest < 0) {
            rest += kUnitsASecond;
            --seconds;
        }
        spec.tv_sec = static_cast<time_t>(seconds);
        spec.tv_nsec = static_cast<long>(rest * kNanosecondsAUnit);
    }
    return spec;
}

// A drive's times begin in 1601, and 0 is none; what lies beyond either end becomes that end, as in any file system.
std::int64_t DriveTime(const timespec& spec) {
    constexpr std::int64_t kFirst = -kUnixEpoch / kUnitsASecond;  // seconds since 1970
    constexpr std::int64_t kLast = (std::numeric_limits<std::int64_t>::max() - kUnixEpoch) / kUnitsASecond - 1;
    const std::int64_t seconds = std::clamp<std::int64_t>(spec.tv_sec, kFirst, kLast);
    return std::max<std::int64_t>(1, kUnixEpoch + seconds * kUnitsASecond + spec.tv_nsec / kNanosecondsAUnit);
}

struct stat StatOf(const Snapshot& facts, const Options& options) {
    struct stat status {};
    const bool isFolder = facts.kind == Kind::kTop || facts.kind == Kind::kFolder;
    status.st_ino = facts.inode;
    status.st_mode = isFolder ? S_IFDIR | options.folderMode : S_IFREG | options.fileMode;
    status.st_nlink = facts.gone ? 0 : isFolder ? 2 : 1;
    status.st_uid = options.owner;
    status.st_gid = options.group;
    status.st_blksize = kRequestBytes;
    if (isFolder) {
        status.st_blocks = facts.level == kFolderLevel ? kFolderBlocks : 0;
    } else {
        status.st_size = static_cast<off_t>(facts.size);
        status.st_blocks = static_cast<blkcnt_t>(
            facts.kind == Kind::kPort ? 0 : (facts.size + kBlockBytes - 1) / kBlockBytes + kRecordBlocks);
    }
    status.st_mtim = status.st_ctim = status.st_atim = TimeOf(facts.time);
    return status;
}

fuse_entry_param EntryOf(fuse_req_t request, const Found& found) {
    fuse_entry_param entry{};
    entry.entry_timeout = found.nameSeconds;
    if (found.node != nullptr) {
        entry.ino = found.node->inode;
        entry.attr_timeout = found.factsSeconds;
        entry.attr = StatOf(FilesOf(request).Nodes().Look(found.node), ContextOf(request).options);
    }
    return entry;
}

void Answer(fuse_req_t request, int error) {
    (void)fuse_reply_err(request, error);
}

// The kernel counts what it was told, unless the answer does not reach it.
void AnswerEntry(fuse_req_t request, int error, const Found& found) {
    if (error != 0) {
        return Answer(request, error);
    }
    if (found.node == nullptr && found.nameSeconds == 0) {
        return Answer(request, ENOENT);
    }
    const fuse_entry_param entry = EntryOf(request, found);
    Tree& nodes = FilesOf(request).Nodes();
    if (found.node != nullptr) {
        nodes.Known(found.node);
    }
    if (fuse_reply_entry(request, &entry) != 0 && found.node != nullptr) {
        nodes.Forget(entry.ino, 1);
    }
}

// What a request throws (memory) is the request's failure, not the mount's.
template <typename Work>
void Guarded(fuse_req_t request, Work work) {
    try {
        work();
    } catch (const std::bad_alloc&) {
        Answer(request, ENOMEM);
    } catch (const std::exception& error) {
        FilesOf(request).Notes().Line(std::string("a request failed: ") + error.what());
        Answer(request, EIO);
    }
}

NodePointer NodeOf(fuse_req_t request, fuse_ino_t inode) {
    return FilesOf(request).Nodes().Find(inode);
}

OpenFile* FileOf(const fuse_file_info* info) {
    return info == nullptr ? nullptr : reinterpret_cast<OpenFile*>(info->fh);
}

// What is done with an open file is over before the answer: the kernel may have it released then.
template <typename Work>
int WithFile(const fuse_file_info* info, Work work) {
    OpenFile& file = *FileOf(info);
    const InUse use(file.uses);
    return work(file);
}

// ---- Names ----

void Lookup(fuse_req_t request, fuse_ino_t folder, const char* name) {
    Guarded(request, [&] {
        Found found;
        const int error = FilesOf(request).Lookup(folder, name, found);
        AnswerEntry(request, error, found);
    });
}

void Forget(fuse_req_t request, fuse_ino_t inode, std::uint64_t times) {
    FilesOf(request).Nodes().Forget(inode, times);
    fuse_reply_none(request);
}

void ForgetMany(fuse_req_t request, std::size_t count, fuse_forget_data* forgotten) {
    for (const fuse_forget_data& one : std::span(forgotten, count)) {
        FilesOf(request).Nodes().Forget(one.ino, one.nlookup);
    }
    fuse_reply_none(request);
}

void GetAttributes(fuse_req_t request, fuse_ino_t inode, fuse_file_info* /*info*/) {
    Guarded(request, [&] {
        Snapshot facts;
        double seconds = 0;
        if (const int error = FilesOf(request).GetFacts(inode, facts, seconds); error != 0) {
            return Answer(request, error);
        }
        const struct stat status = StatOf(facts, ContextOf(request).options);
        (void)fuse_reply_attr(request, &status, seconds);
    });
}

// Asked only where the kernel checks no permissions: whoever comes may read and write, but run nothing that cannot be.
void MayAccess(fuse_req_t request, fuse_ino_t inode, int mask) {
    Guarded(request, [&] {
        const NodePointer node = NodeOf(request, inode);
        const bool runs = node != nullptr && !node->IsFolder() && (mask & X_OK) != 0;
        const bool refused = runs && (ContextOf(request).options.fileMode & (S_IXUSR | S_IXGRP | S_IXOTH)) == 0;
        Answer(request, node == nullptr ? ENOENT : refused ? EACCES : 0);
    });
}

std::int64_t Now() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return DriveTime(now);
}

int ChangeAttributes(fuse_req_t request, const NodePointer& node, const struct stat& wanted, int what, OpenFile* file) {
    FileSystem& files = FilesOf(request);
    if (files.IsReadOnly()) {
        return EROFS;
    }
    // Owner and mode are the mount's, for everything alike. Copies that keep them ask all the same.
    int error = 0;
    if ((what & FUSE_SET_ATTR_SIZE) != 0) {
        error = files.Truncate(node, file, static_cast<std::uint64_t>(wanted.st_size));
    }
    if (error == 0 && (what & FUSE_SET_ATTR_MTIME_NOW) != 0) {
        error = files.SetTime(node, Now());
    } else if (error == 0 && (what & FUSE_SET_ATTR_MTIME) != 0) {
        error = files.SetTime(node, DriveTime(wanted.st_mtim));
    }
    return error;
}

void SetAttributes(fuse_req_t request, fuse_ino_t inode, struct stat* wanted, int what, fuse_file_info* info) {
    Guarded(request, [&] {
        const NodePointer node = NodeOf(request, inode);
        const auto change = [&](OpenFile* file) { return ChangeAttributes(request, node, *wanted, what, file); };
        const int error = node == nullptr   ? ENOENT
                          : info == nullptr ? change(nullptr)
                                            : WithFile(info, [&](OpenFile& file) { return change(&file); });
        if (error != 0) {
            return Answer(request, error);
        }
        const Snapshot facts = FilesOf(request).Nodes().Look(node);
        const struct stat status = StatOf(facts, ContextOf(request).options);
        // The kernel takes this answer even if it has been told since then that it is out of date.
        (void)fuse_reply_attr(request, &status, node->IsClip() ? 0 : FilesOf(request).FactsSeconds(facts));
    });
}

void MakeFolder(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t /*mode*/) {
    Guarded(request, [&] {
        Found made;
        const int error = FilesOf(request).MakeFolder(folder, name, made);
        AnswerEntry(request, error, made);
    });
}

// An empty file; nothing else that a node can be made of has a place on a drive.
void MakeNode(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode, dev_t /*device*/) {
    Guarded(request, [&] {
        if (!S_ISREG(mode)) {
            return Answer(request, EPERM);
        }
        Found made;
        std::unique_ptr<OpenFile> file;
        const int error = FilesOf(request).Create(folder, name, true, made, file);
        if (error == 0) {
            FilesOf(request).Release(std::move(file));
        }
        AnswerEntry(request, error, made);
    });
}

void MakeHardLink(fuse_req_t request, fuse_ino_t /*inode*/, fuse_ino_t /*folder*/, const char* /*name*/) {
    Answer(request, EPERM);
}

void RemoveFile(fuse_req_t request, fuse_ino_t folder, const char* name) {
    Guarded(request, [&] { Answer(request, FilesOf(request).RemoveFile(folder, name)); });
}

void RemoveFolder(fuse_req_t request, fuse_ino_t folder, const char* name) {
    Guarded(request, [&] { Answer(request, FilesOf(request).RemoveFolder(folder, name)); });
}

void Rename(fuse_req_t request, fuse_ino_t folder, const char* name, fuse_ino_t newFolder, const char* newName,
            unsigned flags) {
    Guarded(request, [&] {
        constexpr unsigned kNoReplace = 1;  // RENAME_NOREPLACE
        if ((flags & ~kNoReplace) != 0) {
            return Answer(request, EINVAL);
        }
        Answer(request, FilesOf(request).Rename(folder, name, newFolder, newName, (flags & kNoReplace) == 0));
    });
}

// ---- Listings ----

void OpenDirectory(fuse_req_t request, fuse_ino_t inode, fuse_file_info* info) {
    Guarded(request, [&] {
        auto folder = std::make_unique<OpenFolder>();
        folder->node = NodeOf(request, inode);
        if (folder->node == nullptr || !folder->node->IsFolder()) {
            return Answer(request, folder->node == nullptr ? ENOENT : ENOTDIR);
        }
        OpenFolders& folders = ContextOf(request).folders;
        OpenFolder& opened = folders.Add(std::move(folder));
        info->fh = reinterpret_cast<std::uint64_t>(&opened);
        if (fuse_reply_open(request, info) != 0) {
            folders.Release(opened);
        }
    });
}

void ReleaseDirectory(fuse_req_t request, fuse_ino_t /*inode*/, fuse_file_info* info) {
    auto& folder = *reinterpret_cast<OpenFolder*>(info->fh);
    folder.uses.End();
    ContextOf(request).folders.Release(folder);
    Answer(request, 0);
}

// A name and what stands under it; the bytes it took, more than `room` when it does not fit.
std::size_t AddRow(fuse_req_t request, const OpenFolder& folder, const FileSystem::Row& row, bool plus, char* place,
                   std::size_t room, off_t next) {
    FileSystem& files = FilesOf(request);
    const bool isDots = row.name == "." || row.name == "..";
    // What has left the folder since it was listed: the kernel would remember it under that name, where another may be.
    NodePointer node = row.node;
    if (!isDots && files.Nodes().ParentOf(node) != folder.node) {
        const auto name = DriveName(row.name);
        node = name ? files.Nodes().Child(folder.node, host::UpcaseName(*name)) : nullptr;
        if (node == nullptr) {
            return 0;
        }
    }
    const Snapshot facts = files.Nodes().Look(node);
    if (!plus) {
        const struct stat status = StatOf(facts, ContextOf(request).options);
        return fuse_add_direntry(request, place, room, row.name.c_str(), &status, next);
    }
    Found found;
    files.Fill(node, row.name, found);
    fuse_entry_param entry = EntryOf(request, found);
    if (isDots) {
        entry.ino = 0;  // not a look-up
    }
    const std::size_t taken = fuse_add_direntry_plus(request, place, room, row.name.c_str(), &entry, next);
    if (taken <= room && !isDots) {
        files.Nodes().Known(node);
    }
    return taken;
}

// Of the rows from `offset` on what fits.
int FillRows(fuse_req_t request, OpenFolder& folder, off_t offset, bool plus, std::vector<char>& buffer) {
    const std::lock_guard hold(folder.lock);
    if (offset == 0 || !folder.listed) {
        folder.rows.clear();
        if (const int error = FilesOf(request).ListFolder(folder.node, folder.rows); error != 0) {
            return error;
        }
        folder.listed = true;
    }
    const std::size_t room = buffer.size();
    std::size_t used = 0;
    for (auto index = static_cast<std::size_t>(offset); index < folder.rows.size(); ++index) {
        const std::size_t taken = AddRow(request, folder, folder.rows[index], plus, buffer.data() + used, room - used,
                                         static_cast<off_t>(index + 1));
        if (taken > room - used) {
            break;
        }
        used += taken;
    }
    buffer.resize(used);
    return 0;
}

void ReadRows(fuse_req_t request, std::size_t size, off_t offset, fuse_file_info* info, bool plus) {
    Guarded(request, [&] {
        std::vector<char> buffer(size);
        int error = 0;
        {
            auto& folder = *reinterpret_cast<OpenFolder*>(info->fh);
            const InUse use(folder.uses);
            error = FillRows(request, folder, offset, plus, buffer);
        }
        error != 0 ? Answer(request, error) : (void)fuse_reply_buf(request, buffer.data(), buffer.size());
    });
}

void ReadDirectory(fuse_req_t request, fuse_ino_t /*inode*/, std::size_t size, off_t offset, fuse_file_info* info) {
    ReadRows(request, size, offset, info, false);
}

void ReadDirectoryPlus(fuse_req_t request, fuse_ino_t /*inode*/, std::size_t size, off_t offset, fuse_file_info* info) {
    ReadRows(request, size, offset, info, true);
}

// ---- Files ----

void FillInfo(const OpenFile& file, fuse_file_info* info) {
    info->fh = reinterpret_cast<std::uint64_t>(&file);
    info->direct_io = file.IsDirect() ? 1 : 0;
    info->keep_cache = file.keepPages ? 1 : 0;
    info->noflush = file.opening.writes ? 0 : 1;
}

void OpenClip(fuse_req_t request, fuse_ino_t inode, fuse_file_info* info) {
    Guarded(request, [&] {
        std::unique_ptr<OpenFile> file;
        RequestContext& context = ContextOf(request);
        std::call_once(context.opened, [&] { RaiseReadAhead(context.options.mountpoint); });
        if (const int error = FilesOf(request).Open(inode, info->flags, file); error != 0) {
            return Answer(request, error);
        }
        FillInfo(*file, info);
        OpenFile* const opened = file.release();
        if (fuse_reply_open(request, info) != 0) {
            FilesOf(request).Release(std::unique_ptr<OpenFile>(opened));
        }
    });
}

void CreateClip(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t /*mode*/, fuse_file_info* info) {
    Guarded(request, [&] {
        FileSystem& files = FilesOf(request);
        Found made;
        std::unique_ptr<OpenFile> file;
        if (const int error = files.Create(folder, name, (info->flags & O_EXCL) != 0, made, file); error != 0) {
            return Answer(request, error);
        }
        FillInfo(*file, info);
        const fuse_entry_param entry = EntryOf(request, made);
        OpenFile* const opened = file.release();
        files.Nodes().Known(made.node);
        if (fuse_reply_create(request, &entry, info) != 0) {
            files.Release(std::unique_ptr<OpenFile>(opened));
            files.Nodes().Forget(entry.ino, 1);
        }
    });
}

// Each thread answers from memory of its own that it uses again and again.
std::span<std::byte> AnswerBuffer(std::size_t size) {
    struct Free {
        void operator()(std::byte* bytes) const { std::free(bytes); }
    };
    thread_local std::unique_ptr<std::byte[], Free> buffer;
    thread_local std::size_t room = 0;
    if (room < size) {
        constexpr std::size_t kAlignment = 4096;
        const std::size_t wanted = std::max(kRequestBytes, (size + kAlignment - 1) & ~(kAlignment - 1));
        buffer.reset(static_cast<std::byte*>(std::aligned_alloc(kAlignment, wanted)));
        room = buffer ? wanted : 0;
        if (!buffer) {
            throw std::bad_alloc();
        }
    }
    return {buffer.get(), size};
}

void ReadClip(fuse_req_t request, fuse_ino_t /*inode*/, std::size_t size, off_t offset, fuse_file_info* info) {
    Guarded(request, [&] {
        const std::span<std::byte> buffer = AnswerBuffer(size);
        std::size_t count = 0;
        const int error = WithFile(info, [&](OpenFile& file) {
            return FilesOf(request).Read(file, static_cast<std::uint64_t>(offset), buffer, count);
        });
        if (error != 0) {
            return Answer(request, error);
        }
        (void)fuse_reply_buf(request, reinterpret_cast<const char*>(buffer.data()), count);
    });
}

void WriteClip(fuse_req_t request, fuse_ino_t /*inode*/, const char* bytes, std::size_t size, off_t offset,
               fuse_file_info* info) {
    Guarded(request, [&] {
        const int error = WithFile(info, [&](OpenFile& file) {
            return FilesOf(request).Write(file, static_cast<std::uint64_t>(offset),
                                          std::as_bytes(std::span(bytes, size)));
        });
        if (error != 0) {
            return Answer(request, error);
        }
        (void)fuse_reply_write(request, size);
    });
}

void FlushClip(fuse_req_t request, fuse_ino_t /*inode*/, fuse_file_info* info) {
    Guarded(request, [&] {
        const int error = WithFile(info, [&](OpenFile& file) { return FilesOf(request).Flush(file); });
        Answer(request, error);
    });
}

void ReleaseClip(fuse_req_t request, fuse_ino_t /*inode*/, fuse_file_info* info) {
    Guarded(request, [&] {
        FileOf(info)->uses.End();
        FilesOf(request).Release(std::unique_ptr<OpenFile>(FileOf(info)));
        Answer(request, 0);
    });
}

void SyncClip(fuse_req_t request, fuse_ino_t /*inode*/, int /*dataOnly*/, fuse_file_info* info) {
    Guarded(request, [&] {
        const int error = WithFile(info, [&](OpenFile& file) { return FilesOf(request).Sync(&file); });
        Answer(request, error);
    });
}

void SyncDirectory(fuse_req_t request, fuse_ino_t /*inode*/, int /*dataOnly*/, fuse_file_info* /*info*/) {
    Guarded(request, [&] { Answer(request, FilesOf(request).Sync(nullptr)); });
}

void Reserve(fuse_req_t request, fuse_ino_t /*inode*/, int /*mode*/, off_t /*offset*/, off_t /*length*/,
             fuse_file_info* /*info*/) {
    Answer(request, EOPNOTSUPP);
}

// ---- Space and attributes ----

void GetSpace(fuse_req_t request, fuse_ino_t inode) {
    Guarded(request, [&] {
        const NodePointer node = NodeOf(request, inode);
        Space space;
        if (const int error = node == nullptr ? ENOENT : FilesOf(request).Measure(node, space); error != 0) {
            return Answer(request, error);
        }
        struct statvfs status {};
        status.f_bsize = kRequestBytes;
        status.f_frsize = kBlockBytes;
        status.f_blocks = space.totalBlocks;
        status.f_bfree = status.f_bavail = space.freeBlocks;
        status.f_namemax = kMostName;
        (void)fuse_reply_statfs(request, &status);
    });
}

// The kernel asks for the length with no room, or for the bytes.
void AnswerText(fuse_req_t request, int error, const std::string& text, std::size_t room) {
    if (error != 0) {
        Answer(request, error);
    } else if (room == 0) {
        (void)fuse_reply_xattr(request, text.size());
    } else if (text.size() > room) {
        Answer(request, ERANGE);
    } else {
        (void)fuse_reply_buf(request, text.data(), text.size());
    }
}

void GetExtended(fuse_req_t request, fuse_ino_t inode, const char* name, std::size_t room) {
    Guarded(request, [&] {
        const NodePointer node = NodeOf(request, inode);
        std::string value;
        const int error = node == nullptr ? ENOENT : FilesOf(request).GetAttribute(node, name, value);
        AnswerText(request, error, value, room);
    });
}

void ListExtended(fuse_req_t request, fuse_ino_t inode, std::size_t room) {
    Guarded(request, [&] {
        const NodePointer node = NodeOf(request, inode);
        std::string names;
        const int error = node == nullptr ? ENOENT : FilesOf(request).ListAttributes(node, names);
        AnswerText(request, error, names, room);
    });
}

void SetExtended(fuse_req_t request, fuse_ino_t inode, const char* name, const char* value, std::size_t size,
                 int flags) {
    Guarded(request, [&] {
        const NodePointer node = NodeOf(request, inode);
        Answer(request, node == nullptr
                            ? ENOENT
                            : FilesOf(request).SetAttribute(node, name, std::string_view(value, size), flags));
    });
}

void RemoveExtended(fuse_req_t request, fuse_ino_t inode, const char* name) {
    Guarded(request, [&] {
        const NodePointer node = NodeOf(request, inode);
        Answer(request, node == nullptr ? ENOENT : FilesOf(request).RemoveAttribute(node, name));
    });
}

// ---- The connection ----

void Begin(void* /*context*/, fuse_conn_info* connection) {
    constexpr unsigned kWanted = FUSE_CAP_ASYNC_READ | FUSE_CAP_ATOMIC_O_TRUNC | FUSE_CAP_AUTO_INVAL_DATA |
                                 FUSE_CAP_READDIRPLUS | FUSE_CAP_PARALLEL_DIROPS;
    constexpr unsigned kUnwanted = FUSE_CAP_SPLICE_READ | FUSE_CAP_SPLICE_WRITE | FUSE_CAP_SPLICE_MOVE |
                                   FUSE_CAP_READDIRPLUS_AUTO | FUSE_CAP_ASYNC_DIO | FUSE_CAP_WRITEBACK_CACHE |
                                   FUSE_CAP_POSIX_ACL | FUSE_CAP_IOCTL_DIR;
    connection->want |= connection->capable & kWanted;
    connection->want &= ~kUnwanted;
    connection->max_write = kRequestBytes;
    connection->max_readahead = kRequestBytes;
    connection->max_background = kMostBackground;
    connection->congestion_threshold = kMostBackground * 3 / 4;
}

constexpr fuse_lowlevel_ops MakeRequests() {
    fuse_lowlevel_ops requests{};
    requests.init = &Begin;
    requests.lookup = &Lookup;
    requests.forget = &Forget;
    requests.forget_multi = &ForgetMany;
    requests.getattr = &GetAttributes;
    requests.access = &MayAccess;
    requests.setattr = &SetAttributes;
    requests.mknod = &MakeNode;
    requests.mkdir = &MakeFolder;
    requests.symlink = [](fuse_req_t request, const char*, fuse_ino_t, const char*) { Answer(request, EPERM); };
    requests.link = &MakeHardLink;
    requests.unlink = &RemoveFile;
    requests.rmdir = &RemoveFolder;
    requests.rename = &Rename;
    requests.opendir = &OpenDirectory;
    requests.readdir = &ReadDirectory;
    requests.readdirplus = &ReadDirectoryPlus;
    requests.releasedir = &ReleaseDirectory;
    requests.fsyncdir = &SyncDirectory;
    requests.open = &OpenClip;
    requests.create = &CreateClip;
    requests.read = &ReadClip;
    requests.write = &WriteClip;
    requests.flush = &FlushClip;
    requests.release = &ReleaseClip;
    requests.fsync = &SyncClip;
    requests.fallocate = &Reserve;
    requests.statfs = &GetSpace;
    requests.getxattr = &GetExtended;
    requests.listxattr = &ListExtended;
    requests.setxattr = &SetExtended;
    requests.removexattr = &RemoveExtended;
    return requests;
}

}  // namespace

OpenFolders::OpenFolders() = default;
OpenFolders::~OpenFolders() = default;

OpenFolder& OpenFolders::Add(std::unique_ptr<OpenFolder> folder) {
    OpenFolder& added = *folder;
    const std::lock_guard hold(lock_);
    folders_.emplace(&added, std::move(folder));
    return added;
}

void OpenFolders::Release(OpenFolder& folder) {
    decltype(folders_)::node_type released;  // goes without the lock
    const std::lock_guard hold(lock_);
    released = folders_.extract(&folder);
}

const fuse_lowlevel_ops& Requests() {
    static const fuse_lowlevel_ops requests = MakeRequests();
    return requests;
}

}  // namespace mount
