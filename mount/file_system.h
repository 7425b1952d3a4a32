// What the file tree's requests are to the drives. Every call returns 0 or an errno; a refusal that somebody may wonder
// about stands in the journal. From several threads.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/access.h"
#include "mount/journal.h"
#include "mount/kernel_caches.h"
#include "mount/mount.h"
#include "mount/read_order.h"
#include "mount/tree.h"

namespace mount {

// Requests on what a program has open end before it is released; the kernel sees to that. Here it is written down, for
// tools that look at threads and cannot see through the kernel.
class Uses {
  public:
    void Add() { done_.fetch_add(1, std::memory_order_release); }
    void End() const { (void)done_.load(std::memory_order_acquire); }

  private:
    std::atomic<std::uint64_t> done_ = 0;
};

class InUse {
  public:
    explicit InUse(Uses& uses) : uses_(uses) {}
    ~InUse() { uses_.Add(); }
    InUse(const InUse&) = delete;
    InUse& operator=(const InUse&) = delete;

  private:
    Uses& uses_;
};

// A file that a program has open.
struct OpenFile {
    NodePointer node;
    Uses uses;
    Tree::Opening opening;
    bool passes = false;  // its bytes go straight to the driver: the command port, frame and RAM files
    bool keepPages = false;
    std::atomic<bool> isOpened = false;  // it has its handle
    std::atomic<bool> hasRead = false;
    std::atomic<bool> wrote = false;  // its program is told at its close if the copy is not whole
    std::mutex lock;                  // guards the following
    host::ScopedHandle handle;
    std::shared_ptr<ClipWriter> copy;  // that is read as long as there is no handle
    ReadOrder order;

    bool IsDirect() const { return !opening.cached; }
};

// What the kernel is told about a name.
struct Found {
    NodePointer node;        // null: nothing is there
    double nameSeconds = 0;  // how long it may be remembered
    double factsSeconds = 0;
};

struct Space {
    std::uint64_t totalBlocks = 0;  // of 512 bytes
    std::uint64_t freeBlocks = 0;
};

class FileSystem {
  public:
    FileSystem(host::Access& access, const Options& options, Log log);
    ~FileSystem();

    // Opens what it needs of the station.
    host::Problem Start();
    // What is still under way is brought to its end: nothing comes from the kernel any more.
    void CloseAll();

    [[nodiscard]] KernelCaches& Caches() { return caches_; }
    [[nodiscard]] Tree& Nodes() { return tree_.value(); }
    [[nodiscard]] const std::vector<std::unique_ptr<Drive>>& Drives() const { return drives_; }
    [[nodiscard]] Journal& Notes() { return journal_; }
    [[nodiscard]] bool IsReadOnly() const { return readOnly_; }

    // ---- Names (lookup.cpp) ----
    [[nodiscard]] int Lookup(std::uint64_t folder, std::string_view name, Found& found);
    [[nodiscard]] int GetFacts(std::uint64_t inode, Snapshot& facts, double& seconds);
    [[nodiscard]] double FactsSeconds(const Snapshot& facts) const;
    // What the kernel is told about a node under that spelling of its name.
    void Fill(const NodePointer& node, std::string_view spelling, Found& found);
    [[nodiscard]] NodePointer FindNew(const NodePointer& folder, std::u16string_view name, const std::u16string& key);
    struct Row {
        std::string name;
        NodePointer node;
    };
    [[nodiscard]] int ListFolder(const NodePointer& folder, std::vector<Row>& rows);
    // Reads again what is known of a folder. False: it could not be read, and may be out of date.
    bool Refresh(const NodePointer& folder);

    // ---- Changes of names (change_names.cpp, replace.cpp) ----
    [[nodiscard]] int MakeFolder(std::uint64_t folder, std::string_view name, Found& made);
    [[nodiscard]] int RemoveFile(std::uint64_t folder, std::string_view name);
    [[nodiscard]] int RemoveFolder(std::uint64_t folder, std::string_view name);
    [[nodiscard]] int Rename(std::uint64_t folder, std::string_view name, std::uint64_t newFolder,
                             std::string_view newName, bool mayReplace);

    // ---- Files (open_files.cpp, write_files.cpp) ----
    [[nodiscard]] int Open(std::uint64_t inode, int flags, std::unique_ptr<OpenFile>& file);
    [[nodiscard]] int Create(std::uint64_t folder, std::string_view name, bool mustBeNew, Found& made,
                             std::unique_ptr<OpenFile>& file);
    [[nodiscard]] int Read(OpenFile& file, std::uint64_t offset, std::span<std::byte> buffer, std::size_t& count);
    [[nodiscard]] int Write(OpenFile& file, std::uint64_t offset, std::span<const std::byte> bytes);
    // A program has closed one of its descriptors; there may be more.
    [[nodiscard]] int Flush(OpenFile& file);
    void Release(std::unique_ptr<OpenFile> file);
    [[nodiscard]] int Sync(OpenFile* file);
    // file: null when the program gave a path.
    [[nodiscard]] int Truncate(const NodePointer& node, OpenFile* file, std::uint64_t size);

    // ---- Facts (facts.cpp) ----
    [[nodiscard]] int SetTime(const NodePointer& node, std::int64_t time);
    [[nodiscard]] int Measure(const NodePointer& node, Space& space);
    [[nodiscard]] int GetAttribute(const NodePointer& node, std::string_view name, std::string& value);
    [[nodiscard]] int SetAttribute(const NodePointer& node, std::string_view name, std::string_view value, int flags);
    [[nodiscard]] int RemoveAttribute(const NodePointer& node, std::string_view name);
    [[nodiscard]] int ListAttributes(const NodePointer& node, std::string& names);

  private:
    // Names.
    [[nodiscard]] int NeedNames(const NodePointer& folder);
    [[nodiscard]] host::Status ListLocked(const NodePointer& folder);
    [[nodiscard]] int List(const NodePointer& folder, Clock::duration oldest);
    void RefreshFacts(const NodePointer& folder, const Snapshot& facts);
    // Whether the drive tells of every change of a name in the folder.
    [[nodiscard]] static bool IsReported(const NodePointer& folder);

    // The folder that something is in, with its work lock held. Null: it is under no name any more.
    struct FolderAtWork {
        NodePointer folder;
        std::unique_lock<std::mutex> work;
    };
    [[nodiscard]] FolderAtWork WorkAround(const NodePointer& node);

    // Changes of names. `folder` with its work lock held, where there is one to take.
    struct Place {
        NodePointer folder;
        std::u16string name;
        std::u16string key;
    };
    [[nodiscard]] int FindPlace(Operation operation, std::uint64_t folder, std::string_view name, Place& place);
    [[nodiscard]] int CheckNewName(Operation operation, const Place& place);
    [[nodiscard]] int CheckRoom(const Place& place, Operation operation, host::Status status);
    [[nodiscard]] int RemoveOpen(const NodePointer& node, const Place& place, std::string_view spelling);
    void Leave(const NodePointer& node, const Place& place, std::string_view spelling);
    [[nodiscard]] int RenameRam(const NodePointer& node, const Place& from, const Place& to, std::string_view spelling,
                                std::string_view newSpelling);
    // Renames with the work locks held. `node`: what was renamed; `aside`: where a clip went that it replaces.
    [[nodiscard]] int RenameAtWork(const Place& asked, const Place& to, std::string_view spelling,
                                   std::string_view newSpelling, bool mayReplace, NodePointer& node,
                                   std::u16string& aside);
    [[nodiscard]] int CheckMove(const NodePointer& node, const Place& from, const Place& to);
    [[nodiscard]] int ClearTarget(const NodePointer& node, const NodePointer& target, const Place& to);
    // Renames aside what stands in the place, under a name of that ending.
    [[nodiscard]] host::Status PutAside(const Place& place, std::u16string_view ending, std::u16string& aside);
    [[nodiscard]] host::Status RenameTo(const NodePointer& node, const Place& from, const Place& to);
    // Puts what is named `from` into the place where another clip stands. `aside`: where the old one went.
    [[nodiscard]] host::Status Swap(const Place& from, const Place& place, std::u16string& aside);
    // Removes the old clip of a swap when the new one is durable.
    [[nodiscard]] int RemoveOld(const NodePointer& folder, const std::u16string& aside, const std::string& display);
    void RemoveAside(const NodePointer& folder, const std::u16string& aside, const std::string& display);

    // Files.
    [[nodiscard]] bool IsStale(const NodePointer& node, bool writes);
    [[nodiscard]] int OpenPassing(const NodePointer& node, int flags, OpenFile& file);
    [[nodiscard]] int OpenReader(OpenFile& file);
    void AwaitClose(const NodePointer& node);
    void OpenForReaders(const NodePointer& node);
    void LeaveToReaders(const NodePointer& node);
    [[nodiscard]] int OpenWriter(OpenFile& file, int flags);
    void Count(OpenFile& file);
    [[nodiscard]] int OpenHandle(OpenFile& file, bool cached, Tree::Opening& opening);
    [[nodiscard]] std::shared_ptr<ClipWriter> CopyToRead(OpenFile& file);
    [[nodiscard]] int OpenAfterCopy(OpenFile& file);
    [[nodiscard]] int ReadHandle(OpenFile& file, std::uint64_t offset, std::span<std::byte> buffer, std::size_t& count);
    [[nodiscard]] int TruncatePassing(const NodePointer& node, std::uint64_t size);
    [[nodiscard]] int TruncateClip(const NodePointer& node, const OpenFile* file, std::uint64_t size);
    [[nodiscard]] int TruncateCopy(const NodePointer& node, const OpenFile* file, ClipWriter& writer,
                                   std::uint64_t size);
    [[nodiscard]] int Report(const NodePointer& node, const ClipWriter::Outcome& outcome);
    [[nodiscard]] int CheckReaders(const NodePointer& node);
    [[nodiscard]] int BeginReplacement(const NodePointer& node, ClipWriter& writer);
    // A copy that is whole takes its place; `part`: there is one that is not whole yet.
    [[nodiscard]] int FinishIfWhole(const OpenFile& file, bool& part);
    // `at`: where the node is; let go of when the copy has its place and has to be made durable.
    [[nodiscard]] int Finish(const NodePointer& node, ClipWriter& writer, FolderAtWork& at);
    [[nodiscard]] int CheckWritten(const NodePointer& node, const std::u16string& path, std::uint64_t total,
                                   Facts& facts);
    [[nodiscard]] bool IsBeside(const NodePointer& node, const ClipWriter& writer);
    void GiveUp(const NodePointer& node, ClipWriter& writer, const NodePointer& folder);
    void EndCopy(const NodePointer& node, FolderAtWork& at);
    void EndWriting(const NodePointer& node);
    [[nodiscard]] int SyncImages(const std::string& display);

    // Facts.
    [[nodiscard]] int OpenForFacts(const NodePointer& node, std::uint32_t access, host::ScopedHandle& handle);

    host::Access& access_;
    const bool readOnly_;
    const std::optional<char> onlyDrive_;
    Journal journal_;
    std::unique_ptr<host::Process> process_;
    std::vector<std::unique_ptr<Drive>> drives_;
    KernelCaches caches_;
    std::optional<Tree> tree_;
    std::mutex opensLock_;  // guards the following
    std::set<OpenFile*> opens_;
};

}  // namespace mount
