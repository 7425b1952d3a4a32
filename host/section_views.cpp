#include "host/section_views.h"

#include <sys/mman.h>

namespace host {

SectionViews::~SectionViews() {
    for (const auto& [address, view] : views_) {
        munmap(address, view.bytes.size());
    }
}

void SectionViews::Add(const Process::SectionView& view) {
    const std::lock_guard hold(lock_);
    views_[view.bytes.data()] = view;
}

Handle SectionViews::Unmap(std::byte* address) {
    const std::lock_guard hold(lock_);
    const auto found = views_.find(address);
    if (found == views_.end()) {
        return kNoHandle;
    }
    const Process::SectionView view = found->second;
    views_.erase(found);
    munmap(address, view.bytes.size());
    return view.handle;
}

}  // namespace host
