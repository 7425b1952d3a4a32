#pragma once

#include <cstdint>

// Access rights, create parameters, file attributes, device types and control-code arithmetic, with the
// values and names of the kernel's headers.

using ACCESS_MASK = uint32_t;
using PACCESS_MASK = ACCESS_MASK*;
using SECURITY_INFORMATION = uint32_t;

// Standard and generic rights.
inline constexpr uint32_t DELETE = 0x00010000;
inline constexpr uint32_t READ_CONTROL = 0x00020000;
inline constexpr uint32_t WRITE_DAC = 0x00040000;
inline constexpr uint32_t WRITE_OWNER = 0x00080000;
inline constexpr uint32_t SYNCHRONIZE = 0x00100000;
inline constexpr uint32_t STANDARD_RIGHTS_REQUIRED = 0x000F0000;
inline constexpr uint32_t STANDARD_RIGHTS_READ = READ_CONTROL;
inline constexpr uint32_t STANDARD_RIGHTS_WRITE = READ_CONTROL;
inline constexpr uint32_t STANDARD_RIGHTS_EXECUTE = READ_CONTROL;
inline constexpr uint32_t STANDARD_RIGHTS_ALL = 0x001F0000;
inline constexpr uint32_t SPECIFIC_RIGHTS_ALL = 0x0000FFFF;
inline constexpr uint32_t ACCESS_SYSTEM_SECURITY = 0x01000000;
inline constexpr uint32_t MAXIMUM_ALLOWED = 0x02000000;
inline constexpr uint32_t GENERIC_READ = 0x80000000;
inline constexpr uint32_t GENERIC_WRITE = 0x40000000;
inline constexpr uint32_t GENERIC_EXECUTE = 0x20000000;
inline constexpr uint32_t GENERIC_ALL = 0x10000000;

// Rights on files and directories.
inline constexpr uint32_t FILE_READ_DATA = 0x0001;
inline constexpr uint32_t FILE_LIST_DIRECTORY = 0x0001;
inline constexpr uint32_t FILE_WRITE_DATA = 0x0002;
inline constexpr uint32_t FILE_ADD_FILE = 0x0002;
inline constexpr uint32_t FILE_APPEND_DATA = 0x0004;
inline constexpr uint32_t FILE_ADD_SUBDIRECTORY = 0x0004;
inline constexpr uint32_t FILE_READ_EA = 0x0008;
inline constexpr uint32_t FILE_WRITE_EA = 0x0010;
inline constexpr uint32_t FILE_EXECUTE = 0x0020;
inline constexpr uint32_t FILE_TRAVERSE = 0x0020;
inline constexpr uint32_t FILE_DELETE_CHILD = 0x0040;
inline constexpr uint32_t FILE_READ_ATTRIBUTES = 0x0080;
inline constexpr uint32_t FILE_WRITE_ATTRIBUTES = 0x0100;
inline constexpr uint32_t FILE_ALL_ACCESS = STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x1FF;
inline constexpr uint32_t FILE_GENERIC_READ =
    STANDARD_RIGHTS_READ | FILE_READ_DATA | FILE_READ_ATTRIBUTES | FILE_READ_EA | SYNCHRONIZE;
inline constexpr uint32_t FILE_GENERIC_WRITE =
    STANDARD_RIGHTS_WRITE | FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES | FILE_WRITE_EA | FILE_APPEND_DATA | SYNCHRONIZE;
inline constexpr uint32_t FILE_GENERIC_EXECUTE =
    STANDARD_RIGHTS_EXECUTE | FILE_READ_ATTRIBUTES | FILE_EXECUTE | SYNCHRONIZE;

// Rights on registry keys.
inline constexpr uint32_t KEY_QUERY_VALUE = 0x0001;
inline constexpr uint32_t KEY_SET_VALUE = 0x0002;
inline constexpr uint32_t KEY_CREATE_SUB_KEY = 0x0004;
inline constexpr uint32_t KEY_ENUMERATE_SUB_KEYS = 0x0008;
inline constexpr uint32_t KEY_NOTIFY = 0x0010;
inline constexpr uint32_t KEY_CREATE_LINK = 0x0020;
inline constexpr uint32_t KEY_READ = STANDARD_RIGHTS_READ | KEY_QUERY_VALUE | KEY_ENUMERATE_SUB_KEYS | KEY_NOTIFY;
inline constexpr uint32_t KEY_WRITE = STANDARD_RIGHTS_WRITE | KEY_SET_VALUE | KEY_CREATE_SUB_KEY;
inline constexpr uint32_t KEY_ALL_ACCESS = 0x000F003F;

// Rights on sections, page protection and allocation attributes.
inline constexpr uint32_t SECTION_QUERY = 0x0001;
inline constexpr uint32_t SECTION_MAP_WRITE = 0x0002;
inline constexpr uint32_t SECTION_MAP_READ = 0x0004;
inline constexpr uint32_t SECTION_MAP_EXECUTE = 0x0008;
inline constexpr uint32_t SECTION_EXTEND_SIZE = 0x0010;
inline constexpr uint32_t SECTION_ALL_ACCESS = STANDARD_RIGHTS_REQUIRED | 0x1F;
inline constexpr uint32_t PAGE_NOACCESS = 0x01;
inline constexpr uint32_t PAGE_READONLY = 0x02;
inline constexpr uint32_t PAGE_READWRITE = 0x04;
inline constexpr uint32_t PAGE_WRITECOPY = 0x08;
inline constexpr uint32_t PAGE_EXECUTE = 0x10;
inline constexpr uint32_t SEC_RESERVE = 0x04000000;
inline constexpr uint32_t SEC_COMMIT = 0x08000000;

// Rights on events, threads and processes that callers name.
inline constexpr uint32_t EVENT_QUERY_STATE = 0x0001;
inline constexpr uint32_t EVENT_MODIFY_STATE = 0x0002;
inline constexpr uint32_t EVENT_ALL_ACCESS = STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x3;
inline constexpr uint32_t THREAD_ALL_ACCESS = STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0xFFFF;
inline constexpr uint32_t PROCESS_ALL_ACCESS = STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0xFFFF;

// Share access of an open.
inline constexpr uint32_t FILE_SHARE_READ = 0x00000001;
inline constexpr uint32_t FILE_SHARE_WRITE = 0x00000002;
inline constexpr uint32_t FILE_SHARE_DELETE = 0x00000004;
inline constexpr uint32_t FILE_SHARE_VALID_FLAGS = 0x00000007;

// Create dispositions, and what a create did (IoStatus.Information).
inline constexpr uint32_t FILE_SUPERSEDE = 0;
inline constexpr uint32_t FILE_OPEN = 1;
inline constexpr uint32_t FILE_CREATE = 2;
inline constexpr uint32_t FILE_OPEN_IF = 3;
inline constexpr uint32_t FILE_OVERWRITE = 4;
inline constexpr uint32_t FILE_OVERWRITE_IF = 5;
inline constexpr uint32_t FILE_MAXIMUM_DISPOSITION = 5;
inline constexpr uint32_t FILE_SUPERSEDED = 0;
inline constexpr uint32_t FILE_OPENED = 1;
inline constexpr uint32_t FILE_CREATED = 2;
inline constexpr uint32_t FILE_OVERWRITTEN = 3;
inline constexpr uint32_t FILE_EXISTS = 4;
inline constexpr uint32_t FILE_DOES_NOT_EXIST = 5;

// Create options.
inline constexpr uint32_t FILE_DIRECTORY_FILE = 0x00000001;
inline constexpr uint32_t FILE_WRITE_THROUGH = 0x00000002;
inline constexpr uint32_t FILE_SEQUENTIAL_ONLY = 0x00000004;
inline constexpr uint32_t FILE_NO_INTERMEDIATE_BUFFERING = 0x00000008;
inline constexpr uint32_t FILE_SYNCHRONOUS_IO_ALERT = 0x00000010;
inline constexpr uint32_t FILE_SYNCHRONOUS_IO_NONALERT = 0x00000020;
inline constexpr uint32_t FILE_NON_DIRECTORY_FILE = 0x00000040;
inline constexpr uint32_t FILE_CREATE_TREE_CONNECTION = 0x00000080;
inline constexpr uint32_t FILE_COMPLETE_IF_OPLOCKED = 0x00000100;
inline constexpr uint32_t FILE_NO_EA_KNOWLEDGE = 0x00000200;
inline constexpr uint32_t FILE_RANDOM_ACCESS = 0x00000800;
inline constexpr uint32_t FILE_DELETE_ON_CLOSE = 0x00001000;
inline constexpr uint32_t FILE_OPEN_BY_FILE_ID = 0x00002000;
inline constexpr uint32_t FILE_OPEN_FOR_BACKUP_INTENT = 0x00004000;
inline constexpr uint32_t FILE_NO_COMPRESSION = 0x00008000;
inline constexpr uint32_t FILE_RESERVE_OPFILTER = 0x00100000;
inline constexpr uint32_t FILE_OPEN_REPARSE_POINT = 0x00200000;
inline constexpr uint32_t FILE_OPEN_NO_RECALL = 0x00400000;
inline constexpr uint32_t FILE_OPEN_FOR_FREE_SPACE_QUERY = 0x00800000;
inline constexpr uint32_t FILE_VALID_OPTION_FLAGS = 0x00FFFFFF;

// File attributes.
inline constexpr uint32_t FILE_ATTRIBUTE_READONLY = 0x00000001;
inline constexpr uint32_t FILE_ATTRIBUTE_HIDDEN = 0x00000002;
inline constexpr uint32_t FILE_ATTRIBUTE_SYSTEM = 0x00000004;
inline constexpr uint32_t FILE_ATTRIBUTE_DIRECTORY = 0x00000010;
inline constexpr uint32_t FILE_ATTRIBUTE_ARCHIVE = 0x00000020;
inline constexpr uint32_t FILE_ATTRIBUTE_DEVICE = 0x00000040;
inline constexpr uint32_t FILE_ATTRIBUTE_NORMAL = 0x00000080;
inline constexpr uint32_t FILE_ATTRIBUTE_TEMPORARY = 0x00000100;
inline constexpr uint32_t FILE_ATTRIBUTE_VALID_FLAGS = 0x00007FB7;

// Byte offsets with a special meaning in read and write requests (low part; the high part is -1).
inline constexpr uint32_t FILE_USE_FILE_POINTER_POSITION = 0xFFFFFFFE;
inline constexpr uint32_t FILE_WRITE_TO_END_OF_FILE = 0xFFFFFFFF;

// Change notification: what to watch, and what happened.
inline constexpr uint32_t FILE_NOTIFY_CHANGE_FILE_NAME = 0x00000001;
inline constexpr uint32_t FILE_NOTIFY_CHANGE_DIR_NAME = 0x00000002;
inline constexpr uint32_t FILE_NOTIFY_CHANGE_NAME = 0x00000003;
inline constexpr uint32_t FILE_NOTIFY_CHANGE_ATTRIBUTES = 0x00000004;
inline constexpr uint32_t FILE_NOTIFY_CHANGE_SIZE = 0x00000008;
inline constexpr uint32_t FILE_NOTIFY_CHANGE_LAST_WRITE = 0x00000010;
inline constexpr uint32_t FILE_NOTIFY_CHANGE_LAST_ACCESS = 0x00000020;
inline constexpr uint32_t FILE_NOTIFY_CHANGE_CREATION = 0x00000040;
inline constexpr uint32_t FILE_NOTIFY_CHANGE_EA = 0x00000080;
inline constexpr uint32_t FILE_NOTIFY_CHANGE_SECURITY = 0x00000100;
inline constexpr uint32_t FILE_NOTIFY_VALID_MASK = 0x00000FFF;
inline constexpr uint32_t FILE_ACTION_ADDED = 0x00000001;
inline constexpr uint32_t FILE_ACTION_REMOVED = 0x00000002;
inline constexpr uint32_t FILE_ACTION_MODIFIED = 0x00000003;
inline constexpr uint32_t FILE_ACTION_RENAMED_OLD_NAME = 0x00000004;
inline constexpr uint32_t FILE_ACTION_RENAMED_NEW_NAME = 0x00000005;

// Object attributes.
inline constexpr uint32_t OBJ_INHERIT = 0x00000002;
inline constexpr uint32_t OBJ_PERMANENT = 0x00000010;
inline constexpr uint32_t OBJ_EXCLUSIVE = 0x00000020;
inline constexpr uint32_t OBJ_CASE_INSENSITIVE = 0x00000040;
inline constexpr uint32_t OBJ_OPENIF = 0x00000080;
inline constexpr uint32_t OBJ_OPENLINK = 0x00000100;
inline constexpr uint32_t OBJ_KERNEL_HANDLE = 0x00000200;
inline constexpr uint32_t OBJ_FORCE_ACCESS_CHECK = 0x00000400;
inline constexpr uint32_t OBJ_VALID_ATTRIBUTES = 0x00001FF2;

// Device types and characteristics. Those a client's headers may define as well are macros, like the control-code
// arithmetic, so that equal definitions meet in peace.
#define FILE_DEVICE_DISK 0x00000007
#define FILE_DEVICE_DISK_FILE_SYSTEM 0x00000008
#define FILE_DEVICE_FILE_SYSTEM 0x00000009
#define FILE_DEVICE_UNKNOWN 0x00000022
#define FILE_DEVICE_VIRTUAL_DISK 0x00000024
#define FILE_DEVICE_MASS_STORAGE 0x0000002d
#define METHOD_BUFFERED 0
#define METHOD_IN_DIRECT 1
#define METHOD_OUT_DIRECT 2
#define METHOD_NEITHER 3
#define FILE_ANY_ACCESS 0x00000000
#define FILE_SPECIAL_ACCESS FILE_ANY_ACCESS
#define FILE_READ_ACCESS 0x00000001
#define FILE_WRITE_ACCESS 0x00000002
#define CTL_CODE(DeviceType, Function, Method, Access) \
    (((DeviceType) << 16) | ((Access) << 14) | ((Function) << 2) | (Method))
#define DEVICE_TYPE_FROM_CTL_CODE(ctlCode) ((static_cast<uint32_t>((ctlCode)) & 0xffff0000U) >> 16)
#define METHOD_FROM_CTL_CODE(ctlCode) (static_cast<uint32_t>((ctlCode)) & 3U)
inline constexpr uint32_t FILE_REMOVABLE_MEDIA = 0x00000001;
inline constexpr uint32_t FILE_READ_ONLY_DEVICE = 0x00000002;
inline constexpr uint32_t FILE_REMOTE_DEVICE = 0x00000010;
inline constexpr uint32_t FILE_DEVICE_IS_MOUNTED = 0x00000020;
inline constexpr uint32_t FILE_VIRTUAL_VOLUME = 0x00000040;
inline constexpr uint32_t FILE_DEVICE_SECURE_OPEN = 0x00000100;
inline constexpr uint32_t FILE_BYTE_ALIGNMENT = 0x00000000;
inline constexpr uint32_t FILE_WORD_ALIGNMENT = 0x00000001;
inline constexpr uint32_t FILE_LONG_ALIGNMENT = 0x00000003;
inline constexpr uint32_t FILE_QUAD_ALIGNMENT = 0x00000007;
inline constexpr uint32_t FILE_512_BYTE_ALIGNMENT = 0x000001FF;

// Attributes of a file system, as the volume's attribute information gives them.
inline constexpr uint32_t FILE_CASE_SENSITIVE_SEARCH = 0x00000001;
inline constexpr uint32_t FILE_CASE_PRESERVED_NAMES = 0x00000002;
inline constexpr uint32_t FILE_UNICODE_ON_DISK = 0x00000004;
inline constexpr uint32_t FILE_PERSISTENT_ACLS = 0x00000008;
