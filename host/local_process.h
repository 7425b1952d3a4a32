// The kind of process that lives in this one: its calls go straight into the kernel.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/process.h"
#include "host/section_views.h"
#include "nt/system.h"

namespace host {

class LocalProcess final : public Process {
  public:
    explicit LocalProcess(const std::string& name, KPROCESSOR_MODE mode = UserMode) : process_(name, mode) {}
    ~LocalProcess() override;

    OpenResult Create(const OpenRequest& request) override;
    Status Close(Handle handle) override;
    IoResult Read(Handle handle, std::span<std::byte> buffer, std::optional<std::uint64_t> offset) override;
    IoResult Write(Handle handle, std::span<const std::byte> buffer, std::optional<std::uint64_t> offset) override;
    IoResult QueryInformation(Handle handle, std::uint32_t informationClass, std::span<std::byte> buffer) override;
    IoResult SetInformation(Handle handle, std::uint32_t informationClass, std::span<const std::byte> buffer) override;
    IoResult QueryVolumeInformation(Handle handle, std::uint32_t informationClass,
                                    std::span<std::byte> buffer) override;
    IoResult SetVolumeInformation(Handle handle, std::uint32_t informationClass,
                                  std::span<const std::byte> buffer) override;
    IoResult QueryDirectory(Handle handle, const DirectoryQuery& query, std::span<std::byte> buffer) override;
    IoResult DeviceControl(Handle handle, std::uint32_t code, std::span<const std::byte> in,
                           std::span<std::byte> out) override;
    IoResult FileSystemControl(Handle handle, std::uint32_t code, std::span<const std::byte> in,
                               std::span<std::byte> out) override;
    Status Flush(Handle handle) override;
    Status ReadOverlapped(Handle handle, std::span<std::byte> buffer, std::uint64_t offset, Completion done,
                          RequestId* id) override;
    Status WriteOverlapped(Handle handle, std::span<const std::byte> buffer, std::uint64_t offset, Completion done,
                           RequestId* id) override;
    Status DeviceControlOverlapped(Handle handle, std::uint32_t code, std::span<const std::byte> in,
                                   std::span<std::byte> out, Completion done, RequestId* id) override;
    Status NotifyChangeDirectory(Handle handle, std::uint32_t filter, bool tree, std::span<std::byte> buffer,
                                 Completion done, RequestId* id) override;
    void Cancel(RequestId id) override;
    void CancelAll(Handle handle) override;
    Status AllocateMemory(std::size_t size, NamedMemory& memory) override;
    void FreeMemory(const NamedMemory& memory) override;
    Status MapSection(std::u16string_view name, bool writable, SectionView& view) override;
    void UnmapSection(const SectionView& view) override;

    // ---- For a door that makes the calls of another program ----

    // What the destructor does to requests and handles, while other threads may still be in calls: those end, and later
    // ones fail.
    void Exit() { process_.Exit(); }

    // A call that may take long. On an overlapped handle it may answer with STATUS_PENDING: then no thread waits for it
    // and `done` is called once, as Completion says; else never.
    struct Request {
        enum class Kind : std::uint8_t { kRead, kWrite, kQueryDirectory, kNotify, kDeviceControl, kFileSystemControl };
        Kind kind = Kind::kRead;
        bool overlappedOnly = false;  // a synchronous handle is refused, else it is waited for here
        bool tree = false;            // kNotify
        Handle handle = kNoHandle;
        std::uint32_t code = 0;                    // the control code, or the changes that are watched
        std::optional<std::uint64_t> offset = {};  // kRead, kWrite
        const DirectoryQuery* query = nullptr;
        std::span<const std::byte> in = {};  // kWrite and the controls; lives until the end, as `out` does
        std::span<std::byte> out = {};
    };
    IoResult Start(const Request& request, Completion done, RequestId* id);

    // Memory that another program maps too: of whole pages, of a size that nobody can change. Memory that was freed
    // comes back, and is then known by its number. There are 1024 pieces at most.
    struct Share {
        std::uint32_t number = 0;
        std::size_t bytes = 0;
        int descriptor = -1;  // the caller's to close; -1: the number was given before
    };
    Status AllocateShared(std::size_t size, NamedMemory& memory, Share& share);
    // The section's descriptor, the caller's to close, which lets no more be mapped than was asked for; the handle
    // keeps section and name.
    struct OpenedSection {
        int descriptor = -1;
        std::uint64_t bytes = 0;
        Handle handle = kNoHandle;
    };
    Status OpenSection(std::u16string_view name, bool writable, OpenedSection& section);

  private:
    struct PendingRequest;
    struct Block {
        std::byte* address = nullptr;
        std::size_t size = 0;  // whole pages
        bool shared = false;
    };

    IoResult WaitFor(const Request& request);
    Status StartOverlapped(Request request, Completion done, RequestId* id);
    IoResult Issue(const Request& request, std::shared_ptr<PendingRequest> pending, RequestId* id);
    NTSTATUS Send(const Request& request, IO_STATUS_BLOCK* block, const nt::Overlapped* overlapped);
    Status Allocate(std::size_t size, NamedMemory& memory, Share* share);
    std::uint32_t TakeBlock(std::size_t whole, Share* share);
    static void Finished(void* context, const IO_STATUS_BLOCK& status);

    nt::Process process_;
    std::mutex pendingLock_;  // guards the two below
    std::map<RequestId, std::shared_ptr<PendingRequest>> pending_;
    RequestId nextId_ = 1;

    std::mutex memoryLock_;                                            // guards the following
    std::vector<Block> blocks_;                                        // everything that was ever allocated, by number
    std::map<std::uint32_t, std::uint32_t> named_;                     // the numbers of those in use, by name
    std::multimap<std::pair<bool, std::size_t>, std::uint32_t> idle_;  // freed: shared or not, size, number

    SectionViews views_;
};

}  // namespace host
