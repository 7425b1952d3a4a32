// How many frames can be recorded in one piece in the free space of a volume.
#pragma once

#include "nt.h"

struct AllocObject;

struct SpaceEstimate {
    AllocObject* Alloc;
    ULONG Devices;      // of the volume
    ULONG VideoBlocks;  // of one field; not 0
    ULONG AlphaBlocks;  // of one field, 0 without alpha
};

// Allocates the frames' blocks as a recording would and gives them back, so other allocations may see them taken for a
// moment. STATUS_INSUFFICIENT_RESOURCES: not even the memory that giving back may need.
[[nodiscard]] NTSTATUS VrkFsIoctlEstimateFrames(const SpaceEstimate* Estimate, PULONG Frames);
