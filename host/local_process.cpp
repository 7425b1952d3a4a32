#include "host/local_process.h"

#include <semaphore>
#include <utility>

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
    process_.Exit();  // awaits every request, so no completion finds this object gone
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

}  // namespace host
