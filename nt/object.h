#pragma once

#include "nt/base.h"

// Objects: things with a type and a count of references, named in one namespace and reached through handles.
//
// An object goes when its last reference goes; the last reference to a file object sends its close request, on the
// thread that dropped it. A handle holds one reference. Handles are 32-bit values, multiples of 4, valid in the
// process that is current when the call is made; those made with OBJ_KERNEL_HANDLE live in the system process and
// are valid everywhere, for kernel-mode look-ups only.

typedef struct _OBJECT_TYPE OBJECT_TYPE, *POBJECT_TYPE;

typedef struct _OBJECT_HANDLE_INFORMATION {
    ULONG HandleAttributes;
    ACCESS_MASK GrantedAccess;
} OBJECT_HANDLE_INFORMATION, *POBJECT_HANDLE_INFORMATION;

extern POBJECT_TYPE* IoFileObjectType;
extern POBJECT_TYPE* IoDeviceObjectType;
extern POBJECT_TYPE* IoDriverObjectType;
extern POBJECT_TYPE* PsThreadType;
extern POBJECT_TYPE* PsProcessType;
extern POBJECT_TYPE* ExEventObjectType;

// STATUS_INVALID_HANDLE; STATUS_OBJECT_TYPE_MISMATCH when a type is given and the object is of another;
// STATUS_ACCESS_DENIED when AccessMode is UserMode and the handle was not granted DesiredAccess. Without a type any
// object is handed out: name the type before reading the object as one.
NTKERNELAPI NTSTATUS NTAPI ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                                     KPROCESSOR_MODE AccessMode, PVOID* Object,
                                                     POBJECT_HANDLE_INFORMATION HandleInformation);

// STATUS_OBJECT_TYPE_MISMATCH when a type is given and the object is of another.
NTKERNELAPI NTSTATUS NTAPI ObReferenceObjectByPointer(PVOID Object, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                                      KPROCESSOR_MODE AccessMode);

// Both return the count that is left. The object must already be referenced by the caller.
NTKERNELAPI LONG_PTR FASTCALL ObfReferenceObject(PVOID Object);
NTKERNELAPI LONG_PTR FASTCALL ObfDereferenceObject(PVOID Object);
#define ObReferenceObject ObfReferenceObject
#define ObDereferenceObject ObfDereferenceObject

// Closes a handle of the current process: for a file object's last handle the cleanup request runs before this
// returns, and the close request too when nothing else holds the object. STATUS_INVALID_HANDLE.
NTKERNELAPI NTSTATUS NTAPI ZwClose(HANDLE Handle);
