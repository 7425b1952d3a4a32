// Renaming and moving an open object, and giving a RAM file the name of a frame, which imports its bytes into the clip.
#pragma once

#include "nt.h"

struct CardInstance;
struct InformationRequest;

// A frame that a RAM file has been renamed onto: all that the import needs, since the RAM file and its FCB may be gone
// by the time it runs. In non-paged pool, made by the rename and freed by the import.
struct FrameImport {
    WORK_QUEUE_ITEM Item;
    CardInstance* Card;
    UNICODE_STRING MediaFile;  // own copy of its full name
    PUCHAR Data;               // paged pool, Bytes bytes; null for none
    ULONG Bytes;
    ULONG TypeCode;
    ULONG FrameIndex;
    PFILE_OBJECT FileObject;  // referenced: keeps the device
};

// Under the locks of a set. STATUS_BUFFER_TOO_SMALL; STATUS_INVALID_PARAMETER for the root, a name that does not fit
// its buffer and a target that is no folder; STATUS_ACCESS_DENIED for what cannot be renamed or moved there;
// STATUS_OBJECT_NAME_COLLISION whatever ReplaceIfExists says; the statuses of VrkFsFCBRename and VrkFsFCBMove.
[[nodiscard]] NTSTATUS VrkFsSetFileRenameInfo(InformationRequest* Request);

// Hands the bytes to the user-mode service, which may take its time: no lock is held. A program's thread waits for it,
// a system's leaves it to the service's worker. Nobody is told how it went. Frees Import; null is ignored.
VOID VrkFsImportFrame(FrameImport* Import);
