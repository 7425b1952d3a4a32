// What the library's functions share. Nothing of C++ leaves them: no exception, and no null out-parameter is asked for.
#pragma once

#include <vrkfs/client.h>

#include <memory>
#include <span>
#include <type_traits>

#include "host/access.h"
#include "host/process.h"

struct VrkFsClient {
    std::shared_ptr<host::Access> access;  // what the process stands on, when the client brought it; goes after it
    std::unique_ptr<host::Process> process;
};

namespace client {

template <typename Record>
std::span<const std::byte> BytesOf(const Record& record) {
    return std::as_bytes(std::span(&record, 1));
}
template <typename Record>
std::span<std::byte> WritableBytesOf(Record& record) {
    return std::as_writable_bytes(std::span(&record, 1));
}

// Makes a call that returns a host::Status or a VrkFsStatus. Whatever is thrown below it says that something is short:
// memory, a thread, what a container can hold.
template <typename Call>
VrkFsStatus Guarded(Call call) noexcept {
    try {
        if constexpr (std::is_same_v<decltype(call()), host::Status>) {
            return call().code;
        } else {
            return call();
        }
    } catch (...) {
        return VRKFS_STATUS_INSUFFICIENT_RESOURCES;
    }
}

// A control code with its input and output bytes.
inline VrkFsStatus Control(VrkFsClient* client, VrkFsHandle control, std::uint32_t code, std::span<const std::byte> in,
                           std::span<std::byte> out) noexcept {
    return Guarded([&] { return client->process->DeviceControl(control, code, in, out).status; });
}

}  // namespace client
