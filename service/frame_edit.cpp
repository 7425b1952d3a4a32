#include "service/frame_edit.h"

#include <algorithm>

namespace service {
namespace {

constexpr std::size_t kMaxRanges = 4096;

}  // namespace

void RangeSet::Add(std::size_t begin, std::size_t end) {
    if (begin >= end) {
        return;
    }
    const auto first = std::ranges::lower_bound(ranges_, begin, {}, [](const auto& range) { return range.second; });
    auto last = first;
    for (; last != ranges_.end() && last->first <= end; ++last) {
        begin = std::min(begin, last->first);
        end = std::max(end, last->second);
    }
    ranges_.insert(ranges_.erase(first, last), {begin, end});
}

FrameEdit::FrameEdit(FileKind kind, Frame frame, Bytes file)
    : kind_(kind),
      frame_(std::move(frame)),
      header_(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(HeaderSize(kind, frame_.alpha))),
      file_(std::move(file)) {}

bool FrameEdit::HasRoom(std::uint64_t offset, std::uint64_t count) const {
    const std::size_t limit = header_.empty() ? file_.size() : kMaxFileBytes;
    return count <= limit && offset <= limit - count;
}

bool FrameEdit::Cover(std::size_t offset, std::size_t count) {
    file_.resize(std::max(file_.size(), offset + count));
    written_.Add(offset, offset + count);
    pending_ = true;
    return written_.Count() <= kMaxRanges;
}

bool FrameEdit::Put(std::size_t offset, ByteView bytes) {
    const bool kept = Cover(offset, bytes.size());
    std::ranges::copy(bytes, file_.begin() + static_cast<std::ptrdiff_t>(offset));
    return kept;
}

bool FrameEdit::HasOwnHeader() const {
    return std::equal(header_.begin(), header_.end(), file_.begin());
}

Outcome FrameEdit::Check(bool atEnd, std::string& problem) const {
    const bool own = HasOwnHeader();
    const std::size_t known = own && atEnd ? file_.size() : written_.Beginning();
    std::size_t end = 0;
    const Outcome outcome = CheckFile(kind_, ByteView(file_).first(known), frame_, end, problem);
    if (outcome == Outcome::kMore && atEnd) {
        problem = "the file ends before the picture does";
    }
    return outcome;
}

}  // namespace service
