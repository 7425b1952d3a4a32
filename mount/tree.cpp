#include "mount/tree.h"

#include <algorithm>
#include <utility>

#include "host/names.h"
#include "mount/names.h"

namespace mount {
namespace {

constexpr std::uint64_t kTopInode = 1;      // the kernel's number for a mount's root
constexpr std::size_t kMostMissing = 4096;  // names in one folder that the kernel remembers as not there
constexpr std::uint64_t kHashStart = 0xcbf29ce484222325;
constexpr std::uint64_t kHashPrime = 0x100000001b3;

std::uint64_t Mix(std::uint64_t hash, std::uint64_t value) {
    for (int byte = 0; byte < 8; ++byte) {
        hash = (hash ^ (value >> (8 * byte) & 0xFF)) * kHashPrime;
    }
    return hash;
}

}  // namespace

// A node takes its number with it when it goes.
struct NumberReturner {
    Tree* tree;
    void operator()(Node* node) const {
        {
            const std::lock_guard hold(tree->numbersLock_);
            tree->numbers_.erase(node->inode);
        }
        delete node;
    }
};

// With one drive its root is the top.
Tree::Tree(std::vector<std::unique_ptr<Drive>>& drives, bool oneDrive, KernelCaches& caches) : caches_(caches) {
    numbers_.insert(kTopInode);
    if (oneDrive) {
        top_ = std::make_shared<Node>(kTopInode, Kind::kFolder, drives.front().get(), kRootLevel);
    } else {
        top_ = std::make_shared<Node>(kTopInode, Kind::kTop, nullptr, kRootLevel);
        for (const std::unique_ptr<Drive>& drive : drives) {
            const std::u16string letter(1, static_cast<char16_t>(drive->Letter()));
            const NodePointer root = Make(top_, letter, Kind::kFolder, drive.get(), kRootLevel);
            top_->listing->children.emplace(root->key, root);
        }
        top_->listing->known = true;
    }
    for (const std::unique_ptr<Drive>& drive : drives) {
        Facts facts;
        (void)drive->Look(drive->Prefix() + u"\\", facts);
        top_->time = std::max(top_->time, facts.time);
    }
    for (const auto& [key, root] : top_->listing->children) {
        root->time = top_->time;
    }
    top_->lookups = 1;  // never forgotten
    known_.emplace(kTopInode, top_);
}

// Parents and children hold each other.
Tree::~Tree() {
    const std::lock_guard hold(lock_);
    std::vector<NodePointer> all{top_};
    for (const auto& [inode, node] : known_) {
        all.push_back(node);
    }
    for (std::size_t index = 0; index < all.size(); ++index) {
        const NodePointer node = all[index];
        if (node->listing) {
            for (auto& [key, child] : node->listing->children) {
                all.push_back(child);
            }
            node->listing->children.clear();
            node->listing->port.reset();
        }
        node->parent.reset();
    }
    known_.clear();
    top_.reset();
}

// By place, so that a clip that stays where it is has the same number in the next mount.
std::uint64_t Tree::NumberFor(std::uint64_t parent, const std::u16string& key) {
    std::uint64_t number = Mix(kHashStart, parent);
    for (const char16_t unit : key) {
        number = Mix(number, unit);
    }
    const std::lock_guard hold(numbersLock_);
    while (number <= kTopInode || !numbers_.insert(number).second) {
        ++number;
    }
    return number;
}

NodePointer Tree::Make(const NodePointer& parent, const std::u16string& name, Kind kind, Drive* drive, unsigned level) {
    const std::u16string key = host::UpcaseName(name);
    NodePointer node(new Node(NumberFor(parent->inode, key), kind, drive, level), NumberReturner{this});
    node->parent = parent;
    node->name = name;
    node->key = key;
    return node;
}

// ---- What the kernel knows ----

NodePointer Tree::Find(std::uint64_t inode) {
    const std::lock_guard hold(lock_);
    const auto found = known_.find(inode);
    return found == known_.end() ? nullptr : found->second;
}

void Tree::Known(const NodePointer& node) {
    const std::lock_guard hold(lock_);
    const bool wasHeld = node->IsHeld();
    if (node->lookups++ == 0) {
        known_.emplace(node->inode, node);
    }
    HoldChanged(node, wasHeld, Drop::kNo);
}

void Tree::Forget(std::uint64_t inode, std::uint64_t times) {
    NodePointer node;  // goes after the lock
    const std::lock_guard hold(lock_);
    const auto found = known_.find(inode);
    if (found == known_.end() || inode == kTopInode) {
        return;
    }
    node = found->second;
    node->lookups -= std::min(node->lookups, times);
    if (node->lookups == 0) {
        known_.erase(found);
        HoldChanged(node, true, Drop::kYes);
    }
}

// Tells the folders above. One that nobody holds any more may let go of what it knows: not while that is being changed.
// The lock is held.
void Tree::HoldChanged(const NodePointer& node, bool wasHeld, Drop drop) {
    NodePointer at = node;
    while (at != nullptr && at->IsHeld() != wasHeld) {
        const NodePointer parent = at->parent;
        const bool parentWasHeld = parent != nullptr && parent->IsHeld();
        if (parent != nullptr) {
            wasHeld ? --parent->childrenHeld : ++parent->childrenHeld;
        }
        if (wasHeld && drop == Drop::kYes && at->listing) {
            DropListing(*at);
        }
        at = parent;
        wasHeld = parentWasHeld;
    }
}

// The lock is held, and nothing below the folder.
void Tree::DropListing(Node& folder) {
    Listing& listing = *folder.listing;
    if (folder.kind == Kind::kTop || !listing.hidden.empty()) {
        return;
    }
    const std::map<std::u16string, NodePointer> children = std::move(listing.children);
    listing.children.clear();
    for (const auto& [key, child] : children) {
        Detach(child);
    }
    listing.port.reset();
    listing.missing.clear();
    listing.missingCount = 0;
    listing.known = false;
}

// Out of its folder's count. The lock is held.
void Tree::Unlink(const NodePointer& node) {
    const NodePointer parent = std::move(node->parent);
    node->parent.reset();
    if (parent != nullptr && node->IsHeld()) {
        const bool wasHeld = parent->IsHeld();
        --parent->childrenHeld;
        HoldChanged(parent, wasHeld, Drop::kNo);
    }
}

bool Tree::RememberMissing(const NodePointer& folder, const std::u16string& key, std::string_view spelling) {
    const std::lock_guard hold(lock_);
    Listing& listing = *folder->listing;
    if (!listing.known || listing.children.contains(key)) {
        return false;
    }
    std::vector<std::string>& spellings = listing.missing[key];
    if (std::ranges::find(spellings, spelling) == spellings.end()) {
        if (listing.missingCount >= kMostMissing) {
            return false;
        }
        spellings.emplace_back(spelling);
        ++listing.missingCount;
    }
    return true;
}

// ---- Facts ----

Snapshot Tree::Look(const NodePointer& node) {
    const std::lock_guard hold(lock_);
    Snapshot snapshot = {node->inode, node->kind, node->level, node->gone, node->size, node->time};
    // Until the copy has its place too: the kernel would remember the size before.
    if (node->IsUnderWay() || (node->writer != nullptr && node->writer->IsClosed())) {
        snapshot.size = node->writer->End();
        snapshot.time = node->writer->Time().value_or(snapshot.time);
    }
    return snapshot;
}

void Tree::AppendPath(const Node& node, std::u16string& path) const {
    if (node.level == kRootLevel) {
        path = node.drive->Prefix();
        return;
    }
    AppendPath(*node.parent, path);
    path += u'\\' + node.name;
}

std::u16string Tree::PathOf(const NodePointer& node) {
    const std::lock_guard hold(lock_);
    for (const Node* at = node.get(); at != nullptr && at->level != kRootLevel; at = at->parent.get()) {
        if (at->parent == nullptr) {
            return {};
        }
    }
    std::u16string path;
    if (node->drive != nullptr) {
        AppendPath(*node, path);
    }
    return node->level == kRootLevel ? path + u'\\' : path;
}

std::u16string Tree::PathBelow(const NodePointer& folder, std::u16string_view name) {
    std::u16string path = PathOf(folder);
    if (!path.empty() && path.back() != u'\\') {
        path += u'\\';
    }
    return path.empty() ? path : path + std::u16string(name);
}

std::string Tree::Display(const NodePointer& node) {
    const std::lock_guard hold(lock_);
    std::string text;
    const Node* at = node.get();
    for (; at != nullptr && at->level != kRootLevel; at = at->parent.get()) {
        text.insert(0, "/" + TreeName(at->name));
    }
    if (node->drive == nullptr) {
        return "/";
    }
    return std::string{node->drive->Letter(), ':'} + (at == nullptr ? "..." : "") + (text.empty() ? "/" : text);
}

std::string Tree::DisplayBelow(const NodePointer& folder, std::u16string_view name) {
    const std::string text = Display(folder);
    return text + (text.ends_with('/') ? "" : "/") + TreeName(name);
}

std::u16string Tree::NameOf(const NodePointer& node) {
    const std::lock_guard hold(lock_);
    return node->name;
}

NodePointer Tree::ParentOf(const NodePointer& node) {
    const std::lock_guard hold(lock_);
    return node->parent;
}

NodePointer Tree::VolumeOf(const NodePointer& node) {
    const std::lock_guard hold(lock_);
    NodePointer at = node->drive == nullptr ? nullptr : node;
    while (at != nullptr && at->level > kVolumeLevel) {
        at = at->parent;
    }
    return at != nullptr && at->level == kVolumeLevel ? at : nullptr;
}

// ---- Folders ----

NodePointer Tree::Child(const NodePointer& folder, const std::u16string& key) {
    const std::lock_guard hold(lock_);
    const auto found = folder->listing->children.find(key);
    return found == folder->listing->children.end() ? nullptr : found->second;
}

NodePointer Tree::Port(const NodePointer& folder) {
    constexpr std::uint64_t kPortBytes = 2048;
    const std::lock_guard hold(lock_);
    NodePointer& port = folder->listing->port;
    if (port == nullptr) {
        port = Make(folder, u"___Port0___", Kind::kPort, folder->drive, folder->level + 1);
        port->size = kPortBytes;
    }
    return port;
}

std::vector<NodePointer> Tree::Children(const NodePointer& folder) {
    const std::lock_guard hold(lock_);
    std::vector<NodePointer> children;
    children.reserve(folder->listing->children.size());
    for (const auto& [key, child] : folder->listing->children) {
        children.push_back(child);
    }
    return children;
}

bool Tree::IsKnown(const NodePointer& folder, Clock::duration& age, Clock::duration& took) {
    const std::lock_guard hold(lock_);
    age = Clock::now() - folder->listing->at;
    took = folder->listing->took;
    return folder->listing->known;
}

std::vector<NodePointer> Tree::KnownFolders() {
    const std::lock_guard hold(lock_);
    std::vector<NodePointer> folders{top_};
    for (std::size_t index = 0; index < folders.size(); ++index) {
        const NodePointer folder = folders[index];
        for (const auto& [key, child] : folder->listing->children) {
            if (child->listing && child->listing->known) {
                folders.push_back(child);
            }
        }
    }
    std::erase_if(folders, [](const NodePointer& node) { return node->kind == Kind::kTop || !node->listing->known; });
    return folders;
}

// The kernel learns that a name is there which it was told is not. The lock is held.
void Tree::TellAppeared(Listing& listing, std::uint64_t folder, const std::u16string& key, std::string_view known) {
    const auto found = listing.missing.find(key);
    if (found == listing.missing.end()) {
        return;
    }
    for (std::string& spelling : found->second) {
        if (spelling != known) {
            caches_.ForgetName(folder, std::move(spelling));
        }
    }
    listing.missingCount -= found->second.size();
    listing.missing.erase(found);
}

// False: what stands there is something else now. The lock is held.
bool Tree::Update(const NodePointer& folder, const NodePointer& child, const host::DirectoryEntry& entry) {
    if (child->IsFolder() != entry.IsDirectory()) {
        return false;
    }
    if (child->name != entry.name) {
        if (child->lookups != 0) {
            caches_.ForgetName(folder->inode, TreeName(child->name));
        }
        child->name = entry.name;
    }
    const bool changed = child->size != entry.size || child->time != entry.lastWriteTime;
    if (changed && !child->IsUnderWay()) {
        // They keep the node, with the size that they read up to.
        if (child->cachedOpens != 0) {
            return false;
        }
        child->size = entry.size;
        child->time = entry.lastWriteTime;
        BeginGeneration(*child);
        if (child->lookups != 0) {
            caches_.ForgetInode(child->inode, true);
        }
    }
    return true;
}

void Tree::Merge(const NodePointer& folder, const std::vector<host::DirectoryEntry>& entries, Clock::duration took) {
    std::vector<NodePointer> removed;  // go after the lock
    const std::lock_guard hold(lock_);
    if (folder->gone || !folder->IsHeld()) {
        return;
    }
    Listing& listing = *folder->listing;
    std::map<std::u16string, NodePointer> before = std::move(listing.children);
    listing.children.clear();
    std::set<std::u16string> stillHidden;
    for (const host::DirectoryEntry& entry : entries) {
        std::u16string key = host::UpcaseName(entry.name);
        if (listing.hidden.contains(key)) {
            stillHidden.insert(std::move(key));
            continue;
        }
        const auto found = before.find(key);
        if (found != before.end() && Update(folder, found->second, entry)) {
            listing.children.insert(before.extract(found));
            continue;
        }
        const unsigned level = folder->level + 1;
        const NodePointer child =
            Make(folder, entry.name, entry.IsDirectory() ? Kind::kFolder : Kind::kFile, folder->drive, level);
        child->size = entry.size;
        child->time = entry.lastWriteTime;
        if (listing.children.emplace(key, child).second) {
            TellAppeared(listing, folder->inode, key, {});
        }
    }
    for (auto& [key, child] : before) {
        if (child->lookups != 0) {
            caches_.TellRemoved(folder->inode, child->inode, TreeName(child->name));
        }
        Detach(child);
        removed.push_back(child);
    }
    listing.hidden = std::move(stillHidden);
    listing.known = true;
    listing.at = Clock::now();
    listing.took = took;
}

// Takes it, and everything below it, out of the tree. The lock is held. It is in no folder's listing any more.
void Tree::Detach(const NodePointer& node) {
    Unlink(node);
    node->gone = true;
    if (node->listing) {
        const std::map<std::u16string, NodePointer> children = std::move(node->listing->children);
        node->listing->children.clear();
        node->listing->port.reset();
        node->listing->known = false;
        for (const auto& [key, child] : children) {
            Detach(child);
        }
    }
}

// Under its name in the folder. What was known to be there has gone without having been missed yet, what was hidden
// there is another file's. The lock is held.
void Tree::PutInto(const NodePointer& folder, const NodePointer& node, std::string_view spelling) {
    Listing& listing = *folder->listing;
    if (const NodePointer before = std::exchange(listing.children[node->key], node)) {
        Detach(before);
    }
    listing.hidden.erase(node->key);
    TellAppeared(listing, folder->inode, node->key, spelling);
}

NodePointer Tree::Add(const NodePointer& folder, const std::u16string& name, bool isFolder, const Facts& facts,
                      std::string_view spelling) {
    const std::lock_guard hold(lock_);
    NodePointer node = Make(folder, name, isFolder ? Kind::kFolder : Kind::kFile, folder->drive, folder->level + 1);
    node->size = facts.size;
    node->time = facts.time;
    PutInto(folder, node, spelling);
    return node;
}

void Tree::Remove(const NodePointer& node) {
    const std::lock_guard hold(lock_);
    if (node->parent == nullptr) {
        return;
    }
    node->parent->listing->children.erase(node->key);
    Detach(node);
}

void Tree::Move(const NodePointer& node, const NodePointer& folder, const std::u16string& name,
                std::string_view spelling) {
    const std::lock_guard hold(lock_);
    if (node->parent == nullptr) {
        return;
    }
    node->parent->listing->children.erase(node->key);
    Unlink(node);
    node->parent = folder;
    if (node->IsHeld()) {
        const bool wasHeld = folder->IsHeld();
        ++folder->childrenHeld;
        HoldChanged(folder, wasHeld, Drop::kNo);
    }
    node->name = name;
    node->key = host::UpcaseName(name);
    PutInto(folder, node, spelling);
}

void Tree::Renew(const NodePointer& node) {
    const std::lock_guard hold(lock_);
    if (const NodePointer next = Renew(node, node->size, node->time)) {
        next->renewed = Clock::now();
    }
}

// The lock is held.
NodePointer Tree::Renew(const NodePointer& node, std::uint64_t size, std::int64_t time) {
    if (node->parent == nullptr) {
        return nullptr;
    }
    const NodePointer folder = node->parent;
    NodePointer next = Make(folder, node->name, node->kind, node->drive, node->level);
    next->size = size;
    next->time = time;
    PutInto(folder, next, {});
    caches_.ForgetName(folder->inode, TreeName(node->name));
    return next;
}

void Tree::AwaitAs(const NodePointer& node, const NodePointer& before) {
    const std::lock_guard hold(lock_);
    node->renewed = std::max(node->renewed, before->renewed);
}

void Tree::Hide(const NodePointer& folder, const std::u16string& name) {
    const std::lock_guard hold(lock_);
    folder->listing->hidden.insert(host::UpcaseName(name));
}

void Tree::Show(const NodePointer& folder, const std::u16string& name) {
    const std::lock_guard hold(lock_);
    folder->listing->hidden.erase(host::UpcaseName(name));
}

// ---- Files ----

bool Tree::SetFacts(const NodePointer& node, const Facts& facts, Opening* opening) {
    const std::lock_guard hold(lock_);
    if (node->size == facts.size && node->time == facts.time) {
        return true;
    }
    if (opening != nullptr && node->cachedOpens != 0) {
        (void)Renew(node, facts.size, facts.time);
        return false;
    }
    node->size = facts.size;
    node->time = facts.time;
    if (opening != nullptr) {
        const bool isNext = opening->generation == node->generation;
        BeginGeneration(*node);
        opening->generation = isNext ? node->generation : opening->generation;
    }
    // Who changes a clip's time has the answer for it.
    if (opening != nullptr || !node->IsClip()) {
        caches_.ForgetInode(node->inode, opening != nullptr && node->mayHavePages);
    }
    return true;
}

// Another clip may stand there now: those who have the old one open may bring pages of it, so that as long as they are
// there nobody's are kept. The lock is held.
void Tree::BeginGeneration(Node& node) {
    ++node.generation;
    node.sizeMayDiffer = true;
    node.pagesHold = false;
    node.staleReaders += std::exchange(node.readers, 0);
    node.cachedOpens = 0;
}

bool Tree::CanCache(const NodePointer& node, Opening& opening) {
    const std::lock_guard hold(lock_);
    opening.generation = node->generation;
    return node->staleReaders == 0 && !node->AwaitsCopy() && !node->IsAwaited();
}

void Tree::Opened(const NodePointer& node, Opening& opening, bool& keep) {
    const std::lock_guard hold(lock_);
    const bool wasHeld = node->IsHeld();
    const bool isCurrent = opening.generation == node->generation;
    // What the kernel is about to be told would make it drop the answer that a reader of pages goes by.
    opening.cached = opening.cached && isCurrent && node->staleReaders == 0 && !caches_.IsBeingTold(node->inode);
    keep = opening.cached && node->cachedOpens != 0 && node->pagesHold;
    node->pagesHold = node->pagesHold && (keep || !opening.cached);
    ++node->opens;
    ++(opening.writes ? node->writers : isCurrent ? node->readers : node->staleReaders);
    node->cachedOpens += opening.cached ? 1 : 0;
    node->mayHavePages = node->mayHavePages || opening.cached;
    HoldChanged(node, wasHeld, Drop::kNo);
}

// A reader of an earlier clip finds its end, and the kernel takes that for the end of this one, as long as it is there.
bool Tree::MustAskSize(const NodePointer& node, const Opening& opening) {
    const std::lock_guard hold(lock_);
    const bool must = node->sizeMayDiffer;
    node->sizeMayDiffer = node->sizeMayDiffer && !opening.cached;
    return must;
}

bool Tree::HasReadersOfPages(const NodePointer& node) {
    const std::lock_guard hold(lock_);
    return node->cachedOpens != 0;
}

void Tree::PagesHold(const NodePointer& node, const Opening& opening) {
    const std::lock_guard hold(lock_);
    node->pagesHold = opening.generation == node->generation;
}

bool Tree::Closed(const NodePointer& node, const Opening& opening) {
    const std::lock_guard hold(lock_);
    const bool isCurrent = opening.generation == node->generation;
    --node->opens;
    --(opening.writes ? node->writers : isCurrent ? node->readers : node->staleReaders);
    node->cachedOpens -= opening.cached && isCurrent ? 1 : 0;
    HoldChanged(node, true, Drop::kYes);
    return opening.writes && node->writers == 0;
}

std::shared_ptr<ClipWriter> Tree::WriterOf(const NodePointer& node) {
    const std::lock_guard hold(lock_);
    return node->writer;
}

std::shared_ptr<ClipWriter> Tree::NeedWriter(const NodePointer& node) {
    const std::lock_guard hold(lock_);
    if (node->writer == nullptr || node->writer->IsOver()) {
        node->writer = std::make_shared<ClipWriter>(*node->drive);
    }
    return node->writer;
}

void Tree::SetWriter(const NodePointer& node, std::shared_ptr<ClipWriter> writer) {
    const std::lock_guard hold(lock_);
    node->writer = std::move(writer);
}

unsigned Tree::WritersOf(const NodePointer& node) {
    const std::lock_guard hold(lock_);
    return node->writers;
}

bool Tree::IsUnderWay(const NodePointer& node) {
    const std::lock_guard hold(lock_);
    return node->IsUnderWay();
}

void Tree::SetTruncated(const NodePointer& node) {
    const std::lock_guard hold(lock_);
    node->truncated = true;
    node->sizeMayDiffer = true;
}

bool Tree::IsTruncated(const NodePointer& node) {
    const std::lock_guard hold(lock_);
    return node->truncated;
}

void Tree::WriterDone(const NodePointer& node, const ClipWriter& done, const Facts* facts) {
    std::shared_ptr<ClipWriter> writer;  // goes after the lock
    const std::lock_guard hold(lock_);
    if (node->writer.get() == &done) {
        writer = std::exchange(node->writer, nullptr);
        node->truncated = false;
    }
    node->sizeMayDiffer = true;
    if (facts != nullptr) {
        node->size = facts->size;
        node->time = facts->time;
        BeginGeneration(*node);
    }
    // What the kernel knows of a copy's size it has seen written itself.
    if (node->mayHavePages || facts == nullptr) {
        caches_.ForgetInode(node->inode, true);
    }
}

}  // namespace mount
