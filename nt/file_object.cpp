#include "nt/file_object.h"

#include <cstdlib>
#include <cstring>

#include "nt/object_header.h"

// File objects: made by an open, cleaned up with the last handle, closed with the last reference.

namespace nt {

namespace {

constexpr ULONG kNameTag = 0x6D4E6F49;  // "IoNm"

struct FileMemory {
    FILE_OBJECT file;
    FileExtension extension;
};

WordLock g_vpbLock;  // guards the reference counts of volume parameter blocks

FileExtension* ExtensionOf(PFILE_OBJECT file) {
    return static_cast<FileExtension*>(file->FileObjectExtension);
}

ULONG FlagsOfOptions(const OpenRequest& request) {
    ULONG flags = 0;
    flags |=
        (request.options & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT)) != 0 ? FO_SYNCHRONOUS_IO : 0;
    flags |= (request.options & FILE_SYNCHRONOUS_IO_ALERT) != 0 ? FO_ALERTABLE_IO : 0;
    flags |= (request.options & FILE_NO_INTERMEDIATE_BUFFERING) != 0 ? FO_NO_INTERMEDIATE_BUFFERING : 0;
    flags |= (request.options & FILE_WRITE_THROUGH) != 0 ? FO_WRITE_THROUGH : 0;
    flags |= (request.options & FILE_SEQUENTIAL_ONLY) != 0 ? FO_SEQUENTIAL_ONLY : 0;
    flags |= (request.options & FILE_RANDOM_ACCESS) != 0 ? FO_RANDOM_ACCESS : 0;
    flags |= request.ignoreCase ? 0 : FO_OPENED_CASE_SENSITIVE;
    return flags;
}

bool SetName(PFILE_OBJECT file, std::u16string_view name) {
    if (name.empty()) {
        return true;
    }
    const auto bytes = static_cast<USHORT>(name.size() * sizeof(WCHAR));
    file->FileName.Buffer = static_cast<PWCHAR>(KernelAllocate(bytes, kNameTag));
    if (file->FileName.Buffer == nullptr) {
        return false;
    }
    std::memcpy(file->FileName.Buffer, name.data(), bytes);
    file->FileName.Length = bytes;
    file->FileName.MaximumLength = bytes;
    return true;
}

// The mounted volume on the device, counted, or null.
PVPB ReferenceVpb(PDEVICE_OBJECT device) {
    WordGuard guard(g_vpbLock);
    const PVPB vpb = device->Vpb;
    if (vpb == nullptr || (vpb->Flags & VPB_MOUNTED) == 0 || vpb->DeviceObject == nullptr) {
        return nullptr;
    }
    vpb->ReferenceCount++;
    return vpb;
}

void DereferenceVpb(PVPB vpb) {
    WordGuard guard(g_vpbLock);
    vpb->ReferenceCount--;
}

// A file object on the device, whose reference it takes over. Null when memory is short.
PFILE_OBJECT NewFile(const OpenRequest& request, PDEVICE_OBJECT device, std::u16string_view name) {
    auto* const memory = static_cast<FileMemory*>(ObAllocate(&g_fileType, sizeof(FileMemory)));
    if (memory == nullptr) {
        ObfDereferenceObject(device);
        return nullptr;
    }
    PFILE_OBJECT const file = &memory->file;
    file->Type = IO_TYPE_FILE;
    file->Size = sizeof(FILE_OBJECT);
    file->DeviceObject = device;
    file->Flags = FlagsOfOptions(request);
    file->RelatedFileObject = request.related;
    file->FileObjectExtension = &memory->extension;
    memory->extension.synchronous = (file->Flags & FO_SYNCHRONOUS_IO) != 0;
    if (name.empty() && (request.related == nullptr || (request.related->Flags & FO_VOLUME_OPEN) != 0)) {
        file->Flags |= FO_VOLUME_OPEN;
    }
    InitializeHeader(&file->Lock.Header, kSynchronizationEventObject, 0);
    InitializeHeader(&file->Event.Header, kNotificationEventObject, 0);
    InitializeListHead(&file->IrpList);
    __atomic_add_fetch(&device->ReferenceCount, 1, __ATOMIC_ACQ_REL);
    memory->extension.vpb = ReferenceVpb(device);
    file->Vpb = memory->extension.vpb;
    if (!SetName(file, name)) {
        ObfDereferenceObject(file);
        return nullptr;
    }
    return file;
}

NTSTATUS CheckDevice(PDEVICE_OBJECT device) {
    if ((device->Flags & DO_DEVICE_INITIALIZING) != 0) {
        return STATUS_NO_SUCH_DEVICE;
    }
    if ((device->Flags & DO_EXCLUSIVE) != 0 && __atomic_load_n(&device->ReferenceCount, __ATOMIC_ACQUIRE) != 0) {
        return STATUS_ACCESS_DENIED;
    }
    return STATUS_SUCCESS;
}

// The device that is opened, referenced, and the name on it.
NTSTATUS Resolve(const OpenRequest& request, PDEVICE_OBJECT* device, std::u16string* name) {
    NTSTATUS status = STATUS_SUCCESS;
    if (request.related != nullptr) {
        if (!request.name.empty() && request.name.front() == u'\\') {
            return STATUS_OBJECT_PATH_SYNTAX_BAD;
        }
        *device = request.related->DeviceObject;
        *name = request.name;
        ObfReferenceObject(*device);
    } else {
        status = ObParsePath(request.name, device, name);
    }
    if (NT_SUCCESS(status)) {
        status = name->size() * sizeof(WCHAR) > UNICODE_STRING_MAX_BYTES ? STATUS_NAME_TOO_LONG : CheckDevice(*device);
        if (!NT_SUCCESS(status)) {
            ObfDereferenceObject(*device);
        }
    }
    return status;
}

// A request of the I/O manager that no failure to find memory may prevent.
IrpRecord* NewManagerRequest(PDEVICE_OBJECT device) {
    IrpRecord* const record = NewIrp(device->StackSize, IrpKind::kSystem);
    if (record == nullptr) {
        Violation("no memory for a request that must not fail");
        std::abort();
    }
    record->process = CurrentProcess();
    record->irp->Tail.Overlay.Thread = Self();
    return record;
}

// Cleanup and close: synchronous, in kernel mode, with nobody to report a failure to.
void SendEnd(PFILE_OBJECT file, UCHAR major) {
    PDEVICE_OBJECT const device = file->DeviceObject;
    IrpRecord* const record = NewManagerRequest(device);
    PIRP const irp = record->irp;
    irp->Flags = IRP_SYNCHRONOUS_API | IRP_CLOSE_OPERATION;
    irp->RequestorMode = KernelMode;
    irp->Tail.Overlay.OriginalFileObject = file;
    NextStack(record, major, 0, file);
    IssueAndWait(record, device);
    FreeIrp(record);
}

NTSTATUS SendCreate(const OpenRequest& request, PFILE_OBJECT file, ULONG_PTR* information) {
    PDEVICE_OBJECT const device = file->DeviceObject;
    IrpRecord* const record = NewIrp(device->StackSize, IrpKind::kSystem);
    if (record == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PIRP const irp = record->irp;
    IO_SECURITY_CONTEXT security{nullptr, nullptr, request.access, request.options};
    record->process = request.process != nullptr ? request.process : CurrentProcess();
    irp->Flags = IRP_CREATE_OPERATION | IRP_SYNCHRONOUS_API | IRP_DEFER_IO_COMPLETION;
    irp->RequestorMode = request.mode;
    irp->Tail.Overlay.Thread = Self();
    irp->Tail.Overlay.OriginalFileObject = file;
    PIO_STACK_LOCATION const stack = NextStack(record, IRP_MJ_CREATE, 0, file);
    stack->Flags = static_cast<UCHAR>((request.targetDirectory ? SL_OPEN_TARGET_DIRECTORY | SL_FORCE_ACCESS_CHECK : 0) |
                                      (request.ignoreCase ? 0 : SL_CASE_SENSITIVE));
    stack->Parameters.Create.SecurityContext = &security;
    stack->Parameters.Create.Options = request.disposition << 24 | (request.options & FILE_VALID_OPTION_FLAGS);
    stack->Parameters.Create.FileAttributes = static_cast<USHORT>(request.fileAttributes);
    stack->Parameters.Create.ShareAccess = static_cast<USHORT>(request.share);
    stack->Parameters.Create.EaLength = request.eaLength;
    NTSTATUS status = STATUS_SUCCESS;
    if (request.eaLength != 0) {
        PVOID const buffer = AllocateSystemBuffer(record, request.eaLength);
        status = buffer == nullptr ? STATUS_INSUFFICIENT_RESOURCES
                 : !CopyFromUser(request.mode, buffer, request.eaBuffer, request.eaLength) ? STATUS_ACCESS_VIOLATION
                                                                                           : STATUS_SUCCESS;
    }
    if (NT_SUCCESS(status)) {
        status = IssueAndWait(record, device);
        *information = irp->IoStatus.Information;
    }
    FreeIrp(record);
    return status;
}

}  // namespace

NTSTATUS OpenFile(const OpenRequest& request, PFILE_OBJECT* file, ULONG_PTR* information) {
    *information = 0;
    PDEVICE_OBJECT device = nullptr;
    std::u16string name;
    NTSTATUS status = Resolve(request, &device, &name);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PFILE_OBJECT const opened = NewFile(request, device, name);
    if (opened == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    status = SendCreate(request, opened, information);
    opened->RelatedFileObject = nullptr;
    if (!NT_SUCCESS(status)) {
        ObfDereferenceObject(opened);
        return status;
    }
    opened->Flags |= FO_FILE_OPEN;
    ExtensionOf(opened)->opened = true;
    *file = opened;
    return status;
}

void CleanupFileObject(PVOID object) {
    auto* const file = static_cast<PFILE_OBJECT>(object);
    if (!ExtensionOf(file)->opened) {
        return;
    }
    // As on the real kernel the last handle waits for its turn behind synchronous requests in progress.
    const bool synchronous = IsSynchronous(file);
    if (synchronous) {
        LockFile(file);
    }
    SendEnd(file, IRP_MJ_CLEANUP);
    if (synchronous) {
        UnlockFile(file);
    }
}

void DeleteFileObject(PVOID object) {
    auto* const file = static_cast<PFILE_OBJECT>(object);
    const FileExtension* const extension = ExtensionOf(file);
    PDEVICE_OBJECT const device = file->DeviceObject;
    if (extension->opened) {
        SendEnd(file, IRP_MJ_CLOSE);
    }
    if (extension->vpb != nullptr) {
        DereferenceVpb(extension->vpb);
    }
    if (file->FileName.Buffer != nullptr) {
        KernelFree(file->FileName.Buffer);
    }
    __atomic_sub_fetch(&device->ReferenceCount, 1, __ATOMIC_ACQ_REL);
    ObfDereferenceObject(device);
}

std::string DescribeFile(PFILE_OBJECT file) {
    const std::u16string device = ObNameOf(file->DeviceObject);
    return Utf8FromWide(device) + Utf8FromWide(View(&file->FileName));
}

void LockFile(PFILE_OBJECT file) {
    if (__atomic_exchange_n(&file->Busy, 1, __ATOMIC_ACQUIRE) == 0) {
        return;
    }
    __atomic_add_fetch(&file->Waiters, 1, __ATOMIC_SEQ_CST);
    while (__atomic_exchange_n(&file->Busy, 1, __ATOMIC_SEQ_CST) != 0) {
        KeWaitForSingleObject(&file->Lock, Executive, KernelMode, FALSE, nullptr);
    }
    __atomic_sub_fetch(&file->Waiters, 1, __ATOMIC_SEQ_CST);
}

void UnlockFile(PFILE_OBJECT file) {
    __atomic_store_n(&file->Busy, 0, __ATOMIC_SEQ_CST);
    if (__atomic_load_n(&file->Waiters, __ATOMIC_SEQ_CST) != 0) {
        KeSetEvent(&file->Lock, 0, FALSE);
    }
}

}  // namespace nt

NTKERNELAPI NTSTATUS NTAPI IoGetDeviceObjectPointer(PUNICODE_STRING ObjectName, ACCESS_MASK DesiredAccess,
                                                    PFILE_OBJECT* FileObject, PDEVICE_OBJECT* DeviceObject) {
    nt::RefuseAtDispatch("opening a device");
    *FileObject = nullptr;
    *DeviceObject = nullptr;
    if (nt::FaultPoint(nt::FaultKind::kObject)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    nt::OpenRequest request;
    request.name = nt::View(ObjectName);
    request.access = DesiredAccess;
    request.options = FILE_NON_DIRECTORY_FILE;
    ULONG_PTR information = 0;
    PFILE_OBJECT file = nullptr;
    const NTSTATUS status = nt::OpenFile(request, &file, &information);
    if (NT_SUCCESS(status)) {
        // The handle that the open made is closed at once: the driver sees the cleanup, the object stays.
        file->Flags |= FO_HANDLE_CREATED;
        nt::CleanupFileObject(file);
        *FileObject = file;
        *DeviceObject = file->DeviceObject;
    }
    return status;
}
