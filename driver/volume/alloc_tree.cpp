#include "volume/alloc_tree.h"

#include <algorithm>

// A tree of heights that differ by at most one between siblings: 100,000 records are found in at most 24 steps.

namespace {

ULONG HeightOf(const AllocTreeNode* Node) {
    return Node == nullptr ? 0 : Node->Height;
}

ULONG LargestOf(const AllocTreeNode* Node) {
    return Node == nullptr ? 0 : Node->LargestWeight;
}

// Works out what a node says about its subtree; returns whether that changed.
bool Refresh(AllocTreeNode* Node) {
    const ULONG height = 1 + std::max<ULONG>(HeightOf(Node->Left), HeightOf(Node->Right));
    const ULONG largest = std::max<ULONG>(Node->Weight, std::max<ULONG>(LargestOf(Node->Left), LargestOf(Node->Right)));
    const bool changed = height != Node->Height || largest != Node->LargestWeight;
    Node->Height = height;
    Node->LargestWeight = largest;
    return changed;
}

// Puts New where Old hangs below Parent (the root of the tree if Parent is null).
VOID ReplaceChild(AllocTree* Tree, AllocTreeNode* Parent, const AllocTreeNode* Old, AllocTreeNode* New) {
    if (Parent == nullptr) {
        Tree->Root = New;
    } else if (Parent->Left == Old) {
        Parent->Left = New;
    } else {
        Parent->Right = New;
    }
    if (New != nullptr) {
        New->Parent = Parent;
    }
}

// The right child takes the node's place. Returns it.
AllocTreeNode* RotateLeft(AllocTree* Tree, AllocTreeNode* Node) {
    AllocTreeNode* const top = Node->Right;
    ReplaceChild(Tree, Node->Parent, Node, top);
    Node->Right = top->Left;
    if (top->Left != nullptr) {
        top->Left->Parent = Node;
    }
    top->Left = Node;
    Node->Parent = top;
    Refresh(Node);
    Refresh(top);
    return top;
}

AllocTreeNode* RotateRight(AllocTree* Tree, AllocTreeNode* Node) {
    AllocTreeNode* const top = Node->Left;
    ReplaceChild(Tree, Node->Parent, Node, top);
    Node->Left = top->Right;
    if (top->Right != nullptr) {
        top->Right->Parent = Node;
    }
    top->Right = Node;
    Node->Parent = top;
    Refresh(Node);
    Refresh(top);
    return top;
}

// Returns the node that now stands at the top of this subtree.
AllocTreeNode* BalanceNode(AllocTree* Tree, AllocTreeNode* Node) {
    const ULONG left = HeightOf(Node->Left);
    const ULONG right = HeightOf(Node->Right);
    if (left > right + 1) {
        if (HeightOf(Node->Left->Left) < HeightOf(Node->Left->Right)) {
            RotateLeft(Tree, Node->Left);
        }
        return RotateRight(Tree, Node);
    }
    if (right > left + 1) {
        if (HeightOf(Node->Right->Right) < HeightOf(Node->Right->Left)) {
            RotateRight(Tree, Node->Right);
        }
        return RotateLeft(Tree, Node);
    }
    return Node;
}

// Repairs heights and largest weights from Node up, as far as they change.
VOID Repair(AllocTree* Tree, AllocTreeNode* Node) {
    while (Node != nullptr) {
        const bool changed = Refresh(Node);
        AllocTreeNode* const top = BalanceNode(Tree, Node);
        if (!changed && top == Node) {
            return;
        }
        Node = top->Parent;
    }
}

// Removes a node with two children: its successor takes its place.
VOID ReplaceBySuccessor(AllocTree* Tree, AllocTreeNode* Node) {
    AllocTreeNode* successor = Node->Right;
    while (successor->Left != nullptr) {
        successor = successor->Left;
    }
    AllocTreeNode* repairFrom = successor;
    if (successor->Parent != Node) {
        repairFrom = successor->Parent;
        ReplaceChild(Tree, successor->Parent, successor, successor->Right);
        successor->Right = Node->Right;
        successor->Right->Parent = successor;
    }
    successor->Left = Node->Left;
    successor->Left->Parent = successor;
    ReplaceChild(Tree, Node->Parent, Node, successor);
    // Until it is repaired the successor says what the removed node said. That repair is one of its own: the one from
    // below may end before it comes here, and the removed node's weight may have been the largest.
    successor->Height = Node->Height;
    successor->LargestWeight = Node->LargestWeight;
    Repair(Tree, repairFrom);
    Repair(Tree, successor);
}

}  // namespace

VOID VrkFsAllocTreeInsert(AllocTree* Tree, AllocTreeNode* Node) {
    Node->Left = nullptr;
    Node->Right = nullptr;
    Node->Parent = nullptr;
    Node->Height = 1;
    Node->LargestWeight = Node->Weight;
    if (Tree->Root == nullptr) {
        Tree->Root = Node;
        return;
    }
    AllocTreeNode* parent = Tree->Root;
    for (AllocTreeNode* next = parent; next != nullptr;) {
        parent = next;
        next = Node->Key < parent->Key ? parent->Left : parent->Right;
    }
    (Node->Key < parent->Key ? parent->Left : parent->Right) = Node;
    Node->Parent = parent;
    Repair(Tree, parent);
}

VOID VrkFsAllocTreeRemove(AllocTree* Tree, AllocTreeNode* Node) {
    if (Node->Left != nullptr && Node->Right != nullptr) {
        ReplaceBySuccessor(Tree, Node);
        return;
    }
    AllocTreeNode* const parent = Node->Parent;
    ReplaceChild(Tree, parent, Node, Node->Left != nullptr ? Node->Left : Node->Right);
    Repair(Tree, parent);
}

VOID VrkFsAllocTreeUpdate(AllocTreeNode* Node, ULONGLONG Key, ULONG Weight) {
    Node->Key = Key;
    Node->Weight = Weight;
    while (Node != nullptr && Refresh(Node)) {
        Node = Node->Parent;
    }
}

AllocTreeNode* VrkFsAllocTreeFindAtMost(const AllocTree* Tree, ULONGLONG Key) {
    AllocTreeNode* found = nullptr;
    for (AllocTreeNode* node = Tree->Root; node != nullptr;) {
        if (node->Key <= Key) {
            found = node;
            node = node->Right;
        } else {
            node = node->Left;
        }
    }
    return found;
}

AllocTreeNode* VrkFsAllocTreeFindAtLeast(const AllocTree* Tree, ULONGLONG Key) {
    AllocTreeNode* found = nullptr;
    for (AllocTreeNode* node = Tree->Root; node != nullptr;) {
        if (node->Key >= Key) {
            found = node;
            node = node->Left;
        } else {
            node = node->Right;
        }
    }
    return found;
}

AllocTreeNode* VrkFsAllocTreeFindFirstWeight(const AllocTree* Tree, ULONG Weight) {
    AllocTreeNode* node = Tree->Root;
    if (LargestOf(node) < Weight) {
        return nullptr;
    }
    for (;;) {
        if (LargestOf(node->Left) >= Weight && node->Left != nullptr) {
            node = node->Left;
        } else if (node->Weight >= Weight) {
            return node;
        } else {
            node = node->Right;
        }
    }
}
