// The nodes, by their inode numbers and by their folders; what is known of the drives, and what the kernel was told of
// it. Makes no request to a driver. May be used from several threads.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "mount/kernel_caches.h"
#include "mount/node.h"

namespace mount {

// A node's facts, taken at one moment.
struct Snapshot {
    std::uint64_t inode = 0;
    Kind kind = Kind::kFile;
    unsigned level = 0;
    bool gone = false;
    std::uint64_t size = 0;
    std::int64_t time = 0;
};

class Tree {
  public:
    Tree(std::vector<std::unique_ptr<Drive>>& drives, bool oneDrive, KernelCaches& caches);
    ~Tree();

    [[nodiscard]] const NodePointer& Top() const { return top_; }

    // ---- What the kernel knows ----
    [[nodiscard]] NodePointer Find(std::uint64_t inode);  // null: it knows no such node
    void Known(const NodePointer& node);                  // told of it once more
    void Forget(std::uint64_t inode, std::uint64_t times);
    // Whether the kernel may remember that the name is not there: it will be told when it is.
    [[nodiscard]] bool RememberMissing(const NodePointer& folder, const std::u16string& key, std::string_view spelling);

    // ---- Facts ----
    [[nodiscard]] Snapshot Look(const NodePointer& node);
    [[nodiscard]] std::u16string PathOf(const NodePointer& node);  // for the driver; empty when it has none any more
    [[nodiscard]] std::u16string PathBelow(const NodePointer& folder, std::u16string_view name);
    [[nodiscard]] std::string Display(const NodePointer& node);  // for a person
    [[nodiscard]] std::string DisplayBelow(const NodePointer& folder, std::u16string_view name);
    [[nodiscard]] std::u16string NameOf(const NodePointer& node);
    [[nodiscard]] NodePointer ParentOf(const NodePointer& node);
    [[nodiscard]] NodePointer VolumeOf(const NodePointer& node);  // null: it lies above the volumes

    // ---- Folders ----
    [[nodiscard]] NodePointer Child(const NodePointer& folder, const std::u16string& key);
    [[nodiscard]] NodePointer Port(const NodePointer& folder);
    [[nodiscard]] std::vector<NodePointer> Children(const NodePointer& folder);
    [[nodiscard]] bool IsKnown(const NodePointer& folder, Clock::duration& age, Clock::duration& took);
    // Every folder whose names are known, those further up first.
    [[nodiscard]] std::vector<NodePointer> KnownFolders();

    // These with the folder's `work` held. What the driver lists there now; tells the kernel what has changed.
    void Merge(const NodePointer& folder, const std::vector<host::DirectoryEntry>& entries, Clock::duration took);
    // A new object under a name that was free on the drive; `spelling`: as the kernel knows it, empty when it does not.
    NodePointer Add(const NodePointer& folder, const std::u16string& name, bool isFolder, const Facts& facts,
                    std::string_view spelling);
    // It is under no name any more.
    void Remove(const NodePointer& node);
    void Move(const NodePointer& node, const NodePointer& folder, const std::u16string& name,
              std::string_view spelling);
    // Its name stands for a new node, with the same facts; it keeps what is open.
    void Renew(const NodePointer& node);
    // It stands where the other stood, which a program may be coming back for.
    void AwaitAs(const NodePointer& node, const NodePointer& before);
    void Hide(const NodePointer& folder, const std::u16string& name);
    void Show(const NodePointer& folder, const std::u16string& name);

    // ---- Files ----
    // What an open file is counted as.
    struct Opening {
        bool writes = false;
        bool cached = false;  // its pages may be kept
        unsigned generation = 0;
    };
    // `opening`: of the file they were just read from, which is another one than before when they differ; null: they
    // were changed here. False: somebody reads pages of the one before, and the name stands for a new node with these;
    // the folder's `work` is held then.
    bool SetFacts(const NodePointer& node, const Facts& facts, Opening* opening);
    // Whether a reader's pages can be kept now.
    [[nodiscard]] bool CanCache(const NodePointer& node, Opening& opening);
    // Counts it. One that was to be cached is not when the clip was replaced meanwhile; `keep`: the pages that there
    // are hold.
    void Opened(const NodePointer& node, Opening& opening, bool& keep);
    // Whether the kernel may know another size than that of the clip which this reader has just opened. It is told with
    // the folder's work held, before anybody else opens it.
    [[nodiscard]] bool MustAskSize(const NodePointer& node, const Opening& opening);
    // Whether somebody has it open whom a copy onto it would cut off.
    [[nodiscard]] bool HasReadersOfPages(const NodePointer& node);
    // A cached reader reads: what pages others left was dropped when the kernel had opened it.
    void PagesHold(const NodePointer& node, const Opening& opening);
    // Returns whether it was the last that could write.
    bool Closed(const NodePointer& node, const Opening& opening);

    [[nodiscard]] std::shared_ptr<ClipWriter> WriterOf(const NodePointer& node);
    // The one there is, or a new one.
    [[nodiscard]] std::shared_ptr<ClipWriter> NeedWriter(const NodePointer& node);
    [[nodiscard]] bool IsUnderWay(const NodePointer& node);
    void SetWriter(const NodePointer& node, std::shared_ptr<ClipWriter> writer);
    [[nodiscard]] unsigned WritersOf(const NodePointer& node);  // files open on it that can write
    // From now on the name stands for the copy, even before it has any bytes.
    void SetTruncated(const NodePointer& node);
    [[nodiscard]] bool IsTruncated(const NodePointer& node);
    // The copy is over; what is there now has these facts. One that has begun since then goes on.
    void WriterDone(const NodePointer& node, const ClipWriter& done, const Facts* facts);

  private:
    [[nodiscard]] std::uint64_t NumberFor(std::uint64_t parent, const std::u16string& key);
    [[nodiscard]] NodePointer Make(const NodePointer& parent, const std::u16string& name, Kind kind, Drive* drive,
                                   unsigned level);
    void AppendPath(const Node& node, std::u16string& path) const;
    void Detach(const NodePointer& node);
    void PutInto(const NodePointer& folder, const NodePointer& node, std::string_view spelling);
    void TellAppeared(Listing& listing, std::uint64_t folder, const std::u16string& key, std::string_view known);
    bool Update(const NodePointer& folder, const NodePointer& child, const host::DirectoryEntry& entry);
    enum class Drop { kNo, kYes };
    void BeginGeneration(Node& node);
    void HoldChanged(const NodePointer& node, bool wasHeld, Drop drop);
    void Unlink(const NodePointer& node);
    NodePointer Renew(const NodePointer& node, std::uint64_t size, std::int64_t time);
    void DropListing(Node& folder);

    KernelCaches& caches_;
    std::mutex lock_;
    NodePointer top_;
    std::unordered_map<std::uint64_t, NodePointer> known_;  // to the kernel
    std::mutex numbersLock_;                                // guards the following; innermost
    std::unordered_set<std::uint64_t> numbers_;             // in use

    friend struct NumberReturner;
};

}  // namespace mount
