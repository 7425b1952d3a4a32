// A card's control device while it is open, with its codes' records as arguments.
#pragma once

#include <span>

#include "host/process.h"
#include "tool/volume_list.h"

namespace tool {

class CardControl {
  public:
    CardControl(host::Process& process, std::uint32_t card) : process_(process) {
        const host::OpenResult opened = OpenControl(process, card);
        opened_ = opened.status;
        handle_ = host::ScopedHandle(process, opened.handle);
    }

    // How the open went; when it failed every request fails likewise.
    [[nodiscard]] host::Status Opened() const { return opened_; }
    [[nodiscard]] host::Handle Handle() const { return handle_.Get(); }

    [[nodiscard]] host::Status Send(std::uint32_t code) { return Call(code, {}, {}); }
    template <typename In>
    [[nodiscard]] host::Status Send(std::uint32_t code, const In& in) {
        return Call(code, std::as_bytes(std::span(&in, 1)), {});
    }
    template <typename Out>
    [[nodiscard]] host::Status Get(std::uint32_t code, Out& out) {
        return Call(code, {}, std::as_writable_bytes(std::span(&out, 1)));
    }
    // One record both ways.
    template <typename Record>
    [[nodiscard]] host::Status Exchange(std::uint32_t code, Record& record) {
        return Call(code, std::as_bytes(std::span(&record, 1)), std::as_writable_bytes(std::span(&record, 1)));
    }
    template <typename In, typename Out>
    [[nodiscard]] host::Status Ask(std::uint32_t code, const In& in, Out& out) {
        return Call(code, std::as_bytes(std::span(&in, 1)), std::as_writable_bytes(std::span(&out, 1)));
    }

  private:
    host::Status Call(std::uint32_t code, std::span<const std::byte> in, std::span<std::byte> out) {
        return opened_.Ok() ? process_.DeviceControl(handle_.Get(), code, in, out).status : opened_;
    }

    host::Process& process_;
    host::Status opened_;
    host::ScopedHandle handle_;
};

}  // namespace tool
