// The client programs of a server. A program's administration connection and its processes belong together: what it had
// released of the disks is taken back before any of its processes ends, and with it the lock under which the disks were
// given away.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>

#include "host/machine.h"

namespace vlink {

// Which disks the machine does not have now.
struct ReleasedDisks {
    std::mutex lock;                                 // one change of the machine's disks at a time; guards what follows
    std::map<std::uint32_t, std::uint64_t> holders;  // by card: the session's number
};

class Session {
  public:
    Session(host::Machine& machine, ReleasedDisks& disks, std::uint64_t number)
        : machine_(machine), disks_(disks), number_(number) {}

    std::uint64_t Number() const { return number_; }
    host::Problem ReleaseDisks(std::uint32_t card);
    // Does nothing about disks that this program has not released.
    host::Problem TakeDisks(std::uint32_t card);
    // Everything that is still released. Cards that it found released; `problem` says what could not be opened.
    // `forGood`: the program has gone, and an order of it that is still on its way releases nothing any more.
    std::size_t TakeBack(bool forGood, host::Problem& problem);
    // True once: for the first of its connections whose end is worth a word.
    bool TakeMention() { return !mentioned_.exchange(true); }

  private:
    host::Machine& machine_;
    ReleasedDisks& disks_;
    bool gone_ = false;           // under the disks' lock
    const std::uint64_t number_;  // nobody else's, and not to be guessed
    std::atomic<bool> mentioned_ = false;
};

class Sessions {
  public:
    explicit Sessions(host::Machine& machine) : machine_(machine) {}

    std::shared_ptr<Session> New();
    std::shared_ptr<Session> Find(std::uint64_t number);  // null: there is none
    void End(std::uint64_t number);                       // no connection joins it from now on

  private:
    host::Machine& machine_;
    ReleasedDisks disks_;
    std::mutex lock_;  // guards what follows
    std::map<std::uint64_t, std::shared_ptr<Session>> sessions_;
};

}  // namespace vlink
