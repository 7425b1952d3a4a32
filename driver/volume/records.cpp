#include "volume/records.h"

#include <algorithm>

#include "core/strings.h"

namespace {

constexpr WCHAR kForbidden[] = VRKFS_W("\\/:*?\"<>|");

BOOLEAN IsForbidden(WCHAR Character) {
    for (const WCHAR forbidden : kForbidden) {
        if (Character == forbidden && forbidden != 0) {
            return TRUE;
        }
    }
    return FALSE;
}

}  // namespace

BOOLEAN VrkFsHwIsValidFilename(PCUNICODE_STRING Name) {
    const ULONG characters = Name->Length / sizeof(WCHAR);
    ULONG length = 0;
    for (; length < characters && Name->Buffer[length] != 0; ++length) {
        if (IsForbidden(Name->Buffer[length])) {
            return FALSE;
        }
    }
    return length >= 1 && length <= kRecordNameChars;
}

VOID VrkFsHwSetRecordName(PWCHAR Field, PCUNICODE_STRING Name) {
    const ULONG room = std::min<ULONG>(Name->Length / sizeof(WCHAR), kRecordNameChars);
    const ULONG length = VrkFsRtlBoundedLength(Name->Buffer, room);
    RtlCopyMemory(Field, Name->Buffer, length * sizeof(WCHAR));
    RtlZeroMemory(Field + length, (kRecordNameChars - length) * sizeof(WCHAR));
}

BOOLEAN VrkFsHwIsSameName(const WCHAR* First, const WCHAR* Second) {
    const ULONG length = VrkFsRtlBoundedLength(First, kRecordNameChars);
    return VrkFsRtlBoundedLength(Second, kRecordNameChars) == length &&
           RtlEqualMemory(First, Second, length * sizeof(WCHAR));
}

ULONGLONG VrkFsHwGetBodyTableSize(ULONG Frames) {
    return VrkFsBodyTableBytes(Frames);
}

ULONGLONG VrkFsHwGetBodyTableNodesSize(ULONG Frames) {
    return static_cast<ULONGLONG>(Frames) * VRKFS_FIELDS_PER_FRAME * sizeof(PlacedBodyTableNode);
}

VOID VrkFsHwRecountFiles(DirEntry* Entry) {
    ULONG count = 0;
    for (const ULONG lba : Entry->FileTable) {
        count += lba != 0;
    }
    Entry->FileCount = count;
}

ULONG VrkFsHwFindFreeFileSlot(const DirEntry* Entry) {
    ULONG slot = 0;
    while (slot < kMaxFilesPerFolder && Entry->FileTable[slot] != 0) {
        ++slot;
    }
    return slot;
}

BOOLEAN VrkFsHwIsFolderInUse(const DirEntry* Entry) {
    return Entry->InUse != 0 && (Entry->Magic != 0 || VrkFsHwCalcFolderChecksum(Entry) == Entry->Checksum);
}

BOOLEAN VrkFsHwIsSubstituteFolder(const DirEntry* Entry) {
    return Entry->CreationTime == 0 && Entry->Checksum == 0;
}

BOOLEAN VrkFsHwIsSubstituteFile(const FileEntry* Entry) {
    return Entry->CreationTime == 0 && Entry->Checksum == 0;
}

VOID VrkFsHwMakeSubstituteFile(FileEntry* Entry, ULONG Lba) {
    RtlZeroMemory(Entry, sizeof(FileEntry));
    Entry->Magic = kFileEntryMagic;
    constexpr CHAR prefix[] = "BAD_FILE_";
    CHAR text[sizeof(prefix) - 1 + kIntegerStringBytes];
    RtlCopyMemory(text, prefix, sizeof(prefix) - 1);
    VrkFsRtlIntegerToString(Lba, text + sizeof(prefix) - 1);
    VrkFsRtlWidenText(text, Entry->Name, kRecordNameChars);
}
