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

// Equal names go right, so that a walk finds the oldest of them first.
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

bool IsBelowRoot(const FCB* Fcb) {
    return (Fcb->Flags & kFcbRoot) == 0;
}

constexpr ULONG kTerminatorBytes = sizeof(WCHAR);

// Length of the path in bytes. A component has at most 512 bytes and there are at most five of them.
USHORT FullNameLength(const FCB* Fcb) {
    ULONG total = 0;
    for (const FCB* at = Fcb; IsBelowRoot(at); at = at->Parent) {
        total += sizeof(WCHAR) + at->Name.Length;
    }
    return static_cast<USHORT>(total == 0 ? sizeof(WCHAR) : total);
}

// Fills the path from its end; the buffer has the length that FullNameLength says.
VOID FillFullName(const FCB* Fcb, PWCHAR Buffer, USHORT Length) {
    Buffer[0] = VRKFS_W('\\');
    PWCHAR end = Buffer + Length / sizeof(WCHAR);
    *end = 0;
    for (const FCB* at = Fcb; IsBelowRoot(at); at = at->Parent) {
        end -= at->Name.Length / sizeof(WCHAR);
        RtlCopyMemory(end, at->Name.Buffer, at->Name.Length);
        *--end = VRKFS_W('\\');
    }
}

// The cached names are looked at and exchanged under the lock, but made and freed outside it.

bool IsCached(VCB* Vcb, PCUNICODE_STRING Cached) {
    FastMutexGuard lock(&Vcb->NameLock);
    return Cached->Buffer != nullptr;
}

NTSTATUS AllocateName(PUNICODE_STRING Name, USHORT Length) {
    Name->Buffer = static_cast<PWCHAR>(VrkFsAllocatePool(PagedPool, Length + kTerminatorBytes));
    Name->Length = Length;
    Name->MaximumLength = static_cast<USHORT>(Length + kTerminatorBytes);
    return Name->Buffer != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
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

// The part of a path behind its first component, with its backslash; empty for a path of one component.
UNICODE_STRING BehindFirstComponent(PCUNICODE_STRING Path) {
    USHORT at = 1;
    while (at < Path->Length / sizeof(WCHAR) && Path->Buffer[at] != VRKFS_W('\\')) {
        at++;
    }
    const USHORT skipped = static_cast<USHORT>(at * sizeof(WCHAR));
    UNICODE_STRING rest;
    rest.Buffer = Path->Buffer + at;
    rest.Length = static_cast<USHORT>(Path->Length - std::min<USHORT>(skipped, Path->Length));
    rest.MaximumLength = rest.Length;
    return rest;
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
    const NTSTATUS status = AllocateName(&made, FullNameLength(Fcb));
    if (NT_SUCCESS(status)) {
        FillFullName(Fcb, made.Buffer, made.Length);
        Publish(Vcb, &Fcb->FullName, made);
    }
    return status;
}

// One name per object: the built-in type's folder takes the place of the type folder that the path leads through.
NTSTATUS VrkFsFCBCommonSetupFullName(VCB* Vcb, FCB* Fcb, FCBCommon* Common) {
    if (IsCached(Vcb, &Common->FullName)) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = VrkFsFCBSetupFullName(Vcb, Fcb);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    constexpr ULONG typeBytes = kFileTypeExtensionChars * sizeof(WCHAR);
    const UNICODE_STRING rest = BehindFirstComponent(&Fcb->FullName);
    UNICODE_STRING made;
    status = AllocateName(&made, static_cast<USHORT>(sizeof(WCHAR) + typeBytes + rest.Length));
    if (NT_SUCCESS(status)) {
        made.Buffer[0] = VRKFS_W('\\');
        RtlCopyMemory(made.Buffer + 1, pVrkFsGlobalData->FileTypes[0].Extension, typeBytes);
        RtlCopyMemory(made.Buffer + 1 + kFileTypeExtensionChars, rest.Buffer, rest.Length);
        made.Buffer[made.Length / sizeof(WCHAR)] = 0;
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
