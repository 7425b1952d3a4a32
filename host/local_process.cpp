#include "host/local_process.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <semaphore>
#include <utility>

#include "nt/nt.h"
#include "nt/station.h"

namespace host {
namespace {

IoResult ResultOf(NTSTATUS status, const IO_STATUS_BLOCK& block) {
    return {Status{static_cast<std::uint32_t>(status)}, NT_ERROR(status) ? 0 : block.Information};
}

ULONG Length(std::size_t size) {
    return size > 0xFFFFFFFF ? 0xFFFFFFFF : static_cast<ULONG>(size);
}

// The end of a request on an overlapped handle that a caller wants to wait for.
struct Waiter {
    std::binary_semaphore over{0};
    IO_STATUS_BLOCK block{};

    static void Signal(void* context, const IO_STATUS_BLOCK& status) {
        auto* waiter = static_cast<Waiter*>(context);
        waiter->block = status;
        waiter->over.release();
    }
};

// Makes `call(statusBlock, overlapped)` and waits for its end, whatever the kind of handle. The kernel tells the kind:
// who asked here first could be told of a handle that another thread closes and opens anew meanwhile, and would leave
// while a request still writes to this frame.
template <typename Call>
IoResult Wait(Call call) {
    IO_STATUS_BLOCK block{};
    Waiter waiter;
    const nt::Overlapped overlapped{&Waiter::Signal, &waiter, nullptr, true};
    const NTSTATUS status = call(&block, &overlapped);
    if (status != STATUS_PENDING) {
        return ResultOf(status, block);
    }
    waiter.over.acquire();
    return ResultOf(waiter.block.Status, waiter.block);
}

}  // namespace

struct LocalProcess::PendingRequest {
    LocalProcess* owner;
    RequestId id;
    Completion done;
    IO_STATUS_BLOCK block{};
    nt::Overlapped overlapped{};
};

LocalProcess::~LocalProcess() {
    process_.Exit();  // awaits every request, so no completion finds this object gone, and no transfer its memory
    for (const NamedMemory& memory : memory_) {
        munmap(memory.bytes.data(), memory.bytes.size());
    }
    for (const auto& [address, size] : views_) {
        munmap(address, size);
    }
}

// Starts `call(statusBlock, overlapped)`; `done` is called once unless the status returned is a failure.
template <typename Call>
Status LocalProcess::Begin(Completion done, RequestId* id, Call call) {
    auto request = std::make_shared<PendingRequest>();
    request->owner = this;
    request->done = std::move(done);
    request->overlapped = {&LocalProcess::Finished, request.get(), nullptr};
    {
        const std::lock_guard hold(pendingLock_);
        request->id = nextId_++;
        pending_.emplace(request->id, request);
    }
    if (id != nullptr) {
        *id = request->id;
    }
    const NTSTATUS status = call(&request->block, &request->overlapped);
    if (status == STATUS_PENDING) {
        return status::kPending;
    }
    {
        const std::lock_guard hold(pendingLock_);
        pending_.erase(request->id);
    }
    if (NT_SUCCESS(status)) {
        request->done(ResultOf(status, request->block));
    }
    return Status{static_cast<std::uint32_t>(status)};
}

void LocalProcess::Finished(void* context, const IO_STATUS_BLOCK& status) {
    auto* raw = static_cast<PendingRequest*>(context);
    std::shared_ptr<PendingRequest> request;
    {
        const std::lock_guard hold(raw->owner->pendingLock_);
        const auto found = raw->owner->pending_.find(raw->id);
        request = std::move(found->second);
        raw->owner->pending_.erase(found);
    }
    request->done(ResultOf(status.Status, status));
}

OpenResult LocalProcess::Create(const OpenRequest& request) {
    std::u16string path = request.path;
    if (request.root == kNoHandle && !path.starts_with(u'\\')) {
        path.insert(0, u"\\DosDevices\\");
    }
    nt::OpenParameters parameters;
    parameters.name = path;
    parameters.rootDirectory = request.root;
    parameters.desiredAccess = request.access | SYNCHRONIZE;
    parameters.shareAccess = request.shareAccess;
    parameters.disposition = static_cast<ULONG>(request.disposition);
    parameters.options = request.options | (request.overlapped ? 0 : FILE_SYNCHRONOUS_IO_NONALERT);

    IO_STATUS_BLOCK block{};
    Handle handle = kNoHandle;
    const NTSTATUS status = process_.Open(parameters, &handle, &block);
    if (!NT_SUCCESS(status)) {
        return {Status{static_cast<std::uint32_t>(status)}, kNoHandle, 0};
    }
    return {status::kSuccess, handle, static_cast<std::uint32_t>(block.Information)};
}

Status LocalProcess::Close(Handle handle) {
    return Status{static_cast<std::uint32_t>(process_.Close(handle))};
}

IoResult LocalProcess::Read(Handle handle, std::span<std::byte> buffer, std::optional<std::uint64_t> offset) {
    const LONGLONG place = static_cast<LONGLONG>(offset.value_or(0));
    return Wait([&](IO_STATUS_BLOCK* block, const nt::Overlapped* overlapped) {
        return process_.Read(handle, block, buffer.data(), Length(buffer.size()), offset ? &place : nullptr,
                             overlapped);
    });
}

IoResult LocalProcess::Write(Handle handle, std::span<const std::byte> buffer, std::optional<std::uint64_t> offset) {
    const LONGLONG place = static_cast<LONGLONG>(offset.value_or(0));
    return Wait([&](IO_STATUS_BLOCK* block, const nt::Overlapped* overlapped) {
        return process_.Write(handle, block, buffer.data(), Length(buffer.size()), offset ? &place : nullptr,
                              overlapped);
    });
}

IoResult LocalProcess::QueryInformation(Handle handle, std::uint32_t informationClass, std::span<std::byte> buffer) {
    IO_STATUS_BLOCK block{};
    return ResultOf(process_.QueryInformation(handle, &block, buffer.data(), Length(buffer.size()),
                                              static_cast<FILE_INFORMATION_CLASS>(informationClass)),
                    block);
}

IoResult LocalProcess::SetInformation(Handle handle, std::uint32_t informationClass,
                                      std::span<const std::byte> buffer) {
    IO_STATUS_BLOCK block{};
    return ResultOf(process_.SetInformation(handle, &block, buffer.data(), Length(buffer.size()),
                                            static_cast<FILE_INFORMATION_CLASS>(informationClass)),
                    block);
}

IoResult LocalProcess::QueryVolumeInformation(Handle handle, std::uint32_t informationClass,
                                              std::span<std::byte> buffer) {
    IO_STATUS_BLOCK block{};
    return ResultOf(process_.QueryVolumeInformation(handle, &block, buffer.data(), Length(buffer.size()),
                                                    static_cast<FS_INFORMATION_CLASS>(informationClass)),
                    block);
}

IoResult LocalProcess::SetVolumeInformation(Handle handle, std::uint32_t informationClass,
                                            std::span<const std::byte> buffer) {
    IO_STATUS_BLOCK block{};
    return ResultOf(process_.SetVolumeInformation(handle, &block, buffer.data(), Length(buffer.size()),
                                                  static_cast<FS_INFORMATION_CLASS>(informationClass)),
                    block);
}

IoResult LocalProcess::QueryDirectory(Handle handle, const DirectoryQuery& query, std::span<std::byte> buffer) {
    nt::Process::DirectoryQuery asked;
    asked.informationClass = static_cast<FILE_INFORMATION_CLASS>(query.informationClass);
    asked.restart = query.restart;
    asked.singleEntry = query.singleEntry;
    asked.fileIndex = query.index ? &*query.index : nullptr;
    asked.pattern = query.pattern ? &*query.pattern : nullptr;
    return Wait([&](IO_STATUS_BLOCK* block, const nt::Overlapped* overlapped) {
        return process_.QueryDirectory(handle, block, buffer.data(), Length(buffer.size()), asked, overlapped);
    });
}

IoResult LocalProcess::DeviceControl(Handle handle, std::uint32_t code, std::span<const std::byte> in,
                                     std::span<std::byte> out) {
    return Wait([&](IO_STATUS_BLOCK* block, const nt::Overlapped* overlapped) {
        return process_.DeviceControl(handle, block, code, in.data(), Length(in.size()), out.data(), Length(out.size()),
                                      overlapped);
    });
}

IoResult LocalProcess::FileSystemControl(Handle handle, std::uint32_t code, std::span<const std::byte> in,
                                         std::span<std::byte> out) {
    return Wait([&](IO_STATUS_BLOCK* block, const nt::Overlapped* overlapped) {
        return process_.FsControl(handle, block, code, in.data(), Length(in.size()), out.data(), Length(out.size()),
                                  overlapped);
    });
}

Status LocalProcess::Flush(Handle handle) {
    IO_STATUS_BLOCK block{};
    return Status{static_cast<std::uint32_t>(process_.Flush(handle, &block))};
}

Status LocalProcess::ReadOverlapped(Handle handle, std::span<std::byte> buffer, std::uint64_t offset, Completion done,
                                    RequestId* id) {
    const LONGLONG place = static_cast<LONGLONG>(offset);
    return Begin(std::move(done), id, [&](IO_STATUS_BLOCK* block, const nt::Overlapped* overlapped) {
        return process_.Read(handle, block, buffer.data(), Length(buffer.size()), &place, overlapped);
    });
}

Status LocalProcess::WriteOverlapped(Handle handle, std::span<const std::byte> buffer, std::uint64_t offset,
                                     Completion done, RequestId* id) {
    const LONGLONG place = static_cast<LONGLONG>(offset);
    return Begin(std::move(done), id, [&](IO_STATUS_BLOCK* block, const nt::Overlapped* overlapped) {
        return process_.Write(handle, block, buffer.data(), Length(buffer.size()), &place, overlapped);
    });
}

Status LocalProcess::DeviceControlOverlapped(Handle handle, std::uint32_t code, std::span<const std::byte> in,
                                             std::span<std::byte> out, Completion done, RequestId* id) {
    return Begin(std::move(done), id, [&](IO_STATUS_BLOCK* block, const nt::Overlapped* overlapped) {
        return process_.DeviceControl(handle, block, code, in.data(), Length(in.size()), out.data(), Length(out.size()),
                                      overlapped);
    });
}

Status LocalProcess::NotifyChangeDirectory(Handle handle, std::uint32_t filter, bool tree, std::span<std::byte> buffer,
                                           Completion done, RequestId* id) {
    return Begin(std::move(done), id, [&](IO_STATUS_BLOCK* block, const nt::Overlapped* overlapped) {
        return process_.NotifyChangeDirectory(handle, block, buffer.data(), Length(buffer.size()), filter, tree,
                                              overlapped);
    });
}

void LocalProcess::Cancel(RequestId id) {
    std::shared_ptr<PendingRequest> request;  // keeps the status block, which names the request, while we ask
    {
        const std::lock_guard hold(pendingLock_);
        const auto found = pending_.find(id);
        if (found == pending_.end()) {
            return;
        }
        request = found->second;
    }
    (void)process_.CancelRequest(&request->block);
}

void LocalProcess::CancelAll(Handle handle) {
    (void)process_.CancelHandle(handle);
}

// ---- Memory ----

Status LocalProcess::AllocateMemory(std::size_t size, NamedMemory& memory) {
    constexpr std::size_t kPage = 4096;
    constexpr std::size_t kLimit = std::size_t{1} << 30;
    if (size == 0 || size > kLimit) {
        return Status{static_cast<std::uint32_t>(STATUS_INVALID_PARAMETER)};
    }
    const std::size_t whole = (size + kPage - 1) & ~(kPage - 1);
    const std::lock_guard hold(memoryLock_);
    std::byte* address = nullptr;
    if (const auto idle = idle_.find(whole); idle != idle_.end()) {
        address = idle->second;
        idle_.erase(idle);
        std::memset(address, 0, whole);
    } else {
        void* const made = mmap(nullptr, whole, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (made == MAP_FAILED) {
            return Status{static_cast<std::uint32_t>(STATUS_INSUFFICIENT_RESOURCES)};
        }
        address = static_cast<std::byte*>(made);
        memory_.push_back({{address, whole}, 0});
    }
    const std::uint32_t name = NtUserTokenCreate(process_.Object(), address, size);
    if (name == 0) {
        idle_.emplace(whole, address);
        return Status{static_cast<std::uint32_t>(STATUS_INSUFFICIENT_RESOURCES)};
    }
    named_[name] = {address, whole};
    memory = {{address, size}, name};
    return Status{STATUS_SUCCESS};
}

void LocalProcess::FreeMemory(const NamedMemory& memory) {
    // What lies under the name is known here; the caller's idea of it may be old, or another process's.
    const std::lock_guard hold(memoryLock_);
    const auto named = named_.find(memory.name);
    if (named == named_.end()) {
        return;
    }
    NtUserTokenRelease(memory.name);
    idle_.emplace(named->second.size(), named->second.data());
    named_.erase(named);
}

Status LocalProcess::MapSection(std::u16string_view name, bool writable, SectionView& view) {
    nt::SectionDescriptor section;
    std::uint32_t handle = 0;
    const ACCESS_MASK access = SECTION_MAP_READ | (writable ? SECTION_MAP_WRITE : 0);
    const NTSTATUS status = nt::OpenSectionFor(process_.Object(), name, access, &handle, &section);
    if (!NT_SUCCESS(status)) {
        return Status{static_cast<std::uint32_t>(status)};
    }
    void* const address =
        mmap(nullptr, section.size, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, section.descriptor, 0);
    close(section.descriptor);
    if (address == MAP_FAILED) {
        process_.Close(handle);
        return Status{static_cast<std::uint32_t>(STATUS_NO_MEMORY)};
    }
    view = {{static_cast<std::byte*>(address), static_cast<std::size_t>(section.size)}, Handle{handle}};
    const std::lock_guard hold(memoryLock_);
    views_[view.bytes.data()] = view.bytes.size();
    return Status{STATUS_SUCCESS};
}

void LocalProcess::UnmapSection(const SectionView& view) {
    std::size_t size = 0;
    {
        const std::lock_guard hold(memoryLock_);
        const auto mapped = views_.find(view.bytes.data());
        if (mapped == views_.end()) {
            return;
        }
        size = mapped->second;
        views_.erase(mapped);
    }
    munmap(view.bytes.data(), size);
    (void)Close(view.handle);
}

}  // namespace host
