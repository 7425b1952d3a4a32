#pragma once

#include <nt.h>

#include "volume/records.h"

struct FCB;
struct HwContext;
struct HwVolume;

// Body tables on disk. FileFCB is an open media file (level 4): its FCBCommon holds the FileEntry image. Buffers are
// VrkFsHwGetBodyTableSize(frames) long, node arrays VrkFsHwGetBodyTableNodesSize(frames).

// Plain reads of the video table and, if the file has alpha and a buffer is given, of the alpha table. Exactly as many
// blocks as the frames need. STATUS_UNSUCCESSFUL: the record's table is shorter than that, or leaves the data area.
[[nodiscard]] NTSTATUS VrkFsHwReadBodyTable(HwContext* Hw, FCB* FileFCB, PVOID VideoBuffer, PVOID AlphaBuffer);
// The same with each field's place worked out. STATUS_UNSUCCESSFUL also for a table whose fields leave the data area.
[[nodiscard]] NTSTATUS VrkFsHwReadBodyTableNodes(HwContext* Hw, FCB* FileFCB, PlacedBodyTableNode* VideoNodes,
                                                 PlacedBodyTableNode* AlphaNodes);
// Bytes are multiples of 512; a stream without nodes or with 0 bytes is left out. STATUS_UNSUCCESSFUL, and nothing of a
// stream written, unless its blocks are owned.
[[nodiscard]] NTSTATUS VrkFsHwWriteBodyTableNodes(HwContext* Hw, ULONG Frames, const PlacedBodyTableNode* VideoNodes,
                                                  const PlacedBodyTableNode* AlphaNodes, ULONG VideoLba, ULONG AlphaLba,
                                                  ULONG VideoBytes, ULONG AlphaBytes, HwVolume* Volume);
[[nodiscard]] NTSTATUS VrkFsHwWriteBodyTable(HwContext* Hw, PVOID VideoBuffer, PVOID AlphaBuffer, ULONG VideoLba,
                                             ULONG AlphaLba, ULONG VideoBytes, ULONG AlphaBytes, HwVolume* Volume);
