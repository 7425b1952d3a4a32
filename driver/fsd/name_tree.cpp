#include "fsd/name_tree.h"

#include <algorithm>

#include "core/global_data.h"
#include "core/guards.h"
#include "core/pool.h"
#include "core/strings.h"
#include "fsd/fcb.h"
#include "fsd/fcb_common.h"
#include "fsd/vcb.h"

namespace {

template <typename Node>
Node* NodeOf(PRTL_SPLAY_LINKS Links) {
    return CONTAINING_RECORD(Links, Node, SplayLinks);
}

// Equal names go right.
template <typename Node>
VOID SplayInsert(Node* Parent, Node* Child, ULONG LinkedFlag) {
    RtlInitializeSplayLinks(&Child->SplayLinks);
    Child->Flags |= LinkedFlag;
    PRTL_SPLAY_LINKS at = Parent->ChildTree;
    if (at == nullptr) {
        Parent->ChildTree = &Child->SplayLinks;
        return;
    }
    for (;;) {
        if (RtlCompareUnicodeString(&NodeOf<Node>(at)->Name, &Child->Name, TRUE) > 0) {
            if (RtlLeftChild(at) == nullptr) {
                RtlInsertAsLeftChild(at, &Child->SplayLinks);
                return;
            }
            at = RtlLeftChild(at);
        } else {
            if (RtlRightChild(at) == nullptr) {
                RtlInsertAsRightChild(at, &Child->SplayLinks);
                return;
            }
            at = RtlRightChild(at);
        }
    }
}

template <typename Node>
VOID SplayRemove(Node* Child, ULONG LinkedFlag) {
    if ((Child->Flags & LinkedFlag) != 0) {
        Child->Parent->ChildTree = RtlDelete(&Child->SplayLinks);
        Child->Flags &= ~LinkedFlag;
    }
}

template <typename Node>
BOOLEAN SplayFind(Node* Parent, PCUNICODE_STRING Name, Node** Child) {
    PRTL_SPLAY_LINKS at = Parent->ChildTree;
    while (at != nullptr) {
        const LONG order = RtlCompareUnicodeString(&NodeOf<Node>(at)->Name, Name, TRUE);
        if (order == 0) {
            Parent->ChildTree = RtlSplay(at);
            *Child = NodeOf<Node>(at);
            return TRUE;
        }
        at = order > 0 ? RtlLeftChild(at) : RtlRightChild(at);
    }
    *Child = nullptr;
    return FALSE;
}

constexpr ULONG kTerminatorBytes = sizeof(WCHAR);

// Bytes of the part of a path that lies below level Top, each component with its backslash. A component has at most 512
// bytes and there are at most five of them.
template <typename Node>
USHORT PathLength(const Node* At, ULONG Top) {
    ULONG total = 0;
    for (; At->Level > Top; At = At->Parent) {
        total += sizeof(WCHAR) + At->Name.Length;
    }
    return static_cast<USHORT>(total);
}

// Puts that part where it ends at End.
template <typename Node>
VOID PutPath(const Node* At, ULONG Top, PWCHAR End) {
    for (; At->Level > Top; At = At->Parent) {
        End -= At->Name.Length / sizeof(WCHAR);
        RtlCopyMemory(End, At->Name.Buffer, At->Name.Length);
        *--End = VRKFS_W('\\');
    }
}

// The cached names are looked at and exchanged under the lock, but made and freed outside it.

bool IsCached(VCB* Vcb, PCUNICODE_STRING Cached) {
    FastMutexGuard lock(&Vcb->NameLock);
    return Cached->Buffer != nullptr;
}

// A terminated path of that many bytes, of which only the first backslash is there yet.
NTSTATUS AllocatePath(PUNICODE_STRING Name, USHORT Length) {
    Name->Buffer = static_cast<PWCHAR>(VrkFsAllocatePool(PagedPool, Length + kTerminatorBytes));
    Name->Length = Length;
    Name->MaximumLength = static_cast<USHORT>(Length + kTerminatorBytes);
    if (Name->Buffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Name->Buffer[0] = VRKFS_W('\\');
    Name->Buffer[Length / sizeof(WCHAR)] = 0;
    return STATUS_SUCCESS;
}

// Whoever comes second drops what it made.
VOID Publish(VCB* Vcb, PUNICODE_STRING Cached, UNICODE_STRING Made) {
    {
        FastMutexGuard lock(&Vcb->NameLock);
        if (Cached->Buffer == nullptr) {
            *Cached = Made;
            return;
        }
    }
    VrkFsRtlFreeUnicodeString(&Made);
}

VOID Drop(VCB* Vcb, PUNICODE_STRING Cached) {
    UNICODE_STRING dropped;
    {
        FastMutexGuard lock(&Vcb->NameLock);
        dropped = *Cached;
        RtlZeroMemory(Cached, sizeof(*Cached));
    }
    VrkFsRtlFreeUnicodeString(&dropped);
}

}  // namespace

VOID VrkFsFCBSplayInsert(FCB* Parent, FCB* Child) {
    SplayInsert(Parent, Child, kFcbInChildTree);
}

VOID VrkFsFCBSplayRemove(FCB* Child) {
    SplayRemove(Child, kFcbInChildTree);
}

BOOLEAN VrkFsFCBSplayFindFCB(FCB* Parent, PCUNICODE_STRING Name, FCB** Child) {
    return SplayFind(Parent, Name, Child);
}

VOID VrkFsFCBCommonSplayInsert(FCBCommon* Parent, FCBCommon* Child) {
    SplayInsert(Parent, Child, kFcbCommonInChildTree);
}

VOID VrkFsFCBCommonSplayRemove(FCBCommon* Child) {
    SplayRemove(Child, kFcbCommonInChildTree);
}

BOOLEAN VrkFsFCBCommonSplayFindFCB(FCBCommon* Parent, PCUNICODE_STRING Name, FCBCommon** Child) {
    return SplayFind(Parent, Name, Child);
}

BOOLEAN VrkFsFCBGetNextChild(FCB* SubtreeRoot, FCB* Current, FCB** Next) {
    *Next = nullptr;
    if ((Current->Flags & kFcbFolder) != 0 && !IsListEmpty(&Current->Children)) {
        *Next = CONTAINING_RECORD(Current->Children.Flink, FCB, SiblingLink);
        return TRUE;
    }
    for (FCB* at = Current; at != SubtreeRoot; at = at->Parent) {
        if (at->SiblingLink.Flink != &at->Parent->Children) {
            *Next = CONTAINING_RECORD(at->SiblingLink.Flink, FCB, SiblingLink);
            return TRUE;
        }
    }
    return FALSE;
}

NTSTATUS VrkFsFCBSetupFullName(VCB* Vcb, FCB* Fcb) {
    if (IsCached(Vcb, &Fcb->FullName)) {
        return STATUS_SUCCESS;
    }
    UNICODE_STRING made;
    const NTSTATUS status = AllocatePath(&made, std::max<USHORT>(PathLength(Fcb, kLevelRoot), sizeof(WCHAR)));
    if (NT_SUCCESS(status)) {
        PutPath(Fcb, kLevelRoot, made.Buffer + made.Length / sizeof(WCHAR));
        Publish(Vcb, &Fcb->FullName, made);
    }
    return status;
}

// One name per object: below the built-in type's folder, whatever type folder a path leads through, and by the names
// that the objects have now, which a path that was open before a rename does not show.
NTSTATUS VrkFsFCBCommonSetupFullName(VCB* Vcb, FCB*, FCBCommon* Common) {
    if (IsCached(Vcb, &Common->FullName)) {
        return STATUS_SUCCESS;
    }
    constexpr ULONG typeBytes = kFileTypeExtensionChars * sizeof(WCHAR);
    const USHORT length = static_cast<USHORT>(sizeof(WCHAR) + typeBytes + PathLength(Common, kLevelType));
    UNICODE_STRING made;
    const NTSTATUS status = AllocatePath(&made, length);
    if (NT_SUCCESS(status)) {
        RtlCopyMemory(made.Buffer + 1, pVrkFsGlobalData->FileTypes[0].Extension, typeBytes);
        PutPath(Common, kLevelType, made.Buffer + made.Length / sizeof(WCHAR));
        Publish(Vcb, &Common->FullName, made);
    }
    return status;
}

VOID VrkFsFCBRemoveFullName(FCB* Fcb) {
    Drop(Fcb->Common->Vcb, &Fcb->FullName);
}

VOID VrkFsFCBCommonRemoveFullName(FCBCommon* Common) {
    Drop(Common->Vcb, &Common->FullName);
}
