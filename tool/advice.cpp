#include "tool/advice.h"

#include <optional>

namespace tool {
namespace {

struct Row {
    std::optional<Operation> operation;  // none: whatever was being done
    host::Status status;
    const char* advice;
};

constexpr host::Status kNotDirectoryEmpty{0xC0000101};
constexpr host::Status kFileCorrupt{0xC0000102};
constexpr host::Status kFileDeleted{0xC0000123};
constexpr host::Status kIoTimeout{0xC00000B5};
constexpr host::Status kDeviceError{0xC0000185};
constexpr host::Status kConfigurationError{0xC0000182};
constexpr host::Status kWriteProtected{0xC00000A2};
constexpr host::Status kNotSameDevice{0xC00000D4};
constexpr host::Status kInvalidVolumeLabel{0xC0000086};

// The first row that fits counts: what is particular to an operation stands before what holds for all.
constexpr Row kRows[] = {
    {Operation::kMakeFolder, host::status::kAccessDenied,
     "folders stand in volumes only (P:/RZV/VOLUME/FOLDER), at most 256 of them: see vrkfs ls and vrkfs events"},
    {Operation::kMakeFolder, host::status::kObjectNameCollision,
     "something with that name is there already: take another name"},
    {Operation::kMakeFolder, host::status::kObjectPathNotFound, "the volume is not there: see vrkfs volumes"},
    {Operation::kMakeFolder, host::status::kDiskFull, "the volume has no room for a folder: see vrkfs volumes"},

    {Operation::kRemoveFolder, host::status::kNotADirectory, "it is a file: vrkfs rm deletes it"},
    {Operation::kRemoveFolder, host::status::kCannotDelete,
     "only an empty folder can be deleted: see vrkfs ls, delete what is in it with vrkfs rm"},
    {Operation::kRemoveFolder, kNotDirectoryEmpty, "delete what is in it with vrkfs rm"},
    {Operation::kRemoveFolder, host::status::kAccessDenied, "type folders and volumes cannot be deleted"},

    {Operation::kRemoveFile, host::status::kFileIsADirectory, "it is a folder: vrkfs rmdir deletes an empty one"},
    {Operation::kRemoveFile, host::status::kAccessDenied, "only files in folders can be deleted"},

    {Operation::kPut, host::status::kAccessDenied,
     "clips stand in folders only (P:/RZV/VOLUME/FOLDER/CLIP), at most 2048 of them: see vrkfs ls and vrkfs events"},
    {Operation::kPut, host::status::kObjectNameCollision, "give --replace to replace it, or take another name"},
    {Operation::kPut, host::status::kObjectPathNotFound, "make the folder first: vrkfs mkdir"},
    {Operation::kPut, host::status::kFileIsADirectory, "name the clip: P:/RZV/VOLUME/FOLDER/CLIP"},
    {Operation::kPut, host::status::kDiskFull,
     "delete clips with vrkfs rm or take another volume: vrkfs volumes says what is free"},
    {Operation::kPut, host::status::kFileInvalid, "see what the clip is: vrkfs clip info"},

    {Operation::kRead, host::status::kAccessDenied, "only clips can be read: see vrkfs ls -l"},
    {Operation::kRead, host::status::kFileIsADirectory, "it is a folder: vrkfs ls lists it"},
    {Operation::kRead, host::status::kEndOfFile, "nothing was recorded into this file"},

    {Operation::kMove, host::status::kObjectNameCollision,
     "something with that name is there already: delete it first, or take another name"},
    {Operation::kMove, host::status::kAccessDenied,
     "a clip moves to a folder of its own volume with room (at most 2048 clips), folders and volumes keep their place, "
     "and nothing in them may be open; into another volume copy it: vrkfs get, vrkfs put"},
    {Operation::kMove, host::status::kObjectPathNotFound, "make the folder first: vrkfs mkdir"},
    {Operation::kMove, kNotSameDevice, "drives share nothing: copy it with vrkfs get and vrkfs put"},
    {Operation::kMove, host::status::kDiskFull, "the folder's record cannot be written: see vrkfs volumes"},

    {Operation::kTouch, host::status::kFileIsADirectory, "only the time of a clip can be set"},
    {Operation::kTouch, host::status::kAccessDenied, "only the time of a clip can be set"},
    {Operation::kLabel, kInvalidVolumeLabel, "a label has at most 32 characters"},
    {Operation::kLock, host::status::kAccessDenied,
     "something on the drive is open (a clip, a mount, a vrkfs watch), or it is locked already: end that, or wait for "
     "it"},
    {Operation::kRecord, host::status::kUnsuccessful, "only clips have such a record: see vrkfs ls -l"},
    {Operation::kRecord, host::status::kFileIsADirectory,
     "it is a folder; only clips have such a record: see vrkfs ls"},

    {Operation::kList, host::status::kAccessDenied, "the file system is locked by another program: wait for it"},
    {Operation::kListVolumes, host::status::kAccessDenied, "the file system is locked by another program: wait for it"},

    {std::nullopt, host::status::kObjectNameNotFound, "see what is there: vrkfs ls"},
    {std::nullopt, host::status::kObjectPathNotFound, "a folder on the way is not there: see vrkfs ls"},
    {std::nullopt, host::status::kNoSuchFile, "see what is there: vrkfs ls"},
    {std::nullopt, host::status::kObjectNameInvalid, "a name has 1 to 255 characters and none of \\ / : * ? \" < > |"},
    {std::nullopt, host::status::kSharingViolation, "another program has it open: wait until it is closed"},
    {std::nullopt, host::status::kDeletePending, "it is being deleted: wait until nobody has it open"},
    {std::nullopt, kFileDeleted, "it was deleted meanwhile"},
    {std::nullopt, host::status::kAccessDenied, "it does not allow that, or another program locked the file system"},
    {std::nullopt, host::status::kCannotDelete, "it cannot be deleted"},
    {std::nullopt, host::status::kInsufficientResources, "memory is short: end other programs"},
    {std::nullopt, host::status::kNotImplemented, "this driver does not do that yet"},
    {std::nullopt, host::status::kNotADirectory, "it is a file, where a folder is wanted"},
    {std::nullopt, host::status::kFileIsADirectory, "it is a folder, where a file is wanted"},
    {std::nullopt, host::status::kPortDisconnected,
     "the daemon has ended: see its log, and start it again with vrkfs serve"},
    {std::nullopt, kWriteProtected, "the disk cannot be written: check the image and your rights to it"},
    {std::nullopt, kFileCorrupt, "its record on the disk is damaged: see vrkfs events"},
    {std::nullopt, kDeviceError,
     "a disk failed, or where its image lies is no room left: see vrkfs events, and check both"},
    {std::nullopt, kIoTimeout, "a disk did not answer: see vrkfs events, and check the disks"},
    {std::nullopt, kConfigurationError, "a disk did not answer: see vrkfs events, and check the disks"},
};

bool IsWriting(Operation operation) {
    switch (operation) {
        case Operation::kListVolumes:
        case Operation::kList:
        case Operation::kRead:
        case Operation::kLock:
        case Operation::kRecord:
            return false;
        default:
            return true;
    }
}

// The lock refuses like much else does. Rows that have nothing else to say name it themselves.
constexpr const char* kOrLocked = "; or another program locked the file system";

bool MayBeLocked(Operation operation, host::Status status) {
    return status == host::status::kAccessDenied && operation != Operation::kList &&
           operation != Operation::kListVolumes && operation != Operation::kLock;
}

// What comes of a disk that cannot be written.
bool IsRefusalToWrite(host::Status status) {
    return status == kWriteProtected || status == kDeviceError || status == host::status::kCannotDelete;
}

}  // namespace

std::string AdviceFor(Operation operation, host::Status status) {
    for (const Row& row : kRows) {
        if (row.status == status && row.operation.value_or(operation) == operation) {
            return row.advice + std::string(row.operation && MayBeLocked(operation, status) ? kOrLocked : "");
        }
    }
    return "see what the driver noted: vrkfs events";
}

Failure DriverFailure(Operation operation, const std::string& what, host::Status status) {
    return {.what = what,
            .status = host::StatusName(status),
            .advice = AdviceFor(operation, status),
            .refusedToWrite = IsWriting(operation) && IsRefusalToWrite(status)};
}

Failure ReservedName(const std::string& what) {
    return {.what = what + ": the name is reserved", .advice = "take another name", .state = "nothing was changed"};
}

}  // namespace tool
