// Tells the kernel what of its caches no longer holds. The kernel takes a folder's lock for that, which it may be
// holding for a request that waits here, so nothing is told from within a request: a thread of its own does.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

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
    bool stop_ = false;
};

}  // namespace mount
