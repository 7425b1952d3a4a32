// A clip on its way onto a drive. Programs write bytes in pieces of any size; the driver takes a clip's image in order:
// its file header in one piece, the rest of the header before anything else, the frame data then in any order.
//
// Calls may come from several threads.
#pragma once

#include <vrkfs/media.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "mount/drive.h"

namespace mount {

class ClipWriter {
  public:
    // How a piece went. What is refused but leaves the copy as it was has a reason; the driver's own failures end it.
    struct Outcome {
        host::Status status = host::status::kSuccess;
        int error = 0;  // an errno, instead of the status, with `reason`
        const char* reason = "";

        bool Ok() const { return status.Ok() && error == 0; }
    };

    explicit ClipWriter(Drive& drive) : drive_(drive) {}
    // What is not whole is deleted; what nothing was written into stays as it is.
    ~ClipWriter();
    ClipWriter(const ClipWriter&) = delete;
    ClipWriter& operator=(const ClipWriter&) = delete;

    // Makes the file. Nobody else can open it until it is closed.
    [[nodiscard]] host::Status Create(const std::u16string& path, Facts& facts);
    // Begins again with an empty file under the same name.
    [[nodiscard]] host::Status Restart();
    // Lets go of a file that nothing was written into, so that others can have it; the next piece opens it again.
    void Rest();
    // Where the file has got to, while it rests.
    void SetPath(const std::u16string& path);

    // These wait for no request.
    [[nodiscard]] bool HasFile() const { return made_; }
    [[nodiscard]] bool HasBytes() const { return end_ != 0; }
    [[nodiscard]] std::uint64_t End() const { return end_; }      // bytes that a reader would find
    [[nodiscard]] std::uint64_t Total() const { return total_; }  // of the clip; 0 while its header is not whole
    [[nodiscard]] bool IsOver() const { return over_; }           // closed or given up: nothing can be written any more
    [[nodiscard]] bool IsClosed() const { return closed_; }       // whole, and about to take its place
    [[nodiscard]] std::optional<std::int64_t> Time() const;

    [[nodiscard]] bool IsWhole() const;
    [[nodiscard]] std::u16string Path() const;
    // The failure that ended the copy, if one did.
    [[nodiscard]] Outcome Failed() const;

    [[nodiscard]] Outcome Write(std::uint64_t offset, std::span<const std::byte> bytes);
    // Zeros up to there, as for a file with a hole at its end.
    [[nodiscard]] Outcome Extend(std::uint64_t size);
    // What has been written so far.
    [[nodiscard]] std::optional<host::Status> Read(std::uint64_t offset, std::span<std::byte> buffer,
                                                   std::size_t& count);

    // The time that the clip gets when it is closed.
    void SetTime(std::int64_t time) { time_ = time; }

    // What applications keep with the clip, in place of what its image brings; also when it is closed.
    void SetApplicationInfo(std::string_view info);

    // Closes a whole clip: its record is written. What the record says then is the caller's to check.
    [[nodiscard]] host::Status Close();
    // It did not get its place after all.
    void LosePlace() {
        const std::lock_guard hold(lock_);
        closed_ = false;
    }
    // Deletes what was written. False: something may be left.
    bool Discard();

  private:
    [[nodiscard]] host::Status CreateLocked();
    [[nodiscard]] Outcome Fail(host::Status status);
    [[nodiscard]] host::Status Reopen();
    [[nodiscard]] host::Status Put(std::uint64_t offset, std::span<const std::byte> bytes);
    std::size_t GatherHead(std::uint64_t offset, std::span<const std::byte> bytes);
    [[nodiscard]] Outcome PutNext(std::uint64_t offset, std::span<const std::byte> bytes);
    [[nodiscard]] Outcome FillTo(std::uint64_t offset);
    [[nodiscard]] Outcome CheckPlace(std::uint64_t offset, std::size_t size) const;
    [[nodiscard]] host::Status LearnTotal();
    [[nodiscard]] host::Status SetRecord();
    bool DiscardLocked();

    Drive& drive_;
    mutable std::mutex lock_;  // guards the following, and the order of requests on the handle
    std::u16string path_;
    host::ScopedHandle handle_;
    std::array<std::byte, sizeof(MediaFileHeader)> head_{};  // gathered until it is whole
    std::uint64_t headerBytes_ = 0;                          // of the whole header; 0 until the head is whole
    Outcome failed_;
    std::optional<std::string> info_;

    // Changed with the lock held.
    std::atomic<bool> made_ = false;  // the file is there
    std::atomic<bool> over_ = false;
    std::atomic<bool> closed_ = false;
    std::atomic<std::uint64_t> end_ = 0;
    std::atomic<std::uint64_t> total_ = 0;
    std::atomic<std::int64_t> time_ = 0;  // 0: none
};

}  // namespace mount
