// The kind of process that lives in a daemon: its calls go over a connection of its own.
//
// Data of a transfer that lies in memory from AllocateMemory is not moved at all; other data goes in the frames when
// there is little of it, else through windows. Long transfers are made in pieces, so that the disks work on the next
// one while this one is copied: a piece begins when the one before has ended, in order, and one that ends short or
// fails ends the whole, as it would in one piece. (The handle's position stands before the piece that failed.)
#pragma once

#include "host/section_views.h"
#include "link/shared_memory.h"

namespace vlink {

class RemoteProcess final : public host::Process {
  public:
    // On a socket behind the hello.
    explicit RemoteProcess(Descriptor socket) : channel_(std::move(socket)), memory_(channel_), windows_(memory_) {}
    ~RemoteProcess() override;

    host::OpenResult Create(const host::OpenRequest& request) override;
    host::Status Close(host::Handle handle) override;
    host::IoResult Read(host::Handle handle, std::span<std::byte> buffer, std::optional<std::uint64_t> offset) override;
    host::IoResult Write(host::Handle handle, std::span<const std::byte> buffer,
                         std::optional<std::uint64_t> offset) override;
    host::IoResult QueryInformation(host::Handle handle, std::uint32_t informationClass,
                                    std::span<std::byte> buffer) override;
    host::IoResult SetInformation(host::Handle handle, std::uint32_t informationClass,
                                  std::span<const std::byte> buffer) override;
    host::IoResult QueryVolumeInformation(host::Handle handle, std::uint32_t informationClass,
                                          std::span<std::byte> buffer) override;
    host::IoResult SetVolumeInformation(host::Handle handle, std::uint32_t informationClass,
                                        std::span<const std::byte> buffer) override;
    host::IoResult QueryDirectory(host::Handle handle, const DirectoryQuery& query,
                                  std::span<std::byte> buffer) override;
    host::IoResult DeviceControl(host::Handle handle, std::uint32_t code, std::span<const std::byte> in,
                                 std::span<std::byte> out) override;
    host::IoResult FileSystemControl(host::Handle handle, std::uint32_t code, std::span<const std::byte> in,
                                     std::span<std::byte> out) override;
    host::Status Flush(host::Handle handle) override;
    host::Status ReadOverlapped(host::Handle handle, std::span<std::byte> buffer, std::uint64_t offset,
                                host::Completion done, host::RequestId* id) override;
    host::Status WriteOverlapped(host::Handle handle, std::span<const std::byte> buffer, std::uint64_t offset,
                                 host::Completion done, host::RequestId* id) override;
    host::Status DeviceControlOverlapped(host::Handle handle, std::uint32_t code, std::span<const std::byte> in,
                                         std::span<std::byte> out, host::Completion done, host::RequestId* id) override;
    host::Status NotifyChangeDirectory(host::Handle handle, std::uint32_t filter, bool tree,
                                       std::span<std::byte> buffer, host::Completion done,
                                       host::RequestId* id) override;
    void Cancel(host::RequestId id) override;
    void CancelAll(host::Handle handle) override;
    host::Status AllocateMemory(std::size_t size, NamedMemory& memory) override;
    void FreeMemory(const NamedMemory& memory) override;
    host::Status MapSection(std::u16string_view name, bool writable, SectionView& view) override;
    void UnmapSection(const SectionView& view) override;

  private:
    // A request and where its data is for the caller.
    struct Order {
        Op op{};
        IoRecord record{};
        std::span<const std::byte> in = {};
        std::span<std::byte> out = {};
    };
    // The same, with its data placed for the way.
    struct Parcel {
        Order order;
        std::span<const std::byte> inFrame;  // what goes along
        std::span<std::byte> outFrame;       // where what comes along goes
        Windows::Window window;              // what goes past, if any
        std::span<std::byte> outWindow;
    };

    host::IoResult Ask(Order order);
    host::Status Start(Order order, const host::Completion& done, host::RequestId* id);
    bool Pack(Order order, Parcel& parcel);
    host::IoResult Unpack(const Parcel& parcel, const Reply& reply);
    host::IoResult TransferInPieces(const Order& order);

    Channel channel_;
    SharedMemory memory_;
    Windows windows_;
    host::SectionViews views_;
};

}  // namespace vlink
