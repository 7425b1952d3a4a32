#include "media/ram_files.h"

#include <algorithm>
#include <utility>

#include "core/event_log.h"
#include "core/global_data.h"
#include "core/pool.h"
#include "core/strings.h"

namespace {

RamFile* FileOfLink(PLIST_ENTRY Link) {
    return CONTAINING_RECORD(Link, RamFile, Link);
}

VOID FreeFile(RamFile* File) {
    if ((File->Flags & kRamFileData) != 0) {
        VrkFsFreePool(File->Data);
    }
    if ((File->Flags & kRamFileName) != 0) {
        VrkFsRtlFreeUnicodeString(&File->Name);
    }
    if ((File->Flags & kRamFileParentName) != 0) {
        VrkFsRtlFreeUnicodeString(&File->ParentName);
    }
    VrkFsRtlFreeUnicodeString(&File->NewParentName);
    VrkFsFreePool(File);
}

NTSTATUS CopyNames(RamFile* File, PCUNICODE_STRING ParentName, PCUNICODE_STRING Name) {
    NTSTATUS status = VrkFsRtlCopyUnicodeString(&File->ParentName, ParentName);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    File->Flags |= kRamFileParentName;
    status = VrkFsRtlCopyUnicodeString(&File->Name, Name);
    if (NT_SUCCESS(status)) {
        File->Flags |= kRamFileName;
    }
    return status;
}

// Replaces the data buffer by one of Bytes bytes; what does not come from the old one is zero.
NTSTATUS Reallocate(RamFile* File, ULONG Bytes) {
    PUCHAR data = nullptr;
    if (Bytes != 0) {
        data = static_cast<PUCHAR>(VrkFsAllocatePool(PagedPool, Bytes));
        if (data == nullptr) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    const ULONG kept = static_cast<ULONG>(std::min<ULONGLONG>(File->EndOfFile, Bytes));
    if (kept != 0) {
        RtlCopyMemory(data, File->Data, kept);
    }
    if (Bytes != kept) {
        RtlZeroMemory(data + kept, Bytes - kept);
    }
    VrkFsFreePool(File->Data);
    File->Data = data;
    File->Allocation = Bytes;
    File->EndOfFile = std::min<ULONGLONG>(File->EndOfFile, Bytes);
    File->Flags = Bytes != 0 ? File->Flags | kRamFileData : File->Flags & ~kRamFileData;
    return STATUS_SUCCESS;
}

// An allocation only grows here: a maximum that was lowered meanwhile takes nothing away from a file.
NTSTATUS GrowTo(RamFile* File, ULONG MaximumSize, ULONGLONG Bytes) {
    const ULONG wanted = static_cast<ULONG>(std::min<ULONGLONG>(Bytes, MaximumSize));
    return wanted > File->Allocation ? Reallocate(File, wanted) : STATUS_SUCCESS;
}

constexpr USHORT kTypeFolderBytes = 4 * sizeof(WCHAR);  // "\\RZV", whatever the type

// Whether the path lies at or below Name, its type folder aside; what follows Name is Tail.
bool IsBelow(PCUNICODE_STRING Path, PCUNICODE_STRING Name, PUNICODE_STRING Tail) {
    if (Path->Length < kTypeFolderBytes + Name->Length) {
        return false;
    }
    UNICODE_STRING head;
    head.Buffer = Path->Buffer + kTypeFolderBytes / sizeof(WCHAR);
    head.Length = head.MaximumLength = Name->Length;
    Tail->Buffer = head.Buffer + Name->Length / sizeof(WCHAR);
    Tail->Length = Tail->MaximumLength = static_cast<USHORT>(Path->Length - kTypeFolderBytes - Name->Length);
    return RtlEqualUnicodeString(&head, Name, TRUE) && (Tail->Length == 0 || Tail->Buffer[0] == VRKFS_W('\\'));
}

NTSTATUS MakeNewParentName(RamFile* File, PCUNICODE_STRING NewPath, PCUNICODE_STRING Tail) {
    const ULONG bytes = kTypeFolderBytes + NewPath->Length + Tail->Length + sizeof(WCHAR);
    if (!NT_SUCCESS(VrkFsRtlAllocateUnicodeString(&File->NewParentName, static_cast<USHORT>(bytes)))) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    UNICODE_STRING type = File->ParentName;
    type.Length = kTypeFolderBytes;
    static_cast<void>(RtlAppendUnicodeStringToString(&File->NewParentName, &type));
    static_cast<void>(RtlAppendUnicodeStringToString(&File->NewParentName, NewPath));
    static_cast<void>(RtlAppendUnicodeStringToString(&File->NewParentName, Tail));
    return STATUS_SUCCESS;
}

// What lies between the end of file and an offset behind it has not been written since the file last ended there.
VOID ClearGap(RamFile* File, ULONGLONG Offset) {
    if (Offset > File->EndOfFile) {
        RtlZeroMemory(File->Data + File->EndOfFile, static_cast<SIZE_T>(Offset - File->EndOfFile));
    }
}

}  // namespace

VOID VrkFsVFInitHandler(RamFileSet* Set) {
    InitializeListHead(&Set->Files);
    Set->Count = 0;
    Set->Flags = kRamSetInitialised;
}

VOID VrkFsVFFreeHandler(RamFileSet* Set) {
    if ((Set->Flags & kRamSetInitialised) == 0) {
        return;
    }
    while (!IsListEmpty(&Set->Files)) {
        VrkFsVFDeleteFile(Set, FileOfLink(Set->Files.Flink));
    }
    Set->Flags &= ~kRamSetInitialised;
}

NTSTATUS VrkFsVFCreateNewFile(RamFileSet* Set, PCUNICODE_STRING ParentName, PCUNICODE_STRING Name, LONGLONG Time,
                              ULONG Limit, RamFile** File) {
    if (Set->Count >= Limit) {
        VrkFsGlobLogEvent(pVrkFsGlobalData->DriverObject, kVrkFsEventVirtualFile, STATUS_ACCESS_DENIED, nullptr, 0,
                          "Virtual file limit exceeded", nullptr);
        return STATUS_ACCESS_DENIED;
    }
    auto* file = static_cast<RamFile*>(VrkFsAllocatePool(PagedPool, sizeof(RamFile)));
    if (file == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(file, sizeof(*file));
    NTSTATUS status = CopyNames(file, ParentName, Name);
    if (!NT_SUCCESS(status)) {
        FreeFile(file);
        return status;
    }
    file->Time = Time;
    InsertHeadList(&Set->Files, &file->Link);
    ++Set->Count;
    *File = file;
    return STATUS_SUCCESS;
}

BOOLEAN VrkFsVFFindFile(RamFileSet* Set, PCUNICODE_STRING ParentName, PCUNICODE_STRING Name, RamFile** File,
                        PULONG Ordinal) {
    ULONG ordinal = 0;
    for (PLIST_ENTRY link = Set->Files.Flink; link != &Set->Files; link = link->Flink) {
        RamFile* file = FileOfLink(link);
        if (!RtlEqualUnicodeString(&file->ParentName, ParentName, TRUE)) {
            continue;
        }
        if (RtlEqualUnicodeString(&file->Name, Name, TRUE)) {
            *File = file;
            *Ordinal = ordinal;
            return TRUE;
        }
        ++ordinal;
    }
    return FALSE;
}

BOOLEAN VrkFsVFFindNextFile(RamFileSet* Set, PCUNICODE_STRING ParentName, PULONG Ordinal, RamFile** File) {
    ULONG ordinal = 0;
    for (PLIST_ENTRY link = Set->Files.Flink; link != &Set->Files; link = link->Flink) {
        RamFile* file = FileOfLink(link);
        if (!RtlEqualUnicodeString(&file->ParentName, ParentName, TRUE)) {
            continue;
        }
        if (ordinal == *Ordinal) {
            *File = file;
            return TRUE;
        }
        ++ordinal;
    }
    return FALSE;
}

VOID VrkFsVFDeleteFile(RamFileSet* Set, RamFile* File) {
    if ((File->Flags & kRamFileDeleted) != 0) {
        return;
    }
    RemoveEntryList(&File->Link);
    --Set->Count;
    File->Flags |= kRamFileDeleted;
    if (File->Users == 0) {
        FreeFile(File);
    }
}

VOID VrkFsVFAddUser(RamFile* File) {
    ++File->Users;
}

VOID VrkFsVFReleaseUser(RamFile* File) {
    if (--File->Users == 0 && (File->Flags & kRamFileDeleted) != 0) {
        FreeFile(File);
    }
}

NTSTATUS VrkFsVFPrepareRename(RamFileSet* Set, PCUNICODE_STRING OldPath, PCUNICODE_STRING NewPath) {
    for (PLIST_ENTRY link = Set->Files.Flink; link != &Set->Files; link = link->Flink) {
        RamFile* file = FileOfLink(link);
        UNICODE_STRING tail;
        if (IsBelow(&file->ParentName, OldPath, &tail)) {
            const NTSTATUS status = MakeNewParentName(file, NewPath, &tail);
            if (!NT_SUCCESS(status)) {
                VrkFsVFFinishRename(Set, FALSE);
                return status;
            }
        }
    }
    return STATUS_SUCCESS;
}

VOID VrkFsVFFinishRename(RamFileSet* Set, BOOLEAN Renamed) {
    for (PLIST_ENTRY link = Set->Files.Flink; link != &Set->Files; link = link->Flink) {
        RamFile* file = FileOfLink(link);
        if (Renamed && file->NewParentName.Buffer != nullptr) {
            std::swap(file->ParentName, file->NewParentName);
        }
        VrkFsRtlFreeUnicodeString(&file->NewParentName);
    }
}

NTSTATUS VrkFsVFSetFileAllocation(RamFile* File, ULONG MaximumSize, ULONGLONG Size) {
    return Reallocate(File, static_cast<ULONG>(std::min<ULONGLONG>(Size, MaximumSize)));
}

NTSTATUS VrkFsVFSetEndOfFile(RamFile* File, ULONG MaximumSize, ULONGLONG EndOfFile) {
    const ULONGLONG end = std::min<ULONGLONG>(EndOfFile, MaximumSize);
    if (end > File->Allocation) {
        const NTSTATUS status = Reallocate(File, static_cast<ULONG>(end));
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    ClearGap(File, end);
    File->EndOfFile = end;
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsVFReadFile(const RamFile* File, PUCHAR Buffer, ULONGLONG Offset, PULONG Count) {
    const ULONGLONG left = Offset < File->EndOfFile ? File->EndOfFile - Offset : 0;
    *Count = static_cast<ULONG>(std::min<ULONGLONG>(*Count, left));
    if (*Count == 0) {
        return STATUS_END_OF_FILE;
    }
    RtlCopyMemory(Buffer, File->Data + Offset, *Count);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsVFWriteFile(RamFile* File, const UCHAR* Buffer, ULONGLONG Offset, PULONG Count, ULONG MaximumSize) {
    const ULONG wanted = *Count;
    *Count = 0;
    const ULONGLONG end = Offset + std::min<ULONGLONG>(wanted, ~Offset);
    if (end > File->Allocation) {
        const ULONGLONG step = ULONGLONG{File->Allocation} + kRamFileGrowth;
        const NTSTATUS status = GrowTo(File, MaximumSize, std::max(end, step));
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    const ULONGLONG room = Offset < File->Allocation ? File->Allocation - Offset : 0;
    *Count = static_cast<ULONG>(std::min<ULONGLONG>(wanted, room));
    if (*Count == 0) {
        return STATUS_END_OF_FILE;
    }
    ClearGap(File, Offset);
    RtlCopyMemory(File->Data + Offset, Buffer, *Count);
    File->EndOfFile = std::max(File->EndOfFile, Offset + *Count);
    return STATUS_SUCCESS;
}
