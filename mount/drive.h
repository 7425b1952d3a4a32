// One card's drive as the mount asks it: each call is one or a few requests to the driver. Paths are the kernel's own
// names, so that they hold whatever letter the drive has.
#pragma once

#include <vrkfs/control.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "host/access.h"
#include "host/process.h"

namespace mount {

// What a file or folder is by one query.
struct Facts {
    std::uint64_t size = 0;
    std::int64_t time = 0;  // 100 ns since 1601, UTC
    bool isDirectory = false;
};

class Drive {
  public:
    Drive(host::Process& process, const host::CardFacts& card);

    [[nodiscard]] char Letter() const { return card_.driveLetter; }
    [[nodiscard]] std::uint32_t Card() const { return card_.index; }
    [[nodiscard]] host::Process& Process() { return process_; }

    // Whether every change of a name on it is reported to this mount.
    std::atomic<bool> watched = false;

    // What the path of everything on it begins with; with a backslash behind it: its root.
    [[nodiscard]] const std::u16string& Prefix() const { return prefix_; }

    [[nodiscard]] host::OpenResult Open(const std::u16string& path, std::uint32_t access, std::uint32_t share,
                                        host::Disposition disposition = host::Disposition::kOpen,
                                        std::uint32_t options = 0);
    [[nodiscard]] host::Status List(const std::u16string& path, std::vector<host::DirectoryEntry>& entries);
    [[nodiscard]] host::Status Look(const std::u16string& path, Facts& facts);
    [[nodiscard]] host::Status Look(host::Handle handle, Facts& facts);

    // Deletes and makes sure that it is gone; `alone`: only if nobody has it open (STATUS_SHARING_VIOLATION).
    [[nodiscard]] host::Status Remove(const std::u16string& path, bool folder, bool alone);
    // Deletes when the last of its handles is closed.
    [[nodiscard]] host::Status RemoveLater(const std::u16string& path);
    // To a whole path. What stands there is never replaced.
    [[nodiscard]] host::Status Rename(const std::u16string& path, const std::u16string& target);
    [[nodiscard]] host::Status SetTime(const std::u16string& path, std::int64_t time);

    // Of the volume that a path leads into.
    [[nodiscard]] host::Status MeasureVolume(const std::u16string& path, VrkFsVolumeSpaceInfo& space);
    // Of all its volumes, in bytes.
    [[nodiscard]] host::Status MeasureDrive(std::uint64_t& total, std::uint64_t& free);

    // A control code of the card. The record may carry handles of this drive's process.
    [[nodiscard]] host::Status Control(std::uint32_t code, std::span<const std::byte> in, std::span<std::byte> out);
    template <typename In, typename Out>
    [[nodiscard]] host::Status Ask(std::uint32_t code, const In& in, Out& out) {
        return Control(code, std::as_bytes(std::span(&in, 1)), std::as_writable_bytes(std::span(&out, 1)));
    }

  private:
    [[nodiscard]] host::Status OpenControl(host::Handle& control);

    host::Process& process_;
    const host::CardFacts card_;
    const std::u16string prefix_;
    std::mutex lock_;             // guards the following
    host::ScopedHandle control_;  // opened by the first code
};

}  // namespace mount
