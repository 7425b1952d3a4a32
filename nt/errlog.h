#pragma once

#include "nt/base.h"

// The system's error log. Entries have the layout of the 32-bit kernel: a fixed part of 48 bytes, of which the dump
// data begin in the last 8, then the insertion strings, 16-bit characters each with its terminator.

typedef struct _IO_ERROR_LOG_PACKET {
    UCHAR MajorFunctionCode;
    UCHAR RetryCount;
    USHORT DumpDataSize;  // Bytes, a multiple of 4.
    USHORT NumberOfStrings;
    USHORT StringOffset;  // From the start of the packet.
    USHORT EventCategory;
    NTSTATUS ErrorCode;
    ULONG UniqueErrorValue;
    NTSTATUS FinalStatus;
    ULONG SequenceNumber;
    ULONG IoControlCode;
    LARGE_INTEGER DeviceOffset;
    ULONG DumpData[1];
} IO_ERROR_LOG_PACKET, *PIO_ERROR_LOG_PACKET;
static_assert(sizeof(IO_ERROR_LOG_PACKET) == 48);
static_assert(offsetof(IO_ERROR_LOG_PACKET, DumpDataSize) == 2 && offsetof(IO_ERROR_LOG_PACKET, NumberOfStrings) == 4);
static_assert(offsetof(IO_ERROR_LOG_PACKET, StringOffset) == 6 && offsetof(IO_ERROR_LOG_PACKET, EventCategory) == 8);
static_assert(offsetof(IO_ERROR_LOG_PACKET, ErrorCode) == 12 && offsetof(IO_ERROR_LOG_PACKET, UniqueErrorValue) == 16);
static_assert(offsetof(IO_ERROR_LOG_PACKET, FinalStatus) == 20 && offsetof(IO_ERROR_LOG_PACKET, SequenceNumber) == 24);
static_assert(offsetof(IO_ERROR_LOG_PACKET, IoControlCode) == 28 && offsetof(IO_ERROR_LOG_PACKET, DeviceOffset) == 32);
static_assert(offsetof(IO_ERROR_LOG_PACKET, DumpData) == 40);

// The largest packet of the 32-bit kernel, kept here.
inline constexpr ULONG ERROR_LOG_MAXIMUM_SIZE = 152;

// A zeroed entry of EntrySize bytes, which must hold the fixed part, to log against a driver or device object; null
// when memory is short or the size is out of range. It is written or freed, once.
NTKERNELAPI PVOID NTAPI IoAllocateErrorLogEntry(PVOID IoObject, UCHAR EntrySize);

// Hands the entry over to the log. Its dump data and strings must lie inside it.
NTKERNELAPI VOID NTAPI IoWriteErrorLogEntry(PVOID ElEntry);

NTKERNELAPI VOID NTAPI IoFreeErrorLogEntry(PVOID ElEntry);
