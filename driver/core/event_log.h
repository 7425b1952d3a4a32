// The system event log: everything that an operator should know passes through VrkFsGlobLogEvent. Ids are the constants
// kVrkFsEvent... of <vrkfs/messages.h>.
#pragma once

#include "nt.h"

#include <vrkfs/messages.h>

// Logs one event against IoObject (a driver or device object): DumpSize bytes of DumpData (or none) and any number of
// zero-terminated 8-bit strings, ended by a null pointer, which fill %2 and up of the event's text. Any thread, at or
// below DISPATCH_LEVEL. STATUS_UNSUCCESSFUL when the event does not fit a log entry or no entry can be had; callers
// ignore it: a failure to log never changes an outcome.
NTSTATUS VrkFsGlobLogEvent(PVOID IoObject, ULONG EventId, NTSTATUS FinalStatus, const VOID* DumpData, ULONG DumpSize,
                           ...) __attribute__((sentinel));
