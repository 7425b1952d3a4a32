#include "mount/file_system.h"

#include <algorithm>
#include <cctype>
#include <cerrno>

namespace mount {

FileSystem::FileSystem(host::Access& access, const Options& options, Log log)
    : access_(access),
      readOnly_(options.readOnly || access.ReadOnly()),
      onlyDrive_(options.drive),
      journal_(std::move(log)) {}

FileSystem::~FileSystem() {
    caches_.Stop();
    CloseAll();
}

host::Problem FileSystem::Start() {
    host::Problem problem;
    process_ = access_.NewProcess(problem);
    if (!process_) {
        return problem;
    }
    const auto wanted = [&](const host::CardFacts& card) {
        return !onlyDrive_ || std::toupper(static_cast<unsigned char>(*onlyDrive_)) == card.driveLetter;
    };
    for (const host::CardFacts& card : access_.Cards()) {
        if (wanted(card)) {
            drives_.push_back(std::make_unique<Drive>(*process_, card));
        }
    }
    if (drives_.empty()) {
        return onlyDrive_ ? host::Problem{std::string("there is no drive ") + *onlyDrive_ + ":",
                                          "name a drive of the station, or none for all"}
                          : host::Problem{"the station has no drive to mount", "see: vrkfs volumes"};
    }
    tree_.emplace(drives_, onlyDrive_.has_value(), caches_);
    return {};
}

void FileSystem::CloseAll() {
    std::set<OpenFile*> left;
    {
        const std::lock_guard hold(opensLock_);
        left.swap(opens_);
    }
    for (OpenFile* file : left) {
        Release(std::unique_ptr<OpenFile>(file));
    }
}

FileSystem::FolderAtWork FileSystem::WorkAround(const NodePointer& node) {
    while (true) {
        FolderAtWork at{tree_->ParentOf(node), {}};
        if (at.folder == nullptr) {
            return at;
        }
        at.work = std::unique_lock(at.folder->listing->work);
        if (tree_->ParentOf(node) == at.folder) {
            return at;
        }
        // It was moved while we waited.
    }
}

int FileSystem::SyncImages(const std::string& display) {
    if (readOnly_) {
        return 0;
    }
    const host::Problem problem = access_.SyncImages();
    if (problem) {
        journal_.Line(display + ": cannot be made durable: " + problem.what);
        return EIO;
    }
    return 0;
}

}  // namespace mount
