// The frame of the four information requests: query and set, of a file and of the volume.
#pragma once

#include "nt.h"

struct FCB;
struct IRPContext;
struct VCB;

struct InformationRequest {
    VCB* Vcb;
    FCB* Fcb;      // null for an open of the volume itself; never null in file information
    ULONG Class;   // FILE_INFORMATION_CLASS or FS_INFORMATION_CLASS
    PVOID Buffer;  // the request's system buffer
    ULONG Length;  // of Buffer; a query leaves the bytes that it has filled
    PFILE_OBJECT FileObject;
    PFILE_OBJECT TargetFolder;   // of a rename that names another folder; else null
    struct FrameImport* Import;  // out: what a rename leaves to be done once every lock is released; or null
};

// Serves one class. The VCB's Resource is held, and for file information the FCBCommon's: shared by a query,
// exclusively by a set.
using VrkFsInformationRoutine = NTSTATUS (*)(InformationRequest* Request);

// Posts the request if it may not wait here; else finds out what the handle stands for, runs Routine under its locks
// and completes the request. Class and Length are the stack location's. STATUS_INVALID_PARAMETER for a handle that is
// no open of the file-system device, and for file information of the volume itself. Only a query that filled all it had
// to say returns bytes. *Import: what the routine has left to be done.
NTSTATUS VrkFsServeInformation(IRPContext* Context, ULONG Class, ULONG Length, VrkFsInformationRoutine Routine,
                               struct FrameImport** Import = nullptr);
