// The kernel reads ahead with several requests at once, and threads take them up in no certain order. The driver serves
// a file one request at a time; in the order of their places, so that the disk is read front to back.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace mount {

class ReadOrder {
  public:
    // Waits for its turn: a moment at most, and only while the file is being read front to back.
    void Enter(std::uint64_t offset, std::uint64_t size);

  private:
    std::mutex lock_;  // guards the following
    std::condition_variable moved_;
    std::uint64_t next_ = 0;  // where the requests so far have come to
    unsigned inOrder_ = 0;    // so many of them, one behind the other
};

}  // namespace mount
