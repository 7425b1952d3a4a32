#pragma once

#include "nt/base.h"
#include "nt/rtl.h"

// The file-system run-time: taking names apart, wildcards, name comparison, change notification.

struct _IRP;
typedef struct _IRP* PIRP;
typedef struct _SECURITY_SUBJECT_CONTEXT* PSECURITY_SUBJECT_CONTEXT;

// Splits off the first component; both results are parts of `name`, not copies. One leading backslash is skipped. A
// result that is missing has a null buffer, one that is there but empty has not.
void FsRtlDissectName(UNICODE_STRING name, PUNICODE_STRING firstPart, PUNICODE_STRING remainingPart);

// Whether the name holds any of * ? < > and the double quote.
BOOLEAN FsRtlDoesNameContainWildCards(PUNICODE_STRING name);

// Whether the name matches the expression. `*` any run; `?` one character; `<` (DOS star) any run up to and, if
// needed, including the last dot; `>` (DOS question mark) one character, but at a dot or at the end its whole run is
// skipped; the double quote (DOS dot) a dot, or nothing at the end. To ignore case upcases the name only: the caller
// upcases the expression. The time is bounded by the product of the two lengths.
BOOLEAN FsRtlIsNameInExpression(PUNICODE_STRING expression, PUNICODE_STRING name, BOOLEAN ignoreCase,
                                PWCHAR upcaseTable);

BOOLEAN FsRtlAreNamesEqual(PCUNICODE_STRING left, PCUNICODE_STRING right, BOOLEAN ignoreCase, PCWCH upcaseTable);

// Change notification. A list of one record per watching handle (the head belongs to the caller and lies in resident
// memory) and a synchronisation object for the list. Names are counted strings of 16-bit characters handed over as
// PSTRING, from the root, with backslashes; they are compared byte for byte. `fsContext` names the handle.
using PNOTIFY_SYNC = PVOID;
typedef BOOLEAN (*PCHECK_FOR_TRAVERSE_ACCESS)(PVOID notifyContext, PVOID targetContext,
                                              PSECURITY_SUBJECT_CONTEXT subjectContext);

void FsRtlNotifyInitializeSync(PNOTIFY_SYNC* notifySync);

// Frees the object and clears the pointer. No list may still be guarded by it.
void FsRtlNotifyUninitializeSync(PNOTIFY_SYNC* notifySync);

// Takes the request over and completes it at once (a kept change, a cancelled request) or later: with
// STATUS_NOTIFY_ENUM_DIR and no bytes when something changes, with STATUS_NOTIFY_CLEANUP at the handle's cleanup, with
// STATUS_CANCELLED. The caller answers STATUS_PENDING in every case. The first request of a handle fixes name, tree
// flag and filter for as long as the handle lives; the pointer to the name is kept, no copy: the verifier refuses to
// free the name, or the list head, before the handle's cleanup. Without a request the directory is going away: what is
// pending on the handle completes with STATUS_DELETE_PENDING.
// Only requests that want no list of changes (ignoreBuffer), without a traverse check, are provided for: anything else
// stops the process.
void FsRtlNotifyFullChangeDirectory(PNOTIFY_SYNC notifySync, PLIST_ENTRY notifyList, PVOID fsContext,
                                    PSTRING fullDirectoryName, BOOLEAN watchTree, BOOLEAN ignoreBuffer,
                                    ULONG completionFilter, PIRP notifyIrp, PCHECK_FOR_TRAVERSE_ACCESS traverseCallback,
                                    PSECURITY_SUBJECT_CONTEXT subjectContext);

// Reports a change of the object named; its last component begins at byte `targetNameOffset`. Every handle that
// watches the object's directory, or a tree that holds it, for one of the changes in `filterMatch` completes its
// oldest request, or keeps the change for its next one.
void FsRtlNotifyFullReportChange(PNOTIFY_SYNC notifySync, PLIST_ENTRY notifyList, PSTRING fullTargetName,
                                 USHORT targetNameOffset, PSTRING streamName, PSTRING normalizedParentName,
                                 ULONG filterMatch, ULONG action, PVOID targetContext);

// The handle goes away: completes what is pending on it with STATUS_NOTIFY_CLEANUP and forgets it.
void FsRtlNotifyCleanup(PNOTIFY_SYNC notifySync, PLIST_ENTRY notifyList, PVOID fsContext);
