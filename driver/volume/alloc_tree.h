#pragma once

#include <nt.h>

// A height-balanced search tree with the links inside the records, for the allocator's two indexes. Keys are unique
// within a tree. Each node also carries a weight and the largest weight below it, which finds "the first in key order
// that weighs at least so much" in one descent. The owner's lock is held throughout.

struct AllocTreeNode {
    AllocTreeNode* Parent;
    AllocTreeNode* Left;
    AllocTreeNode* Right;
    ULONGLONG Key;
    ULONG Weight;
    ULONG LargestWeight;  // of this node and everything below it
    ULONG Height;         // 1 for a leaf
};

struct AllocTree {
    AllocTreeNode* Root;
};

// Inserts Node, whose Key and Weight are set.
VOID VrkFsAllocTreeInsert(AllocTree* Tree, AllocTreeNode* Node);
VOID VrkFsAllocTreeRemove(AllocTree* Tree, AllocTreeNode* Node);
// Changes a key that keeps its place in the order, and the weight.
VOID VrkFsAllocTreeUpdate(AllocTreeNode* Node, ULONGLONG Key, ULONG Weight);

// All of these give null when there is none.
[[nodiscard]] AllocTreeNode* VrkFsAllocTreeFindAtMost(const AllocTree* Tree, ULONGLONG Key);   // largest key <= Key
[[nodiscard]] AllocTreeNode* VrkFsAllocTreeFindAtLeast(const AllocTree* Tree, ULONGLONG Key);  // smallest key >= Key
[[nodiscard]] AllocTreeNode* VrkFsAllocTreeFindFirstWeight(const AllocTree* Tree, ULONG Weight);
