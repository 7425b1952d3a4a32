// Finding and listing names. What is known of a folder answers; the drive is asked once, and again when it reports a
// change (change_watch.cpp), since it reports every change of a name. Sizes and times change without a report: those of
// files are read again when they are older than a second.
#include <algorithm>
#include <cerrno>

#include "host/names.h"
#include "mount/file_system.h"
#include "mount/names.h"

namespace mount {
namespace {

using std::chrono::seconds;

constexpr Clock::duration kFactsAge = seconds(1);
constexpr Clock::duration kAnyAge = Clock::duration::max();
constexpr double kShortSeconds = 1;
constexpr double kLongSeconds = 86400;
// Listing takes at most one part in so many of the time.
constexpr int kListingShare = 50;

}  // namespace

host::Status FileSystem::ListLocked(const NodePointer& folder) {
    const std::u16string path = tree_->PathOf(folder);
    if (path.empty()) {
        return host::status::kObjectNameNotFound;
    }
    const Clock::time_point begin = Clock::now();
    std::vector<host::DirectoryEntry> entries;
    const host::Status status = folder->drive->List(path, entries);
    if (status.Ok()) {
        tree_->Merge(folder, entries, Clock::now() - begin);
    }
    return status;
}

int FileSystem::List(const NodePointer& folder, Clock::duration oldest) {
    Clock::duration age{};
    Clock::duration took{};
    const auto isFresh = [&] {
        return tree_->IsKnown(folder, age, took) &&
               (oldest == kAnyAge || age <= std::max(oldest, took * kListingShare));
    };
    if (folder->kind == Kind::kTop || isFresh()) {
        return 0;
    }
    const std::lock_guard work(folder->listing->work);
    if (isFresh()) {
        return 0;
    }
    const host::Status status = ListLocked(folder);
    return status.Ok() ? 0 : journal_.Refused(Operation::kList, tree_->Display(folder), status);
}

// The types are the one list whose changes nobody reports; and nothing is reported to who is not there to hear it.
bool FileSystem::IsReported(const NodePointer& folder) {
    return folder->kind == Kind::kTop || (folder->level != kRootLevel && folder->drive->watched);
}

int FileSystem::NeedNames(const NodePointer& folder) {
    return List(folder, IsReported(folder) ? kAnyAge : kFactsAge);
}

bool FileSystem::Refresh(const NodePointer& folder) {
    const std::lock_guard work(folder->listing->work);
    const host::Status status = ListLocked(folder);
    // A folder that is gone is taken out by the folder above it.
    return status.Ok() || status == host::status::kObjectNameNotFound || status == host::status::kObjectPathNotFound;
}

// Somebody at work there is changing what is known: that will do.
void FileSystem::RefreshFacts(const NodePointer& folder, const Snapshot& facts) {
    if (facts.kind != Kind::kFile || facts.gone || folder == nullptr) {
        return;
    }
    Clock::duration age{};
    Clock::duration took{};
    if (tree_->IsKnown(folder, age, took) && age <= std::max(kFactsAge, took * kListingShare)) {
        return;
    }
    const std::unique_lock work(folder->listing->work, std::try_to_lock);
    if (work) {
        (void)ListLocked(folder);
    }
}

double FileSystem::FactsSeconds(const Snapshot& facts) const {
    return facts.kind == Kind::kFile ? kShortSeconds : kLongSeconds;
}

// Only the drive's own spelling is remembered: what is known under others could not be taken back.
void FileSystem::Fill(const NodePointer& node, std::string_view spelling, Found& found) {
    const Snapshot facts = tree_->Look(node);
    const bool isOwn = TreeName(tree_->NameOf(node)) == spelling && node->kind != Kind::kPort;
    const bool isReported = node->level == kRootLevel || (node->level != kTypeLevel && node->drive->watched);
    found.node = node;
    found.nameSeconds = !isOwn ? 0 : isReported ? kLongSeconds : kShortSeconds;
    found.factsSeconds = FactsSeconds(facts);
}

// A clip made by the command port, or in the same folder below another type, is there before its report is: whoever
// made it looks for it at once.
NodePointer FileSystem::FindNew(const NodePointer& folder, std::u16string_view name, const std::u16string& key) {
    Facts facts;
    const bool holdsClips = folder->level == kVolumeLevel || folder->level == kFolderLevel;
    if (!holdsClips || !folder->drive->Look(tree_->PathBelow(folder, name), facts).Ok()) {
        return nullptr;
    }
    Refresh(folder);
    return tree_->Child(folder, key);
}

int FileSystem::Lookup(std::uint64_t folderInode, std::string_view spelling, Found& found) {
    const NodePointer folder = tree_->Find(folderInode);
    if (folder == nullptr || !folder->IsFolder()) {
        return ENOENT;
    }
    const auto name = DriveName(spelling);
    if (!name) {
        return ENOENT;
    }
    const std::u16string key = host::UpcaseName(*name);
    if (folder->kind != Kind::kTop && IsPortName(key)) {
        Fill(tree_->Port(folder), spelling, found);
        return 0;
    }
    if (const int error = NeedNames(folder); error != 0) {
        return error;
    }
    NodePointer node = tree_->Child(folder, key);
    if (node != nullptr) {
        RefreshFacts(folder, tree_->Look(node));
        node = tree_->Child(folder, key);
    } else {
        node = FindNew(folder, *name, key);
    }
    if (node == nullptr) {
        found.nameSeconds = IsReported(folder) && tree_->RememberMissing(folder, key, spelling) ? kLongSeconds : 0;
        return 0;
    }
    Fill(node, spelling, found);
    return 0;
}

int FileSystem::GetFacts(std::uint64_t inode, Snapshot& facts, double& seconds) {
    const NodePointer node = tree_->Find(inode);
    if (node == nullptr) {
        return ENOENT;
    }
    RefreshFacts(tree_->ParentOf(node), tree_->Look(node));
    facts = tree_->Look(node);
    seconds = FactsSeconds(facts);
    return 0;
}

int FileSystem::ListFolder(const NodePointer& folder, std::vector<Row>& rows) {
    const bool holdsFiles = folder->level >= kFolderLevel;
    if (const int error = List(folder, IsReported(folder) && !holdsFiles ? kAnyAge : kFactsAge); error != 0) {
        return error;
    }
    const NodePointer parent = tree_->ParentOf(folder);
    rows.push_back({".", folder});
    rows.push_back({"..", parent == nullptr ? folder : parent});
    for (const NodePointer& child : tree_->Children(folder)) {
        rows.push_back({TreeName(tree_->NameOf(child)), child});
    }
    return 0;
}

}  // namespace mount
