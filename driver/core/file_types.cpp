#include "core/file_types.h"

#include "core/global_data.h"
#include "core/guards.h"

namespace {
// Readers take no lock: the count follows the rows that it counts.
VOID PublishCount(GlobalData* Global, ULONG Count) {
    __atomic_store_n(&Global->FileTypeCount, Count, __ATOMIC_RELEASE);
}
}  // namespace

NTSTATUS VrkFsGlobAddFileType(GlobalData* Global, const FileType* Row) {
    return VrkFsGlobAddFileTypes(Global, Row, 1);
}

NTSTATUS VrkFsGlobAddFileTypes(GlobalData* Global, const FileType* Rows, ULONG Count) {
    FastMutexGuard lock(&Global->FileTypesLock);
    const ULONG used = Global->FileTypeCount;
    if (Count > kMaxFileTypes - used) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(&Global->FileTypes[used], Rows, Count * sizeof(FileType));
    PublishCount(Global, used + Count);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsGlobUpdateFileType(GlobalData* Global, const FileType* Row, ULONG Index) {
    if (Index >= kMaxFileTypes) {
        return STATUS_INVALID_PARAMETER;
    }
    FastMutexGuard lock(&Global->FileTypesLock);
    Global->FileTypes[Index] = *Row;
    return STATUS_SUCCESS;
}

FileType VrkFsGlobFileType(GlobalData* Global, ULONG Index) {
    FastMutexGuard lock(&Global->FileTypesLock);
    return Global->FileTypes[Index < kMaxFileTypes ? Index : 0];
}

VOID VrkFsGlobRemoveFileTypes(GlobalData* Global) {
    FastMutexGuard lock(&Global->FileTypesLock);
    PublishCount(Global, 1);
}

ULONG VrkFsGlobFileTypeCount(const GlobalData* Global) {
    return __atomic_load_n(&Global->FileTypeCount, __ATOMIC_ACQUIRE);
}
