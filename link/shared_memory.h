// Memory that the daemon made and both ends map: what the program asked for by AllocateMemory, and windows that the
// data of other transfers goes through.
#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <set>

#include "host/process.h"
#include "link/channel.h"

namespace vlink {

// The mappings of one process. What was mapped stays so until the end: requests may use it after it was freed.
class SharedMemory {
  public:
    explicit SharedMemory(Channel& channel) : channel_(channel) {}
    ~SharedMemory();
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    host::Status Allocate(std::size_t size, host::Process::NamedMemory& memory);
    void Free(const host::Process::NamedMemory& memory);
    // Where the bytes are, if all of them lie in memory in use; memory 0 if not.
    Place Find(std::span<const std::byte> bytes);

  private:
    Channel& channel_;
    std::mutex allocating_;  // one at a time: the answer that brings a descriptor is looked at before a later one
    std::mutex lock_;        // guards the following
    std::map<std::uint32_t, std::span<std::byte>> mapped_;          // by the daemon's number, ever
    std::map<const std::byte*, host::Process::NamedMemory> named_;  // in use, by address
};

// A descriptor of memory as whole as it says, that cannot be cut. Null when it is not that, or cannot be mapped.
std::byte* MapWhole(const Descriptor& descriptor, std::size_t size, bool writable);

// Windows: kept when they are given back, and bounded in number and size.
class Windows {
  public:
    using Window = host::Process::NamedMemory;
    static constexpr std::size_t kSize = 1 << 20;  // the least

    explicit Windows(SharedMemory& memory) : memory_(memory) {}

    // One of at least this size; when too much is out, waits for one of those that would do. No name: there can be
    // none.
    Window Take(std::size_t size);
    void GiveBack(const Window& window);

  private:
    bool IsWorthWaiting(std::size_t size) const;
    Window TakeNow(std::size_t size, std::unique_lock<std::mutex>& hold);

    static constexpr std::size_t kMost = 256 << 20;  // bytes of one, and about that of all
    SharedMemory& memory_;
    std::mutex lock_;  // guards the following
    std::condition_variable givenBack_;
    std::multimap<std::size_t, Window> idle_;
    std::size_t made_ = 0;            // bytes
    std::multiset<std::size_t> out_;  // the sizes of those in use
};

}  // namespace vlink
