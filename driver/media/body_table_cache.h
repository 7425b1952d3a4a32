// The body tables that recording and playback applications share with the driver: named memory sections, one object per
// media file, written back to disk at a fixed pace by one thread per card.
#pragma once

#include <nt.h>

struct BodyTableObject;
struct FCB;
struct HwVolume;

// BodyTableCache::Flags
inline constexpr ULONG kBodyTableCacheList = 0x01;
inline constexpr ULONG kBodyTableCacheThread = 0x02;

inline constexpr ULONG kBodyTableMaxUnreferenced = 32;
inline constexpr LONGLONG kBodyTableFlushPeriod = 20000000;  // 2 s

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

// ---- A file's object. In the owning process; the FCBCommon's Resource is held exclusively, which keeps the object.
// ----

// Finds or makes the object of an open media file. Statuses of VrkFsBTCreateObject; nothing is kept on failure.
[[nodiscard]] NTSTATUS VrkFsBTReferenceObject(BodyTableCache* Cache, PCUNICODE_STRING FullName, FCB* Fcb,
                                              BodyTableObject** Object);
// An object for tables that are not on disk yet, without sections. STATUS_INSUFFICIENT_RESOURCES;
// STATUS_INVALID_PARAMETER for more frames than one section can hold.
[[nodiscard]] NTSTATUS VrkFsBTCreateNewObject(BodyTableCache* Cache, PCUNICODE_STRING FullName, FCB* Fcb, ULONG Frames,
                                              BodyTableObject** Object);
// Give the object a stream's section, and the place on disk that the stream's table is written back to. The blocks are
// the file's. Statuses of the section; nothing has changed on failure.
[[nodiscard]] NTSTATUS VrkFsBTCreateNewVideoNodes(BodyTableCache* Cache, BodyTableObject* Object, ULONG TableLba,
                                                  ULONG TableBytes);
[[nodiscard]] NTSTATUS VrkFsBTCreateNewAlphaNodes(BodyTableCache* Cache, BodyTableObject* Object, ULONG TableLba,
                                                  ULONG TableBytes);
// While somebody may write into the tables they are written back again and again.
VOID VrkFsBTWriteAccessReference(BodyTableCache* Cache, BodyTableObject* Object);
VOID VrkFsBTWriteAccessDereference(BodyTableCache* Cache, BodyTableObject* Object);
// The name by which applications open a stream's section, terminated. Bytes: room in Buffer. STATUS_BUFFER_TOO_SMALL,
// also for a stream that has no section.
[[nodiscard]] NTSTATUS VrkFsBTGetVideoName(BodyTableCache* Cache, const BodyTableObject* Object, PVOID Buffer,
                                           ULONG Bytes);
[[nodiscard]] NTSTATUS VrkFsBTGetAlphaName(BodyTableCache* Cache, const BodyTableObject* Object, PVOID Buffer,
                                           ULONG Bytes);

// ---- In any process ----
// With resources held; they return when the work is done, and none needs memory.

// The table at this LBA of the volume is no longer than this from now on, and holds this many frames: to be told before
// the rest of its blocks is given back, whether the file has its object attached or the cache merely keeps it. Without
// frames there is no table any more. Nothing for LBA 0. The FCBCommon's Resource is held exclusively.
VOID VrkFsBTSettleTable(BodyTableCache* Cache, const HwVolume* Volume, ULONG TableLba, ULONG TableBytes, ULONG Frames);
// Whether somebody holds a write reference.
[[nodiscard]] BOOLEAN VrkFsBTIsWriteReferenced(BodyTableCache* Cache, const BodyTableObject* Object);
// Whether the file has got other tables since the object was made: whoever wants them lets go of it.
[[nodiscard]] BOOLEAN VrkFsBTIsForgotten(BodyTableCache* Cache, const BodyTableObject* Object);

// The FCBCommon gives its object back.
VOID VrkFsBTDereferenceObject(BodyTableCache* Cache, BodyTableObject* Object);
// Write back, by name; nothing if there is no such object.
VOID VrkFsBTFlushObjectByName(BodyTableCache* Cache, PCUNICODE_STRING FullName);
// Write back and destroy. The caller sees to it that no FCBCommon uses the object any more; one that is still used is
// written back and forgotten.
VOID VrkFsBTRemoveObjectByName(BodyTableCache* Cache, PCUNICODE_STRING FullName);
// The table at this LBA of the volume is no longer this file's: it is never written back again, and an object that has
// no other is not found by its name any more. Nothing for LBA 0.
VOID VrkFsBTForgetTable(BodyTableCache* Cache, const HwVolume* Volume, ULONG TableLba);
// Write back and destroy a whole list; what an FCBCommon still keeps is only written back.
VOID VrkFsBTFlushUnrefObjects(BodyTableCache* Cache);
VOID VrkFsBTFlushRefObjects(BodyTableCache* Cache);
// While the count is above 0 the thread writes nothing back. Resuming more than was suspended leaves 0.
VOID VrkFsBTRequestFlushSuspend(BodyTableCache* Cache);
VOID VrkFsBTRequestFlushResume(BodyTableCache* Cache, ULONG Count);
