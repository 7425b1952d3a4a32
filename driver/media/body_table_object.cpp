#include "media/body_table_object.h"

#include "core/card_instance.h"
#include "core/guards.h"
#include "core/lookaside.h"
#include "core/strings.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "volume/body_table_io.h"
#include "volume/hw_volume.h"

namespace {

constexpr ULONG kMaxSectionBytes = 0x7FFFFFFF;
constexpr USHORT kVideoNameExtraBytes = 42;  // directory, drive and terminator
constexpr USHORT kAlphaNameExtraBytes = 46;  // and the suffix
const WCHAR* const kDirectory = VRKFS_W("\\BaseNamedObjects\\");
const WCHAR* const kAlphaSuffix = VRKFS_W("_A");

LONGLONG Now() {
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    return now.QuadPart;
}

// Where one stream's fields of the record lie in the object.
struct StreamSection {
    PUNICODE_STRING Name;
    PHANDLE Section;
    PULONG Bytes;
    PVOID* View;
    ULONG NameFlag;
    ULONG SectionFlag;
    ULONG ViewFlag;
};

StreamSection VideoSectionOf(BodyTableObject* Object) {
    return {&Object->VideoSectionName,  &Object->VideoSection,  &Object->VideoSectionBytes, &Object->VideoView,
            kBodyTableVideoSectionName, kBodyTableVideoSection, kBodyTableVideoView};
}

StreamSection AlphaSectionOf(BodyTableObject* Object) {
    return {&Object->AlphaSectionName,  &Object->AlphaSection,  &Object->AlphaSectionBytes, &Object->AlphaView,
            kBodyTableAlphaSectionName, kBodyTableAlphaSection, kBodyTableAlphaView};
}

// ---- Names ----

VOID AppendDrive(PUNICODE_STRING Name, struct CardInstance* Card) {
    const WCHAR drive[] = {VrkFsGlobDriveLetter(Card), ':', 0};
    static_cast<void>(RtlAppendUnicodeToString(Name, drive));
}

NTSTATUS MakeSectionName(const BodyTableObject* Object, PUNICODE_STRING Name, USHORT ExtraBytes, PCWSTR Suffix) {
    if (Object->Name.Length > 0xFFFF - ExtraBytes) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (!NT_SUCCESS(VrkFsRtlAllocateUnicodeString(Name, static_cast<USHORT>(Object->Name.Length + ExtraBytes)))) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    static_cast<void>(RtlAppendUnicodeToString(Name, kDirectory));
    AppendDrive(Name, Object->CardInstance);
    static_cast<void>(RtlAppendUnicodeStringToString(Name, &Object->Name));
    static_cast<void>(RtlAppendUnicodeToString(Name, Suffix));
    // A section's name is one component.
    for (ULONG i = kSectionDirectoryChars; i < Name->Length / sizeof(WCHAR); ++i) {
        const WCHAR c = Name->Buffer[i];
        Name->Buffer[i] = c == '\\' ? static_cast<WCHAR>('/') : RtlUpcaseUnicodeChar(c);
    }
    Name->Buffer[Name->Length / sizeof(WCHAR)] = 0;
    return STATUS_SUCCESS;
}

// ---- Sections ----

// Applications of every user record and play.
NTSTATUS CreateNamedSection(PHANDLE Section, PUNICODE_STRING Name, ULONG Bytes) {
    SECURITY_DESCRIPTOR security;
    NTSTATUS status = RtlCreateSecurityDescriptor(&security, SECURITY_DESCRIPTOR_REVISION);
    if (NT_SUCCESS(status)) {
        status = RtlSetDaclSecurityDescriptor(&security, TRUE, nullptr, FALSE);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, Name, OBJ_OPENIF, nullptr, &security);
    LARGE_INTEGER size;
    size.QuadPart = Bytes;
    return ZwCreateSection(Section, SECTION_ALL_ACCESS, &attributes, &size, PAGE_READWRITE, SEC_COMMIT, nullptr);
}

NTSTATUS MapSection(const StreamSection& Stream, const BodyTableObject* Object, PULONG Flags) {
    SIZE_T viewBytes = 0;
    const NTSTATUS status = ZwMapViewOfSection(*Stream.Section, NtCurrentProcess(), Stream.View, 0, 0, nullptr,
                                               &viewBytes, ViewShare, 0, PAGE_READWRITE);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    *Flags |= Stream.ViewFlag;
    // An application that still has the section of an earlier file of the name keeps that one's size.
    return viewBytes < VrkFsHwGetBodyTableNodesSize(Object->Frames) ? STATUS_OBJECT_NAME_COLLISION : STATUS_SUCCESS;
}

NTSTATUS CreateStreamSection(BodyTableObject* Object, const StreamSection& Stream, USHORT ExtraBytes, PCWSTR Suffix) {
    if ((Object->Flags & Stream.ViewFlag) != 0) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = MakeSectionName(Object, Stream.Name, ExtraBytes, Suffix);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    Object->Flags |= Stream.NameFlag;
    *Stream.Bytes = static_cast<ULONG>(VrkFsHwGetBodyTableNodesSize(Object->Frames));
    status = CreateNamedSection(Stream.Section, Stream.Name, *Stream.Bytes);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    Object->Flags |= Stream.SectionFlag;
    return MapSection(Stream, Object, &Object->Flags);
}

VOID DestroyStreamSection(BodyTableObject* Object, const StreamSection& Stream) {
    if ((Object->Flags & Stream.ViewFlag) != 0) {
        static_cast<void>(ZwUnmapViewOfSection(NtCurrentProcess(), *Stream.View));
    }
    if ((Object->Flags & Stream.SectionFlag) != 0) {
        static_cast<void>(ZwClose(*Stream.Section));
    }
    if ((Object->Flags & Stream.NameFlag) != 0) {
        VrkFsRtlFreeUnicodeString(Stream.Name);
    }
    *Stream.View = nullptr;  // an address left here would be where the next view has to be
    *Stream.Section = nullptr;
    Object->Flags &= ~(Stream.ViewFlag | Stream.SectionFlag | Stream.NameFlag);
}

// A section that could not be had whole leaves nothing behind, so that it can be asked for again.
NTSTATUS CreateOrUndo(BodyTableObject* Object, const StreamSection& Stream, USHORT ExtraBytes, PCWSTR Suffix) {
    const NTSTATUS status = CreateStreamSection(Object, Stream, ExtraBytes, Suffix);
    if (!NT_SUCCESS(status)) {
        DestroyStreamSection(Object, Stream);
    }
    return status;
}

// ---- What the file's record says ----

bool HasAlpha(const FileEntry* Entry) {
    return (Entry->Flags & kFileHasAlpha) != 0;
}

// Bytes of a table on disk; one that no record can describe counts as none, and is neither read nor written.
ULONG TableBytes(ULONG Blocks) {
    return Blocks <= 0xFFFFFFFF / kBlockSize ? Blocks * kBlockSize : 0;
}

// Where a stream's table lies on disk.
struct TablePlace {
    ULONG Lba;
    ULONG Bytes;  // 0: the file has no such table
};

TablePlace VideoTableOf(const FileEntry* Entry) {
    return {Entry->VideoBodyTableLba, TableBytes(Entry->VideoBodyTableBlockCount)};
}

TablePlace AlphaTableOf(const FileEntry* Entry) {
    return HasAlpha(Entry) ? TablePlace{Entry->AlphaBodyTableLba, TableBytes(Entry->AlphaBodyTableBlockCount)}
                           : TablePlace{};
}

bool IsTableAt(const TablePlace& Place, ULONG Lba, ULONG Bytes) {
    return Lba == Place.Lba && Bytes == Place.Bytes;
}

ULONG FramesOf(const FileEntry* Entry) {
    return Entry->Kind == kFileKindMedia ? Entry->FrameCount : 0;
}

bool HasFramesOf(const BodyTableObject* Object, const FCB* Fcb) {
    return Object->Volume == Fcb->Common->VolumeHandle && Object->Frames == FramesOf(Fcb->Common->FileEntry);
}

// A record whose tables cannot be read does not make anybody commit memory for its frame count.
bool CanHold(const BodyTableObject* Object, ULONG TableLba, ULONG TableBlocks) {
    return VrkFsHwGetBodyTableSize(Object->Frames) <= ULONGLONG{TableBlocks} * kBlockSize &&
           (Object->Frames == 0 || VrkFsHwIsDataAreaRange(Object->Volume, TableLba, TableBlocks));
}

NTSTATUS FillFromDisk(BodyTableObject* Object, FCB* Fcb) {
    const FileEntry* entry = Fcb->Common->FileEntry;
    if (!CanHold(Object, entry->VideoBodyTableLba, entry->VideoBodyTableBlockCount) ||
        (HasAlpha(entry) && !CanHold(Object, entry->AlphaBodyTableLba, entry->AlphaBodyTableBlockCount))) {
        return STATUS_UNSUCCESSFUL;
    }
    NTSTATUS status = VrkFsBTCreateVideoSection(Object);
    if (NT_SUCCESS(status) && HasAlpha(entry)) {
        status = VrkFsBTCreateAlphaSection(Object);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const TablePlace video = VideoTableOf(entry);
    const TablePlace alpha = AlphaTableOf(entry);
    Object->VideoLba = video.Lba;
    Object->VideoBytes = video.Bytes;
    Object->AlphaLba = alpha.Lba;
    Object->AlphaBytes = alpha.Bytes;
    return VrkFsHwReadBodyTableNodes(&Object->CardInstance->Hw, Fcb,
                                     static_cast<PlacedBodyTableNode*>(Object->VideoView),
                                     static_cast<PlacedBodyTableNode*>(Object->AlphaView));
}

}  // namespace

NTSTATUS VrkFsBTCreateEmptyObject(BodyTableCache* Cache, PCUNICODE_STRING FullName, FCB* Fcb, ULONG Frames,
                                  BodyTableObject** Object) {
    if (VrkFsHwGetBodyTableNodesSize(Frames) > kMaxSectionBytes) {
        return STATUS_INVALID_PARAMETER;
    }
    auto* object = VrkFsLookasideAllocate<BodyTableObject>(&Cache->Objects);
    if (object == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const NTSTATUS status = VrkFsRtlCopyUnicodeString(&object->Name, FullName);
    if (!NT_SUCCESS(status)) {
        VrkFsLookasideFree(&Cache->Objects, object);
        return status;
    }
    object->Flags = kBodyTableName;
    object->Cache = Cache;
    object->CardInstance = CONTAINING_RECORD(Cache, CardInstance, BodyTableCache);
    object->Volume = Fcb->Common->VolumeHandle;
    object->Frames = Frames;
    object->FlushDeadline = Now() + kBodyTableFlushDelay;
    *Object = object;
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsBTCreateObject(BodyTableCache* Cache, PCUNICODE_STRING FullName, FCB* Fcb, BodyTableObject** Object) {
    BodyTableObject* object = nullptr;
    const ULONG frames = FramesOf(Fcb->Common->FileEntry);
    NTSTATUS status = VrkFsBTCreateEmptyObject(Cache, FullName, Fcb, frames, &object);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = FillFromDisk(object, Fcb);
    if (!NT_SUCCESS(status)) {
        VrkFsBTDestroyObject(Cache, object);
        return status;
    }
    *Object = object;
    return STATUS_SUCCESS;
}

NTSTATUS VrkFsBTCreateVideoSection(BodyTableObject* Object) {
    return CreateOrUndo(Object, VideoSectionOf(Object), kVideoNameExtraBytes, VRKFS_W(""));
}

NTSTATUS VrkFsBTCreateAlphaSection(BodyTableObject* Object) {
    return CreateOrUndo(Object, AlphaSectionOf(Object), kAlphaNameExtraBytes, kAlphaSuffix);
}

BOOLEAN VrkFsBTMatchesFile(const BodyTableObject* Object, const FCB* Fcb) {
    const FileEntry* entry = Fcb->Common->FileEntry;
    return HasFramesOf(Object, Fcb) && IsTableAt(VideoTableOf(entry), Object->VideoLba, Object->VideoBytes) &&
           IsTableAt(AlphaTableOf(entry), Object->AlphaLba, Object->AlphaBytes);
}

VOID VrkFsBTKeepTablesOfFile(BodyTableObject* Object, const FCB* Fcb) {
    const FileEntry* entry = Fcb->Common->FileEntry;
    const bool sameFrames = HasFramesOf(Object, Fcb);
    if (!sameFrames || !IsTableAt(VideoTableOf(entry), Object->VideoLba, Object->VideoBytes)) {
        Object->VideoBytes = 0;
    }
    if (!sameFrames || !IsTableAt(AlphaTableOf(entry), Object->AlphaLba, Object->AlphaBytes)) {
        Object->AlphaBytes = 0;
    }
}

VOID VrkFsBTFlushObject(BodyTableObject* Object, BOOLEAN KeepDirty) {
    if ((Object->Flags & (kBodyTableVideoView | kBodyTableAlphaView)) == 0 ||
        (Object->Flags & kBodyTableForgotten) != 0) {
        return;
    }
    const bool empty = Object->Frames == 0 || Object->VideoBytes + ULONGLONG{Object->AlphaBytes} == 0;
    const NTSTATUS status =
        empty ? STATUS_SUCCESS
              : VrkFsHwWriteBodyTableNodes(&Object->CardInstance->Hw, Object->Frames,
                                           static_cast<PlacedBodyTableNode*>(Object->VideoView),
                                           static_cast<PlacedBodyTableNode*>(Object->AlphaView), Object->VideoLba,
                                           Object->AlphaLba, Object->VideoBytes, Object->AlphaBytes, Object->Volume);
    Object->FlushDeadline = Now() + kBodyTableFlushDelay;
    if (!KeepDirty && NT_SUCCESS(status)) {
        Object->Flags = (Object->Flags & ~kBodyTableWritten) | kBodyTableClean;
    }
}

BOOLEAN VrkFsBTIsFlushNeeded(const BodyTableObject* Object, LONGLONG Time) {
    return (Object->Flags & (kBodyTableVideoView | kBodyTableAlphaView)) != 0 &&
           (Object->WriteReferences != 0 || (Object->Flags & kBodyTableWritten) != 0) &&
           (Object->Flags & kBodyTableClean) == 0 && Object->FlushDeadline < Time;
}

VOID VrkFsBTDestroyObject(BodyTableCache* Cache, BodyTableObject* Object) {
    DestroyStreamSection(Object, AlphaSectionOf(Object));
    DestroyStreamSection(Object, VideoSectionOf(Object));
    if ((Object->Flags & kBodyTableName) != 0) {
        VrkFsRtlFreeUnicodeString(&Object->Name);
    }
    VrkFsLookasideFree(&Cache->Objects, Object);
}
