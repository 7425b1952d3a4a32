// The request context: what one request carries through the driver, from its entry routine to its completion.
#pragma once

#include "nt.h"

struct CCB;
struct FCB;
struct VCB;

// IRPContext::Flags
inline constexpr ULONG kIrpContextCanWait = 0x01;  // the request may block in the thread that runs it
inline constexpr ULONG kIrpContextPosted = 0x04;   // the request runs (or will run) in a thread of the system
inline constexpr ULONG kIrpContextOwnsMdl = 0x08;  // the context built and locked the request's descriptor list
inline constexpr ULONG kIrpContextOnStack = 0x10;  // the record lives in its entry routine's frame, not on the list

// One per request in progress. It comes from GlobalData's request-context list (non-paged, on account of WorkItem), is
// freed just before the request is completed, and belongs to one thread at a time: to the entry routine's, or, once
// posted, to the worker's. After VrkFsIRPContextPost the poster does not touch it again.
struct IRPContext {
    ULONG Flags;
    UCHAR MajorFunction;
    UCHAR MinorFunction;
    WORK_QUEUE_ITEM WorkItem;
    PIRP Irp;
    PDEVICE_OBJECT DeviceObject;
};

// A cursor over a doubly linked list that survives the removal of the entry it handed out.
struct ListIterator {
    PLIST_ENTRY Head;
    PLIST_ENTRY Next;
};

// What a file object stands for.
enum VrkFsRequestType : ULONG {
    kVrkFsVolumeOpen = 0,
    kVrkFsFolderOpen = 1,
    kVrkFsFileOpen = 2,    // also the command port file
    kVrkFsForeignOpen = 3  // not an open of a file-system device: a control handle, or nothing of ours
};

// A common routine does the work of one major function. It completes the request and frees the context, unless it
// returns STATUS_PENDING: then somebody else does.
using VrkFsCommonRoutine = NTSTATUS (*)(IRPContext* Context);

// The request-context list: depth 10, tag "IRPC".
VOID VrkFsIRPContextLListInitialize(PNPAGED_LOOKASIDE_LIST List);
// STATUS_INSUFFICIENT_RESOURCES when list and pool are empty.
[[nodiscard]] NTSTATUS VrkFsIRPContextLListAllocate(PNPAGED_LOOKASIDE_LIST List, IRPContext** Context);
VOID VrkFsIRPContextLListRelease(PNPAGED_LOOKASIDE_LIST List, IRPContext* Context);

// Takes a record, fills it from the request and locks the caller's buffer where the request has one to lock.
// STATUS_INSUFFICIENT_RESOURCES; STATUS_INVALID_USER_BUFFER for a buffer that cannot be probed. Nothing is kept on
// failure.
[[nodiscard]] NTSTATUS VrkFsIRPContextAllocate(PNPAGED_LOOKASIDE_LIST List, IRPContext** Context, PIRP Irp,
                                               PDEVICE_OBJECT DeviceObject);
// The same for a record that the caller provides, for requests that must not fail for want of memory (cleanup, close).
// Such a request can always wait, so the record is never posted.
VOID VrkFsIRPContextInitializeOnStack(IRPContext* Context, PIRP Irp, PDEVICE_OBJECT DeviceObject);
VOID VrkFsIRPContextFree(PNPAGED_LOOKASIDE_LIST List, IRPContext* Context);

// Marks the request pending and queues the context to the critical work queue. Always STATUS_PENDING; the context then
// belongs to the worker.
[[nodiscard]] NTSTATUS VrkFsIRPContextPost(IRPContext* Context);
// The same for a request that may have to wait for the user-mode service: its card's service worker runs it.
[[nodiscard]] NTSTATUS VrkFsIRPContextPostForService(IRPContext* Context);
// TRUE when a common routine has to post the context before it does anything else.
[[nodiscard]] BOOLEAN VrkFsIRPContextMustPost(const IRPContext* Context);
// System address of the caller's data buffer; null when the pages cannot be mapped (fail with
// STATUS_INSUFFICIENT_RESOURCES then). The mapping goes away with the unlocking of the pages.
[[nodiscard]] PVOID VrkFsIRPContextGetRequestBuffer(const IRPContext* Context);

// The worker's way in: runs the common routine of the context's major function.
VOID NTAPI VrkFsIRPContextDispatch(PVOID Context);
[[nodiscard]] NTSTATUS VrkFsCommonDispatch(IRPContext* Context);

// The one completion block. Stores status and information, frees the context, completes the request. Afterwards neither
// the request, nor the context, nor anything that only the request's file object kept alive may be touched; the
// caller's lock guards, which hold nothing but lock addresses, are what is left to run. Returns Status. With
// STATUS_PENDING it does nothing.
NTSTATUS VrkFsCompleteRequest(IRPContext* Context, NTSTATUS Status, ULONG_PTR Information);
// Completes a request that has no context, with information 0 and no priority boost. Returns Status.
NTSTATUS VrkFsAnswerRequest(PIRP Irp, NTSTATUS Status);
// The frame of an entry routine: critical region, control-device answer (STATUS_INVALID_DEVICE_REQUEST), context,
// common routine.
NTSTATUS VrkFsEnterRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp, VrkFsCommonRoutine Common);
// The same for cleanup and close of the file-system device, which cannot fail: without memory for a context they run
// with one in this frame. The control device's answers are the entry routine's.
NTSTATUS VrkFsEnterEndingRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp, VrkFsCommonRoutine Common);

// Classifies a file object (or null) that was opened on one of this driver's devices. Out parameters that do not apply
// to the kind are set to null. FcbOrVcb is the FCB, or the VCB for a volume open.
[[nodiscard]] VrkFsRequestType VrkFsGetRequestType(PFILE_OBJECT FileObject, VCB** Vcb, PVOID* FcbOrVcb, CCB** Ccb);

VOID VrkFsInitializeListIterator(ListIterator* Iterator, PLIST_ENTRY Head);
// TRUE while it hands out an entry, which the caller may then unlink or free.
[[nodiscard]] BOOLEAN VrkFsIterateList(ListIterator* Iterator, PLIST_ENTRY* Entry);
