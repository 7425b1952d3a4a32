// Control codes about one media file whose work is done on a worker thread: the first pass checks the buffers, resolves
// the handle and posts, the second one does the work with the file's records locked.
#pragma once

#include "nt.h"

struct FCB;
struct IRPContext;

// The file, while its work runs.
struct PostedFile {
    PFILE_OBJECT FileObject;
    FCB* Fcb;
};

// The VCB's Resource is held shared and the FCBCommon's exclusively.
using PostedFileWork = NTSTATUS (*)(IRPContext* Context, const PostedFile* File);

// Either pass of a code whose input begins with the file's handle. At ScratchOffset it has a u32, which keeps the
// reference to the file object from the first pass to the second. The first pass returns STATUS_PENDING, or the failure
// with the context freed: STATUS_BUFFER_TOO_SMALL, the look-up's, STATUS_UNSUCCESSFUL. The second returns the work's
// status, or STATUS_FILE_CLOSED, STATUS_FILE_DELETED, STATUS_FILE_CORRUPT_ERROR for a file that has been closed or
// deleted meanwhile or whose record could not be read.
[[nodiscard]] NTSTATUS VrkFsIoctlRunPosted(IRPContext* Context, ULONG ScratchOffset, PostedFileWork Work);

// The pieces of it, for a code that has more to do around them.
[[nodiscard]] NTSTATUS VrkFsIoctlResolvePosted(const IRPContext* Context, PostedFile* File);
// Takes the reference to the file object back out of the scratch field.
[[nodiscard]] PostedFile VrkFsIoctlTakePosted(uint32_t* Scratch);
[[nodiscard]] NTSTATUS VrkFsIoctlCheckPosted(const PostedFile* File);
