#pragma once

#include "nt.h"

// What the system calls: start-up, unload, and one entry point per major function. Each entry point takes requests to
// both devices of a card and lives in the file of its request; all of them return the request's status.
extern "C" DRIVER_INITIALIZE DriverEntry;
extern "C" DRIVER_UNLOAD VrkFsInitUnload;

extern "C" {
DRIVER_DISPATCH VrkFsCreate;
DRIVER_DISPATCH VrkFsClose;
DRIVER_DISPATCH VrkFsRead;
DRIVER_DISPATCH VrkFsWrite;
DRIVER_DISPATCH VrkFsQueryInformation;
DRIVER_DISPATCH VrkFsSetInformation;
DRIVER_DISPATCH VrkFsFlushBuffers;
DRIVER_DISPATCH VrkFsQueryVolumeInformation;
DRIVER_DISPATCH VrkFsSetVolumeInformation;
DRIVER_DISPATCH VrkFsDirectoryCtrl;
DRIVER_DISPATCH VrkFsFileSystemCtrl;
DRIVER_DISPATCH VrkFsDeviceIOCTL;
DRIVER_DISPATCH VrkFsInitShutdown;
DRIVER_DISPATCH VrkFsCleanup;
}
