// What changed below a folder, found by listing it again.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/process.h"
#include "tool/paths.h"

namespace tool {

// What stands under a path, with all that is below it.
struct TreeNode {
    bool folder = false;
    std::uint64_t size = 0;  // bytes; of files
    std::int64_t time = 0;   // of its last write, 100 ns since 1601; of files
    std::map<std::u16string, TreeNode> below;

    bool operator==(const TreeNode&) const = default;
};

// A folder that vanishes while it is read, or is damaged, has nothing below it. The status is the path's own, or that
// nobody answers any more.
[[nodiscard]] host::Status ReadTree(host::Process& process, const DrivePath& path, TreeNode& node);

struct TreeChange {
    enum class Kind { kCreated, kRemoved, kRenamed, kChanged };
    Kind kind;
    DrivePath path;
    DrivePath from;      // of what was renamed
    TreeNode node = {};  // as it is now, or was last
};

// What makes `after` of `before`; both stand under the path. What was removed comes first, contents before their
// folder; what was created comes after it, folders before their contents. What vanished and stands elsewhere unchanged,
// when there is only one such, was renamed.
[[nodiscard]] std::vector<TreeChange> CompareTrees(const DrivePath& path, const TreeNode& before,
                                                   const TreeNode& after);

}  // namespace tool
