#include "service/frame_edit.h"

#include <algorithm>

namespace service {
namespace {

constexpr std::size_t kMaxRanges = 4096;

bool HaveSameShape(const Frame& one, const Frame& other) {
    bool same = one.standard == other.standard && one.alpha == other.alpha;
    for (std::uint32_t stream = 0; same && stream < one.Streams(); ++stream) {
        same = std::ranges::equal(one.fields[stream], other.fields[stream], {}, &Bytes::size, &Bytes::size);
    }
    return same;
}

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

void RangeSet::Copy(ByteView from, Bytes& to) const {
    for (const auto& [begin, end] : ranges_) {
        std::ranges::copy(from.subspan(begin, end - begin), to.begin() + static_cast<std::ptrdiff_t>(begin));
    }
}

FrameEdit::FrameEdit(FileKind kind, Frame frame, Bytes file)
    : kind_(kind),
      frame_(std::move(frame)),
      header_(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(HeaderSize(kind, frame_.alpha))),
      file_(std::move(file)) {}

bool FrameEdit::CanTake(std::uint64_t offset, std::uint64_t count, std::string& problem) const {
    const std::size_t limit = header_.empty() ? file_.size() : kMaxFileBytes;
    const bool fits = count <= limit && offset <= limit - count;
    problem = fits ? "it is written in too many pieces" : "the file is longer than a picture";
    return fits && written_.Count() <= kMaxRanges;
}

void FrameEdit::BeginWrite() {
    if (!pending_) {
        written_.Clear();
    }
}

void FrameEdit::Cover(std::size_t offset, std::size_t count) {
    file_.resize(std::max(file_.size(), offset + count));
    written_.Add(offset, offset + count);
    pending_ = true;
}

void FrameEdit::Put(std::size_t offset, ByteView bytes) {
    Cover(offset, bytes.size());
    std::ranges::copy(bytes, file_.begin() + static_cast<std::ptrdiff_t>(offset));
}

bool FrameEdit::HasOwnHeader() const {
    return std::equal(header_.begin(), header_.end(), file_.begin());
}

Outcome FrameEdit::Check(bool atEnd, std::string& problem) const {
    const bool own = HasOwnHeader();
    const std::size_t known = whole_ || (own && atEnd) ? file_.size() : written_.Beginning();
    std::size_t end = 0;
    const Outcome outcome = CheckFile(kind_, ByteView(file_).first(known), frame_, end, problem);
    if (outcome == Outcome::kMore && atEnd) {
        problem = "the file ends before the picture does";
    }
    return outcome;
}

bool FrameEdit::IsCutShort(std::size_t& there, std::size_t& wanted) const {
    std::string problem;
    there = written_.Beginning();
    return !whole_ && there != 0 && written_.Count() == 1 &&
           CheckFile(kind_, file_, frame_, wanted, problem) == Outcome::kDone && there < wanted;
}

bool FrameEdit::Apply(const Frame& now, Frame& after, std::string& problem) const {
    if (!HaveSameShape(now, frame_)) {
        problem = "it has been recorded anew meanwhile";
        return false;
    }
    after = now;
    if (!HasOwnHeader()) {
        return FileToFrame(kind_, file_, after, problem);
    }
    Bytes file;
    std::string note;
    if (!FrameToFile(kind_, now, file, problem, note)) {
        return false;
    }
    file.resize(std::max(file.size(), file_.size()));
    written_.Copy(file_, file);
    return FileToFrame(kind_, file, after, problem);
}

void FrameEdit::SetApplied() {
    pending_ = false;
    whole_ = true;
}

}  // namespace service
