// The sections that a process has mapped, whichever kind of process it is. What is left goes with the process.
#pragma once

#include <map>
#include <mutex>

#include "host/process.h"

namespace host {

class SectionViews {
  public:
    SectionViews() = default;
    ~SectionViews();
    SectionViews(const SectionViews&) = delete;
    SectionViews& operator=(const SectionViews&) = delete;

    // Takes over the mapping.
    void Add(const Process::SectionView& view);
    // Takes down the view at the address. Its handle, for the caller to close; kNoHandle: there is no such view. A
    // caller's record is believed in nothing but the address.
    Handle Unmap(std::byte* address);

  private:
    std::mutex lock_;  // guards what follows
    std::map<std::byte*, Process::SectionView> views_;
};

}  // namespace host
