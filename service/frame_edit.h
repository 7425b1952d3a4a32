// A frame file that is being written, in pieces of any size and order. The bytes are laid over the file as it reads.
//
// A file that begins with the header which the file has anyway (and a YUV or RAW file, which has none) changes the
// bytes that were written, at the latest when its last user closes it. Another picture file counts when it is whole.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "service/picture_file.h"

namespace service {

// Bytes that are covered, as disjoint ascending ranges.
class RangeSet {
  public:
    void Add(std::size_t begin, std::size_t end);
    // Where the bytes that are covered from 0 on end.
    std::size_t Beginning() const {
        return !ranges_.empty() && ranges_.front().first == 0 ? ranges_.front().second : 0;
    }
    std::size_t Count() const { return ranges_.size(); }
    void Clear() { ranges_.clear(); }
    // From one file to another that both have all of them.
    void Copy(ByteView from, Bytes& to) const;

  private:
    std::vector<std::pair<std::size_t, std::size_t>> ranges_;
};

class FrameEdit {
  public:
    // `file` is how the frame reads.
    FrameEdit(FileKind kind, Frame frame, Bytes file);

    const Bytes& File() const { return file_; }

    // Whether there is anything to be written there: no picture is longer, YUV and RAW files are what they are, and no
    // program makes pieces that are scattered so much.
    bool CanTake(std::uint64_t offset, std::uint64_t count, std::string& problem) const;
    // Comes before the first piece of a write. What has been applied by then is the frame's own.
    void BeginWrite();
    // Both want what CanTake has agreed to.
    void Put(std::size_t offset, ByteView bytes);
    // Without bytes: those that were there count as written.
    void Cover(std::size_t offset, std::size_t count);

    // Whether what has been written shall be brought to the frame now. `atEnd`: nothing more will come.
    Outcome Check(bool atEnd, std::string& problem) const;
    // Whether it was written from its beginning on and ends within the picture, as a copy that was cut short does.
    bool IsCutShort(std::size_t& there, std::size_t& wanted) const;
    // What Check has agreed to, to the frame as it is now: what others have changed in other places meanwhile stays.
    bool Apply(const Frame& now, Frame& after, std::string& problem) const;
    void SetApplied();
    bool IsPending() const { return pending_; }
    // Nothing would be lost with it.
    bool IsSpent() const { return !pending_ && HasOwnHeader(); }

  private:
    bool HasOwnHeader() const;

    FileKind kind_;
    Frame frame_;   // as it was
    Bytes header_;  // that the file had
    Bytes file_;
    RangeSet written_;
    bool pending_ = false;  // written and not applied
    bool whole_ = false;    // it was, once; what is written now changes a picture that is there
};

}  // namespace service
