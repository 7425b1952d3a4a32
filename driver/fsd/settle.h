// Settling a media file when a handle that could change it goes away.
#pragma once

#include "nt.h"

struct FCB;

// Gives back the space that a recording reserved and never used, once no handle of any path to the file is left, and
// writes the file's record back (for a handle that opened the file as a file, or when something was given back). The
// VCB's and the FCBCommon's Resource are held exclusively. Does nothing for whatever is not a file, is deleted, or
// stands in for a record that could not be read. Space stays reserved, for a later handle to settle, when the record
// cannot be written or memory is short; neither is a failure. Fails only with the status of a release.
[[nodiscard]] NTSTATUS VrkFsSettleFile(FCB* Fcb, BOOLEAN OpenedAsFile);
