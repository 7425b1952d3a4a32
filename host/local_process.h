// The kind of process that lives in this one: its calls go straight into the kernel.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/process.h"
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

  private:
    struct PendingRequest;

    template <typename Call>
    Status Begin(Completion done, RequestId* id, Call call);
    static void Finished(void* context, const IO_STATUS_BLOCK& status);

    nt::Process process_;
    std::mutex pendingLock_;  // guards the two below
    std::map<RequestId, std::shared_ptr<PendingRequest>> pending_;
    RequestId nextId_ = 1;

    std::mutex memoryLock_;                                // guards the following
    std::vector<NamedMemory> memory_;                      // everything that was ever allocated
    std::map<std::uint32_t, std::span<std::byte>> named_;  // in use, by name; whole pages
    std::multimap<std::size_t, std::byte*> idle_;          // freed, by size, to be handed out again
    std::map<std::byte*, std::size_t> views_;              // mapped sections
};

}  // namespace host
