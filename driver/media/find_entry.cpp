// The one routine behind listings and name look-ups: the entry at an index of any folder of the name space.
#include <algorithm>

#include "core/card_instance.h"
#include "core/device_ext.h"
#include "core/global_data.h"
#include "core/strings.h"
#include "fsd/ccb.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/name_tree.h"
#include "media/directory.h"
#include "media/frame_name.h"
#include "media/ram_files.h"
#include "storage/hw_context.h"
#include "volume/entries.h"
#include "volume/hw_volume.h"
#include "volume/name_index.h"

namespace {

static_assert(kFoundNameChars == kRecordNameChars && kFoundNameChars == kFrameNameMaxChars);

VOID SetName(FoundEntry* Found, const WCHAR* Name, ULONG Chars) {
    const ULONG chars = std::min<ULONG>(Chars, kFoundNameChars - 1);
    RtlCopyMemory(Found->Name, Name, chars * sizeof(WCHAR));
    Found->Name[chars] = 0;
    Found->NameLength = chars * sizeof(WCHAR);
}

// ---- The entry at an index, per level. FALSE: there is none at the index or behind it. ----

BOOLEAN ProduceType(DiskDeviceExt* Ext, ULONG Index, FoundEntry* Found) {
    if (Index >= VrkFsGlobFileTypeCount(pVrkFsGlobalData)) {
        return FALSE;
    }
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    Found->Time = now.QuadPart;
    VrkFsHwGetLatestVolumeTime(&Ext->Instance->Hw, &Found->Time);
    SetName(Found, VrkFsGlobFileType(pVrkFsGlobalData, Index).Extension, kFileTypeExtensionChars);
    Found->Index = Index;
    Found->IsDirectory = TRUE;
    return TRUE;
}

BOOLEAN ProduceVolume(DiskDeviceExt* Ext, ULONG Index, FoundEntry* Found) {
    HwContext* hw = &Ext->Instance->Hw;
    ULONG left = Index;
    for (PLIST_ENTRY link = hw->Volumes.Flink; link != &hw->Volumes; link = link->Flink) {
        const HwVolume* volume = CONTAINING_RECORD(link, HwVolume, Link);
        if ((volume->Flags & kVolumeHidden) != 0 || volume->Devices[0] >= kScsiIdCount) {
            continue;
        }
        if (left-- == 0) {
            const UNICODE_STRING name = VrkFsHwVolumeName(volume);
            SetName(Found, name.Buffer, name.Length / sizeof(WCHAR));
            Found->Time = static_cast<LONGLONG>(hw->Devices[volume->Devices[0]].VolumeEntry.CreationTime);
            Found->Index = Index;
            Found->IsDirectory = TRUE;
            return TRUE;
        }
    }
    return FALSE;
}

BOOLEAN ProduceFolder(DiskDeviceExt* Ext, const FCB* VolumeFcb, ULONG Index, FoundEntry* Found) {
    BOOLEAN found = FALSE;
    ULONG slot = Index;
    const NTSTATUS status =
        VrkFsHwGetNextDirEntry(&Ext->Instance->Hw, VolumeFcb->Common->VolumeHandle, &slot, Found, &found);
    return NT_SUCCESS(status) && found;
}

BOOLEAN ProduceFile(DiskDeviceExt* Ext, FCB* FolderFcb, ULONG Index, FoundEntry* Found) {
    BOOLEAN found = FALSE;
    ULONG slot = Index;
    const NTSTATUS status = VrkFsHwGetNextFileEntry(&Ext->Instance->Hw, FolderFcb, &slot, Found, &found);
    return NT_SUCCESS(status) && found;
}

VOID FillFrame(const FCB* FileFcb, ULONG Index, FoundEntry* Found) {
    const FileEntry* entry = FileFcb->Common->FileEntry;
    Found->Index = Index;
    Found->Time = static_cast<LONGLONG>(entry->CreationTime);
    Found->Size = VrkFsGetFrameFileSize(FileFcb->TypeIndex, entry);
}

BOOLEAN ProduceRamFile(FCB* FileFcb, ULONG Frames, ULONG Index, FoundEntry* Found) {
    FCBCommon* common = FileFcb->Common;
    RamFileSet* set = &common->VolumeHandle->RamFiles;
    if (set->Count == 0 || !NT_SUCCESS(VrkFsFCBSetupFullName(common->Vcb, FileFcb))) {
        return FALSE;
    }
    RamFile* file = nullptr;
    ULONG ordinal = Index - Frames;
    if (!VrkFsVFFindNextFile(set, &FileFcb->FullName, &ordinal, &file)) {
        return FALSE;
    }
    SetName(Found, file->Name.Buffer, file->Name.Length / sizeof(WCHAR));
    Found->Index = Index;
    Found->Time = file->Time;
    Found->Size = file->EndOfFile;
    return TRUE;
}

BOOLEAN ProduceFrameOrRamFile(DiskDeviceExt* Ext, FCB* FileFcb, ULONG Index, FoundEntry* Found) {
    const FileEntry* entry = FileFcb->Common->FileEntry;
    if (entry == nullptr) {
        return FALSE;
    }
    const ULONG frames = VrkFsGetFrameFileCount(entry);
    if (Index >= frames) {
        return ProduceRamFile(FileFcb, frames, Index, Found);
    }
    const Preferences prefs = VrkFsGlobPreferencesOf(Ext->Instance);
    VrkFsConstructFileFrameName(entry->Name, FileFcb->TypeIndex, frames, Index, prefs.BaseFrameNumber,
                                prefs.MinFrameDigits, Found);
    FillFrame(FileFcb, Index, Found);
    return TRUE;
}

BOOLEAN Produce(DiskDeviceExt* Ext, FCB* Folder, ULONG Index, FoundEntry* Found) {
    // The name is overwritten anyway.
    RtlZeroMemory(Found, FIELD_OFFSET(FoundEntry, Name));
    Found->IsDirectory = FALSE;
    switch (Folder->Level) {
        case kLevelRoot:
            return ProduceType(Ext, Index, Found);
        case kLevelType:
            return ProduceVolume(Ext, Index, Found);
        case kLevelVolume:
            return ProduceFolder(Ext, Folder, Index, Found);
        case kLevelFolder:
            return ProduceFile(Ext, Folder, Index, Found);
        case kLevelFile:
            return ProduceFrameOrRamFile(Ext, Folder, Index, Found);
        default:
            return FALSE;
    }
}

// ---- Look-ups of one name that need not produce every entry before it ----

BOOLEAN FindFrameOrRamFile(DiskDeviceExt* Ext, const CCB* Ccb, PULONG Index, FoundEntry* Found) {
    FCB* fcb = Ccb->Fcb;
    const FileEntry* entry = fcb->Common->FileEntry;
    if (entry == nullptr) {
        return FALSE;
    }
    const ULONG frames = VrkFsGetFrameFileCount(entry);
    const Preferences prefs = VrkFsGlobPreferencesOf(Ext->Instance);
    ULONG index = 0;
    if (*Index < frames && VrkFsFindFrameByName(entry->Name, fcb->TypeIndex, frames, *Index, prefs.BaseFrameNumber,
                                                prefs.MinFrameDigits, &Ccb->SearchName, &index, Found)) {
        RtlZeroMemory(Found, FIELD_OFFSET(FoundEntry, NameLength));
        Found->IsDirectory = FALSE;
        FillFrame(fcb, index, Found);
        return TRUE;
    }
    // No frame has the name; the files behind the frames are few and are gone through.
    *Index = std::max(*Index, frames);
    return FALSE;
}

// TRUE: found. FALSE: not among what the index of names covers; the walk goes on at *Index if *GoOn says so.
BOOLEAN FindByName(DiskDeviceExt* Ext, const CCB* Ccb, PULONG Index, FoundEntry* Found, PBOOLEAN GoOn) {
    HwContext* hw = &Ext->Instance->Hw;
    BOOLEAN found = FALSE;
    ULONG slot = 0;
    NTSTATUS status = STATUS_SUCCESS;
    *GoOn = FALSE;
    switch (Ccb->Fcb->Level) {
        case kLevelVolume:
            status = VrkFsHwFindFolderByName(hw, Ccb->Fcb->Common->VolumeHandle, &Ccb->SearchName, *Index, &slot, Found,
                                             &found);
            return NT_SUCCESS(status) && found;
        case kLevelFolder:
            status = VrkFsHwFindFileByName(hw, Ccb->Fcb, &Ccb->SearchName, *Index, &slot, Found, &found);
            return NT_SUCCESS(status) && found;
        case kLevelFile:
            *GoOn = TRUE;
            return FindFrameOrRamFile(Ext, Ccb, Index, Found);
        default:
            *GoOn = TRUE;
            return FALSE;
    }
}

// ---- Matching ----

// Out of line: the upcased name takes half a kilobyte of stack that no caller should carry along.
__attribute__((noinline)) BOOLEAN MatchesPattern(CCB* Ccb, const FoundEntry* Found) {
    WCHAR upcased[kFoundNameChars];
    const ULONG chars = std::min<ULONG>(Found->NameLength / sizeof(WCHAR), kFoundNameChars);
    for (ULONG i = 0; i < chars; ++i) {
        upcased[i] = RtlUpcaseUnicodeChar(Found->Name[i]);
    }
    UNICODE_STRING name = {};
    name.Length = static_cast<USHORT>(chars * sizeof(WCHAR));
    name.MaximumLength = sizeof(upcased);
    name.Buffer = upcased;
    return FsRtlIsNameInExpression(&Ccb->SearchName, &name, FALSE, nullptr);
}

BOOLEAN Matches(CCB* Ccb, const FoundEntry* Found) {
    if ((Ccb->Flags & kCcbMatchAll) != 0) {
        return TRUE;
    }
    return Ccb->HasWildcards ? MatchesPattern(Ccb, Found) : VrkFsFoundEntryHasName(Found, &Ccb->SearchName);
}

}  // namespace

BOOLEAN VrkFsFoundEntryHasName(const FoundEntry* Found, PCUNICODE_STRING UpcasedName) {
    if (Found->NameLength != UpcasedName->Length) {
        return FALSE;
    }
    for (ULONG i = 0; i < Found->NameLength / sizeof(WCHAR); ++i) {
        if (RtlUpcaseUnicodeChar(Found->Name[i]) != UpcasedName->Buffer[i]) {
            return FALSE;
        }
    }
    return TRUE;
}

BOOLEAN VrkFsFindDirEntry(DiskDeviceExt* Ext, CCB* Ccb, ULONG StartIndex, FoundEntry* Found) {
    ULONG index = StartIndex;
    if ((Ccb->Flags & kCcbMatchAll) == 0 && !Ccb->HasWildcards) {
        BOOLEAN goOn = FALSE;
        if (FindByName(Ext, Ccb, &index, Found, &goOn)) {
            return TRUE;
        }
        if (!goOn) {
            return FALSE;
        }
    }
    while (Produce(Ext, Ccb->Fcb, index, Found)) {
        if (Matches(Ccb, Found)) {
            return TRUE;
        }
        if (Found->Index == 0xFFFFFFFF) {
            break;
        }
        index = Found->Index + 1;
    }
    return FALSE;
}
