#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "nt/internal.h"

// A user process's memory, touched without trusting its addresses and without signals. A range is probed by asking the
// system to populate it, which moves no data and fails for what is not there or not allowed. Where the system does not
// know that request (or the mapping is of a kind it refuses) one byte per page is read, and for writing written back,
// through the calls that copy between processes: these report a bad address instead of raising a fault.

#ifndef MADV_POPULATE_READ
#define MADV_POPULATE_READ 22
#define MADV_POPULATE_WRITE 23
#endif

namespace nt {

namespace {

constexpr size_t kPage = 4096;
constexpr size_t kPagesAtOnce = 64;

bool Wraps(uintptr_t start, size_t bytes) {
    return bytes != 0 && start + (bytes - 1) < start;
}

// One byte of each page that the range touches.
size_t CollectPages(uintptr_t& next, uintptr_t end, std::array<iovec, kPagesAtOnce>& remote) {
    size_t count = 0;
    for (; count < remote.size() && next < end; count++) {
        remote[count] = {reinterpret_cast<void*>(next), 1};
        next = (next & ~(kPage - 1)) + kPage;
    }
    return count;
}

bool ProbeByCopy(uintptr_t start, size_t bytes, bool write) {
    std::array<iovec, kPagesAtOnce> remote;
    std::array<char, kPagesAtOnce> probe;
    const uintptr_t end = start + bytes;
    for (uintptr_t next = start; next < end;) {
        const size_t count = CollectPages(next, end, remote);
        const iovec local = {probe.data(), count};
        const auto wanted = static_cast<ssize_t>(count);
        if (process_vm_readv(getpid(), &local, 1, remote.data(), count, 0) != wanted ||
            (write && process_vm_writev(getpid(), &local, 1, remote.data(), count, 0) != wanted)) {
            return false;
        }
    }
    return true;
}

bool Copy(bool toUser, void* user, void* own, size_t bytes) {
    const iovec local = {own, bytes};
    const iovec remote = {user, bytes};
    const ssize_t copied = toUser ? process_vm_writev(getpid(), &local, 1, &remote, 1, 0)
                                  : process_vm_readv(getpid(), &local, 1, &remote, 1, 0);
    if (copied >= 0) {
        return copied == static_cast<ssize_t>(bytes);
    }
    if (errno != ENOSYS && errno != EPERM) {
        return false;
    }
    // A sandbox without those calls: probe, then copy like a trusting caller.
    if (!ProbeRange(user, bytes, toUser)) {
        return false;
    }
    toUser ? std::memcpy(user, own, bytes) : std::memcpy(own, user, bytes);
    return true;
}

}  // namespace

bool ProbeRange(const void* address, size_t bytes, bool write) {
    const auto start = reinterpret_cast<uintptr_t>(address);
    if (bytes == 0) {
        return true;
    }
    if (start == 0 || Wraps(start, bytes) || start + bytes > UINTPTR_MAX - kPage) {
        return false;
    }
    const uintptr_t first = start & ~(kPage - 1);
    const uintptr_t last = (start + bytes + kPage - 1) & ~(kPage - 1);
    int result = 0;
    do {
        result = madvise(reinterpret_cast<void*>(first), last - first, write ? MADV_POPULATE_WRITE : MADV_POPULATE_READ);
    } while (result != 0 && (errno == EINTR || errno == EAGAIN));
    if (result == 0) {
        return true;
    }
    // "Not mapped" is an answer; any other refusal may be about the kind of mapping, or the request itself.
    return errno != ENOMEM && ProbeByCopy(start, bytes, write);
}

bool CopyFromUser(KPROCESSOR_MODE mode, void* to, const void* from, size_t bytes) {
    if (bytes == 0) {
        return true;
    }
    if (mode == KernelMode) {
        std::memcpy(to, from, bytes);
        return true;
    }
    return Copy(false, const_cast<void*>(from), to, bytes);
}

bool CopyToUser(KPROCESSOR_MODE mode, void* to, const void* from, size_t bytes) {
    if (bytes == 0) {
        return true;
    }
    if (mode == KernelMode) {
        std::memcpy(to, from, bytes);
        return true;
    }
    return Copy(true, to, const_cast<void*>(from), bytes);
}

}  // namespace nt
