#include "host/local_process.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
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

// Any number may be asked for. One that the kernel's types cannot hold becomes one that it does not know either.
FILE_INFORMATION_CLASS FileClass(std::uint32_t number) {
    return static_cast<FILE_INFORMATION_CLASS>(std::min<std::uint32_t>(number, FileMaximumInformation));
}
FS_INFORMATION_CLASS VolumeClass(std::uint32_t number) {
    return static_cast<FS_INFORMATION_CLASS>(std::min<std::uint32_t>(number, FileFsMaximumInformation));
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
    for (const auto& [name, number] : named_) {
        NtUserTokenRelease(name);  // they go by the process's address, which a later one may have
    }
    for (const Block& block : blocks_) {
        munmap(block.address, block.size);
    }
}

// The way of a request that may outlast its call. Its result; `done` is called once if that is pending, else never.
IoResult LocalProcess::Issue(const Request& request, std::shared_ptr<PendingRequest> pending, RequestId* id) {
    pending->owner = this;
    pending->overlapped = {&LocalProcess::Finished, pending.get(), nullptr, !request.overlappedOnly};
    {
        const std::lock_guard hold(pendingLock_);
        pending->id = nextId_++;
        if (id != nullptr) {
            *id = pending->id;
        }
        pending_.emplace(pending->id, pending);
    }
    const NTSTATUS status = Send(request, &pending->block, &pending->overlapped);
    if (status == STATUS_PENDING) {
        return {status::kPending};
    }
    const std::lock_guard hold(pendingLock_);
    pending_.erase(pending->id);
    return ResultOf(status, pending->block);
}

IoResult LocalProcess::Start(const Request& request, Completion done, RequestId* id) {
    auto pending = std::make_shared<PendingRequest>();
    pending->done = std::move(done);
    return Issue(request, std::move(pending), id);
}

Status LocalProcess::StartOverlapped(Request request, Completion done, RequestId* id) {
    auto pending = std::make_shared<PendingRequest>();
    pending->done = std::move(done);
    request.overlappedOnly = true;
    const IoResult result = Issue(request, pending, id);
    if (result.status.Ok() && !result.status.Pending()) {
        pending->done(result);
    }
    return result.status;
}

IoResult LocalProcess::WaitFor(const Request& request) {
    return Wait(
        [&](IO_STATUS_BLOCK* block, const nt::Overlapped* overlapped) { return Send(request, block, overlapped); });
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

IoResult LocalProcess::QueryInformation(Handle handle, std::uint32_t informationClass, std::span<std::byte> buffer) {
    IO_STATUS_BLOCK block{};
    return ResultOf(
        process_.QueryInformation(handle, &block, buffer.data(), Length(buffer.size()), FileClass(informationClass)),
        block);
}

IoResult LocalProcess::SetInformation(Handle handle, std::uint32_t informationClass,
                                      std::span<const std::byte> buffer) {
    IO_STATUS_BLOCK block{};
    return ResultOf(
        process_.SetInformation(handle, &block, buffer.data(), Length(buffer.size()), FileClass(informationClass)),
        block);
}

IoResult LocalProcess::QueryVolumeInformation(Handle handle, std::uint32_t informationClass,
                                              std::span<std::byte> buffer) {
    IO_STATUS_BLOCK block{};
    return ResultOf(process_.QueryVolumeInformation(handle, &block, buffer.data(), Length(buffer.size()),
                                                    VolumeClass(informationClass)),
                    block);
}

IoResult LocalProcess::SetVolumeInformation(Handle handle, std::uint32_t informationClass,
                                            std::span<const std::byte> buffer) {
    IO_STATUS_BLOCK block{};
    return ResultOf(process_.SetVolumeInformation(handle, &block, buffer.data(), Length(buffer.size()),
                                                  VolumeClass(informationClass)),
                    block);
}

NTSTATUS LocalProcess::Send(const Request& request, IO_STATUS_BLOCK* block, const nt::Overlapped* overlapped) {
    const LONGLONG place = static_cast<LONGLONG>(request.offset.value_or(0));
    const LONGLONG* const offset = request.offset ? &place : nullptr;
    const Handle handle = request.handle;
    std::byte* const out = request.out.data();
    const ULONG outLength = Length(request.out.size());
    const std::byte* const in = request.in.data();
    const ULONG inLength = Length(request.in.size());
    switch (request.kind) {
        case Request::Kind::kRead:
            return process_.Read(handle, block, out, outLength, offset, overlapped);
        case Request::Kind::kWrite:
            return process_.Write(handle, block, in, inLength, offset, overlapped);
        case Request::Kind::kQueryDirectory: {
            const DirectoryQuery& query = *request.query;
            nt::Process::DirectoryQuery asked;
            asked.informationClass = FileClass(query.informationClass);
            asked.restart = query.restart;
            asked.singleEntry = query.singleEntry;
            asked.fileIndex = query.index ? &*query.index : nullptr;
            asked.pattern = query.pattern ? &*query.pattern : nullptr;
            return process_.QueryDirectory(handle, block, out, outLength, asked, overlapped);
        }
        case Request::Kind::kNotify:
            return process_.NotifyChangeDirectory(handle, block, out, outLength, request.code, request.tree,
                                                  overlapped);
        case Request::Kind::kDeviceControl:
            return process_.DeviceControl(handle, block, request.code, in, inLength, out, outLength, overlapped);
        default:
            return process_.FsControl(handle, block, request.code, in, inLength, out, outLength, overlapped);
    }
}

using Kind = LocalProcess::Request::Kind;

IoResult LocalProcess::Read(Handle handle, std::span<std::byte> buffer, std::optional<std::uint64_t> offset) {
    return WaitFor({.kind = Kind::kRead, .handle = handle, .offset = offset, .out = buffer});
}

IoResult LocalProcess::Write(Handle handle, std::span<const std::byte> buffer, std::optional<std::uint64_t> offset) {
    return WaitFor({.kind = Kind::kWrite, .handle = handle, .offset = offset, .in = buffer});
}

IoResult LocalProcess::QueryDirectory(Handle handle, const DirectoryQuery& query, std::span<std::byte> buffer) {
    return WaitFor({.kind = Kind::kQueryDirectory, .handle = handle, .query = &query, .out = buffer});
}

IoResult LocalProcess::DeviceControl(Handle handle, std::uint32_t code, std::span<const std::byte> in,
                                     std::span<std::byte> out) {
    return WaitFor({.kind = Kind::kDeviceControl, .handle = handle, .code = code, .in = in, .out = out});
}

IoResult LocalProcess::FileSystemControl(Handle handle, std::uint32_t code, std::span<const std::byte> in,
                                         std::span<std::byte> out) {
    return WaitFor({.kind = Kind::kFileSystemControl, .handle = handle, .code = code, .in = in, .out = out});
}

Status LocalProcess::Flush(Handle handle) {
    IO_STATUS_BLOCK block{};
    return Status{static_cast<std::uint32_t>(process_.Flush(handle, &block))};
}

Status LocalProcess::ReadOverlapped(Handle handle, std::span<std::byte> buffer, std::uint64_t offset, Completion done,
                                    RequestId* id) {
    return StartOverlapped({.kind = Kind::kRead, .handle = handle, .offset = offset, .out = buffer}, std::move(done),
                           id);
}

Status LocalProcess::WriteOverlapped(Handle handle, std::span<const std::byte> buffer, std::uint64_t offset,
                                     Completion done, RequestId* id) {
    return StartOverlapped({.kind = Kind::kWrite, .handle = handle, .offset = offset, .in = buffer}, std::move(done),
                           id);
}

Status LocalProcess::DeviceControlOverlapped(Handle handle, std::uint32_t code, std::span<const std::byte> in,
                                             std::span<std::byte> out, Completion done, RequestId* id) {
    return StartOverlapped({.kind = Kind::kDeviceControl, .handle = handle, .code = code, .in = in, .out = out},
                           std::move(done), id);
}

Status LocalProcess::NotifyChangeDirectory(Handle handle, std::uint32_t filter, bool tree, std::span<std::byte> buffer,
                                           Completion done, RequestId* id) {
    return StartOverlapped({.kind = Kind::kNotify, .tree = tree, .handle = handle, .code = filter, .out = buffer},
                           std::move(done), id);
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

namespace {

// Anonymous memory; if it is shared, through a file that nobody can resize and whose pages are all there, so that
// whoever touches it finds them.
std::byte* MapMemory(std::size_t size, int* descriptor) {
    void* made = MAP_FAILED;
    if (descriptor == nullptr) {
        made = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        return made == MAP_FAILED ? nullptr : static_cast<std::byte*>(made);
    }
    const int file = memfd_create("memory", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (file < 0) {
        return nullptr;
    }
    if (fallocate(file, 0, 0, static_cast<off_t>(size)) == 0 &&
        fcntl(file, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0) {
        made = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    }
    if (made == MAP_FAILED) {
        close(file);
        return nullptr;
    }
    *descriptor = file;
    return static_cast<std::byte*>(made);
}

constexpr std::uint32_t kNoBlock = 0xFFFFFFFF;
// Of one process. A program has some 65,000 mappings for all that it does.
constexpr std::size_t kMostShared = 1024;

}  // namespace

// A block in nobody's use, zeroed.
std::uint32_t LocalProcess::TakeBlock(std::size_t whole, Share* share) {
    const bool shared = share != nullptr;
    const auto idle = idle_.lower_bound({shared, whole});
    if (idle != idle_.end() && idle->first.first == shared && idle->first.second <= 2 * whole) {
        const std::uint32_t number = idle->second;
        idle_.erase(idle);
        std::memset(blocks_[number].address, 0, whole);
        return number;
    }
    if (shared && blocks_.size() >= kMostShared) {
        return kNoBlock;
    }
    std::byte* const address = MapMemory(whole, shared ? &share->descriptor : nullptr);
    if (address == nullptr) {
        return kNoBlock;
    }
    blocks_.push_back({address, whole, shared});
    return static_cast<std::uint32_t>(blocks_.size() - 1);
}

Status LocalProcess::Allocate(std::size_t size, NamedMemory& memory, Share* share) {
    constexpr std::size_t kPage = 4096;
    constexpr std::size_t kLimit = std::size_t{1} << 30;
    if (size == 0 || size > kLimit) {
        return Status{static_cast<std::uint32_t>(STATUS_INVALID_PARAMETER)};
    }
    const std::size_t whole = (size + kPage - 1) & ~(kPage - 1);
    const std::lock_guard hold(memoryLock_);
    const std::uint32_t number = TakeBlock(whole, share);
    if (number == kNoBlock) {
        return status::kInsufficientResources;
    }
    std::byte* const address = blocks_[number].address;
    const std::uint32_t name = NtUserTokenCreate(process_.Object(), address, size);
    if (name == 0) {
        // The block stays for another time, but whoever is to map it has not been told of it.
        if (share == nullptr || share->descriptor < 0) {
            idle_.emplace(std::pair{share != nullptr, blocks_[number].size}, number);
        } else {
            close(share->descriptor);
            munmap(address, whole);
            blocks_.pop_back();
            share->descriptor = -1;
        }
        return status::kInsufficientResources;
    }
    named_[name] = number;
    memory = {{address, size}, name};
    if (share != nullptr) {
        share->number = number;
        share->bytes = blocks_[number].size;
    }
    return status::kSuccess;
}

Status LocalProcess::AllocateMemory(std::size_t size, NamedMemory& memory) {
    return Allocate(size, memory, nullptr);
}

Status LocalProcess::AllocateShared(std::size_t size, NamedMemory& memory, Share& share) {
    share = {};
    return Allocate(size, memory, &share);
}

void LocalProcess::FreeMemory(const NamedMemory& memory) {
    // What lies under the name is known here; the caller's idea of it may be old, or another process's.
    const std::lock_guard hold(memoryLock_);
    const auto named = named_.find(memory.name);
    if (named == named_.end()) {
        return;
    }
    NtUserTokenRelease(memory.name);
    const Block& block = blocks_[named->second];
    idle_.emplace(std::pair{block.shared, block.size}, named->second);
    named_.erase(named);
}

// ---- Sections ----

Status LocalProcess::OpenSection(std::u16string_view name, bool writable, OpenedSection& opened) {
    nt::SectionDescriptor section;
    std::uint32_t handle = 0;
    const ACCESS_MASK access = SECTION_MAP_READ | (writable ? SECTION_MAP_WRITE : 0);
    const NTSTATUS status = nt::OpenSectionFor(process_.Object(), name, access, &handle, &section);
    if (!NT_SUCCESS(status)) {
        return Status{static_cast<std::uint32_t>(status)};
    }
    if (!writable) {
        const std::string path = "/proc/self/fd/" + std::to_string(section.descriptor);
        const int readOnly = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        close(section.descriptor);
        section.descriptor = readOnly;
    }
    if (section.descriptor < 0) {
        (void)process_.Close(handle);
        return status::kInsufficientResources;
    }
    opened = {section.descriptor, section.size, Handle{handle}};
    return status::kSuccess;
}

Status LocalProcess::MapSection(std::u16string_view name, bool writable, SectionView& view) {
    OpenedSection section;
    if (const Status status = OpenSection(name, writable, section); !status.Ok()) {
        return status;
    }
    void* const address =
        mmap(nullptr, section.bytes, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, section.descriptor, 0);
    close(section.descriptor);
    if (address == MAP_FAILED) {
        (void)process_.Close(section.handle);
        return Status{static_cast<std::uint32_t>(STATUS_NO_MEMORY)};
    }
    view = {{static_cast<std::byte*>(address), static_cast<std::size_t>(section.bytes)}, section.handle};
    views_.Add(view);
    return status::kSuccess;
}

void LocalProcess::UnmapSection(const SectionView& view) {
    if (const Handle handle = views_.Unmap(view.bytes.data()); handle != kNoHandle) {
        (void)Close(handle);
    }
}

}  // namespace host
