#pragma once

#include "nt.h"

struct HwContext;

// One control request to the main board that outlives its sender if it must. The sender and the board's completion each
// hold a reference, and who lets go last frees it: a request that is answered after its sender gave up touches nothing
// but itself. Non-paged; the buffer that the board reads and writes lies behind the record. Once Completed is set, the
// request can be sent again.
struct alignas(8) HwRequest {
    PIRP Irp;
    KEVENT Completed;         // notification event
    IO_STATUS_BLOCK Outcome;  // valid once Completed is set
    LONG volatile References;
    ULONG BufferBytes;
};

// Null when memory is short. BoardDevice must be open. The caller holds the one reference.
[[nodiscard]] HwRequest* VrkFsHwCreateRequest(HwContext* Hw, ULONG BufferBytes);
VOID VrkFsHwReleaseRequest(HwRequest* Request);

// How many requests of the driver the boards still hold although nobody waits for them any more. While there are any,
// the driver's code must stay where it is: their completion runs in it.
[[nodiscard]] LONG VrkFsHwLostRequests();
