// The body tables that recording and playback applications share with the driver: named memory sections, one object per
// media file, written back to disk at a fixed pace by one thread per card.
#pragma once

#include <nt.h>

struct BodyTableCache;
struct CardInstance;
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

// BodyTableCache::Flags
inline constexpr ULONG kBodyTableCacheList = 0x01;
inline constexpr ULONG kBodyTableCacheThread = 0x02;

inline constexpr ULONG kBodyTableMaxUnreferenced = 32;
inline constexpr LONGLONG kBodyTableFlushDelay = 100000000;  // 10 s
inline constexpr LONGLONG kBodyTableFlushPeriod = 20000000;  // 2 s

// Paged, from the cache's list. The section handles and views exist in the owning process only.
struct BodyTableObject {
    LIST_ENTRY Link;  // in the referenced or the unreferenced list
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

// One per card, embedded in the CardInstance (non-paged). The mutex guards both lists, their counts, the suspend count
// and every object's flags and write references, and is held while a table is written back.
struct BodyTableCache {
    LIST_ENTRY Referenced;
    ULONG ReferencedCount;
    LIST_ENTRY Unreferenced;  // newest first
    ULONG UnreferencedCount;
    KMUTEX Mutex;
    PAGED_LOOKASIDE_LIST Objects;  // "BTOL"
    HANDLE FlushThread;
    PVOID FlushThreadObject;
    PEPROCESS Owner;
    KEVENT StopEvent;        // notification
    KEVENT ThreadDoneEvent;  // notification: the thread touches nothing any more
    ULONG SuspendCount;
    ULONG Flags;
    // What callers of other processes have the flush thread do for them. The critical work queue would not do: the
    // caller may hold locks that everything in that queue waits for. The thread takes no lock but the mutex.
    LIST_ENTRY Work;
    FAST_MUTEX WorkLock;
    KEVENT WorkEvent;  // synchronisation: there is work
};

// Card start-up and shutdown, in the system process. Init undoes itself on failure. Free ends the thread, writes
// everything back, and is harmless on a cache that is not set up.
[[nodiscard]] NTSTATUS VrkFsBTInitHandler(BodyTableCache* Cache);
VOID VrkFsBTFreeHandler(BodyTableCache* Cache);

// All of the following may be called in any process, with resources held, and return when the work is done. None needs
// memory.

// The FCBCommon gives its object back.
VOID VrkFsBTDereferenceObject(BodyTableCache* Cache, BodyTableObject* Object);
// Write back, by name; nothing if there is no such object.
VOID VrkFsBTFlushObjectByName(BodyTableCache* Cache, PCUNICODE_STRING FullName);
// Write back and destroy; the caller sees to it that no FCBCommon uses the object any more.
VOID VrkFsBTRemoveObjectByName(BodyTableCache* Cache, PCUNICODE_STRING FullName);
// The table at this LBA of the volume is no longer this file's: the object of it is never written back again and not
// found by its name any more. Nothing for LBA 0.
VOID VrkFsBTForgetTable(BodyTableCache* Cache, const HwVolume* Volume, ULONG TableLba);
// Write back and destroy a whole list.
VOID VrkFsBTFlushUnrefObjects(BodyTableCache* Cache);
VOID VrkFsBTFlushRefObjects(BodyTableCache* Cache);
// While the count is above 0 the thread writes nothing back. Resuming more than was suspended leaves 0.
VOID VrkFsBTRequestFlushSuspend(BodyTableCache* Cache);
VOID VrkFsBTRequestFlushResume(BodyTableCache* Cache, ULONG Count);
