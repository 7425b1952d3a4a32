#include <array>
#include <cstring>

#include "nt/system_call.h"

// File and volume information of a process.
//
// The kernel itself insists on the length of each class's record and on the access that setting or asking it needs, for
// user processes; it answers positions of synchronous files, access, mode and alignment without the driver.

namespace nt {

namespace {

struct ClassRule {
    int informationClass;
    ULONG length;  // of the class's record on the 32-bit kernel
    ACCESS_MASK access;
};

constexpr std::array kQueryRules = {
    ClassRule{FileBasicInformation, 40, FILE_READ_ATTRIBUTES},
    ClassRule{FileStandardInformation, 24, 0},
    ClassRule{FileInternalInformation, 8, 0},
    ClassRule{FileEaInformation, 4, 0},
    ClassRule{FileAccessInformation, 4, 0},
    ClassRule{FileNameInformation, 8, 0},
    ClassRule{FilePositionInformation, 8, 0},
    ClassRule{FileModeInformation, 4, 0},
    ClassRule{FileAlignmentInformation, 4, 0},
    ClassRule{FileAllInformation, 104, FILE_READ_ATTRIBUTES},
    ClassRule{FileAlternateNameInformation, 8, 0},
    ClassRule{FileStreamInformation, 32, 0},
    ClassRule{FilePipeInformation, 8, FILE_READ_ATTRIBUTES},
    ClassRule{FilePipeLocalInformation, 40, FILE_READ_ATTRIBUTES},
    ClassRule{FilePipeRemoteInformation, 16, FILE_READ_ATTRIBUTES},
    ClassRule{FileMailslotQueryInformation, 24, 0},
    ClassRule{FileCompressionInformation, 16, 0},
    ClassRule{FileNetworkOpenInformation, 56, FILE_READ_ATTRIBUTES},
    ClassRule{FileAttributeTagInformation, 8, FILE_READ_ATTRIBUTES},
};

constexpr std::array kSetRules = {
    ClassRule{FileBasicInformation, 40, FILE_WRITE_ATTRIBUTES},
    ClassRule{FileRenameInformation, 16, DELETE},
    ClassRule{FileLinkInformation, 16, 0},
    ClassRule{FileDispositionInformation, 1, DELETE},
    ClassRule{FilePositionInformation, 8, 0},
    ClassRule{FileModeInformation, 4, 0},
    ClassRule{FileAllocationInformation, 8, FILE_WRITE_DATA},
    ClassRule{FileEndOfFileInformation, 8, FILE_WRITE_DATA},
};

constexpr std::array kQueryVolumeRules = {
    ClassRule{FileFsVolumeInformation, 24, 0},
    ClassRule{FileFsSizeInformation, 24, 0},
    ClassRule{FileFsDeviceInformation, 8, 0},
    ClassRule{FileFsAttributeInformation, 16, 0},
    ClassRule{FileFsControlInformation, 48, FILE_READ_DATA},
    ClassRule{FileFsFullSizeInformation, 32, 0},
    ClassRule{FileFsObjectIdInformation, 64, 0},
};

constexpr std::array kSetVolumeRules = {
    ClassRule{FileFsLabelInformation, 8, FILE_WRITE_DATA},
    ClassRule{FileFsControlInformation, 48, FILE_WRITE_DATA},
    ClassRule{FileFsObjectIdInformation, 64, FILE_WRITE_DATA},
};

constexpr std::array kDirectoryRules = {
    ClassRule{FileDirectoryInformation, sizeof(FILE_DIRECTORY_INFORMATION), 0},
    ClassRule{FileFullDirectoryInformation, sizeof(FILE_FULL_DIR_INFORMATION), 0},
    ClassRule{FileBothDirectoryInformation, sizeof(FILE_BOTH_DIR_INFORMATION), 0},
    ClassRule{FileNamesInformation, sizeof(FILE_NAMES_INFORMATION), 0},
};

template <size_t N>
const ClassRule* RuleOf(const std::array<ClassRule, N>& rules, int informationClass) {
    for (const ClassRule& rule : rules) {
        if (rule.informationClass == informationClass) {
            return &rule;
        }
    }
    return nullptr;
}

// Checks class and length and takes the file of a handle that has the access which the class needs.
template <size_t N>
NTSTATUS TakeFileFor(SystemRequest& request, const std::array<ClassRule, N>& rules, int informationClass, ULONG length,
                     Handle handle) {
    const ClassRule* const rule = RuleOf(rules, informationClass);
    if (request.IsUser() && rule == nullptr) {
        return request.Answer(STATUS_INVALID_INFO_CLASS);
    }
    if (request.IsUser() && length < rule->length) {
        return request.Answer(STATUS_INFO_LENGTH_MISMATCH);
    }
    return request.TakeFile(handle, rule != nullptr ? rule->access : 0);
}

// A system buffer whose contents go back to the caller.
NTSTATUS AttachReply(SystemRequest& request, PVOID buffer, ULONG length) {
    PVOID const system = AllocateSystemBuffer(request.Record(), length);
    if (system == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    FillBeyondInput(system, 0, length);
    request.Irp()->UserBuffer = buffer;
    request.Irp()->Flags |= IRP_BUFFERED_IO | IRP_INPUT_OPERATION;
    request.Record()->outputLength = length;
    return STATUS_SUCCESS;
}

NTSTATUS AttachInput(SystemRequest& request, const void* buffer, ULONG length) {
    PVOID const system = AllocateSystemBuffer(request.Record(), length);
    if (system == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    request.Irp()->Flags |= IRP_BUFFERED_IO;
    return CopyFromUser(request.Mode(), system, buffer, length) ? STATUS_SUCCESS : STATUS_ACCESS_VIOLATION;
}

ULONG ModeOf(const FILE_OBJECT* file) {
    ULONG mode = 0;
    mode |= (file->Flags & FO_WRITE_THROUGH) != 0 ? FILE_WRITE_THROUGH : 0;
    mode |= (file->Flags & FO_SEQUENTIAL_ONLY) != 0 ? FILE_SEQUENTIAL_ONLY : 0;
    mode |= (file->Flags & FO_NO_INTERMEDIATE_BUFFERING) != 0 ? FILE_NO_INTERMEDIATE_BUFFERING : 0;
    if (IsSynchronous(file)) {
        mode |= (file->Flags & FO_ALERTABLE_IO) != 0 ? FILE_SYNCHRONOUS_IO_ALERT : FILE_SYNCHRONOUS_IO_NONALERT;
    }
    return mode;
}

// The classes that need no driver; false for the others.
bool AnswerQuery(SystemRequest& request, void* buffer, FILE_INFORMATION_CLASS informationClass, NTSTATUS* status) {
    const PFILE_OBJECT file = request.File();
    LARGE_INTEGER answer{};
    ULONG length = sizeof(ULONG);
    if (informationClass == FilePositionInformation && IsSynchronous(file)) {
        answer = file->CurrentByteOffset;
        length = sizeof(FILE_POSITION_INFORMATION);
    } else if (informationClass == FileAccessInformation) {
        answer.LowPart = request.Granted();
    } else if (informationClass == FileModeInformation) {
        answer.LowPart = ModeOf(file);
    } else if (informationClass == FileAlignmentInformation) {
        answer.LowPart = file->DeviceObject->AlignmentRequirement;
    } else {
        return false;
    }
    *status = CopyToUser(request.Mode(), buffer, &answer, length) ? request.Answer(STATUS_SUCCESS, length)
                                                                  : request.Answer(STATUS_ACCESS_VIOLATION);
    return true;
}

// Of all information the kernel puts in what it knows before the driver fills in the rest.
void PrefillAll(const SystemRequest& request, ULONG length) {
    if (length >= sizeof(FILE_ALL_INFORMATION)) {
        auto* const all = static_cast<PFILE_ALL_INFORMATION>(request.Irp()->AssociatedIrp.SystemBuffer);
        all->AccessInformation.AccessFlags = request.Granted();
        all->ModeInformation.Mode = ModeOf(request.File());
        all->AlignmentInformation.AlignmentRequirement = request.File()->DeviceObject->AlignmentRequirement;
    }
}

NTSTATUS SetPosition(SystemRequest& request, const void* buffer) {
    FILE_POSITION_INFORMATION position{};
    if (!CopyFromUser(request.Mode(), &position, buffer, sizeof(position))) {
        return request.Answer(STATUS_ACCESS_VIOLATION);
    }
    const PFILE_OBJECT file = request.File();
    const USHORT sector = file->DeviceObject->SectorSize;
    const bool whole = (file->Flags & FO_NO_INTERMEDIATE_BUFFERING) == 0 || sector == 0 ||
                       position.CurrentByteOffset.QuadPart % sector == 0;
    if (position.CurrentByteOffset.QuadPart < 0 || !whole) {
        return request.Answer(STATUS_INVALID_PARAMETER);
    }
    file->CurrentByteOffset = position.CurrentByteOffset;
    return request.Answer(STATUS_SUCCESS);
}

NTSTATUS SetMode(SystemRequest& request, const void* buffer) {
    FILE_MODE_INFORMATION mode{};
    if (!CopyFromUser(request.Mode(), &mode, buffer, sizeof(mode))) {
        return request.Answer(STATUS_ACCESS_VIOLATION);
    }
    constexpr ULONG kSettable = FILE_WRITE_THROUGH | FILE_SEQUENTIAL_ONLY;
    const ULONG before = ModeOf(request.File());
    if ((mode.Mode & ~kSettable) != (before & ~kSettable)) {
        return request.Answer(STATUS_INVALID_PARAMETER);
    }
    ULONG flags = request.File()->Flags & ~(FO_WRITE_THROUGH | FO_SEQUENTIAL_ONLY);
    flags |= (mode.Mode & FILE_WRITE_THROUGH) != 0 ? FO_WRITE_THROUGH : 0;
    flags |= (mode.Mode & FILE_SEQUENTIAL_ONLY) != 0 ? FO_SEQUENTIAL_ONLY : 0;
    request.File()->Flags = flags;
    return request.Answer(STATUS_SUCCESS);
}

// ---- rename ----

// The open of a rename target's parent, made for the length of the request.
class RenameTarget {
  public:
    RenameTarget() = default;
    ~RenameTarget() {
        if (file_ != nullptr) {
            CleanupFileObject(file_);
            ObfDereferenceObject(file_);
        }
    }
    RenameTarget(const RenameTarget&) = delete;
    RenameTarget& operator=(const RenameTarget&) = delete;

    NTSTATUS Open(PEPROCESS process, const SystemRequest& request, const FILE_RENAME_INFORMATION* rename);
    PFILE_OBJECT File() const { return file_; }

  private:
    PFILE_OBJECT file_ = nullptr;
};

NTSTATUS RenameTarget::Open(PEPROCESS process, const SystemRequest& request, const FILE_RENAME_INFORMATION* rename) {
    OpenRequest open;
    PVOID root = nullptr;
    if (rename->RootDirectory != 0) {
        const NTSTATUS status = ReferenceHandle(process, HandleFromValue(rename->RootDirectory), 0, &g_fileType,
                                                process->mode, &root, nullptr);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    open.name = {rename->FileName, rename->FileNameLength / sizeof(WCHAR)};
    open.related = static_cast<PFILE_OBJECT>(root);
    open.access = FILE_WRITE_DATA | SYNCHRONIZE;
    open.share = FILE_SHARE_READ | FILE_SHARE_WRITE;
    open.options = FILE_OPEN_FOR_BACKUP_INTENT;
    open.ignoreCase = (request.File()->Flags & FO_OPENED_CASE_SENSITIVE) == 0;
    open.targetDirectory = true;
    open.process = process;
    ULONG_PTR information = 0;
    const NTSTATUS status = OpenFile(open, &file_, &information);
    if (root != nullptr) {
        ObfDereferenceObject(root);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    file_->Flags |= FO_HANDLE_CREATED;
    return file_->DeviceObject == request.File()->DeviceObject ? STATUS_SUCCESS : STATUS_NOT_SAME_DEVICE;
}

NTSTATUS CheckRename(const SystemRequest& request, ULONG length) {
    if (!request.IsUser()) {
        return STATUS_SUCCESS;
    }
    const auto* const rename = static_cast<const FILE_RENAME_INFORMATION*>(request.Irp()->AssociatedIrp.SystemBuffer);
    const ULONG room = length - static_cast<ULONG>(offsetof(FILE_RENAME_INFORMATION, FileName));
    const ULONG bytes = rename->FileNameLength;
    return bytes == 0 || bytes % sizeof(WCHAR) != 0 || bytes > room || bytes > UNICODE_STRING_MAX_BYTES
               ? STATUS_INVALID_PARAMETER
               : STATUS_SUCCESS;
}

// A name with a path in it leads to another folder, perhaps: the driver gets that folder as an open file.
bool NamesAPath(const FILE_RENAME_INFORMATION* rename) {
    return rename->RootDirectory != 0 || (rename->FileNameLength >= sizeof(WCHAR) && rename->FileName[0] == u'\\');
}

// The rename's parameters, and the open of its target's parent if the name has a path.
NTSTATUS PrepareRename(PEPROCESS process, const SystemRequest& request, ULONG length, RenameTarget& target) {
    const NTSTATUS checked = CheckRename(request, length);
    if (!NT_SUCCESS(checked) || length < sizeof(FILE_RENAME_INFORMATION)) {
        return checked;
    }
    const auto* const rename = static_cast<const FILE_RENAME_INFORMATION*>(request.Irp()->AssociatedIrp.SystemBuffer);
    auto& parameters = request.Stack()->Parameters.SetFile;
    parameters.ReplaceIfExists = rename->ReplaceIfExists;
    if (!NamesAPath(rename)) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS opened = target.Open(process, request, rename);
    parameters.FileObject = target.File();
    return opened;
}

// ---- volumes ----

// Queries and sets have one form of parameters and differ in where the buffer's contents go.
NTSTATUS SendVolume(SystemRequest& request, UCHAR major, void* buffer, ULONG length,
                    FS_INFORMATION_CLASS informationClass) {
    static_assert(offsetof(IO_STACK_LOCATION, Parameters.QueryVolume.FsInformationClass) ==
                  offsetof(IO_STACK_LOCATION, Parameters.SetVolume.FsInformationClass));
    const NTSTATUS begun = request.Begin(major);
    if (!NT_SUCCESS(begun)) {
        return begun;
    }
    request.Stack()->Parameters.QueryVolume.Length = length;
    request.Stack()->Parameters.QueryVolume.FsInformationClass = informationClass;
    const NTSTATUS attached = major == IRP_MJ_QUERY_VOLUME_INFORMATION ? AttachReply(request, buffer, length)
                                                                       : AttachInput(request, buffer, length);
    return NT_SUCCESS(attached) ? request.Send() : request.Answer(attached);
}

}  // namespace

ULONG DirectoryLength(FILE_INFORMATION_CLASS informationClass) {
    const ClassRule* const rule = RuleOf(kDirectoryRules, informationClass);
    return rule != nullptr ? rule->length : 0;
}

NTSTATUS Process::QueryInformation(Handle handle, IO_STATUS_BLOCK* status, void* buffer, ULONG length,
                                   FILE_INFORMATION_CLASS informationClass) {
    SystemRequest request(object_, status, nullptr, true);
    NTSTATUS result = TakeFileFor(request, kQueryRules, informationClass, length, handle);
    if (!NT_SUCCESS(result) || AnswerQuery(request, buffer, informationClass, &result)) {
        return result;
    }
    result = request.Begin(IRP_MJ_QUERY_INFORMATION);
    if (!NT_SUCCESS(result)) {
        return result;
    }
    request.Stack()->Parameters.QueryFile.Length = length;
    request.Stack()->Parameters.QueryFile.FileInformationClass = informationClass;
    result = AttachReply(request, buffer, length);
    if (!NT_SUCCESS(result)) {
        return request.Answer(result);
    }
    if (informationClass == FileAllInformation) {
        PrefillAll(request, length);
    }
    return request.Send();
}

NTSTATUS Process::SetInformation(Handle handle, IO_STATUS_BLOCK* status, const void* buffer, ULONG length,
                                 FILE_INFORMATION_CLASS informationClass) {
    const SystemCall call(object_);  // the target's end belongs to it too
    RenameTarget target;             // outlives the request, whose file object's turn it does not need
    SystemRequest request(object_, status, nullptr, true);
    NTSTATUS result = TakeFileFor(request, kSetRules, informationClass, length, handle);
    if (!NT_SUCCESS(result)) {
        return result;
    }
    if (informationClass == FilePositionInformation && IsSynchronous(request.File())) {
        return SetPosition(request, buffer);
    }
    if (informationClass == FileModeInformation) {
        return SetMode(request, buffer);
    }
    result = request.Begin(IRP_MJ_SET_INFORMATION);
    if (!NT_SUCCESS(result)) {
        return result;
    }
    request.Stack()->Parameters.SetFile.Length = length;
    request.Stack()->Parameters.SetFile.FileInformationClass = informationClass;
    result = AttachInput(request, buffer, length);
    if (NT_SUCCESS(result) && informationClass == FileRenameInformation) {
        result = PrepareRename(object_, request, length, target);
    }
    return NT_SUCCESS(result) ? request.Send() : request.Answer(result);
}

NTSTATUS Process::QueryVolumeInformation(Handle handle, IO_STATUS_BLOCK* status, void* buffer, ULONG length,
                                         FS_INFORMATION_CLASS informationClass) {
    SystemRequest request(object_, status, nullptr, true);
    const NTSTATUS taken = TakeFileFor(request, kQueryVolumeRules, informationClass, length, handle);
    return NT_SUCCESS(taken) ? SendVolume(request, IRP_MJ_QUERY_VOLUME_INFORMATION, buffer, length, informationClass)
                             : taken;
}

NTSTATUS Process::SetVolumeInformation(Handle handle, IO_STATUS_BLOCK* status, const void* buffer, ULONG length,
                                       FS_INFORMATION_CLASS informationClass) {
    SystemRequest request(object_, status, nullptr, true);
    const NTSTATUS taken = TakeFileFor(request, kSetVolumeRules, informationClass, length, handle);
    return NT_SUCCESS(taken)
               ? SendVolume(request, IRP_MJ_SET_VOLUME_INFORMATION, const_cast<void*>(buffer), length, informationClass)
               : taken;
}

}  // namespace nt
