#pragma once

#include "nt/object.h"

// Processes and threads. Every thread of the program is a kernel thread from its first call on: of the system
// process, unless it is inside a call of a user process (nt/system.h).

typedef struct _EPROCESS *PEPROCESS, *PKPROCESS;
typedef struct _ETHREAD *PETHREAD, *PKTHREAD;

typedef struct _CLIENT_ID {
    HANDLE UniqueProcess;
    HANDLE UniqueThread;
} CLIENT_ID, *PCLIENT_ID;

typedef VOID(NTAPI KSTART_ROUTINE)(PVOID StartContext);
typedef KSTART_ROUTINE* PKSTART_ROUTINE;

// Starts a thread of the system process. The handle is one of the current process and must be closed; the thread
// object (reference it by its handle, type *PsThreadType) is signalled when the thread has ended. A thread may end
// by returning from its routine or through PsTerminateSystemThread.
NTKERNELAPI NTSTATUS NTAPI PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess,
                                                POBJECT_ATTRIBUTES ObjectAttributes, HANDLE ProcessHandle,
                                                PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine, PVOID StartContext);

// Ends the calling system thread: what it is called from must hold no lock and own nothing on the stack that needs
// a destructor. Returns STATUS_INVALID_PARAMETER when the caller is no system thread, else not at all.
NTKERNELAPI NTSTATUS NTAPI PsTerminateSystemThread(NTSTATUS ExitStatus);

NTKERNELAPI PEPROCESS NTAPI IoGetCurrentProcess(VOID);
#define PsGetCurrentProcess IoGetCurrentProcess
NTKERNELAPI PETHREAD NTAPI PsGetCurrentThread(VOID);
#define KeGetCurrentThread PsGetCurrentThread
