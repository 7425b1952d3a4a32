// The common routines: one per major function, run by the entry routine or by the worker of a posted request. Each
// completes its request in VrkFsCompleteRequest and returns the status it completed with, or STATUS_PENDING when the
// request now belongs to somebody else.
#pragma once

#include "nt.h"

struct IRPContext;

NTSTATUS VrkFsCommonCreate(IRPContext* Context);
NTSTATUS VrkFsCommonClose(IRPContext* Context);
NTSTATUS VrkFsCommonRead(IRPContext* Context);
NTSTATUS VrkFsCommonWrite(IRPContext* Context);
NTSTATUS VrkFsCommonQueryInformation(IRPContext* Context);
NTSTATUS VrkFsCommonSetInformation(IRPContext* Context);
NTSTATUS VrkFsCommonQueryVolumeInformation(IRPContext* Context);
NTSTATUS VrkFsCommonSetVolumeInformation(IRPContext* Context);
NTSTATUS VrkFsCommonDirectoryCtrl(IRPContext* Context);
NTSTATUS VrkFsCommonFileSystemCtrl(IRPContext* Context);
NTSTATUS VrkFsCommonDeviceIOCTL(IRPContext* Context);
NTSTATUS VrkFsCommonCleanup(IRPContext* Context);
