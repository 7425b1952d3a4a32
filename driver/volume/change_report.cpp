#include <algorithm>

#include "core/global_data.h"
#include "core/pool.h"
#include "core/strings.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "media/directory.h"
#include "volume/hw_volume.h"

namespace {

constexpr ULONG kMaxComponents = 3;  // volume, folder, file
constexpr ULONG kTypeChars = 1 + kFileTypeExtensionChars;
constexpr ULONG kMaxPathChars = kTypeChars + kMaxComponents * (1 + kRecordNameChars) + 1;

struct ChangedPath {
    ULONG Count;
    UNICODE_STRING Component[kMaxComponents];
};

// Appends a backslash and at most kRecordNameChars characters; returns the new length.
ULONG AppendComponent(PWCHAR Path, ULONG Length, PCUNICODE_STRING Name) {
    const ULONG characters = std::min<ULONG>(Name->Length / sizeof(WCHAR), kRecordNameChars);
    Path[Length++] = VRKFS_W("\\")[0];
    RtlCopyMemory(Path + Length, Name->Buffer, characters * sizeof(WCHAR));
    return Length + characters;
}

VOID Report(const ChangedPath* Changed, VCB* Vcb, ULONG Filter, ULONG Action) {
    if (Vcb == nullptr) {
        return;
    }
    PWCHAR const path = static_cast<PWCHAR>(VrkFsAllocatePool(PagedPool, kMaxPathChars * sizeof(WCHAR)));
    if (path == nullptr) {
        return;
    }
    ULONG length = kTypeChars;
    for (ULONG i = 0; i < Changed->Count; ++i) {
        length = AppendComponent(path, length, &Changed->Component[i]);
    }
    path[0] = VRKFS_W("\\")[0];
    path[length] = 0;
    const ULONG types = VrkFsGlobFileTypeCount(pVrkFsGlobalData);
    for (ULONG row = 0; row < types; ++row) {
        const FileType type = VrkFsGlobFileType(pVrkFsGlobalData, row);
        RtlCopyMemory(path + 1, type.Extension, kFileTypeExtensionChars * sizeof(WCHAR));
        VrkFsNotifyChange(Vcb, path, Filter, Action);
    }
    VrkFsFreePool(path);
}

}  // namespace

VOID VrkFsHwVolumeChangeNotify(HwContext* /*Hw*/, PCUNICODE_STRING VolumeName, VCB* Vcb, ULONG Filter, ULONG Action) {
    const ChangedPath path = {1, {*VolumeName}};
    Report(&path, Vcb, Filter, Action);
}

VOID VrkFsHwFolderChangeNotify(HwContext* /*Hw*/, HwVolume* Volume, PCUNICODE_STRING FolderName, VCB* Vcb, ULONG Filter,
                               ULONG Action) {
    const ChangedPath path = {2, {VrkFsHwVolumeName(Volume), *FolderName}};
    Report(&path, Vcb, Filter, Action);
}

VOID VrkFsHwFileChangeNotify(HwContext* /*Hw*/, FCB* FolderFCB, PCUNICODE_STRING FileName, VCB* Vcb, ULONG Filter,
                             ULONG Action) {
    const FCBCommon* const folder = FolderFCB->Common;
    const UNICODE_STRING folderName = VrkFsRtlBoundedString(folder->FolderEntry->Name, kRecordNameChars);
    const ChangedPath path = {3, {VrkFsHwVolumeName(folder->VolumeHandle), folderName, *FileName}};
    Report(&path, Vcb, Filter, Action);
}
