// The body tables of one media file in shared memory: a named section per stream, which applications map and change
// while the file records or plays, and the way back to the disk.
#pragma once

#include <nt.h>

struct BodyTableCache;
struct CardInstance;
struct FCB;
struct HwVolume;

// BodyTableObject::Flags
inline constexpr ULONG kBodyTableName = 0x001;
inline constexpr ULONG kBodyTableVideoSectionName = 0x002;
inline constexpr ULONG kBodyTableAlphaSectionName = 0x004;
inline constexpr ULONG kBodyTableVideoSection = 0x008;
inline constexpr ULONG kBodyTableAlphaSection = 0x010;
inline constexpr ULONG kBodyTableVideoView = 0x020;
inline constexpr ULONG kBodyTableAlphaView = 0x040;
inline constexpr ULONG kBodyTableClean = 0x080;    // written back since the last write reference
inline constexpr ULONG kBodyTableNew = 0x200;      // made for a table that is not on disk yet; not cached when released
inline constexpr ULONG kBodyTableWritten = 0x400;  // changed through a write reference
inline constexpr ULONG kBodyTableForgotten = 0x800;  // its blocks on disk belong to others: not written back, not found

inline constexpr LONGLONG kBodyTableFlushDelay = 100000000;  // 10 s

// A section's name is this directory, the card's drive as "P:", and the file's full name with "/" for "\", all in
// capitals. Applications are told the part behind the directory.
inline constexpr ULONG kSectionDirectoryChars = 18;  // of "\BaseNamedObjects\"

// Paged, from the cache's list. The section handles and views exist in the owning process only. The cache's mutex
// guards everything that can change once the object is in a list.
struct BodyTableObject {
    LIST_ENTRY Link;   // in the referenced or the unreferenced list
    ULONG References;  // FCBCommons that keep the object
    ULONG WriteReferences;
    LONGLONG FlushDeadline;  // system time
    UNICODE_STRING Name;     // full path under the built-in type, own copy
    struct CardInstance* CardInstance;
    HwVolume* Volume;
    ULONG Frames;
    ULONG VideoLba;
    ULONG VideoBytes;  // on disk
    ULONG AlphaLba;
    ULONG AlphaBytes;  // 0 without alpha
    UNICODE_STRING VideoSectionName;
    UNICODE_STRING AlphaSectionName;
    HANDLE VideoSection;
    HANDLE AlphaSection;
    ULONG VideoSectionBytes;  // 24 per frame
    ULONG AlphaSectionBytes;
    PVOID VideoView;
    PVOID AlphaView;
    BodyTableCache* Cache;
    ULONG Flags;
};

// All of the following run in the cache's owning process.

// An object of the file for this many frames, without sections and in no list. STATUS_INSUFFICIENT_RESOURCES;
// STATUS_INVALID_PARAMETER for more frames than a media file can have.
[[nodiscard]] NTSTATUS VrkFsBTCreateEmptyObject(BodyTableCache* Cache, PCUNICODE_STRING FullName, FCB* Fcb,
                                                ULONG Frames, BodyTableObject** Object);
// An object of the file with the sections that its record calls for, filled from the disk. The FCBCommon's Resource is
// held. Statuses as above, of the sections and of the read; nothing is kept on failure.
[[nodiscard]] NTSTATUS VrkFsBTCreateObject(BodyTableCache* Cache, PCUNICODE_STRING FullName, FCB* Fcb,
                                           BodyTableObject** Object);
// Makes a stream's section of 24 bytes per frame and maps it. Success without an effect when the object has it.
// STATUS_INVALID_PARAMETER_4 without frames: a section is never empty.
// STATUS_OBJECT_NAME_COLLISION: an application still has an earlier section of the name, and it is smaller. What was
// obtained before a failure goes with the object.
[[nodiscard]] NTSTATUS VrkFsBTCreateVideoSection(BodyTableObject* Object);
[[nodiscard]] NTSTATUS VrkFsBTCreateAlphaSection(BodyTableObject* Object);
// Whether the object is what the file's record describes now.
[[nodiscard]] BOOLEAN VrkFsBTMatchesFile(const BodyTableObject* Object, const FCB* Fcb);
// Tables that are not at the places that the file's record names are not written any more.
VOID VrkFsBTKeepTablesOfFile(BodyTableObject* Object, const FCB* Fcb);
// Writes the tables back. Without KeepDirty a success leaves the object clean.
VOID VrkFsBTFlushObject(BodyTableObject* Object, BOOLEAN KeepDirty);
[[nodiscard]] BOOLEAN VrkFsBTIsFlushNeeded(const BodyTableObject* Object, LONGLONG Time);
// The object is in no list.
VOID VrkFsBTDestroyObject(BodyTableCache* Cache, BodyTableObject* Object);
