// Files on the drive as the commands move them: in requests of a mebibyte from aligned buffers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <memory>
#include <new>
#include <span>
#include <string>

#include "host/process.h"
#include "tool/clip/reader.h"
#include "tool/paths.h"

namespace tool {

inline constexpr std::size_t kRequestBytes = 1 << 20;

class RequestBuffer {
  public:
    RequestBuffer() : bytes_(static_cast<std::byte*>(std::aligned_alloc(kRequestBytes, kRequestBytes))) {
        if (!bytes_) {
            throw std::bad_alloc();
        }
    }
    [[nodiscard]] std::span<std::byte> First(std::size_t count) { return {bytes_.get(), count}; }

  private:
    struct Free {
        void operator()(std::byte* bytes) const { std::free(bytes); }
    };
    std::unique_ptr<std::byte[], Free> bytes_;
};

// Thrown out of a transfer that the driver ends.
class DriveError : public std::exception {
  public:
    DriveError(std::string what, host::Status status) : what_(std::move(what)), status_(status) {}
    [[nodiscard]] const char* what() const noexcept override { return what_.c_str(); }
    [[nodiscard]] host::Status Status() const { return status_; }

  private:
    std::string what_;  // "cannot read P:/RZV/NEWS/MONDAY/CLIP at byte 4711"
    host::Status status_;
};

// An open file on the drive; closes when it goes out of scope.
class DriveFile {
  public:
    DriveFile(host::Process& process, const DrivePath& path, host::Handle handle)
        : process_(process), name_(path.Display()), handle_(process, handle) {}

    [[nodiscard]] host::Handle Handle() const { return handle_.Get(); }
    [[nodiscard]] host::Status Close() { return process_.Close(handle_.Release()); }

    // Fills the buffer but for the end of the file; returns the bytes read. Throws DriveError.
    std::size_t Read(std::uint64_t offset, std::span<std::byte> buffer);
    // Writes all. Throws DriveError.
    void Write(std::uint64_t offset, std::span<const std::byte> bytes);

    // For a clip reader; it must not outlive the file.
    [[nodiscard]] clip::ClipSource Source(std::uint64_t size);

  private:
    host::Process& process_;
    std::string name_;
    host::ScopedHandle handle_;
};

// Opens what is there for reading, and says what it is. Folders open too.
[[nodiscard]] host::Status OpenForReading(host::Process& process, const DrivePath& path,
                                          std::unique_ptr<DriveFile>& file, host::FileFacts& facts);

// Whether something stands under the path, and what it is: success or the status of the open.
[[nodiscard]] host::Status LookAt(host::Process& process, const DrivePath& path, host::FileFacts& facts);

// Deletes a file, or a folder with `folder`, and makes sure that it is gone: a delete happens when the handle closes,
// where nobody can report its failure.
[[nodiscard]] host::Status Delete(host::Process& process, const DrivePath& path, bool folder);

// To a name in the same place or a whole path, as host::Rename.
[[nodiscard]] host::Status RenameOnDrive(host::Process& process, const DrivePath& path, const std::u16string& target);

}  // namespace tool
