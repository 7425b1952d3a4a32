#include "volume/entry_cache.h"

#include "core/guards.h"
#include "core/pool.h"

namespace {

constexpr ULONG kFileNodeTag = VrkFsPoolTag("VCFL");
constexpr ULONG kFolderNodeTag = VrkFsPoolTag("VCfL");

// One kind of record: its list, its table and its limit, so that both kinds share their code.
template <typename Node>
struct CacheKind {
    PPAGED_LOOKASIDE_LIST Nodes;
    LIST_ENTRY* List;
    ULONG* Count;
    Node** Buckets;
    ULONG Limit;  // also the number of buckets, a power of two
};

CacheKind<VolCacheFileNode> FileKind(VolCache* Cache) {
    return {Cache->FileNodes, &Cache->FileList, &Cache->FileCount, Cache->FileBuckets, kMaxCachedFiles};
}

CacheKind<VolCacheFolderNode> FolderKind(VolCache* Cache) {
    return {Cache->FolderNodes, &Cache->FolderList, &Cache->FolderCount, Cache->FolderBuckets, kMaxCachedFolders};
}

// Records lie two or eighteen blocks apart, so the low bits alone would leave buckets empty.
template <typename Node>
Node** BucketOf(const CacheKind<Node>& Kind, ULONG Lba) {
    return &Kind.Buckets[(Lba * 0x9E3779B1u >> 16) & (Kind.Limit - 1)];
}

template <typename Node>
Node* FindNode(const CacheKind<Node>& Kind, ULONG Lba) {
    Node* node = *BucketOf(Kind, Lba);
    while (node != nullptr && node->Lba != Lba) {
        node = node->NextInBucket;
    }
    return node;
}

template <typename Node>
VOID MoveToFront(const CacheKind<Node>& Kind, Node* Found) {
    RemoveEntryList(&Found->Link);
    InsertHeadList(Kind.List, &Found->Link);
}

template <typename Node>
VOID LinkNode(const CacheKind<Node>& Kind, Node* New, ULONG Lba) {
    Node** const bucket = BucketOf(Kind, Lba);
    New->Lba = Lba;
    New->NextInBucket = *bucket;
    *bucket = New;
    InsertHeadList(Kind.List, &New->Link);
}

template <typename Node>
VOID UnlinkNode(const CacheKind<Node>& Kind, Node* Old) {
    RemoveEntryList(&Old->Link);
    Node** link = BucketOf(Kind, Old->Lba);
    while (*link != Old) {
        link = &(*link)->NextInBucket;
    }
    *link = Old->NextInBucket;
}

template <typename Node, typename Entry>
VOID StoreEntry(const CacheKind<Node>& Kind, const Entry* Source, ULONG Lba) {
    Node* node = FindNode(Kind, Lba);
    if (node != nullptr) {
        MoveToFront(Kind, node);
    } else if (*Kind.Count < Kind.Limit) {
        node = static_cast<Node*>(ExAllocateFromPagedLookasideList(Kind.Nodes));
        if (node == nullptr) {
            return;
        }
        LinkNode(Kind, node, Lba);
        ++*Kind.Count;
    } else {
        node = CONTAINING_RECORD(Kind.List->Blink, Node, Link);
        UnlinkNode(Kind, node);
        LinkNode(Kind, node, Lba);
    }
    RtlCopyMemory(&node->Entry, Source, sizeof(Entry));
}

template <typename Node, typename Entry>
BOOLEAN SearchEntry(const CacheKind<Node>& Kind, ULONG Lba, Entry* Target) {
    Node* const node = FindNode(Kind, Lba);
    if (node == nullptr) {
        return FALSE;
    }
    RtlCopyMemory(Target, &node->Entry, sizeof(Entry));
    MoveToFront(Kind, node);
    return TRUE;
}

template <typename Node>
VOID FreeNodes(const CacheKind<Node>& Kind) {
    while (!IsListEmpty(Kind.List)) {
        ExFreeToPagedLookasideList(Kind.Nodes, CONTAINING_RECORD(RemoveHeadList(Kind.List), Node, Link));
    }
    *Kind.Count = 0;
}

PPAGED_LOOKASIDE_LIST AllocateHeader(VolCache* Cache, ULONG Flag) {
    PVOID const header = VrkFsAllocatePool(NonPagedPool, sizeof(PAGED_LOOKASIDE_LIST));
    if (header != nullptr) {
        Cache->Flags |= Flag;
    }
    return static_cast<PPAGED_LOOKASIDE_LIST>(header);
}

NTSTATUS AllocateBuckets(VolCache* Cache) {
    constexpr SIZE_T fileBytes = kMaxCachedFiles * sizeof(VolCacheFileNode*);
    constexpr SIZE_T folderBytes = kMaxCachedFolders * sizeof(VolCacheFolderNode*);
    PVOID const memory = VrkFsAllocatePool(PagedPool, fileBytes + folderBytes);
    if (memory == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(memory, fileBytes + folderBytes);
    Cache->FileBuckets = static_cast<VolCacheFileNode**>(memory);
    Cache->FolderBuckets = reinterpret_cast<VolCacheFolderNode**>(Cache->FileBuckets + kMaxCachedFiles);
    Cache->Flags |= kVolCacheBuckets;
    return STATUS_SUCCESS;
}

NTSTATUS SetUp(VolCache* Cache) {
    Cache->FileNodes = AllocateHeader(Cache, kVolCacheFileHeader);
    Cache->FolderNodes = AllocateHeader(Cache, kVolCacheFolderHeader);
    if (Cache->FileNodes == nullptr || Cache->FolderNodes == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ExInitializePagedLookasideList(Cache->FileNodes, nullptr, nullptr, 0, sizeof(VolCacheFileNode), kFileNodeTag,
                                   kMaxCachedFiles);
    Cache->Flags |= kVolCacheFileNodes;
    ExInitializePagedLookasideList(Cache->FolderNodes, nullptr, nullptr, 0, sizeof(VolCacheFolderNode), kFolderNodeTag,
                                   kMaxCachedFolders);
    Cache->Flags |= kVolCacheFolderNodes;
    Cache->Lock = static_cast<PKMUTEX>(VrkFsAllocatePool(NonPagedPool, sizeof(KMUTEX)));
    if (Cache->Lock == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    KeInitializeMutex(Cache->Lock, 0);
    Cache->Flags |= kVolCacheMutex;
    return AllocateBuckets(Cache);
}

BOOLEAN TakeFlag(VolCache* Cache, ULONG Flag) {
    const bool wasSet = (Cache->Flags & Flag) != 0;
    Cache->Flags &= ~Flag;
    return wasSet;
}

}  // namespace

NTSTATUS VrkFsVolCacheInitialize(VolCache* Cache) {
    RtlZeroMemory(Cache, sizeof(VolCache));
    InitializeListHead(&Cache->FileList);
    InitializeListHead(&Cache->FolderList);
    Cache->Flags = kVolCacheFileList | kVolCacheFolderList;
    const NTSTATUS status = SetUp(Cache);
    if (!NT_SUCCESS(status)) {
        VrkFsVolCacheFree(Cache);
    }
    return status;
}

VOID VrkFsVolCacheFree(VolCache* Cache) {
    if (TakeFlag(Cache, kVolCacheFileList)) {
        FreeNodes(FileKind(Cache));
    }
    if (TakeFlag(Cache, kVolCacheFolderList)) {
        FreeNodes(FolderKind(Cache));
    }
    if (TakeFlag(Cache, kVolCacheBuckets)) {
        VrkFsFreePool(Cache->FileBuckets);
    }
    if (TakeFlag(Cache, kVolCacheMutex)) {
        VrkFsFreePool(Cache->Lock);
    }
    if (TakeFlag(Cache, kVolCacheFileNodes)) {
        ExDeletePagedLookasideList(Cache->FileNodes);
    }
    if (TakeFlag(Cache, kVolCacheFolderNodes)) {
        ExDeletePagedLookasideList(Cache->FolderNodes);
    }
    if (TakeFlag(Cache, kVolCacheFileHeader)) {
        VrkFsFreePool(Cache->FileNodes);
    }
    if (TakeFlag(Cache, kVolCacheFolderHeader)) {
        VrkFsFreePool(Cache->FolderNodes);
    }
}

VOID VrkFsVolCacheFileEntryCache(VolCache* Cache, const FileEntry* Entry, ULONG Lba) {
    const MutexGuard lock(Cache->Lock);
    StoreEntry(FileKind(Cache), Entry, Lba);
}

BOOLEAN VrkFsVolCacheFileEntrySearch(VolCache* Cache, ULONG Lba, FileEntry* Entry) {
    const MutexGuard lock(Cache->Lock);
    return SearchEntry(FileKind(Cache), Lba, Entry);
}

VOID VrkFsVolCacheFileEntryRemove(VolCache* Cache, ULONG Lba) {
    const MutexGuard lock(Cache->Lock);
    VolCacheFileNode* node;
    if (VrkFsVolCacheFindFileEntry(Cache, Lba, &node)) {
        UnlinkNode(FileKind(Cache), node);
        ExFreeToPagedLookasideList(Cache->FileNodes, node);
        --Cache->FileCount;
    }
}

VOID VrkFsVolCacheFolderEntryCache(VolCache* Cache, const DirEntry* Entry, ULONG Lba) {
    const MutexGuard lock(Cache->Lock);
    StoreEntry(FolderKind(Cache), Entry, Lba);
}

BOOLEAN VrkFsVolCacheFolderEntrySearch(VolCache* Cache, ULONG Lba, DirEntry* Entry) {
    const MutexGuard lock(Cache->Lock);
    return SearchEntry(FolderKind(Cache), Lba, Entry);
}

BOOLEAN VrkFsVolCacheFindFileEntry(VolCache* Cache, ULONG Lba, VolCacheFileNode** Node) {
    *Node = FindNode(FileKind(Cache), Lba);
    return *Node != nullptr;
}

BOOLEAN VrkFsVolCacheFindFolderEntry(VolCache* Cache, ULONG Lba, VolCacheFolderNode** Node) {
    *Node = FindNode(FolderKind(Cache), Lba);
    return *Node != nullptr;
}
