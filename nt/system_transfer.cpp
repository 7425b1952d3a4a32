#include "nt/system_call.h"

// Reads, writes, flushes and control requests of a process.

namespace nt {

namespace {

constexpr LONGLONG kUseFilePosition = static_cast<LONGLONG>(0xFFFFFFFF'FFFFFFFE);
constexpr LONGLONG kWriteToEnd = -1;

// The byte offset that a transfer starts at.
NTSTATUS ResolveOffset(const SystemRequest& request, const LONGLONG* given, bool isWrite, LARGE_INTEGER* offset) {
    const PFILE_OBJECT file = request.File();
    if (given == nullptr || *given == kUseFilePosition) {
        if (!IsSynchronous(file)) {
            return STATUS_INVALID_PARAMETER;
        }
        *offset = file->CurrentByteOffset;
    } else {
        offset->QuadPart = *given;
    }
    if (isWrite && request.IsUser() && (request.Granted() & (FILE_WRITE_DATA | FILE_APPEND_DATA)) == FILE_APPEND_DATA) {
        offset->QuadPart = kWriteToEnd;
    }
    const bool special = isWrite && offset->QuadPart == kWriteToEnd;
    return request.IsUser() && offset->QuadPart < 0 && !special ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
}

// Files opened without intermediate buffering take whole sectors only.
NTSTATUS CheckSectors(const SystemRequest& request, ULONG length, LONGLONG offset) {
    const PFILE_OBJECT file = request.File();
    const USHORT sector = file->DeviceObject->SectorSize;
    if (!request.IsUser() || sector == 0 || (file->Flags & FO_NO_INTERMEDIATE_BUFFERING) == 0) {
        return STATUS_SUCCESS;
    }
    const bool whole = length % sector == 0 && (offset == kWriteToEnd || offset % sector == 0);
    return whole ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

// The caller's buffer: its address, for the driver to probe, or a copy where the device asks for buffered transfers.
NTSTATUS AttachTransfer(SystemRequest& request, PVOID buffer, ULONG length, bool isWrite) {
    PIRP const irp = request.Irp();
    irp->UserBuffer = buffer;
    if ((request.File()->DeviceObject->Flags & DO_BUFFERED_IO) == 0 || length == 0) {
        return STATUS_SUCCESS;
    }
    PVOID const system = AllocateSystemBuffer(request.Record(), length);
    if (system == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    irp->Flags |= IRP_BUFFERED_IO;
    if (isWrite) {
        return CopyFromUser(request.Mode(), system, buffer, length) ? STATUS_SUCCESS : STATUS_ACCESS_VIOLATION;
    }
    irp->Flags |= IRP_INPUT_OPERATION;
    request.Record()->outputLength = length;
    return STATUS_SUCCESS;
}

NTSTATUS Transfer(SystemRequest& request, PVOID buffer, ULONG length, const LONGLONG* byteOffset, bool isWrite) {
    LARGE_INTEGER offset{};
    NTSTATUS status = ResolveOffset(request, byteOffset, isWrite, &offset);
    if (NT_SUCCESS(status)) {
        status = CheckSectors(request, length, offset.QuadPart);
    }
    if (!NT_SUCCESS(status)) {
        return request.Answer(status);
    }
    status = request.Begin(isWrite ? IRP_MJ_WRITE : IRP_MJ_READ);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    request.Irp()->Flags |= (isWrite ? IRP_WRITE_OPERATION : IRP_READ_OPERATION) | IRP_DEFER_IO_COMPLETION;
    if ((request.File()->Flags & FO_NO_INTERMEDIATE_BUFFERING) != 0) {
        request.Irp()->Flags |= IRP_NOCACHE;
    }
    status = AttachTransfer(request, buffer, length, isWrite);
    if (!NT_SUCCESS(status)) {
        return request.Answer(status);
    }
    // Both transfers' parameters are one and the same.
    static_assert(offsetof(IO_STACK_LOCATION, Parameters.Read.ByteOffset) ==
                  offsetof(IO_STACK_LOCATION, Parameters.Write.ByteOffset));
    request.Stack()->Parameters.Read.Length = length;
    request.Stack()->Parameters.Read.ByteOffset = offset;
    if (isWrite && (request.File()->Flags & FO_WRITE_THROUGH) != 0) {
        request.Stack()->Flags = SL_WRITE_THROUGH;
    }
    return request.Send();
}

// What a control code asks of the handle's access, in its bits 14 and 15.
ACCESS_MASK AccessOfCode(ULONG code) {
    const ULONG access = code >> 14 & 3;
    return ((access & FILE_READ_ACCESS) != 0 ? FILE_READ_DATA : 0) |
           ((access & FILE_WRITE_ACCESS) != 0 ? FILE_WRITE_DATA : 0);
}

NTSTATUS Control(SystemRequest& request, UCHAR major, Handle handle, ULONG code, const ControlBuffers& buffers) {
    NTSTATUS status = request.TakeFile(handle, AccessOfCode(code));
    if (NT_SUCCESS(status)) {
        status = request.Begin(major);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = AttachControlBuffers(request.Record(), request.Stack(), code, buffers, request.Mode());
    return NT_SUCCESS(status) ? request.Send() : request.Answer(status);
}

}  // namespace

NTSTATUS Process::Read(Handle handle, IO_STATUS_BLOCK* status, void* buffer, ULONG length, const LONGLONG* byteOffset,
                       const Overlapped* overlapped) {
    SystemRequest request(object_, status, overlapped, false);
    const NTSTATUS taken = request.TakeFile(handle, FILE_READ_DATA);
    return NT_SUCCESS(taken) ? Transfer(request, buffer, length, byteOffset, false) : taken;
}

NTSTATUS Process::Write(Handle handle, IO_STATUS_BLOCK* status, const void* buffer, ULONG length,
                        const LONGLONG* byteOffset, const Overlapped* overlapped) {
    SystemRequest request(object_, status, overlapped, false);
    const NTSTATUS taken = request.TakeFile(handle, 0, FILE_WRITE_DATA | FILE_APPEND_DATA);
    return NT_SUCCESS(taken) ? Transfer(request, const_cast<void*>(buffer), length, byteOffset, true) : taken;
}

NTSTATUS Process::Flush(Handle handle, IO_STATUS_BLOCK* status) {
    SystemRequest request(object_, status, nullptr, true);
    NTSTATUS result = request.TakeFile(handle, 0, FILE_WRITE_DATA | FILE_APPEND_DATA);
    if (NT_SUCCESS(result)) {
        result = request.Begin(IRP_MJ_FLUSH_BUFFERS);
    }
    return NT_SUCCESS(result) ? request.Send() : result;
}

NTSTATUS Process::DeviceControl(Handle handle, IO_STATUS_BLOCK* status, ULONG code, const void* input,
                                ULONG inputLength, void* output, ULONG outputLength, const Overlapped* overlapped) {
    SystemRequest request(object_, status, overlapped, false);
    return Control(request, IRP_MJ_DEVICE_CONTROL, handle, code, {input, inputLength, output, outputLength});
}

NTSTATUS Process::FsControl(Handle handle, IO_STATUS_BLOCK* status, ULONG code, const void* input, ULONG inputLength,
                            void* output, ULONG outputLength, const Overlapped* overlapped) {
    SystemRequest request(object_, status, overlapped, false);
    return Control(request, IRP_MJ_FILE_SYSTEM_CONTROL, handle, code, {input, inputLength, output, outputLength});
}

}  // namespace nt
