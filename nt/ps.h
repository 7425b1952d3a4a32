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
// object (reference it by its handle, type *PsThreadType) is signalled when the thread has ended, by returning from its
// routine.
NTKERNELAPI NTSTATUS NTAPI PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess,
                                                POBJECT_ATTRIBUTES ObjectAttributes, HANDLE ProcessHandle,
                                                PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine, PVOID StartContext);

NTKERNELAPI PEPROCESS NTAPI IoGetCurrentProcess(VOID);
#define PsGetCurrentProcess IoGetCurrentProcess
NTKERNELAPI PETHREAD NTAPI PsGetCurrentThread(VOID);
#define KeGetCurrentThread PsGetCurrentThread
