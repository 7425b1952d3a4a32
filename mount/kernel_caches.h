// Tells the kernel what of its caches no longer holds. The kernel takes a folder's lock for that, which it may be
// holding for a request that waits here, so but for one thing nothing is told from within a request: a thread of its
// own does.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_set>

struct fuse_session;

namespace mount {

class KernelCaches {
  public:
    ~KernelCaches() { Stop(); }

    void Start(fuse_session* session);
    void Stop();

    // Whether there is something under that name.
    void ForgetName(std::uint64_t folder, std::string name);
    // What was under that name is not any more.
    void TellRemoved(std::uint64_t folder, std::uint64_t inode, std::string name);
    // Size and time, and with `pages` the bytes.
    void ForgetInode(std::uint64_t inode, bool pages);
    // Whether something of it is still to be told.
    [[nodiscard]] bool IsBeingTold(std::uint64_t inode);
    // Size and time, from within the request that opens it: takes no lock that could be held for one, nor waits for
    // pages.
    void ForgetSizeNow(std::uint64_t inode) const;

  private:
    struct Item {
        enum class Kind { kName, kRemoved, kAttributes, kPages } kind;
        std::uint64_t inode;
        std::uint64_t folder;
        std::string name;
    };
    void Add(Item item);
    void Run();
    void Tell(const Item& item) const;

    fuse_session* session_ = nullptr;
    std::thread thread_;
    std::mutex lock_;  // guards the following
    std::condition_variable changed_;
    std::deque<Item> items_;
    std::unordered_multiset<std::uint64_t> untold_;  // inodes
    bool stop_ = false;
};

}  // namespace mount
