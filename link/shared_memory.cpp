#include "link/shared_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <bit>

namespace vlink {

using NamedMemory = host::Process::NamedMemory;

std::byte* MapWhole(const Descriptor& descriptor, std::size_t size, bool writable) {
    struct stat facts {};
    const int seals = fcntl(descriptor.Get(), F_GET_SEALS);
    if (size == 0 || seals < 0 || (seals & F_SEAL_SHRINK) == 0 || fstat(descriptor.Get(), &facts) != 0 ||
        facts.st_size < 0 || static_cast<std::uint64_t>(facts.st_size) < size) {
        return nullptr;
    }
    void* const address =
        mmap(nullptr, size, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, descriptor.Get(), 0);
    return address == MAP_FAILED ? nullptr : static_cast<std::byte*>(address);
}

SharedMemory::~SharedMemory() {
    for (const auto& [number, bytes] : mapped_) {
        munmap(bytes.data(), bytes.size());
    }
}

host::Status SharedMemory::Allocate(std::size_t size, NamedMemory& memory) {
    IoRecord record{};
    record.offset = size;
    const std::span<const std::byte> pieces[] = {BytesOf(record)};
    const std::lock_guard one(allocating_);
    const Reply reply = channel_.Ask(Op::kAllocateMemory, pieces);
    if (!reply.Status().Ok()) {
        return reply.Status();
    }
    const std::uint32_t name = reply.record.value;
    const auto number = static_cast<std::uint32_t>(reply.record.extra);
    const std::lock_guard hold(lock_);
    if (reply.descriptor) {
        std::byte* const address =
            mapped_.contains(number) ? nullptr : MapWhole(reply.descriptor, reply.record.information, true);
        if (address != nullptr) {
            mapped_[number] = {address, static_cast<std::size_t>(reply.record.information)};
        }
    }
    const auto mapped = mapped_.find(number);
    if (mapped == mapped_.end() || mapped->second.size() < size || named_.contains(mapped->second.data())) {
        IoRecord back{};
        back.code = name;
        const std::span<const std::byte> backPieces[] = {BytesOf(back)};
        channel_.Tell(Op::kFreeMemory, backPieces);
        return host::status::kInsufficientResources;
    }
    memory = {mapped->second.first(size), name};
    named_[memory.bytes.data()] = memory;
    return host::status::kSuccess;
}

void SharedMemory::Free(const NamedMemory& memory) {
    const std::lock_guard hold(lock_);
    const auto found =
        std::find_if(named_.begin(), named_.end(), [&](const auto& entry) { return entry.second.name == memory.name; });
    if (found == named_.end()) {
        return;
    }
    named_.erase(found);
    IoRecord record{};
    record.code = memory.name;
    const std::span<const std::byte> pieces[] = {BytesOf(record)};
    channel_.Tell(Op::kFreeMemory, pieces);
}

Place SharedMemory::Find(std::span<const std::byte> bytes) {
    const std::lock_guard hold(lock_);
    auto found = named_.upper_bound(bytes.data());
    if (found == named_.begin()) {
        return {};
    }
    --found;
    const std::span<std::byte> whole = found->second.bytes;
    const auto offset = static_cast<std::size_t>(bytes.data() - whole.data());
    if (offset > whole.size() || bytes.size() > whole.size() - offset) {
        return {};
    }
    return {found->second.name, static_cast<std::uint32_t>(bytes.size()), offset};
}

// ---- Windows ----

// Whether one that is in use will do when it is given back. Under the lock.
bool Windows::IsWorthWaiting(std::size_t size) const {
    return out_.lower_bound(size) != out_.end();
}

// From those that lie about, else made, if that is allowed. Under the lock.
Windows::Window Windows::TakeNow(std::size_t size, std::unique_lock<std::mutex>& hold) {
    if (const auto found = idle_.lower_bound(size); found != idle_.end()) {
        const Window window = found->second;
        out_.insert(found->first);
        idle_.erase(found);
        return window;
    }
    // The first of its size is made however many smaller ones there are: those are never unmade.
    if (size > kMost || (made_ > kMost - size && IsWorthWaiting(size))) {
        return {};
    }
    made_ += size;
    out_.insert(size);
    hold.unlock();
    Window window;
    const bool allocated = memory_.Allocate(size, window).Ok();
    hold.lock();
    if (!allocated) {
        made_ -= size;
        out_.erase(out_.find(size));  // any of its size: who gives one back takes the first
        givenBack_.notify_all();
        return {};
    }
    return window;
}

Windows::Window Windows::Take(std::size_t size) {
    const std::size_t whole = std::bit_ceil(std::max(size, kSize));
    std::unique_lock hold(lock_);
    for (;;) {
        const Window window = TakeNow(whole, hold);
        if (window.name != 0 || !IsWorthWaiting(whole)) {
            return window;
        }
        givenBack_.wait(hold);
    }
}

void Windows::GiveBack(const Window& window) {
    const std::lock_guard hold(lock_);
    idle_.emplace(window.bytes.size(), window);
    out_.erase(out_.find(window.bytes.size()));
    givenBack_.notify_all();
}

}  // namespace vlink
