#include "core/strings.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "storage/hw_context.h"
#include "volume/entries.h"
#include "volume/hw_volume.h"
#include "volume/record_io.h"

// Giving a file's record another name, another folder or another place. What a write that failed may have left on the
// disk is written over with the old record at once; where that fails too and two places may name the same blocks, the
// blocks are contested.

namespace {

// What watchers hear when a name replaces another file's: everything about it changed.
constexpr ULONG kNotifyReplaced = 0xFC;

VOID ReportNewName(HwContext* Hw, VCB* Vcb, FCB* FolderFCB, const FileEntry* Image, BOOLEAN ReplaceExisting,
                   ULONG Action) {
    const UNICODE_STRING name = VrkFsRtlBoundedString(Image->Name, kRecordNameChars);
    if (ReplaceExisting) {
        VrkFsHwFileChangeNotify(Hw, FolderFCB, &name, Vcb, kNotifyReplaced, FILE_ACTION_MODIFIED);
    } else {
        VrkFsHwFileChangeNotify(Hw, FolderFCB, &name, Vcb, FILE_NOTIFY_CHANGE_FILE_NAME, Action);
    }
}

VOID ReportOldName(HwContext* Hw, VCB* Vcb, FCB* FolderFCB, const FileEntry* Image, ULONG Action) {
    const UNICODE_STRING name = VrkFsRtlBoundedString(Image->Name, kRecordNameChars);
    VrkFsHwFileChangeNotify(Hw, FolderFCB, &name, Vcb, FILE_NOTIFY_CHANGE_FILE_NAME, Action);
}

BOOLEAN IsOwnRecord(const OpenFolder& Folder, ULONG Slot, const FileEntry* Image) {
    return !VrkFsHwIsSubstituteFile(Image) && VrkFsHwIsFileWritable(Folder, Slot);
}

VOID NoteName(const OpenFolder& Folder, ULONG Slot, const FileEntry* Image) {
    const UNICODE_STRING name = VrkFsRtlBoundedString(Image->Name, kRecordNameChars);
    VrkFsHwSetFileHash(Folder.Volume, Folder.Slot, Slot, VrkFsHwHashName(&name));
}

// Writes the record under its new name; the old name is back in place, in memory and as far as possible on the disk,
// when that fails.
NTSTATUS WriteNewName(HwContext* Hw, HwVolume* Volume, ULONG Lba, FileEntry* Image, PCUNICODE_STRING NewName) {
    WCHAR oldField[kRecordNameChars];
    RtlCopyMemory(oldField, Image->Name, sizeof(oldField));
    VrkFsHwSetRecordName(Image->Name, NewName);
    const NTSTATUS status = VrkFsHwWriteFileRecord(Hw, Volume, Lba, Image);
    if (!NT_SUCCESS(status)) {
        RtlCopyMemory(Image->Name, oldField, sizeof(oldField));
        static_cast<void>(VrkFsHwWriteFileRecord(Hw, Volume, Lba, Image));
    }
    return status;
}

NTSTATUS SetTableEntry(HwContext* Hw, const OpenFolder& Folder, ULONG Slot, ULONG Lba) {
    Folder.Image->FileTable[Slot] = Lba;
    VrkFsHwRecountFiles(Folder.Image);
    return VrkFsHwWriteFolderRecord(Hw, Folder.Volume, Folder.Slot, Folder.Image);
}

// Changes one entry of a folder's table. On failure the old entry is back; *Undone says whether on the disk as well.
NTSTATUS ChangeTableEntry(HwContext* Hw, const OpenFolder& Folder, ULONG Slot, ULONG Lba, PBOOLEAN Undone) {
    const ULONG oldLba = Folder.Image->FileTable[Slot];
    *Undone = TRUE;
    const NTSTATUS status = SetTableEntry(Hw, Folder, Slot, Lba);
    if (!NT_SUCCESS(status)) {
        *Undone = NT_SUCCESS(SetTableEntry(Hw, Folder, Slot, oldLba));
    }
    return status;
}

// Names the record in the destination first and strikes it in the source then, so that at no moment no folder names it.
// A volume that is left with both names still has the file, and its blocks belong to nobody else. The destination's
// name is taken back on the disk only when the source's is certainly there again.
NTSTATUS MoveTableEntry(HwContext* Hw, const OpenFolder& Source, ULONG Slot, const OpenFolder& Destination,
                        ULONG NewSlot, const FileEntry* Image) {
    const ULONG lba = Source.Image->FileTable[Slot];
    BOOLEAN undone;
    NTSTATUS status = ChangeTableEntry(Hw, Destination, NewSlot, lba, &undone);
    if (NT_SUCCESS(status)) {
        status = ChangeTableEntry(Hw, Source, Slot, 0, &undone);
        if (!NT_SUCCESS(status) && undone) {
            undone = NT_SUCCESS(SetTableEntry(Hw, Destination, NewSlot, 0));
        } else if (!NT_SUCCESS(status)) {
            Destination.Image->FileTable[NewSlot] = 0;
            VrkFsHwRecountFiles(Destination.Image);
        }
    }
    if (!NT_SUCCESS(status) && !undone) {
        VrkFsHwContestFile(Source.Volume, lba, Image);
    }
    return status;
}

}  // namespace

NTSTATUS VrkFsHwRenameFile(HwContext* Hw, VCB* Vcb, HwVolume* Volume, FCB* FolderFCB, FileEntry* Image, ULONG Slot,
                           PCUNICODE_STRING NewName, BOOLEAN ReplaceExisting) {
    const OpenFolder folder = VrkFsHwOpenFolderOf(FolderFCB);
    static_cast<void>(VrkFsHwRetryUnreadRecords(Hw, Volume));
    if (!IsOwnRecord(folder, Slot, Image)) {
        return STATUS_UNSUCCESSFUL;
    }
    ReportOldName(Hw, Vcb, FolderFCB, Image, ReplaceExisting ? FILE_ACTION_REMOVED : FILE_ACTION_RENAMED_OLD_NAME);
    VrkFsHwSetFileHash(Volume, folder.Slot, Slot, kNameHashMustLook);
    const NTSTATUS status = WriteNewName(Hw, Volume, folder.Image->FileTable[Slot], Image, NewName);
    if (NT_SUCCESS(status)) {
        NoteName(folder, Slot, Image);
        ReportNewName(Hw, Vcb, FolderFCB, Image, ReplaceExisting, FILE_ACTION_RENAMED_NEW_NAME);
    }
    return status;
}

NTSTATUS VrkFsHwMoveFile(HwContext* Hw, VCB* Vcb, FCB* DestinationFolderFCB, FCB* SourceFolderFCB, FileEntry* Image,
                         PULONG Slot, PCUNICODE_STRING NewName, BOOLEAN ReplaceExisting) {
    const OpenFolder source = VrkFsHwOpenFolderOf(SourceFolderFCB);
    const OpenFolder destination = VrkFsHwOpenFolderOf(DestinationFolderFCB);
    if (!destination.Writable || destination.Volume != source.Volume) {
        return STATUS_UNSUCCESSFUL;
    }
    const ULONG newSlot = VrkFsHwFindFreeFileSlot(destination.Image);
    if (newSlot == kMaxFilesPerFolder) {
        return STATUS_ACCESS_DENIED;
    }
    NTSTATUS status = VrkFsHwRetryUnreadRecords(Hw, source.Volume);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (!IsOwnRecord(source, *Slot, Image) || !VrkFsHwIsFolderClaimed(destination)) {
        return STATUS_UNSUCCESSFUL;
    }
    WCHAR oldField[kRecordNameChars];
    RtlCopyMemory(oldField, Image->Name, sizeof(oldField));
    const ULONG lba = source.Image->FileTable[*Slot];
    ReportOldName(Hw, Vcb, SourceFolderFCB, Image, FILE_ACTION_REMOVED);
    VrkFsHwSetFileHash(source.Volume, source.Slot, *Slot, kNameHashMustLook);
    VrkFsHwSetFileHash(destination.Volume, destination.Slot, newSlot, kNameHashMustLook);
    status = WriteNewName(Hw, source.Volume, lba, Image, NewName);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = MoveTableEntry(Hw, source, *Slot, destination, newSlot, Image);
    if (!NT_SUCCESS(status)) {
        RtlCopyMemory(Image->Name, oldField, sizeof(oldField));
        static_cast<void>(VrkFsHwWriteFileRecord(Hw, source.Volume, lba, Image));
        return status;
    }
    *Slot = newSlot;
    NoteName(destination, newSlot, Image);
    ReportNewName(Hw, Vcb, DestinationFolderFCB, Image, ReplaceExisting, FILE_ACTION_ADDED);
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsHwChangeFileEntryPointer(HwContext* Hw, FCB* FileFCB, ULONG NewLba) {
    const OpenFolder folder = VrkFsHwOpenFolderOf(FileFCB->Parent);
    const ULONG slot = FileFCB->Common->FileEntryIndex;
    if (!folder.Writable || slot >= kMaxFilesPerFolder || folder.Image->FileTable[slot] == 0 ||
        !VrkFsVolAllocIsOwnedSpace(&folder.Volume->Allocator, NewLba, kFileEntryBlocks)) {
        return STATUS_UNSUCCESSFUL;
    }
    VrkFsVolCacheFileEntryRemove(&folder.Volume->EntryCache, folder.Image->FileTable[slot]);
    BOOLEAN undone;
    const NTSTATUS status = ChangeTableEntry(Hw, folder, slot, NewLba, &undone);
    if (!NT_SUCCESS(status) && !undone) {
        // The caller gives the new place back now; the disk may name it, so it must go to nobody.
        static_cast<void>(VrkFsVolAllocContestSpace(&folder.Volume->Allocator, NewLba, kFileEntryBlocks));
    }
    return status;
}
