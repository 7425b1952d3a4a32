#pragma once

#include "nt/file_info.h"

// Files that a driver opens by name. The only tree there is is \SystemRoot, a directory of the station; no "..", no
// link and no special file leads out of it. Names are compared without regard to case.

// Opens an existing file (FILE_OPEN) for reading. With FILE_DELETE_ON_CLOSE, which wants DELETE access, the file goes
// when its handle is closed. Only the synchronous form is provided for.
// STATUS_OBJECT_NAME_NOT_FOUND, STATUS_OBJECT_PATH_NOT_FOUND (a folder on the way, or not in \SystemRoot),
// STATUS_OBJECT_NAME_INVALID, STATUS_FILE_IS_A_DIRECTORY, STATUS_ACCESS_DENIED, STATUS_SHARING_VIOLATION,
// STATUS_MEDIA_WRITE_PROTECTED (to delete in a read-only station), STATUS_INVALID_PARAMETER, STATUS_NOT_IMPLEMENTED
// (any other disposition, or write access).
NTKERNELAPI NTSTATUS NTAPI ZwCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                                        POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                                        PLARGE_INTEGER AllocationSize, ULONG FileAttributes, ULONG ShareAccess,
                                        ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength);

// Reads from ByteOffset, or without one from where the last read ended. STATUS_END_OF_FILE when nothing is there.
// Event, ApcRoutine and ApcContext must be null.
NTKERNELAPI NTSTATUS NTAPI ZwReadFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                                      PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                                      PLARGE_INTEGER ByteOffset, PULONG Key);

// FileStandardInformation; any other class: STATUS_INVALID_INFO_CLASS.
NTKERNELAPI NTSTATUS NTAPI ZwQueryInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock,
                                                  PVOID FileInformation, ULONG Length,
                                                  FILE_INFORMATION_CLASS FileInformationClass);
