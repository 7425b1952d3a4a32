#pragma once

#include <string>
#include <string_view>

#include "nt/irp.h"

// Opening files: what IoGetDeviceObjectPointer and a process's open have in common, and the life of a file object.

namespace nt {

struct OpenRequest {
    std::u16string_view name;
    PFILE_OBJECT related = nullptr;  // then the name is relative to it
    ACCESS_MASK access = 0;          // generic rights already mapped
    ULONG fileAttributes = 0;
    ULONG share = 0;
    ULONG disposition = FILE_OPEN;
    ULONG options = 0;
    bool ignoreCase = true;
    bool targetDirectory = false;  // the parent of the name is wanted
    KPROCESSOR_MODE mode = KernelMode;
    const void* eaBuffer = nullptr;
    ULONG eaLength = 0;
    PEPROCESS process = nullptr;
};

// Makes a file object and sends the create request. On success the object has one reference, the caller's.
// `information` receives what the driver said either way.
NTSTATUS OpenFile(const OpenRequest& request, PFILE_OBJECT* file, ULONG_PTR* information);

// The turn of synchronous requests on one file object. False: the process is going away (never, at present).
void LockFile(PFILE_OBJECT file);
void UnlockFile(PFILE_OBJECT file);
// Fixed at the open; the flags, which drivers change, are asked only of a file object that somebody else made up.
struct FileExtension {
    bool synchronous;
    bool opened;  // the driver has accepted it, so it must hear of its end
    PVPB vpb;     // counted for this file
};
inline bool IsSynchronous(const FILE_OBJECT* file) {
    const auto* const extension = static_cast<const FileExtension*>(file->FileObjectExtension);
    return extension != nullptr ? extension->synchronous : (file->Flags & FO_SYNCHRONOUS_IO) != 0;
}

// Devices, for the loading of drivers.
PDEVICE_OBJECT TakeShutdownDevice();
bool HasOpenDevices(PDRIVER_OBJECT driver);
void FinishDriverStart(PDRIVER_OBJECT driver);
void ForgetDevices(PDRIVER_OBJECT driver);

}  // namespace nt
