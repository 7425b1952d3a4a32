#pragma once

#include <nt.h>
#include <vrkfs/control.h>
#include <vrkfs/results.h>

struct HwContext;
struct VCB;

// Makes a new, empty volume of the devices in Request. *Result is VRKFS_RESULT_DONE or a VRKFS_FORMAT_... refusal with
// STATUS_SUCCESS; it is not written when a disk write or an allocation fails. The VCB resource is held exclusively.
[[nodiscard]] NTSTATUS VrkFsHwFormatVolume(HwContext* Hw, VCB* Vcb, const VrkFsVolumeInfoRecord* Request, PLONG Result);
