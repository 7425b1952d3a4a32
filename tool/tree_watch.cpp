#include "tool/tree_watch.h"

#include <algorithm>
#include <iterator>
#include <tuple>
#include <utility>

namespace tool {
namespace {

// Both sides of a comparison, before anything is told.
struct Differences {
    std::vector<TreeChange> removed;
    std::vector<TreeChange> created;
    std::vector<TreeChange> changed;
};

void Compare(const DrivePath& path, const TreeNode& before, const TreeNode& after, Differences& found) {
    for (const auto& [name, node] : before.below) {
        const auto now = after.below.find(name);
        if (now == after.below.end() || now->second.folder != node.folder) {
            found.removed.push_back({TreeChange::Kind::kRemoved, path.Child(name), {}, node});
        }
    }
    for (const auto& [name, node] : after.below) {
        const auto then = before.below.find(name);
        if (then == before.below.end() || then->second.folder != node.folder) {
            found.created.push_back({TreeChange::Kind::kCreated, path.Child(name), {}, node});
        } else if (node.folder) {
            Compare(path.Child(name), then->second, node, found);
        } else if (then->second != node) {
            found.changed.push_back({TreeChange::Kind::kChanged, path.Child(name), {}, node});
        }
    }
}

using Key = std::tuple<bool, std::uint64_t, std::int64_t, std::size_t>;

Key KeyOf(const TreeNode& node) {
    return {node.folder, node.size, node.time, node.below.size()};
}

// By key, those that could be one side of a rename.
std::multimap<Key, TreeChange*> Index(std::vector<TreeChange>& changes) {
    std::multimap<Key, TreeChange*> index;
    for (TreeChange& change : changes) {
        index.emplace(KeyOf(change.node), &change);
    }
    return index;
}

// Takes the pairs out of what was removed and created. An empty folder is like any other, so one pair of them is told
// as a rename only if it is the only one.
std::vector<TreeChange> TakeRenamed(Differences& found) {
    std::vector<TreeChange> renamed;
    const auto removed = Index(found.removed);
    const auto created = Index(found.created);
    std::vector<const TreeChange*> taken;
    for (const auto& [key, before] : removed) {
        const auto after = created.find(key);
        if (removed.count(key) == 1 && created.count(key) == 1 && after->second->node == before->node) {
            renamed.push_back({TreeChange::Kind::kRenamed, after->second->path, before->path, after->second->node});
            taken.push_back(before);
            taken.push_back(after->second);
        }
    }
    for (auto* const side : {&found.removed, &found.created}) {
        std::vector<TreeChange> left;
        for (TreeChange& change : *side) {
            if (std::ranges::find(taken, &change) == taken.end()) {
                left.push_back(std::move(change));
            }
        }
        *side = std::move(left);
    }
    return renamed;
}

// Nothing about the path: whoever was asked has no memory, or is gone.
bool IsNoAnswer(host::Status status) {
    return status == host::status::kInsufficientResources || status == host::status::kPortDisconnected;
}

void TellRemoved(const TreeChange& change, std::vector<TreeChange>& told) {
    for (const auto& [name, node] : change.node.below) {
        TellRemoved({change.kind, change.path.Child(name), {}, node}, told);
    }
    told.push_back(change);
}

void TellCreated(const TreeChange& change, std::vector<TreeChange>& told) {
    told.push_back(change);
    for (const auto& [name, node] : change.node.below) {
        TellCreated({change.kind, change.path.Child(name), {}, node}, told);
    }
}

}  // namespace

host::Status ReadTree(host::Process& process, const DrivePath& path, TreeNode& node) {
    host::OpenRequest request;
    request.path = path.Open();
    request.access = host::access::kListDirectory | host::access::kReadAttributes;
    request.options = host::option::kDirectoryFile;
    const host::OpenResult opened = process.Create(request);
    if (!opened.status.Ok()) {
        return opened.status;
    }
    std::vector<host::DirectoryEntry> entries;
    {
        const host::ScopedHandle handle(process, opened.handle);
        const host::Status listed = host::ListDirectory(process, handle.Get(), entries);
        if (!listed.Ok()) {
            return listed;
        }
    }
    node.folder = true;
    for (const host::DirectoryEntry& entry : entries) {
        TreeNode& child = node.below[entry.name];
        child.folder = entry.IsDirectory();
        if (!child.folder) {
            child.size = entry.size;
            child.time = entry.lastWriteTime;
        } else if (const DrivePath below = path.Child(entry.name); below.Depth() < kFileLevel) {
            if (const host::Status status = ReadTree(process, below, child); IsNoAnswer(status)) {
                return status;
            }
        }
    }
    return host::status::kSuccess;
}

std::vector<TreeChange> CompareTrees(const DrivePath& path, const TreeNode& before, const TreeNode& after) {
    Differences found;
    Compare(path, before, after, found);
    std::vector<TreeChange> told = TakeRenamed(found);
    std::vector<TreeChange> all;
    for (const TreeChange& change : found.removed) {
        TellRemoved(change, all);
    }
    std::ranges::move(told, std::back_inserter(all));
    for (const TreeChange& change : found.created) {
        TellCreated(change, all);
    }
    std::ranges::move(found.changed, std::back_inserter(all));
    return all;
}

}  // namespace tool
