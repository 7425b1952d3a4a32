// The tree of open names: children by name (splay trees), walks over it, and full path names. Names are compared
// without regard to case. The VCB's Resource is held exclusively, except where shared is said: a splay tree changes
// when it is read.
#pragma once

#include "nt.h"

struct FCB;
struct FCBCommon;
struct VCB;

VOID VrkFsFCBSplayInsert(FCB* Parent, FCB* Child);
VOID VrkFsFCBSplayRemove(FCB* Child);  // nothing when it is in no tree
[[nodiscard]] BOOLEAN VrkFsFCBSplayFindFCB(FCB* Parent, PCUNICODE_STRING Name, FCB** Child);

VOID VrkFsFCBCommonSplayInsert(FCBCommon* Parent, FCBCommon* Child);
VOID VrkFsFCBCommonSplayRemove(FCBCommon* Child);
[[nodiscard]] BOOLEAN VrkFsFCBCommonSplayFindFCB(FCBCommon* Parent, PCUNICODE_STRING Name, FCBCommon** Child);

// The successor of Current in a walk of the FCBs below SubtreeRoot, parents before children. Start with Current ==
// SubtreeRoot, which is not handed out itself.
[[nodiscard]] BOOLEAN VrkFsFCBGetNextChild(FCB* SubtreeRoot, FCB* Current, FCB** Next);

// Build the cached path name where it is missing. STATUS_INSUFFICIENT_RESOURCES. The VCB's Resource is held,
// exclusively or shared, for as long as the name is used: a rename drops it. The VCB's NameLock settles who of several
// that share the Resource stores what it has built. Any FCB that leads to the FCBCommon will do.
[[nodiscard]] NTSTATUS VrkFsFCBSetupFullName(VCB* Vcb, FCB* Fcb);
[[nodiscard]] NTSTATUS VrkFsFCBCommonSetupFullName(VCB* Vcb, FCB* Fcb, FCBCommon* Common);
VOID VrkFsFCBRemoveFullName(FCB* Fcb);
VOID VrkFsFCBCommonRemoveFullName(FCBCommon* Common);
