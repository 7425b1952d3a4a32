#include "nt/rtl.h"

namespace {
// Puts `replacement` (which may be null) where `node` hangs below its parent; at the root it becomes the root.
void ReplaceInParent(PRTL_SPLAY_LINKS node, PRTL_SPLAY_LINKS replacement) {
    const PRTL_SPLAY_LINKS parent = node->Parent;
    if (parent == node) {
        if (replacement != nullptr) {
            replacement->Parent = replacement;
        }
        return;
    }
    (parent->LeftChild == node ? parent->LeftChild : parent->RightChild) = replacement;
    if (replacement != nullptr) {
        replacement->Parent = parent;
    }
}

// Rotates the node above its parent.
void RotateUp(PRTL_SPLAY_LINKS node) {
    const PRTL_SPLAY_LINKS parent = node->Parent;
    const bool left = parent->LeftChild == node;
    const PRTL_SPLAY_LINKS inner = left ? node->RightChild : node->LeftChild;
    ReplaceInParent(parent, node);
    (left ? parent->LeftChild : parent->RightChild) = inner;
    if (inner != nullptr) {
        inner->Parent = parent;
    }
    (left ? node->RightChild : node->LeftChild) = parent;
    parent->Parent = node;
}

// Makes `other` stand in the place of `node`, with its children, and `node` in that of `other`, which is the
// rightmost node of the left subtree of `node`.
void SwapWithPredecessor(PRTL_SPLAY_LINKS node, PRTL_SPLAY_LINKS other) {
    const RTL_SPLAY_LINKS otherLinks = *other;
    ReplaceInParent(node, other);
    other->RightChild = node->RightChild;
    other->RightChild->Parent = other;
    if (otherLinks.Parent == node) {
        other->LeftChild = node;
        node->Parent = other;
    } else {
        other->LeftChild = node->LeftChild;
        other->LeftChild->Parent = other;
        otherLinks.Parent->RightChild = node;
        node->Parent = otherLinks.Parent;
    }
    node->RightChild = nullptr;
    node->LeftChild = otherLinks.LeftChild;
    if (node->LeftChild != nullptr) {
        node->LeftChild->Parent = node;
    }
}
}  // namespace

PRTL_SPLAY_LINKS RtlSplay(PRTL_SPLAY_LINKS links) {
    while (!RtlIsRoot(links)) {
        const PRTL_SPLAY_LINKS parent = links->Parent;
        if (!RtlIsRoot(parent)) {
            // On a straight line the parent goes first, which is what halves the depth of a long branch.
            RotateUp(RtlIsLeftChild(links) == RtlIsLeftChild(parent) ? parent : links);
        }
        RotateUp(links);
    }
    return links;
}

PRTL_SPLAY_LINKS RtlDelete(PRTL_SPLAY_LINKS links) {
    if (links->LeftChild != nullptr && links->RightChild != nullptr) {
        PRTL_SPLAY_LINKS predecessor = links->LeftChild;
        while (predecessor->RightChild != nullptr) {
            predecessor = predecessor->RightChild;
        }
        SwapWithPredecessor(links, predecessor);
    }
    const PRTL_SPLAY_LINKS child = links->LeftChild != nullptr ? links->LeftChild : links->RightChild;
    ReplaceInParent(links, child);
    return RtlIsRoot(links) ? child : RtlSplay(links->Parent);
}
