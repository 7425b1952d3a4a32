#include "mount/errors.h"

#include <cerrno>
#include <optional>

namespace mount {
namespace {

constexpr host::Status kPortDisconnected{0xC0000037};
constexpr host::Status kWriteProtected{0xC00000A2};
constexpr host::Status kIoTimeout{0xC00000B5};
constexpr host::Status kNotSameDevice{0xC00000D4};
constexpr host::Status kDirectoryNotEmpty{0xC0000101};
constexpr host::Status kFileCorrupt{0xC0000102};
constexpr host::Status kNameTooLong{0xC0000106};
constexpr host::Status kFileDeleted{0xC0000123};
constexpr host::Status kFileClosed{0xC0000128};
constexpr host::Status kConfigurationError{0xC0000182};
constexpr host::Status kDeviceError{0xC0000185};

struct Row {
    std::optional<Operation> operation;  // none: whatever was being done
    host::Status status;
    Meaning meaning;
};

// The first row that fits counts: what is particular to an operation stands before what holds for all.
constexpr Row kRows[] = {
    {Operation::kCreate,
     host::status::kAccessDenied,
     {EACCES, "the folder takes no files, or another program has locked the file system"}},
    {Operation::kMakeFolder,
     host::status::kAccessDenied,
     {EACCES, "the volume takes no folders, or another program has locked the file system"}},
    {Operation::kWrite, host::status::kFileInvalid, {EINVAL, "what was written is no clip"}},
    {Operation::kWrite, host::status::kAccessDenied, {EPERM, "it cannot be written"}},
    {Operation::kWrite, host::status::kEndOfFile, {EFBIG, "it is longer than such a file can be"}},
    {Operation::kWrite, host::status::kInvalidParameter, {EFBIG, "it is longer than such a file can be"}},
    {Operation::kRemoveFolder, host::status::kCannotDelete, {ENOTEMPTY, "something is in it"}},
    {Operation::kRemoveFile, host::status::kCannotDelete, {EPERM, "it is not to be deleted here"}},
    {Operation::kRename,
     host::status::kAccessDenied,
     {EBUSY, "something in it is open, the place is full, or such a file keeps its name"}},
    {Operation::kRead, host::status::kAccessDenied, {EACCES, "it is no clip"}},
    {Operation::kAttribute, host::status::kUnsuccessful, {ENODATA, "only clips have such facts"}},
    {Operation::kAttribute, host::status::kFileIsADirectory, {ENODATA, "only clips have such facts"}},
    {Operation::kSetTime, host::status::kAccessDenied, {EPERM, "its time cannot be set"}},

    {std::nullopt, host::status::kObjectNameNotFound, {ENOENT, "it is not there"}},
    {std::nullopt, host::status::kObjectPathNotFound, {ENOENT, "a folder on the way is not there"}},
    {std::nullopt, host::status::kNoSuchFile, {ENOENT, "it is not there"}},
    {std::nullopt, kFileDeleted, {ENOENT, "it was deleted meanwhile"}},
    {std::nullopt, host::status::kDeletePending, {EBUSY, "it is being deleted, and still open elsewhere"}},
    {std::nullopt, host::status::kObjectNameCollision, {EEXIST, "something has that name"}},
    {std::nullopt,
     host::status::kObjectNameInvalid,
     {EINVAL, "a name has 1 to 255 characters and none of \\ / : * ? \" < > |"}},
    {std::nullopt, kNameTooLong, {ENAMETOOLONG, "a name has at most 255 characters"}},
    {std::nullopt, host::status::kSharingViolation, {EBUSY, "another program has it open"}},
    {std::nullopt, host::status::kAccessDenied, {EACCES, "it does not allow that, or the file system is locked"}},
    {std::nullopt, host::status::kCannotDelete, {EPERM, "it cannot be deleted"}},
    {std::nullopt, host::status::kDiskFull, {ENOSPC, "the volume has no room in one piece"}},
    {std::nullopt, host::status::kFileInvalid, {EINVAL, "it is no clip"}},
    {std::nullopt, host::status::kFileIsADirectory, {EISDIR, "it is a folder"}},
    {std::nullopt, host::status::kNotADirectory, {ENOTDIR, "it is a file"}},
    {std::nullopt, kDirectoryNotEmpty, {ENOTEMPTY, "something is in it"}},
    {std::nullopt, kNotSameDevice, {EXDEV, "drives share nothing"}},
    {std::nullopt, kWriteProtected, {EROFS, "the disks are open for reading only"}},
    {std::nullopt, host::status::kInsufficientResources, {ENOMEM, "memory is short"}},
    {std::nullopt, host::status::kNotImplemented, {EOPNOTSUPP, "the driver does not do that"}},
    {std::nullopt, host::status::kInvalidDeviceRequest, {EOPNOTSUPP, "the driver does not do that"}},
    {std::nullopt, host::status::kInvalidParameter, {EINVAL, "the driver does not take that"}},
    {std::nullopt, host::status::kBufferTooSmall, {EINVAL, "the driver does not take that"}},
    {std::nullopt, kFileClosed, {EBADF, "it was closed meanwhile"}},
    {std::nullopt, kPortDisconnected, {EIO, "the daemon is gone"}},
    {std::nullopt, kFileCorrupt, {EIO, "its record on the disk is damaged: see vrkfs events"}},
    {std::nullopt, kIoTimeout, {EIO, "a disk did not answer: see vrkfs events"}},
    {std::nullopt, kDeviceError, {EIO, "a disk failed: see vrkfs events"}},
    {std::nullopt, kConfigurationError, {EIO, "a disk did not answer: see vrkfs events"}},
};

constexpr Meaning kOther{EIO, "see vrkfs events"};

}  // namespace

Meaning MeaningOf(Operation operation, host::Status status) {
    for (const Row& row : kRows) {
        if (row.status == status && row.operation.value_or(operation) == operation) {
            return row.meaning;
        }
    }
    return kOther;
}

const char* Attempt(Operation operation) {
    switch (operation) {
        case Operation::kLook:
            return "cannot look at it";
        case Operation::kList:
            return "cannot list";
        case Operation::kOpen:
            return "cannot open";
        case Operation::kRead:
            return "cannot read";
        case Operation::kCreate:
            return "cannot make the file";
        case Operation::kWrite:
            return "cannot write";
        case Operation::kMakeFolder:
            return "cannot make the folder";
        case Operation::kRemoveFile:
        case Operation::kRemoveFolder:
            return "cannot remove";
        case Operation::kRename:
            return "cannot rename";
        case Operation::kSetTime:
            return "cannot set the time";
        case Operation::kAttribute:
            return "cannot read or set an attribute";
        case Operation::kSpace:
            return "cannot measure the space";
    }
    return "failed";
}

}  // namespace mount
