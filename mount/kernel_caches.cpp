#include "mount/kernel_caches.h"

#include <utility>

#include "mount/fuse.h"

namespace mount {

void KernelCaches::Start(fuse_session* session) {
    session_ = session;
    thread_ = std::thread([this] { Run(); });
}

void KernelCaches::Stop() {
    {
        const std::lock_guard hold(lock_);
        stop_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void KernelCaches::ForgetName(std::uint64_t folder, std::string name) {
    Add({Item::Kind::kName, 0, folder, std::move(name)});
}

void KernelCaches::TellRemoved(std::uint64_t folder, std::uint64_t inode, std::string name) {
    Add({Item::Kind::kRemoved, inode, folder, std::move(name)});
}

void KernelCaches::ForgetInode(std::uint64_t inode, bool pages) {
    Add({pages ? Item::Kind::kPages : Item::Kind::kAttributes, inode, 0, {}});
}

void KernelCaches::Add(Item item) {
    {
        const std::lock_guard hold(lock_);
        untold_.insert(item.inode);
        items_.push_back(std::move(item));
    }
    changed_.notify_one();
}

void KernelCaches::Run() {
    std::unique_lock hold(lock_);
    while (true) {
        changed_.wait(hold, [this] { return stop_ || !items_.empty(); });
        if (stop_) {
            return;
        }
        const Item item = std::move(items_.front());
        items_.pop_front();
        hold.unlock();
        Tell(item);
        hold.lock();
        untold_.erase(untold_.find(item.inode));
    }
}

bool KernelCaches::IsBeingTold(std::uint64_t inode) {
    const std::lock_guard hold(lock_);
    return untold_.contains(inode);
}

void KernelCaches::ForgetSizeNow(std::uint64_t inode) const {
    Tell({Item::Kind::kAttributes, inode, 0, {}});
}

// What the kernel does not know needs no telling, so failures mean nothing.
void KernelCaches::Tell(const Item& item) const {
    switch (item.kind) {
        case Item::Kind::kName:
            (void)fuse_lowlevel_notify_inval_entry(session_, item.folder, item.name.data(), item.name.size());
            break;
        case Item::Kind::kRemoved:
            if (fuse_lowlevel_notify_delete(session_, item.folder, item.inode, item.name.data(), item.name.size()) !=
                0) {
                (void)fuse_lowlevel_notify_inval_entry(session_, item.folder, item.name.data(), item.name.size());
            }
            break;
        case Item::Kind::kAttributes:
            (void)fuse_lowlevel_notify_inval_inode(session_, item.inode, -1, 0);
            break;
        case Item::Kind::kPages:
            (void)fuse_lowlevel_notify_inval_inode(session_, item.inode, 0, 0);
            break;
    }
}

}  // namespace mount
