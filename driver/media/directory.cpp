// IRP_MJ_DIRECTORY_CONTROL: what a listing puts into the caller's buffer.
#include "media/directory.h"

#include <algorithm>

#include "core/device_ext.h"
#include "core/driver_entry.h"
#include "core/global_data.h"
#include "core/guards.h"
#include "core/strings.h"
#include "fsd/ccb.h"
#include "fsd/common.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/irp_context.h"
#include "fsd/vcb.h"

namespace {

constexpr ULONG kEntryAlignment = 8;

// One listing in progress.
struct Listing {
    FILE_INFORMATION_CLASS Class;
    ULONG FixedBytes;  // of the class's record, before the name
    PUCHAR Buffer;
    ULONG Length;       // of the buffer
    ULONG LastOffset;   // of the entry stored last
    ULONG NextOffset;   // where the next one goes
    ULONG StoredBytes;  // up to the end of the last entry's name; 0: nothing stored
};

// 0 for a class that directories are not listed by.
ULONG FixedBytesOf(FILE_INFORMATION_CLASS Class) {
    switch (Class) {
        case FileDirectoryInformation:
            return FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, FileName);
        case FileFullDirectoryInformation:
            return FIELD_OFFSET(FILE_FULL_DIR_INFORMATION, FileName);
        case FileBothDirectoryInformation:
            return FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName);
        case FileNamesInformation:
            return FIELD_OFFSET(FILE_NAMES_INFORMATION, FileName);
        default:
            return 0;
    }
}
static_assert(FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, FileName) == 64);
static_assert(FIELD_OFFSET(FILE_FULL_DIR_INFORMATION, FileName) == 68);
static_assert(FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName) == 94);
static_assert(FIELD_OFFSET(FILE_NAMES_INFORMATION, FileName) == 12);

// The fixed part of any of the classes; the three long ones begin alike. It is built aside and copied: the caller's
// buffer need not be aligned.
union FixedPart {
    FILE_DIRECTORY_INFORMATION Directory;
    FILE_BOTH_DIR_INFORMATION Both;
    FILE_NAMES_INFORMATION Names;
};

VOID FillFixedPart(FixedPart* Part, FILE_INFORMATION_CLASS Class, const FoundEntry* Found) {
    RtlZeroMemory(Part, sizeof(*Part));
    if (Class == FileNamesInformation) {
        Part->Names.FileIndex = Found->Index;
        Part->Names.FileNameLength = Found->NameLength;
        return;
    }
    FILE_DIRECTORY_INFORMATION* entry = &Part->Directory;
    entry->FileIndex = Found->Index;
    entry->EndOfFile.QuadPart = static_cast<LONGLONG>(Found->Size);
    entry->AllocationSize.QuadPart = static_cast<LONGLONG>(Found->Size);
    entry->LastWriteTime.QuadPart = Found->Time;
    entry->FileAttributes = FILE_ATTRIBUTE_NORMAL;
    if (Found->IsDirectory) {
        entry->FileAttributes |= FILE_ATTRIBUTE_DIRECTORY;
        entry->CreationTime.QuadPart = Found->Time;
    }
    entry->FileNameLength = Found->NameLength;
}

BOOLEAN FitsWhole(const Listing* List, const FoundEntry* Found) {
    return List->NextOffset <= List->Length && List->Length - List->NextOffset >= List->FixedBytes &&
           List->Length - List->NextOffset - List->FixedBytes >= Found->NameLength;
}

// Stores the entry, which has room for its fixed part. STATUS_BUFFER_OVERFLOW: its name had to be cut.
NTSTATUS StoreEntry(Listing* List, const FoundEntry* Found) {
    const ULONG offset = List->NextOffset;
    const ULONG room = List->Length - offset - List->FixedBytes;
    const ULONG nameBytes = std::min(Found->NameLength, room);
    FixedPart part;
    FillFixedPart(&part, List->Class, Found);
    RtlCopyMemory(List->Buffer + offset, &part, List->FixedBytes);
    RtlCopyMemory(List->Buffer + offset + List->FixedBytes, Found->Name, nameBytes);
    if (List->StoredBytes != 0) {
        const ULONG distance = offset - List->LastOffset;
        RtlCopyMemory(List->Buffer + List->LastOffset, &distance, sizeof(distance));
    }
    List->LastOffset = offset;
    List->StoredBytes = offset + List->FixedBytes + nameBytes;
    List->NextOffset = (List->StoredBytes + kEntryAlignment - 1) & ~(kEntryAlignment - 1);
    return nameBytes < Found->NameLength ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

// Fills the buffer with the entries from *Index on. *Index moves behind the last entry stored whole.
NTSTATUS StoreEntries(DiskDeviceExt* Ext, CCB* Ccb, Listing* List, BOOLEAN FirstQuery, BOOLEAN SingleEntry,
                      PULONG Index) {
    FoundEntry found;
    for (;;) {
        if (List->StoredBytes != 0 && SingleEntry) {
            return STATUS_SUCCESS;
        }
        if (!VrkFsFindDirEntry(Ext, Ccb, *Index, &found)) {
            if (List->StoredBytes != 0) {
                return STATUS_SUCCESS;
            }
            return FirstQuery ? STATUS_NO_SUCH_FILE : STATUS_NO_MORE_FILES;
        }
        if (List->StoredBytes != 0 && !FitsWhole(List, &found)) {
            return STATUS_SUCCESS;
        }
        const NTSTATUS status = StoreEntry(List, &found);
        if (status != STATUS_SUCCESS) {
            return status;
        }
        *Index = found.Index + 1;
    }
}

BOOLEAN IsFirstQuery(const CCB* Ccb) {
    return Ccb->SearchName.Buffer == nullptr && (Ccb->Flags & kCcbMatchAll) == 0;
}

BOOLEAN MeansEverything(PCUNICODE_STRING Name) {
    return Name == nullptr || Name->Buffer == nullptr || Name->Length == 0 ||
           (Name->Length == sizeof(WCHAR) && Name->Buffer[0] == VRKFS_W('*'));
}

// The first query of a handle fixes what all its queries list.
NTSTATUS StorePattern(CCB* Ccb, PUNICODE_STRING Name) {
    if (MeansEverything(Name)) {
        Ccb->Flags |= kCcbMatchAll;
        Ccb->HasWildcards = TRUE;
        return STATUS_SUCCESS;
    }
    UNICODE_STRING pattern = {};
    const NTSTATUS status = VrkFsRtlCopyUnicodeString(&pattern, Name);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    for (ULONG i = 0; i < pattern.Length / sizeof(WCHAR); ++i) {
        pattern.Buffer[i] = RtlUpcaseUnicodeChar(pattern.Buffer[i]);
    }
    Ccb->HasWildcards = FsRtlDoesNameContainWildCards(&pattern);
    Ccb->SearchName = pattern;
    return STATUS_SUCCESS;
}

ULONG StartIndex(const CCB* Ccb, PIO_STACK_LOCATION Stack) {
    if ((Stack->Flags & SL_INDEX_SPECIFIED) != 0) {
        // Behind the last possible index there is nothing, and not the first entry again.
        return std::max<ULONG>(Stack->Parameters.QueryDirectory.FileIndex + 1,
                               Stack->Parameters.QueryDirectory.FileIndex);
    }
    return (Stack->Flags & SL_RESTART_SCAN) != 0 ? 0 : Ccb->NextIndex;
}

// A folder that a handle is listing, with its locks.
struct ListedFolder {
    DiskDeviceExt* Ext;
    FCB* Fcb;
    CCB* Ccb;
    ResourceGuard VcbLock;
    ResourceGuard CommonLock;
};

// Takes the locks of a query: the folder's exclusively for a first one, which stores the pattern.
BOOLEAN LockForQuery(ListedFolder* Folder) {
    Folder->VcbLock.Shared(&Folder->Fcb->Common->Vcb->Resource);
    Folder->CommonLock.Shared(Folder->Fcb->Common->Resource);
    if (!IsFirstQuery(Folder->Ccb)) {
        return FALSE;
    }
    Folder->CommonLock.Release();
    Folder->CommonLock.Exclusive(Folder->Fcb->Common->Resource);
    if (IsFirstQuery(Folder->Ccb)) {
        return TRUE;
    }
    Folder->CommonLock.ConvertToShared();
    return FALSE;
}

NTSTATUS FindListedFolder(IRPContext* Context, ListedFolder* Folder) {
    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(Context->Irp)->FileObject;
    VCB* vcb = nullptr;
    PVOID fcb = nullptr;
    if (fileObject == nullptr || VrkFsGetRequestType(fileObject, &vcb, &fcb, &Folder->Ccb) != kVrkFsFolderOpen) {
        return STATUS_INVALID_PARAMETER;
    }
    Folder->Ext = VrkFsDiskExtOfDevice(Context->DeviceObject);
    Folder->Fcb = static_cast<FCB*>(fcb);
    return STATUS_SUCCESS;
}

NTSTATUS PrepareListing(IRPContext* Context, PIO_STACK_LOCATION Stack, Listing* List) {
    List->Class = Stack->Parameters.QueryDirectory.FileInformationClass;
    List->FixedBytes = FixedBytesOf(List->Class);
    if (List->FixedBytes == 0) {
        return STATUS_INVALID_INFO_CLASS;
    }
    List->Length = Stack->Parameters.QueryDirectory.Length;
    if (List->Length < List->FixedBytes) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    List->Buffer = static_cast<PUCHAR>(VrkFsIRPContextGetRequestBuffer(Context));
    return List->Buffer != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

}  // namespace

NTSTATUS VrkFsQueryDirectory(IRPContext* Context, ULONG_PTR* Information) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Context->Irp);
    ListedFolder folder = {};
    NTSTATUS status = FindListedFolder(Context, &folder);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const BOOLEAN firstQuery = LockForQuery(&folder);
    CCB* ccb = folder.Ccb;
    ULONG index = StartIndex(ccb, stack);
    if (firstQuery) {
        status = StorePattern(ccb, static_cast<PUNICODE_STRING>(stack->Parameters.QueryDirectory.FileName));
        folder.CommonLock.ConvertToShared();
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    Listing list = {};
    status = PrepareListing(Context, stack, &list);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = StoreEntries(folder.Ext, ccb, &list, firstQuery, (stack->Flags & SL_RETURN_SINGLE_ENTRY) != 0, &index);
    if (status == STATUS_SUCCESS || status == STATUS_BUFFER_OVERFLOW) {
        ccb->NextIndex = index;
        *Information = list.StoredBytes;
    }
    return status;
}

NTSTATUS VrkFsCommonDirectoryCtrl(IRPContext* Context) {
    if (VrkFsIRPContextMustPost(Context)) {
        return VrkFsIRPContextPost(Context);
    }
    ULONG_PTR information = 0;
    switch (Context->MinorFunction) {
        case IRP_MN_QUERY_DIRECTORY: {
            const NTSTATUS status = VrkFsQueryDirectory(Context, &information);
            return VrkFsCompleteRequest(Context, status, information);
        }
        case IRP_MN_NOTIFY_CHANGE_DIRECTORY: {
            const NTSTATUS status = VrkFsChangeNotify(Context);
            return status == STATUS_PENDING ? status : VrkFsCompleteRequest(Context, status, 0);
        }
        default:
            return VrkFsCompleteRequest(Context, STATUS_UNSUCCESSFUL, 0);
    }
}

NTSTATUS NTAPI VrkFsDirectoryCtrl(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return VrkFsEnterRequest(DeviceObject, Irp, VrkFsCommonDirectoryCtrl);
}
