#include <cstring>

#include "nt/system_call.h"
#include "nt/text.h"

// Listing and watching folders.

namespace nt {

namespace {

constexpr ULONG kNameTag = 0x6D4E6F49;  // "IoNm"

// The search pattern's own copy, in the request: a counted string and its characters.
PUNICODE_STRING AttachPattern(PIRP irp, const std::u16string& pattern) {
    const auto bytes = static_cast<USHORT>(pattern.size() * sizeof(WCHAR));
    auto* const name = static_cast<PUNICODE_STRING>(KernelAllocate(sizeof(UNICODE_STRING) + bytes, kNameTag));
    if (name == nullptr) {
        return nullptr;
    }
    irp->Tail.Overlay.AuxiliaryBuffer = reinterpret_cast<PCHAR>(name);
    *name = {bytes, bytes, bytes != 0 ? reinterpret_cast<PWCHAR>(name + 1) : nullptr};
    if (bytes != 0) {
        std::memcpy(name->Buffer, pattern.data(), bytes);
    }
    return name;
}

NTSTATUS AttachListingBuffer(SystemRequest& request, PVOID buffer, ULONG length) {
    PIRP const irp = request.Irp();
    irp->UserBuffer = buffer;
    if ((request.File()->DeviceObject->Flags & DO_BUFFERED_IO) == 0 || length == 0) {
        return STATUS_SUCCESS;
    }
    if (AllocateSystemBuffer(request.Record(), length) == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    irp->Flags |= IRP_BUFFERED_IO | IRP_INPUT_OPERATION;
    request.Record()->outputLength = length;
    return STATUS_SUCCESS;
}

NTSTATUS CheckQuery(ULONG length, const Process::DirectoryQuery& query) {
    const ULONG least = DirectoryLength(query.informationClass);
    if (least == 0) {
        return STATUS_INVALID_INFO_CLASS;
    }
    if (query.pattern != nullptr && query.pattern->size() * sizeof(WCHAR) > UNICODE_STRING_MAX_BYTES) {
        return STATUS_INVALID_PARAMETER;
    }
    return length < least ? STATUS_INFO_LENGTH_MISMATCH : STATUS_SUCCESS;
}

NTSTATUS SendQuery(SystemRequest& request, void* buffer, ULONG length, const Process::DirectoryQuery& query) {
    NTSTATUS status = request.Begin(IRP_MJ_DIRECTORY_CONTROL, IRP_MN_QUERY_DIRECTORY);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PIO_STACK_LOCATION const stack = request.Stack();
    stack->Parameters.QueryDirectory.Length = length;
    stack->Parameters.QueryDirectory.FileInformationClass = query.informationClass;
    stack->Parameters.QueryDirectory.FileIndex = query.fileIndex != nullptr ? *query.fileIndex : 0;
    stack->Flags =
        static_cast<UCHAR>((query.restart ? SL_RESTART_SCAN : 0) | (query.singleEntry ? SL_RETURN_SINGLE_ENTRY : 0) |
                           (query.fileIndex != nullptr ? SL_INDEX_SPECIFIED : 0));
    if (query.pattern != nullptr) {
        stack->Parameters.QueryDirectory.FileName = AttachPattern(request.Irp(), *query.pattern);
        if (stack->Parameters.QueryDirectory.FileName == nullptr) {
            return request.Answer(STATUS_INSUFFICIENT_RESOURCES);
        }
    }
    status = AttachListingBuffer(request, buffer, length);
    return NT_SUCCESS(status) ? request.Send() : request.Answer(status);
}

}  // namespace

NTSTATUS Process::QueryDirectory(Handle handle, IO_STATUS_BLOCK* status, void* buffer, ULONG length,
                                 const DirectoryQuery& query, const Overlapped* overlapped) {
    SystemRequest request(object_, status, overlapped, false);
    if (const NTSTATUS checked = request.IsUser() ? CheckQuery(length, query) : STATUS_SUCCESS; !NT_SUCCESS(checked)) {
        return request.Answer(checked);
    }
    const NTSTATUS taken = request.TakeFile(handle, FILE_LIST_DIRECTORY);
    return NT_SUCCESS(taken) ? SendQuery(request, buffer, length, query) : taken;
}

NTSTATUS Process::NotifyChangeDirectory(Handle handle, IO_STATUS_BLOCK* status, void* buffer, ULONG length,
                                        ULONG completionFilter, bool watchTree, const Overlapped* overlapped) {
    SystemRequest request(object_, status, overlapped, false);
    if (completionFilter == 0 || (completionFilter & ~FILE_NOTIFY_VALID_MASK) != 0) {
        return request.Answer(STATUS_INVALID_PARAMETER);
    }
    NTSTATUS result = request.TakeFile(handle, FILE_LIST_DIRECTORY);
    if (NT_SUCCESS(result)) {
        result = request.Begin(IRP_MJ_DIRECTORY_CONTROL, IRP_MN_NOTIFY_CHANGE_DIRECTORY);
    }
    if (!NT_SUCCESS(result)) {
        return result;
    }
    request.Stack()->Parameters.NotifyDirectory.Length = length;
    request.Stack()->Parameters.NotifyDirectory.CompletionFilter = completionFilter;
    request.Stack()->Flags = watchTree ? SL_WATCH_TREE : 0;
    result = AttachListingBuffer(request, buffer, length);
    return NT_SUCCESS(result) ? request.Send() : request.Answer(result);
}

}  // namespace nt
