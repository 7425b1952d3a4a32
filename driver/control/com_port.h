// The command port: commands come in as file writes, replies go out as file reads.
#pragma once

#include "nt.h"

#include <vrkfs/port.h>

struct CCB;
struct ServiceChannel;

// One per open port handle, in paged pool, made and freed with its CCB. Its owner sees to it that one read or write at
// a time uses it. A command needs no lock beyond that: the path of the port's folder is kept from the opening, since
// names in the tree may change under a command whose handle has been closed meanwhile.
struct ComPort {
    ServiceChannel* Channel;
    CCB* Ccb;
    UNICODE_STRING Folder;                              // from the root, with its trailing backslash
    ULONG ReplyLength;                                  // valid bytes of Reply
    alignas(8) UCHAR Command[VRKFS_PORT_COMMAND_SIZE];  // as written; starts with a VrkFsPortCommand
    alignas(8) UCHAR Reply[VRKFS_PORT_REPLY_SIZE];      // starts with a VrkFsPortReply, or is the greeting
};

// The port is ready and greets its reader. The CCB knows its FCB, and the VCB's resource is held. A port that could not
// be initialised holds nothing. STATUS_INSUFFICIENT_RESOURCES.
[[nodiscard]] NTSTATUS VrkFsComPortInitialize(ComPort* Port, ServiceChannel* Channel, CCB* Ccb);
VOID VrkFsComPortFree(ComPort* Port);

// Length: in the bytes wanted, out the bytes moved; 0 from the end of the reply or of the command buffer on.
[[nodiscard]] NTSTATUS VrkFsComPortRead(const ComPort* Port, PVOID Buffer, ULONG OffsetLow, ULONG OffsetHigh,
                                        PULONG Length);
// A write that reaches the declared end of the command runs it. Whether the command succeeded is told by the reply
// alone.
[[nodiscard]] NTSTATUS VrkFsComPortWrite(ComPort* Port, const VOID* Buffer, ULONG OffsetLow, ULONG OffsetHigh,
                                         PULONG Length);

[[nodiscard]] NTSTATUS VrkFsComPortCmdDispatch(ComPort* Port);
// Both always succeed: the reply says how the command ended.
[[nodiscard]] NTSTATUS VrkFsComPortCmdCreateMediaFile(ComPort* Port);
[[nodiscard]] NTSTATUS VrkFsComPortCmdGetAvailableSpace(ComPort* Port);

// ---- Paths of a command's record (com_port_path.cpp) ----
// Make the record's path absolute, drive letter included. STATUS_UNSUCCESSFUL when it would not fit
// VRKFS_PORT_PATH_CHARS; a file path also when the port lies inside a media file.

[[nodiscard]] NTSTATUS VrkFsComPortCreateFilePath(const ComPort* Port, VrkFsPortCreation* Creation);
// A port inside a volume names that volume, whatever the record said.
[[nodiscard]] NTSTATUS VrkFsComPortCreateVolumePath(const ComPort* Port, VrkFsPortSpaceQuery* Query);
// The path of the folder that the port stands in, for VrkFsComPortInitialize. Freed with VrkFsRtlFreeUnicodeString.
[[nodiscard]] NTSTATUS VrkFsComPortCopyFolder(const CCB* Ccb, PUNICODE_STRING Folder);
