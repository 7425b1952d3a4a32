#include "media/handle_context.h"

#include "core/pool.h"
#include "media/body_table_cache.h"

NTSTATUS VrkFsHCAllocateContext(PFILE_OBJECT FileObject) {
    auto* context = static_cast<HandleContext*>(VrkFsAllocatePool(PagedPool, sizeof(HandleContext)));
    if (context == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    context->Signature = kHandleContextSignature;
    context->SuspendCount = 0;
    FileObject->FsContext2 = context;
    return STATUS_SUCCESS;
}

HandleContext* VrkFsHCGetContext(PFILE_OBJECT FileObject) {
    auto* context = static_cast<HandleContext*>(FileObject->FsContext2);
    return context != nullptr && context->Signature == kHandleContextSignature ? context : nullptr;
}

VOID VrkFsHCFreeContext(PFILE_OBJECT FileObject) {
    HandleContext* context = VrkFsHCGetContext(FileObject);
    if (context != nullptr) {
        FileObject->FsContext2 = nullptr;
        context->Signature = 0;
        VrkFsFreePool(context);
    }
}

VOID VrkFsHCBodyTableFlushSuspend(HandleContext* Context) {
    if (Context != nullptr && Context->Signature == kHandleContextSignature) {
        InterlockedIncrement(&Context->SuspendCount);
    }
}

VOID VrkFsHCBodyTableFlushResume(HandleContext* Context) {
    if (Context == nullptr || Context->Signature != kHandleContextSignature) {
        return;
    }
    LONG count = InterlockedCompareExchange(&Context->SuspendCount, 0, 0);
    while (count != 0) {
        const LONG seen = InterlockedCompareExchange(&Context->SuspendCount, count - 1, count);
        if (seen == count) {
            return;
        }
        count = seen;
    }
}

VOID VrkFsHCBodyTableFlushSync(HandleContext* Context, BodyTableCache* Cache) {
    if (Context == nullptr || Context->Signature != kHandleContextSignature) {
        return;
    }
    const LONG count = InterlockedExchange(&Context->SuspendCount, 0);
    if (count != 0) {
        VrkFsBTRequestFlushResume(Cache, static_cast<ULONG>(count));
    }
}
