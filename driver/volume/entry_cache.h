#pragma once

#include <nt.h>

#include "volume/records.h"

// Copies of the records that a volume has read or written, keyed by their LBA on the position-0 device. Write-through:
// a record is stored after it was written to disk, so nothing here is newer than the disk. Each kind is kept in order
// of use and the least recently used node is reused when its list is full; a hash table beside each list finds a record
// without a walk. Records that stand in for unreadable ones are never stored.

inline constexpr ULONG kMaxCachedFiles = 4096;
inline constexpr ULONG kMaxCachedFolders = 256;

struct VolCacheFileNode {
    LIST_ENTRY Link;
    ULONG Lba;
    FileEntry Entry;
    VolCacheFileNode* NextInBucket;
};

struct VolCacheFolderNode {
    LIST_ENTRY Link;
    ULONG Lba;
    DirEntry Entry;
    VolCacheFolderNode* NextInBucket;
};

// Embedded in HwVolume. Lock guards both lists and tables; it is held for one find and copy, no other lock is taken
// while it is held, and it may be taken under any other lock except a fast mutex.
struct VolCache {
    PPAGED_LOOKASIDE_LIST FileNodes;  // non-paged header; "VCFL"
    LIST_ENTRY FileList;              // most recently used first
    ULONG FileCount;
    PPAGED_LOOKASIDE_LIST FolderNodes;  // "VCfL"
    LIST_ENTRY FolderList;
    ULONG FolderCount;
    PKMUTEX Lock;                        // non-paged
    ULONG Flags;                         // kVolCache...
    VolCacheFileNode** FileBuckets;      // kMaxCachedFiles of them, paged
    VolCacheFolderNode** FolderBuckets;  // kMaxCachedFolders of them, paged
};

inline constexpr ULONG kVolCacheFileHeader = 0x01;
inline constexpr ULONG kVolCacheFileNodes = 0x02;
inline constexpr ULONG kVolCacheFileList = 0x04;
inline constexpr ULONG kVolCacheFolderHeader = 0x08;
inline constexpr ULONG kVolCacheFolderNodes = 0x10;
inline constexpr ULONG kVolCacheFolderList = 0x20;
inline constexpr ULONG kVolCacheMutex = 0x40;
inline constexpr ULONG kVolCacheBuckets = 0x80;

// STATUS_INSUFFICIENT_RESOURCES: nothing is kept.
[[nodiscard]] NTSTATUS VrkFsVolCacheInitialize(VolCache* Cache);
VOID VrkFsVolCacheFree(VolCache* Cache);

// Without memory for a node the record stays uncached.
VOID VrkFsVolCacheFileEntryCache(VolCache* Cache, const FileEntry* Entry, ULONG Lba);
[[nodiscard]] BOOLEAN VrkFsVolCacheFileEntrySearch(VolCache* Cache, ULONG Lba, FileEntry* Entry);
VOID VrkFsVolCacheFileEntryRemove(VolCache* Cache, ULONG Lba);
VOID VrkFsVolCacheFolderEntryCache(VolCache* Cache, const DirEntry* Entry, ULONG Lba);
[[nodiscard]] BOOLEAN VrkFsVolCacheFolderEntrySearch(VolCache* Cache, ULONG Lba, DirEntry* Entry);

// With the lock held.
[[nodiscard]] BOOLEAN VrkFsVolCacheFindFileEntry(VolCache* Cache, ULONG Lba, VolCacheFileNode** Node);
[[nodiscard]] BOOLEAN VrkFsVolCacheFindFolderEntry(VolCache* Cache, ULONG Lba, VolCacheFolderNode** Node);
