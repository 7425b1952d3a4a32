#pragma once

#include <cstdint>

// The NT status codes that the kernel operations, the driver and the main board use. The two top bits are
// the severity: 0 success, 1 informational, 2 warning, 3 error.

using NTSTATUS = int32_t;

namespace nt {
// Codes are written as the unsigned numbers people know them by.
constexpr NTSTATUS StatusFromCode(uint32_t code) {
    return static_cast<NTSTATUS>(code);
}
}  // namespace nt

constexpr bool NT_SUCCESS(NTSTATUS status) {
    return status >= 0;
}
constexpr bool NT_INFORMATION(NTSTATUS status) {
    return (static_cast<uint32_t>(status) >> 30) == 1;
}
constexpr bool NT_WARNING(NTSTATUS status) {
    return (static_cast<uint32_t>(status) >> 30) == 2;
}
constexpr bool NT_ERROR(NTSTATUS status) {
    return (static_cast<uint32_t>(status) >> 30) == 3;
}

inline constexpr NTSTATUS STATUS_SUCCESS = nt::StatusFromCode(0x00000000);
inline constexpr NTSTATUS STATUS_WAIT_0 = nt::StatusFromCode(0x00000000);
inline constexpr NTSTATUS STATUS_WAIT_1 = nt::StatusFromCode(0x00000001);
inline constexpr NTSTATUS STATUS_ABANDONED = nt::StatusFromCode(0x00000080);
inline constexpr NTSTATUS STATUS_ABANDONED_WAIT_0 = nt::StatusFromCode(0x00000080);
inline constexpr NTSTATUS STATUS_USER_APC = nt::StatusFromCode(0x000000C0);
inline constexpr NTSTATUS STATUS_KERNEL_APC = nt::StatusFromCode(0x00000100);
inline constexpr NTSTATUS STATUS_ALERTED = nt::StatusFromCode(0x00000101);
inline constexpr NTSTATUS STATUS_TIMEOUT = nt::StatusFromCode(0x00000102);
inline constexpr NTSTATUS STATUS_PENDING = nt::StatusFromCode(0x00000103);
inline constexpr NTSTATUS STATUS_REPARSE = nt::StatusFromCode(0x00000104);
inline constexpr NTSTATUS STATUS_MORE_ENTRIES = nt::StatusFromCode(0x00000105);
inline constexpr NTSTATUS STATUS_NOT_ALL_ASSIGNED = nt::StatusFromCode(0x00000106);
inline constexpr NTSTATUS STATUS_NOTIFY_CLEANUP = nt::StatusFromCode(0x0000010B);
inline constexpr NTSTATUS STATUS_NOTIFY_ENUM_DIR = nt::StatusFromCode(0x0000010C);

inline constexpr NTSTATUS STATUS_OBJECT_NAME_EXISTS = nt::StatusFromCode(0x40000000);

inline constexpr NTSTATUS STATUS_DATATYPE_MISALIGNMENT = nt::StatusFromCode(0x80000002);
inline constexpr NTSTATUS STATUS_BREAKPOINT = nt::StatusFromCode(0x80000003);
inline constexpr NTSTATUS STATUS_BUFFER_OVERFLOW = nt::StatusFromCode(0x80000005);
inline constexpr NTSTATUS STATUS_NO_MORE_FILES = nt::StatusFromCode(0x80000006);
inline constexpr NTSTATUS STATUS_DEVICE_POWERED_OFF = nt::StatusFromCode(0x8000000F);
inline constexpr NTSTATUS STATUS_DEVICE_OFF_LINE = nt::StatusFromCode(0x80000010);
inline constexpr NTSTATUS STATUS_DEVICE_BUSY = nt::StatusFromCode(0x80000011);
inline constexpr NTSTATUS STATUS_VERIFY_REQUIRED = nt::StatusFromCode(0x80000016);
inline constexpr NTSTATUS STATUS_NO_MORE_ENTRIES = nt::StatusFromCode(0x8000001A);
inline constexpr NTSTATUS STATUS_MEDIA_CHANGED = nt::StatusFromCode(0x8000001C);

inline constexpr NTSTATUS STATUS_UNSUCCESSFUL = nt::StatusFromCode(0xC0000001);
inline constexpr NTSTATUS STATUS_NOT_IMPLEMENTED = nt::StatusFromCode(0xC0000002);
inline constexpr NTSTATUS STATUS_INVALID_INFO_CLASS = nt::StatusFromCode(0xC0000003);
inline constexpr NTSTATUS STATUS_INFO_LENGTH_MISMATCH = nt::StatusFromCode(0xC0000004);
inline constexpr NTSTATUS STATUS_ACCESS_VIOLATION = nt::StatusFromCode(0xC0000005);
inline constexpr NTSTATUS STATUS_IN_PAGE_ERROR = nt::StatusFromCode(0xC0000006);
inline constexpr NTSTATUS STATUS_INVALID_HANDLE = nt::StatusFromCode(0xC0000008);
inline constexpr NTSTATUS STATUS_INVALID_CID = nt::StatusFromCode(0xC000000B);
inline constexpr NTSTATUS STATUS_INVALID_PARAMETER = nt::StatusFromCode(0xC000000D);
inline constexpr NTSTATUS STATUS_NO_SUCH_DEVICE = nt::StatusFromCode(0xC000000E);
inline constexpr NTSTATUS STATUS_NO_SUCH_FILE = nt::StatusFromCode(0xC000000F);
inline constexpr NTSTATUS STATUS_INVALID_DEVICE_REQUEST = nt::StatusFromCode(0xC0000010);
inline constexpr NTSTATUS STATUS_END_OF_FILE = nt::StatusFromCode(0xC0000011);
inline constexpr NTSTATUS STATUS_WRONG_VOLUME = nt::StatusFromCode(0xC0000012);
inline constexpr NTSTATUS STATUS_NO_MEDIA_IN_DEVICE = nt::StatusFromCode(0xC0000013);
inline constexpr NTSTATUS STATUS_UNRECOGNIZED_MEDIA = nt::StatusFromCode(0xC0000014);
inline constexpr NTSTATUS STATUS_NONEXISTENT_SECTOR = nt::StatusFromCode(0xC0000015);
inline constexpr NTSTATUS STATUS_MORE_PROCESSING_REQUIRED = nt::StatusFromCode(0xC0000016);
inline constexpr NTSTATUS STATUS_NO_MEMORY = nt::StatusFromCode(0xC0000017);
inline constexpr NTSTATUS STATUS_CONFLICTING_ADDRESSES = nt::StatusFromCode(0xC0000018);
inline constexpr NTSTATUS STATUS_NOT_MAPPED_VIEW = nt::StatusFromCode(0xC0000019);
inline constexpr NTSTATUS STATUS_INVALID_SYSTEM_SERVICE = nt::StatusFromCode(0xC000001C);
inline constexpr NTSTATUS STATUS_INVALID_VIEW_SIZE = nt::StatusFromCode(0xC000001F);
inline constexpr NTSTATUS STATUS_INVALID_FILE_FOR_SECTION = nt::StatusFromCode(0xC0000020);
inline constexpr NTSTATUS STATUS_ACCESS_DENIED = nt::StatusFromCode(0xC0000022);
inline constexpr NTSTATUS STATUS_BUFFER_TOO_SMALL = nt::StatusFromCode(0xC0000023);
inline constexpr NTSTATUS STATUS_OBJECT_TYPE_MISMATCH = nt::StatusFromCode(0xC0000024);
inline constexpr NTSTATUS STATUS_NOT_LOCKED = nt::StatusFromCode(0xC000002A);
inline constexpr NTSTATUS STATUS_INVALID_PARAMETER_MIX = nt::StatusFromCode(0xC0000030);
inline constexpr NTSTATUS STATUS_DISK_CORRUPT_ERROR = nt::StatusFromCode(0xC0000032);
inline constexpr NTSTATUS STATUS_OBJECT_NAME_INVALID = nt::StatusFromCode(0xC0000033);
inline constexpr NTSTATUS STATUS_OBJECT_NAME_NOT_FOUND = nt::StatusFromCode(0xC0000034);
inline constexpr NTSTATUS STATUS_OBJECT_NAME_COLLISION = nt::StatusFromCode(0xC0000035);
inline constexpr NTSTATUS STATUS_DEVICE_ALREADY_ATTACHED = nt::StatusFromCode(0xC0000038);
inline constexpr NTSTATUS STATUS_OBJECT_PATH_INVALID = nt::StatusFromCode(0xC0000039);
inline constexpr NTSTATUS STATUS_OBJECT_PATH_NOT_FOUND = nt::StatusFromCode(0xC000003A);
inline constexpr NTSTATUS STATUS_OBJECT_PATH_SYNTAX_BAD = nt::StatusFromCode(0xC000003B);
inline constexpr NTSTATUS STATUS_DATA_OVERRUN = nt::StatusFromCode(0xC000003C);
inline constexpr NTSTATUS STATUS_DATA_LATE_ERROR = nt::StatusFromCode(0xC000003D);
inline constexpr NTSTATUS STATUS_DATA_ERROR = nt::StatusFromCode(0xC000003E);
inline constexpr NTSTATUS STATUS_CRC_ERROR = nt::StatusFromCode(0xC000003F);
inline constexpr NTSTATUS STATUS_SECTION_TOO_BIG = nt::StatusFromCode(0xC0000040);
inline constexpr NTSTATUS STATUS_SHARING_VIOLATION = nt::StatusFromCode(0xC0000043);
inline constexpr NTSTATUS STATUS_QUOTA_EXCEEDED = nt::StatusFromCode(0xC0000044);
inline constexpr NTSTATUS STATUS_INVALID_PAGE_PROTECTION = nt::StatusFromCode(0xC0000045);
inline constexpr NTSTATUS STATUS_MUTANT_NOT_OWNED = nt::StatusFromCode(0xC0000046);
inline constexpr NTSTATUS STATUS_SEMAPHORE_LIMIT_EXCEEDED = nt::StatusFromCode(0xC0000047);
inline constexpr NTSTATUS STATUS_THREAD_IS_TERMINATING = nt::StatusFromCode(0xC000004B);
inline constexpr NTSTATUS STATUS_SECTION_PROTECTION = nt::StatusFromCode(0xC000004E);
inline constexpr NTSTATUS STATUS_EAS_NOT_SUPPORTED = nt::StatusFromCode(0xC000004F);
inline constexpr NTSTATUS STATUS_FILE_LOCK_CONFLICT = nt::StatusFromCode(0xC0000054);
inline constexpr NTSTATUS STATUS_LOCK_NOT_GRANTED = nt::StatusFromCode(0xC0000055);
inline constexpr NTSTATUS STATUS_DELETE_PENDING = nt::StatusFromCode(0xC0000056);
inline constexpr NTSTATUS STATUS_UNKNOWN_REVISION = nt::StatusFromCode(0xC0000058);
inline constexpr NTSTATUS STATUS_PRIVILEGE_NOT_HELD = nt::StatusFromCode(0xC0000061);
inline constexpr NTSTATUS STATUS_INVALID_ACL = nt::StatusFromCode(0xC0000077);
inline constexpr NTSTATUS STATUS_INVALID_SECURITY_DESCR = nt::StatusFromCode(0xC0000079);
inline constexpr NTSTATUS STATUS_DISK_FULL = nt::StatusFromCode(0xC000007F);
inline constexpr NTSTATUS STATUS_INVALID_VOLUME_LABEL = nt::StatusFromCode(0xC0000086);
inline constexpr NTSTATUS STATUS_INTEGER_OVERFLOW = nt::StatusFromCode(0xC0000095);
inline constexpr NTSTATUS STATUS_FILE_INVALID = nt::StatusFromCode(0xC0000098);
inline constexpr NTSTATUS STATUS_INSUFFICIENT_RESOURCES = nt::StatusFromCode(0xC000009A);
inline constexpr NTSTATUS STATUS_DEVICE_DATA_ERROR = nt::StatusFromCode(0xC000009C);
inline constexpr NTSTATUS STATUS_DEVICE_NOT_CONNECTED = nt::StatusFromCode(0xC000009D);
inline constexpr NTSTATUS STATUS_MEDIA_WRITE_PROTECTED = nt::StatusFromCode(0xC00000A2);
inline constexpr NTSTATUS STATUS_DEVICE_NOT_READY = nt::StatusFromCode(0xC00000A3);
inline constexpr NTSTATUS STATUS_INSTANCE_NOT_AVAILABLE = nt::StatusFromCode(0xC00000AB);
inline constexpr NTSTATUS STATUS_IO_TIMEOUT = nt::StatusFromCode(0xC00000B5);
inline constexpr NTSTATUS STATUS_FILE_FORCED_CLOSED = nt::StatusFromCode(0xC00000B6);
inline constexpr NTSTATUS STATUS_FILE_IS_A_DIRECTORY = nt::StatusFromCode(0xC00000BA);
inline constexpr NTSTATUS STATUS_NOT_SUPPORTED = nt::StatusFromCode(0xC00000BB);
inline constexpr NTSTATUS STATUS_DEVICE_DOES_NOT_EXIST = nt::StatusFromCode(0xC00000C0);
inline constexpr NTSTATUS STATUS_NOT_SAME_DEVICE = nt::StatusFromCode(0xC00000D4);
inline constexpr NTSTATUS STATUS_CANT_WAIT = nt::StatusFromCode(0xC00000D8);
inline constexpr NTSTATUS STATUS_CANT_TERMINATE_SELF = nt::StatusFromCode(0xC00000DB);
inline constexpr NTSTATUS STATUS_INTERNAL_ERROR = nt::StatusFromCode(0xC00000E5);
inline constexpr NTSTATUS STATUS_BAD_DESCRIPTOR_FORMAT = nt::StatusFromCode(0xC00000E7);
inline constexpr NTSTATUS STATUS_INVALID_USER_BUFFER = nt::StatusFromCode(0xC00000E8);
inline constexpr NTSTATUS STATUS_UNEXPECTED_IO_ERROR = nt::StatusFromCode(0xC00000E9);
inline constexpr NTSTATUS STATUS_INVALID_PARAMETER_1 = nt::StatusFromCode(0xC00000EF);
inline constexpr NTSTATUS STATUS_INVALID_PARAMETER_2 = nt::StatusFromCode(0xC00000F0);
inline constexpr NTSTATUS STATUS_INVALID_PARAMETER_3 = nt::StatusFromCode(0xC00000F1);
inline constexpr NTSTATUS STATUS_INVALID_PARAMETER_4 = nt::StatusFromCode(0xC00000F2);
inline constexpr NTSTATUS STATUS_DIRECTORY_NOT_EMPTY = nt::StatusFromCode(0xC0000101);
inline constexpr NTSTATUS STATUS_FILE_CORRUPT_ERROR = nt::StatusFromCode(0xC0000102);
inline constexpr NTSTATUS STATUS_NOT_A_DIRECTORY = nt::StatusFromCode(0xC0000103);
inline constexpr NTSTATUS STATUS_NAME_TOO_LONG = nt::StatusFromCode(0xC0000106);
inline constexpr NTSTATUS STATUS_FILES_OPEN = nt::StatusFromCode(0xC0000107);
inline constexpr NTSTATUS STATUS_PROCESS_IS_TERMINATING = nt::StatusFromCode(0xC000010A);
inline constexpr NTSTATUS STATUS_TOO_MANY_OPENED_FILES = nt::StatusFromCode(0xC000011F);
inline constexpr NTSTATUS STATUS_CANCELLED = nt::StatusFromCode(0xC0000120);
inline constexpr NTSTATUS STATUS_CANNOT_DELETE = nt::StatusFromCode(0xC0000121);
inline constexpr NTSTATUS STATUS_FILE_DELETED = nt::StatusFromCode(0xC0000123);
inline constexpr NTSTATUS STATUS_FILE_CLOSED = nt::StatusFromCode(0xC0000128);
inline constexpr NTSTATUS STATUS_COMMITMENT_LIMIT = nt::StatusFromCode(0xC000012D);
inline constexpr NTSTATUS STATUS_SYNCHRONIZATION_REQUIRED = nt::StatusFromCode(0xC0000134);
inline constexpr NTSTATUS STATUS_REGISTRY_CORRUPT = nt::StatusFromCode(0xC000014C);
inline constexpr NTSTATUS STATUS_REGISTRY_IO_FAILED = nt::StatusFromCode(0xC000014D);
inline constexpr NTSTATUS STATUS_UNRECOGNIZED_VOLUME = nt::StatusFromCode(0xC000014F);
inline constexpr NTSTATUS STATUS_KEY_DELETED = nt::StatusFromCode(0xC000017C);
inline constexpr NTSTATUS STATUS_DEVICE_CONFIGURATION_ERROR = nt::StatusFromCode(0xC0000182);
inline constexpr NTSTATUS STATUS_DRIVER_INTERNAL_ERROR = nt::StatusFromCode(0xC0000183);
inline constexpr NTSTATUS STATUS_INVALID_DEVICE_STATE = nt::StatusFromCode(0xC0000184);
inline constexpr NTSTATUS STATUS_IO_DEVICE_ERROR = nt::StatusFromCode(0xC0000185);
inline constexpr NTSTATUS STATUS_INVALID_LOCK_RANGE = nt::StatusFromCode(0xC00001A1);
inline constexpr NTSTATUS STATUS_NOT_FOUND = nt::StatusFromCode(0xC0000225);
inline constexpr NTSTATUS STATUS_RETRY = nt::StatusFromCode(0xC000022D);
inline constexpr NTSTATUS STATUS_TOO_MANY_LINKS = nt::StatusFromCode(0xC0000265);
inline constexpr NTSTATUS STATUS_DRIVER_UNABLE_TO_LOAD = nt::StatusFromCode(0xC000026C);
inline constexpr NTSTATUS STATUS_VOLUME_DISMOUNTED = nt::StatusFromCode(0xC000026E);
inline constexpr NTSTATUS STATUS_NO_MATCH = nt::StatusFromCode(0xC0000272);
inline constexpr NTSTATUS STATUS_DEVICE_REMOVED = nt::StatusFromCode(0xC00002B6);
inline constexpr NTSTATUS STATUS_SHUTDOWN_IN_PROGRESS = nt::StatusFromCode(0xC00002FE);
inline constexpr NTSTATUS STATUS_OBJECT_NO_LONGER_EXISTS = nt::StatusFromCode(0xC0190021);
