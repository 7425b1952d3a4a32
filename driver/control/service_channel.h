// The channel to the user-mode service: what the driver cannot do itself goes out in a request that the service keeps
// posted, and the answer comes back in a second one.
#pragma once

#include "nt.h"

#include <vrkfs/service.h>

// One per card, embedded in DiskDeviceExt (non-paged), initially disconnected. Each slot is empty or holds one request
// of the service; its event is set when one arrives and consumed by whoever claims it.
struct ServiceChannel {
    BOOLEAN ServiceConnected;  // a service has announced itself and has answered everything in time since
    KEVENT FetchEvent;         // auto-reset
    PIRP FetchIrp;             // waits to carry the next request out
    KEVENT ResponseEvent;      // auto-reset
    PIRP ResponseIrp;          // brought an answer
};

VOID VrkFsSReqInitialize(ServiceChannel* Channel);
// Completes both slots as cancelled. The channel's device is going away: nobody uses it any more.
VOID VrkFsSReqCleanup(ServiceChannel* Channel);
VOID VrkFsSReqServiceConnect(ServiceChannel* Channel);
VOID VrkFsSReqServiceDisconnect(ServiceChannel* Channel);

// The eight operations. No lock that a create, cleanup or close can want may be held across them: they may wait for the
// service. While no service is connected, open to write fail with STATUS_UNSUCCESSFUL, and the last three succeed
// without any effect and without output.
//
// FullPath starts with "\" and the file type's three characters, in whose place the service is told the built-in
// type's. ServiceHandle is 0 on failure.
[[nodiscard]] NTSTATUS VrkFsSReqOpen(ServiceChannel* Channel, WCHAR DriveLetter, PCUNICODE_STRING FullPath,
                                     PULONG ServiceHandle);
[[nodiscard]] NTSTATUS VrkFsSReqClean(ServiceChannel* Channel, ULONG ServiceHandle, ULONG TypeCode, ULONG FrameIndex);
[[nodiscard]] NTSTATUS VrkFsSReqClose(ServiceChannel* Channel, ULONG ServiceHandle);
[[nodiscard]] NTSTATUS VrkFsSReqRead(ServiceChannel* Channel, ULONG ServiceHandle, ULONG TypeCode, ULONG OffsetLow,
                                     ULONG OffsetHigh, ULONG ByteCount, ULONG FrameIndex, PVOID Buffer);
[[nodiscard]] NTSTATUS VrkFsSReqWrite(ServiceChannel* Channel, ULONG ServiceHandle, ULONG TypeCode, ULONG OffsetLow,
                                      ULONG OffsetHigh, ULONG ByteCount, ULONG FrameIndex, const VOID* Buffer);
[[nodiscard]] NTSTATUS VrkFsSReqUpdatePrefs(ServiceChannel* Channel, const VrkFsPreferences* Prefs);
// SpaceInfo: VRKFS_PORT_SPACE_INFO_SIZE bytes.
[[nodiscard]] NTSTATUS VrkFsSReqGetAvailableSpace(ServiceChannel* Channel, const VrkFsPortSpaceQuery* Query,
                                                  PUCHAR SpaceInfo);
[[nodiscard]] NTSTATUS VrkFsSReqCreateMediaFile(ServiceChannel* Channel, const VrkFsPortCreation* Creation);
