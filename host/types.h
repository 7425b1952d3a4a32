// Plain types that cross the process interface. They carry NT's own numbers, so that what a program asks and what the
// driver answers can be read in any NT reference, but need none of the kernel's headers.
#pragma once

#include <cstdint>
#include <string>

namespace host {

// An NTSTATUS. Never dropped silently.
struct [[nodiscard]] Status {
    std::uint32_t code = 0;

    constexpr bool Ok() const { return static_cast<std::int32_t>(code) >= 0; }
    constexpr bool Pending() const { return code == 0x00000103; }
    constexpr bool operator==(const Status&) const = default;
};

// "STATUS_DISK_FULL" for a status that this system can return, else its number as "0xC0001234".
std::string StatusName(Status status);

// A handle of one process: a multiple of 4, never 0.
using Handle = std::uint32_t;
constexpr Handle kNoHandle = 0;

namespace status {
constexpr Status kSuccess{0x00000000};
constexpr Status kPending{0x00000103};
constexpr Status kBufferOverflow{0x80000005};
constexpr Status kNoMoreFiles{0x80000006};
constexpr Status kUnsuccessful{0xC0000001};
constexpr Status kNotImplemented{0xC0000002};
constexpr Status kAccessViolation{0xC0000005};
constexpr Status kInvalidHandle{0xC0000008};
constexpr Status kInvalidParameter{0xC000000D};
constexpr Status kNoSuchDevice{0xC000000E};
constexpr Status kNoSuchFile{0xC000000F};
constexpr Status kInvalidDeviceRequest{0xC0000010};
constexpr Status kEndOfFile{0xC0000011};
constexpr Status kAccessDenied{0xC0000022};
constexpr Status kBufferTooSmall{0xC0000023};
constexpr Status kObjectNameInvalid{0xC0000033};
constexpr Status kObjectNameNotFound{0xC0000034};
constexpr Status kObjectNameCollision{0xC0000035};
constexpr Status kPortDisconnected{0xC0000037};  // the daemon is gone
constexpr Status kObjectPathNotFound{0xC000003A};
constexpr Status kSharingViolation{0xC0000043};
constexpr Status kDeletePending{0xC0000056};
constexpr Status kDiskFull{0xC000007F};
constexpr Status kFileInvalid{0xC0000098};
constexpr Status kInsufficientResources{0xC000009A};
constexpr Status kFileIsADirectory{0xC00000BA};
constexpr Status kNotADirectory{0xC0000103};
constexpr Status kCancelled{0xC0000120};
constexpr Status kCannotDelete{0xC0000121};
}  // namespace status

// Access rights, sharing, dispositions and options of a create, as NT numbers them.
namespace access {
constexpr std::uint32_t kReadData = 0x0001;
constexpr std::uint32_t kListDirectory = 0x0001;
constexpr std::uint32_t kWriteData = 0x0002;
constexpr std::uint32_t kAppendData = 0x0004;
constexpr std::uint32_t kReadAttributes = 0x0080;
constexpr std::uint32_t kWriteAttributes = 0x0100;
constexpr std::uint32_t kDelete = 0x00010000;
constexpr std::uint32_t kSynchronize = 0x00100000;
}  // namespace access

namespace share {
constexpr std::uint32_t kNone = 0;
constexpr std::uint32_t kRead = 1;
constexpr std::uint32_t kWrite = 2;
constexpr std::uint32_t kDelete = 4;
constexpr std::uint32_t kAll = 7;
}  // namespace share

enum class Disposition : std::uint32_t {
    kSupersede = 0,
    kOpen = 1,
    kCreate = 2,
    kOpenIf = 3,
    kOverwrite = 4,
    kOverwriteIf = 5,
};

namespace option {
constexpr std::uint32_t kDirectoryFile = 0x0001;
constexpr std::uint32_t kNonDirectoryFile = 0x0040;
constexpr std::uint32_t kDeleteOnClose = 0x1000;
}  // namespace option

}  // namespace host
