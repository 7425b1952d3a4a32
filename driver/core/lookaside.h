#pragma once

#include "nt.h"

// Typed access to the lookaside lists of GlobalData. Records come out cleared.
template <typename Record>
[[nodiscard]] inline Record* VrkFsLookasideAllocate(PPAGED_LOOKASIDE_LIST List) {
    PVOID memory = ExAllocateFromPagedLookasideList(List);
    if (memory != nullptr) {
        RtlZeroMemory(memory, sizeof(Record));
    }
    return static_cast<Record*>(memory);
}

template <typename Record>
[[nodiscard]] inline Record* VrkFsLookasideAllocate(PNPAGED_LOOKASIDE_LIST List) {
    PVOID memory = ExAllocateFromNPagedLookasideList(List);
    if (memory != nullptr) {
        RtlZeroMemory(memory, sizeof(Record));
    }
    return static_cast<Record*>(memory);
}

inline VOID VrkFsLookasideFree(PPAGED_LOOKASIDE_LIST List, PVOID Record) {
    ExFreeToPagedLookasideList(List, Record);
}

inline VOID VrkFsLookasideFree(PNPAGED_LOOKASIDE_LIST List, PVOID Record) {
    ExFreeToNPagedLookasideList(List, Record);
}
