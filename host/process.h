// What a user process is to the kernel: a handle table, and the calls that an application makes. Everything above the
// host goes through this interface, the system tests included, so what a user can do and what a test can do are the
// same thing. One kind lives in this process (Machine::NewProcess), another speaks to a daemon over its socket.
//
// Calls may be made from several threads. Destroying the process cancels its pending requests, waits for them, and
// cleans up and closes every handle it left open.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/types.h"

namespace host {

struct OpenRequest {
    std::u16string path;  // "P:\\RZV\\VOL\\FOLDER\\FILE", "VrkFsDevice0", "\\Device\\Vrk0"; relative when `root` is set
    std::uint32_t access = access::kReadData | access::kReadAttributes;
    std::uint32_t shareAccess = share::kAll;
    Disposition disposition = Disposition::kOpen;
    std::uint32_t options = 0;  // option::*; a handle is synchronous unless `overlapped`
    bool overlapped = false;
    Handle root = kNoHandle;  // the handle that `path` is relative to
};

struct OpenResult {
    Status status;
    Handle handle = kNoHandle;
    std::uint32_t action = 0;  // FILE_OPENED 1, FILE_CREATED 2, ...
};

struct IoResult {
    Status status;
    std::uint64_t information = 0;  // bytes moved or returned
};

// How an overlapped request ends. Called once, on a kernel thread or on the calling one, possibly before the call that
// made the request returns; it must not wait for another request.
using Completion = std::function<void(IoResult)>;

// A request under way; Cancel asks the driver to end it early (its completion still comes).
using RequestId = std::uint64_t;

// One entry of a listing.
struct DirectoryEntry {
    std::u16string name;
    std::uint64_t size = 0;          // bytes
    std::int64_t lastWriteTime = 0;  // 100 ns since 1601, UTC
    std::uint32_t attributes = 0;    // 0x10 directory
    std::uint32_t index = 0;

    bool IsDirectory() const { return (attributes & 0x10) != 0; }
};

class Process {
  public:
    Process() = default;
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    virtual ~Process() = default;

    virtual OpenResult Create(const OpenRequest& request) = 0;
    virtual Status Close(Handle handle) = 0;

    // No offset: the handle's current one (synchronous handles only), which the transfer moves on.
    virtual IoResult Read(Handle handle, std::span<std::byte> buffer, std::optional<std::uint64_t> offset) = 0;
    virtual IoResult Write(Handle handle, std::span<const std::byte> buffer, std::optional<std::uint64_t> offset) = 0;

    // NT information classes and records, byte for byte.
    virtual IoResult QueryInformation(Handle handle, std::uint32_t informationClass, std::span<std::byte> buffer) = 0;
    virtual IoResult SetInformation(Handle handle, std::uint32_t informationClass,
                                    std::span<const std::byte> buffer) = 0;
    virtual IoResult QueryVolumeInformation(Handle handle, std::uint32_t informationClass,
                                            std::span<std::byte> buffer) = 0;
    virtual IoResult SetVolumeInformation(Handle handle, std::uint32_t informationClass,
                                          std::span<const std::byte> buffer) = 0;

    struct DirectoryQuery {
        std::uint32_t informationClass = 1;
        std::optional<std::u16string> pattern;
        bool restart = false;
        bool singleEntry = false;
        std::optional<std::uint32_t> index;  // start after this entry index
    };
    virtual IoResult QueryDirectory(Handle handle, const DirectoryQuery& query, std::span<std::byte> buffer) = 0;

    virtual IoResult DeviceControl(Handle handle, std::uint32_t code, std::span<const std::byte> in,
                                   std::span<std::byte> out) = 0;
    virtual IoResult FileSystemControl(Handle handle, std::uint32_t code, std::span<const std::byte> in,
                                       std::span<std::byte> out) = 0;
    virtual Status Flush(Handle handle) = 0;

    // Overlapped forms, for handles opened so. Buffers stay the caller's and must live until the completion. When the
    // returned status is an error that was not pending, the completion does not come.
    virtual Status ReadOverlapped(Handle handle, std::span<std::byte> buffer, std::uint64_t offset, Completion done,
                                  RequestId* id) = 0;
    virtual Status WriteOverlapped(Handle handle, std::span<const std::byte> buffer, std::uint64_t offset,
                                   Completion done, RequestId* id) = 0;
    virtual Status DeviceControlOverlapped(Handle handle, std::uint32_t code, std::span<const std::byte> in,
                                           std::span<std::byte> out, Completion done, RequestId* id) = 0;
    virtual Status NotifyChangeDirectory(Handle handle, std::uint32_t filter, bool tree, std::span<std::byte> buffer,
                                         Completion done, RequestId* id) = 0;
    virtual void Cancel(RequestId id) = 0;
    virtual void CancelAll(Handle handle) = 0;

    // Memory that a request can name in a 32-bit field: the buffer of a block transfer through the card's own device,
    // the progress counter of a move. Zeroed. It stays mapped until the process ends, since requests may still use it
    // when it has been freed.
    struct NamedMemory {
        std::span<std::byte> bytes;
        std::uint32_t name = 0;  // what goes into the field
    };
    virtual Status AllocateMemory(std::size_t size, NamedMemory& memory) = 0;
    virtual void FreeMemory(const NamedMemory& memory) = 0;

    // A body table that the driver shares, by the name that a control code returned ("P:/RZV/VOL/F/CLIP.RZV"). The
    // bytes are those of the table itself, live; they stay mapped whatever happens to the file.
    struct SectionView {
        std::span<std::byte> bytes;  // whole pages
        Handle handle = kNoHandle;
    };
    virtual Status MapSection(std::u16string_view name, bool writable, SectionView& view) = 0;
    virtual void UnmapSection(const SectionView& view) = 0;
};

// Conveniences over the interface, the same for every kind of process (host/files.cpp).
// Of all entries, or of those whose names fit the pattern, in any case.
Status ListDirectory(Process& process, Handle directory, std::vector<DirectoryEntry>& entries,
                     const std::u16string& pattern = u"*");
// Whole-file facts by one query.
struct FileFacts {
    std::uint64_t size = 0;
    std::int64_t lastWriteTime = 0;
    bool isDirectory = false;
};
Status QueryFacts(Process& process, Handle handle, FileFacts& facts);
Status SetDeleteOnCleanup(Process& process, Handle handle, bool deleteIt);
// The handle has delete access. To a new name in the same place, or to a whole path ("P:\\RZV\\VOL\\FOLDER\\FILE").
// What stands there is never replaced.
Status Rename(Process& process, Handle handle, const std::u16string& target);
Status SetLastWriteTime(Process& process, Handle handle, std::int64_t time);

// Closes when it goes out of scope.
class ScopedHandle {
  public:
    ScopedHandle() = default;
    ScopedHandle(Process& process, Handle handle) : process_(&process), handle_(handle) {}
    ScopedHandle(ScopedHandle&& other) noexcept : process_(other.process_), handle_(other.Release()) {}
    ScopedHandle& operator=(ScopedHandle&& other) noexcept {
        Reset();
        process_ = other.process_;
        handle_ = other.Release();
        return *this;
    }
    ~ScopedHandle() { Reset(); }

    Handle Get() const { return handle_; }
    explicit operator bool() const { return handle_ != kNoHandle; }
    Handle Release() {
        const Handle handle = handle_;
        handle_ = kNoHandle;
        return handle;
    }
    void Reset() {
        if (handle_ != kNoHandle) {
            (void)process_->Close(Release());
        }
    }

  private:
    Process* process_ = nullptr;
    Handle handle_ = kNoHandle;
};

}  // namespace host
