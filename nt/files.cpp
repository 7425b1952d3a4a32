#include "nt/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <list>
#include <mutex>
#include <optional>
#include <string>

#include "nt/descriptor.h"
#include "nt/object_internal.h"
#include "nt/station_internal.h"
#include "nt/text.h"

namespace {

constexpr std::u16string_view kRootName = u"\\SystemRoot\\";
constexpr SIZE_T kComponentLimit = 255;
constexpr ULONG kAllocationUnit = 4096;
constexpr ACCESS_MASK kWriteAccess = FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_WRITE_EA | FILE_WRITE_ATTRIBUTES |
                                     GENERIC_WRITE | GENERIC_ALL | WRITE_DAC | WRITE_OWNER;

struct OpenFile {
    nt::Descriptor file;
    nt::Descriptor folder;  // With `name`: what delete-on-close takes away.
    std::string name;
    dev_t device = 0;
    ino_t inode = 0;
    ACCESS_MASK access = 0;
    ULONG share = 0;
    bool deleteOnClose = false;
    LONGLONG position = 0;  // Bytes; where a read without an offset begins.
};

// \SystemRoot and the files that are open in it, guarded by the mutex.
struct SystemRoot {
    std::mutex mutex;
    std::string directory;  // Empty: there is none.
    bool readOnly = false;
    std::list<OpenFile*> open;  // Until cleanup.
};
SystemRoot g_root;

struct FileBody {
    OpenFile* open;
};

// The share rules of the kernel, for the two rights that can be had here.
bool ReadsData(ACCESS_MASK access) {
    return (access & (FILE_READ_DATA | FILE_EXECUTE)) != 0;
}
bool Deletes(ACCESS_MASK access) {
    return (access & DELETE) != 0;
}
bool Refuses(ULONG share, ACCESS_MASK access) {
    return (ReadsData(access) && (share & FILE_SHARE_READ) == 0) ||
           (Deletes(access) && (share & FILE_SHARE_DELETE) == 0);
}
bool SharingConflict(const OpenFile& wanted) {
    if (!ReadsData(wanted.access) && !Deletes(wanted.access)) {
        return false;
    }
    return std::any_of(g_root.open.begin(), g_root.open.end(), [&wanted](const OpenFile* other) {
        return other->device == wanted.device && other->inode == wanted.inode &&
               (Refuses(other->share, wanted.access) ||
                ((ReadsData(other->access) || Deletes(other->access)) && Refuses(wanted.share, other->access)));
    });
}

// Takes the file away if it is still the one that was opened.
void DeleteFile(const OpenFile& open) {
    struct stat status;
    if (fstatat(open.folder.Get(), open.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        status.st_dev == open.device && status.st_ino == open.inode) {
        unlinkat(open.folder.Get(), open.name.c_str(), 0);
        fsync(open.folder.Get());  // What a driver used up must not be there again after a power cut.
    }
}

void CleanupFile(PVOID object) {
    OpenFile* const open = static_cast<FileBody*>(object)->open;
    const std::lock_guard lock(g_root.mutex);
    g_root.open.remove(open);
    if (open->deleteOnClose) {
        open->deleteOnClose = false;
        DeleteFile(*open);
    }
}

void FreeFile(PVOID object) {
    delete static_cast<FileBody*>(object)->open;
}

OBJECT_TYPE g_rootFileType = {
    .name = "file of \\SystemRoot", .lastHandleClosed = CleanupFile, .deleteObject = FreeFile};

class FileReference {
  public:
    NTSTATUS Open(HANDLE handle, ACCESS_MASK wanted) {
        OBJECT_HANDLE_INFORMATION information = {};
        PVOID object = nullptr;
        const NTSTATUS status =
            ObReferenceObjectByHandle(handle, 0, &g_rootFileType, KernelMode, &object, &information);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        body_ = static_cast<FileBody*>(object);
        return (information.GrantedAccess & wanted) == wanted ? STATUS_SUCCESS : STATUS_ACCESS_DENIED;
    }
    FileReference() = default;
    FileReference(const FileReference&) = delete;
    FileReference& operator=(const FileReference&) = delete;
    ~FileReference() {
        if (body_ != nullptr) {
            ObDereferenceObject(body_);
        }
    }
    OpenFile& File() const { return *body_->open; }

  private:
    FileBody* body_ = nullptr;
};

// ---- names ----

NTSTATUS StatusOfErrno(NTSTATUS notFound) {
    switch (errno) {
        case ENOENT:
            return notFound;
        case ENOTDIR:
            return STATUS_OBJECT_PATH_NOT_FOUND;
        case EMFILE:
        case ENFILE:
        case ENOMEM:
            return STATUS_INSUFFICIENT_RESOURCES;
        default:  // No permission, or a link.
            return STATUS_ACCESS_DENIED;
    }
}

std::optional<std::string> ComponentName(std::u16string_view component) {
    if (component.empty() || component.size() > kComponentLimit || component == u"." || component == u".." ||
        component.find_first_of(std::u16string_view(u"/\0", 2)) != std::u16string_view::npos) {
        return std::nullopt;
    }
    return nt::Utf8FromWideExactly(component);
}

// The entry of the folder that has the name: the very name if there is one, else the first that differs in case only.
std::optional<std::string> FindEntry(int folder, const std::string& name, std::u16string_view wideName) {
    struct stat status;
    if (fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        return name;
    }
    const int listed = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* const entries = listed < 0 ? nullptr : fdopendir(listed);
    if (entries == nullptr) {
        close(listed);
        return std::nullopt;
    }
    std::optional<std::string> found;
    while (const dirent* const entry = readdir(entries)) {
        const std::optional<std::u16string> wide = nt::WideFromUtf8(entry->d_name);
        if (wide && nt::EqualIgnoringCase(*wide, wideName) && (!found || entry->d_name < *found)) {
            found = entry->d_name;
        }
    }
    closedir(entries);
    return found;
}

// Opens what the rest of the path names below the folder, component by component and through no link.
NTSTATUS WalkTo(std::u16string_view path, OpenFile* open) {
    while (true) {
        const SIZE_T length = std::min(path.find(u'\\'), path.size());
        const std::u16string_view component = path.substr(0, length);
        const bool last = length == path.size();
        const std::optional<std::string> name = ComponentName(component);
        if (!name) {
            return STATUS_OBJECT_NAME_INVALID;
        }
        const NTSTATUS notFound = last ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_OBJECT_PATH_NOT_FOUND;
        std::optional<std::string> entry = FindEntry(open->folder.Get(), *name, component);
        if (!entry) {
            return notFound;
        }
        if (last) {
            open->name = *std::move(entry);
            return STATUS_SUCCESS;
        }
        nt::Descriptor next(
            openat(open->folder.Get(), entry->c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!next) {
            return StatusOfErrno(notFound);
        }
        open->folder = std::move(next);
        path.remove_prefix(length + 1);
    }
}

NTSTATUS OpenRegularFile(OpenFile* open) {
    struct stat status;
    if (fstatat(open->folder.Get(), open->name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return StatusOfErrno(STATUS_OBJECT_NAME_NOT_FOUND);
    }
    if (S_ISDIR(status.st_mode)) {
        return STATUS_FILE_IS_A_DIRECTORY;
    }
    if (!S_ISREG(status.st_mode)) {
        return STATUS_ACCESS_DENIED;
    }
    open->file =
        nt::Descriptor(openat(open->folder.Get(), open->name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!open->file) {
        return StatusOfErrno(STATUS_OBJECT_NAME_NOT_FOUND);
    }
    if (fstat(open->file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return STATUS_ACCESS_DENIED;
    }
    open->device = status.st_dev;
    open->inode = status.st_ino;
    return STATUS_SUCCESS;
}

NTSTATUS CheckOptions(ACCESS_MASK access, ULONG disposition, ULONG options, PVOID eaBuffer) {
    constexpr ULONG kSynchronous = FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT;
    if ((options & kSynchronous) != 0 && (access & SYNCHRONIZE) == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    if ((options & FILE_DELETE_ON_CLOSE) != 0 && (access & DELETE) == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    if (disposition != FILE_OPEN || (access & kWriteAccess) != 0 || (options & kSynchronous) == 0 ||
        (options & FILE_DIRECTORY_FILE) != 0) {
        return STATUS_NOT_IMPLEMENTED;
    }
    return eaBuffer == nullptr ? STATUS_SUCCESS : STATUS_EAS_NOT_SUPPORTED;
}

ACCESS_MASK MapGenericAccess(ACCESS_MASK access) {
    ACCESS_MASK mapped = access & ~(GENERIC_READ | GENERIC_EXECUTE | MAXIMUM_ALLOWED);
    if ((access & (GENERIC_READ | MAXIMUM_ALLOWED)) != 0) {
        mapped |= FILE_GENERIC_READ;
    }
    if ((access & GENERIC_EXECUTE) != 0) {
        mapped |= FILE_GENERIC_EXECUTE;
    }
    return mapped;
}

// Opens the file of the path into `open`. The mutex is held.
NTSTATUS OpenByPath(std::u16string_view path, OpenFile* open) {
    if (g_root.directory.empty() || path.size() <= kRootName.size() ||
        !nt::EqualIgnoringCase(path.substr(0, kRootName.size()), kRootName)) {
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    if (g_root.readOnly && open->deleteOnClose) {
        return STATUS_MEDIA_WRITE_PROTECTED;
    }
    open->folder = nt::Descriptor(::open(g_root.directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!open->folder) {
        return StatusOfErrno(STATUS_OBJECT_PATH_NOT_FOUND);
    }
    NTSTATUS status = WalkTo(path.substr(kRootName.size()), open);
    if (NT_SUCCESS(status)) {
        status = OpenRegularFile(open);
    }
    if (NT_SUCCESS(status) && SharingConflict(*open)) {
        status = STATUS_SHARING_VIOLATION;
    }
    return status;
}

NTSTATUS CreateFileHandle(const OBJECT_ATTRIBUTES& attributes, ACCESS_MASK access, ULONG share, bool deleteOnClose,
                          PHANDLE handle) {
    std::u16string_view path;
    NTSTATUS status = nt::ObPathOf(attributes, &path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    auto* const body = static_cast<FileBody*>(nt::ObAllocate(&g_rootFileType, sizeof(FileBody)));
    if (body == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    OpenFile* const open = body->open = new OpenFile;
    open->access = access;
    open->share = share;
    open->deleteOnClose = deleteOnClose;
    {
        const std::lock_guard lock(g_root.mutex);
        status = OpenByPath(path, open);
        if (NT_SUCCESS(status)) {
            g_root.open.push_back(open);
        }
    }
    if (NT_SUCCESS(status)) {
        status = nt::ObCreateHandle(body, access, attributes.Attributes, handle);
        if (!NT_SUCCESS(status)) {
            const std::lock_guard lock(g_root.mutex);
            g_root.open.remove(open);
        }
    }
    ObDereferenceObject(body);
    return status;
}

// Where a read begins, or -1 for an offset that is none.
LONGLONG StartOfRead(const OpenFile& file, const LARGE_INTEGER* byteOffset) {
    if (byteOffset == nullptr ||
        (byteOffset->HighPart == -1 && byteOffset->LowPart == FILE_USE_FILE_POINTER_POSITION)) {
        return file.position;
    }
    return std::max<LONGLONG>(byteOffset->QuadPart, -1);
}

NTSTATUS ReadAt(OpenFile* file, LONGLONG start, PVOID buffer, ULONG length, PIO_STATUS_BLOCK ioStatus) {
    ULONG done = 0;
    while (done < length) {
        const ssize_t count = pread(file->file.Get(), static_cast<UCHAR*>(buffer) + done, length - done, start + done);
        if (count == 0) {
            break;
        }
        if (count > 0) {
            done += static_cast<ULONG>(count);
        } else if (errno != EINTR) {
            return errno == EFAULT ? STATUS_ACCESS_VIOLATION : STATUS_DEVICE_DATA_ERROR;
        }
    }
    file->position = start + done;
    ioStatus->Information = done;
    return done == 0 && length != 0 ? STATUS_END_OF_FILE : STATUS_SUCCESS;
}

NTSTATUS QueryStandard(const OpenFile& file, PVOID buffer, ULONG length, PIO_STATUS_BLOCK ioStatus) {
    if (length < sizeof(FILE_STANDARD_INFORMATION)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    struct stat status;
    if (fstat(file.file.Get(), &status) != 0) {
        return STATUS_DEVICE_DATA_ERROR;
    }
    FILE_STANDARD_INFORMATION information = {};
    information.EndOfFile.QuadPart = status.st_size;
    information.AllocationSize.QuadPart = (status.st_size + kAllocationUnit - 1) / kAllocationUnit * kAllocationUnit;
    information.NumberOfLinks = static_cast<ULONG>(status.st_nlink);
    std::memcpy(buffer, &information, sizeof(information));
    ioStatus->Information = sizeof(information);
    return STATUS_SUCCESS;
}

void DetachSystemRoot(nt::LeakList& /*leaks*/) {
    const std::lock_guard lock(g_root.mutex);
    g_root.directory.clear();
    g_root.readOnly = false;
    g_root.open.clear();  // what is left over is the object manager's to give back
}

[[maybe_unused]] const bool kAdded = nt::AddKernelPart({.name = "files", .boot = [] {}, .shutdown = DetachSystemRoot});

}  // namespace

NTSTATUS ZwCreateFile(PHANDLE fileHandle, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES objectAttributes,
                      PIO_STATUS_BLOCK ioStatusBlock, PLARGE_INTEGER /*allocationSize*/, ULONG /*fileAttributes*/,
                      ULONG shareAccess, ULONG createDisposition, ULONG createOptions, PVOID eaBuffer,
                      ULONG /*eaLength*/) {
    *fileHandle = nullptr;
    *ioStatusBlock = {};
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
    if (!nt::FaultPoint(nt::FaultKind::kFile)) {
        status = CheckOptions(desiredAccess, createDisposition, createOptions, eaBuffer);
    }
    if (NT_SUCCESS(status)) {
        status = CreateFileHandle(*objectAttributes, MapGenericAccess(desiredAccess), shareAccess,
                                  (createOptions & FILE_DELETE_ON_CLOSE) != 0, fileHandle);
    }
    ioStatusBlock->Status = status;
    ioStatusBlock->Information = NT_SUCCESS(status) ? FILE_OPENED : 0;
    return status;
}

NTSTATUS ZwReadFile(HANDLE fileHandle, HANDLE event, PIO_APC_ROUTINE apcRoutine, PVOID apcContext,
                    PIO_STATUS_BLOCK ioStatusBlock, PVOID buffer, ULONG length, PLARGE_INTEGER byteOffset,
                    PULONG /*key*/) {
    *ioStatusBlock = {};
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
    FileReference reference;
    if (!nt::FaultPoint(nt::FaultKind::kFile)) {
        status = event == nullptr && apcRoutine == nullptr && apcContext == nullptr
                     ? reference.Open(fileHandle, FILE_READ_DATA)
                     : STATUS_NOT_IMPLEMENTED;
    }
    if (NT_SUCCESS(status)) {
        // One read of a synchronous handle at a time, so that the position moves as if nobody else were reading.
        const std::lock_guard lock(g_root.mutex);
        const LONGLONG start = StartOfRead(reference.File(), byteOffset);
        status = start < 0 ? STATUS_INVALID_PARAMETER : ReadAt(&reference.File(), start, buffer, length, ioStatusBlock);
    }
    ioStatusBlock->Status = status;
    return status;
}

NTSTATUS ZwQueryInformationFile(HANDLE fileHandle, PIO_STATUS_BLOCK ioStatusBlock, PVOID fileInformation, ULONG length,
                                FILE_INFORMATION_CLASS informationClass) {
    *ioStatusBlock = {};
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
    FileReference reference;
    if (!nt::FaultPoint(nt::FaultKind::kFile)) {
        status =
            informationClass == FileStandardInformation ? reference.Open(fileHandle, 0) : STATUS_INVALID_INFO_CLASS;
    }
    if (NT_SUCCESS(status)) {
        status = QueryStandard(reference.File(), fileInformation, length, ioStatusBlock);
    }
    ioStatusBlock->Status = status;
    return status;
}

namespace nt {

std::string AttachSystemRoot(const std::string& directory, bool readOnly) {
    const std::lock_guard lock(g_root.mutex);
    g_root.directory = directory;
    g_root.readOnly = readOnly;
    return {};
}

}  // namespace nt
