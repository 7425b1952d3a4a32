// What a handle of a card's control device carries, in the file object's second context field: how often it holds the
// write-back of body tables off.
#pragma once

#include <nt.h>

struct BodyTableCache;

inline constexpr ULONG kHandleContextSignature = 0x5AA5;  // never the type of a CCB

// Paged pool; made when the handle is opened, freed when it is closed. Nothing is done with one of another signature.
struct HandleContext {
    ULONG Signature;    // kHandleContextSignature
    LONG SuspendCount;  // suspensions held, changed with interlocked operations
};

// STATUS_INSUFFICIENT_RESOURCES.
[[nodiscard]] NTSTATUS VrkFsHCAllocateContext(PFILE_OBJECT FileObject);
// The context, or null if the file object has none.
[[nodiscard]] HandleContext* VrkFsHCGetContext(PFILE_OBJECT FileObject);
VOID VrkFsHCFreeContext(PFILE_OBJECT FileObject);

// Count one suspension up or down (never below none). A null context is ignored, here and below.
VOID VrkFsHCBodyTableFlushSuspend(HandleContext* Context);
VOID VrkFsHCBodyTableFlushResume(HandleContext* Context);
// Gives all suspensions of the handle back to the cache.
VOID VrkFsHCBodyTableFlushSync(HandleContext* Context, BodyTableCache* Cache);
