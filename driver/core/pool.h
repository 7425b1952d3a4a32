#pragma once

#include "nt.h"

// Pool memory. A tag is four characters as they stand in the pool, so the first character is the low byte.
constexpr ULONG VrkFsPoolTag(const char (&Text)[5]) {
    return static_cast<ULONG>(static_cast<UCHAR>(Text[0])) | static_cast<ULONG>(static_cast<UCHAR>(Text[1])) << 8 |
           static_cast<ULONG>(static_cast<UCHAR>(Text[2])) << 16 |
           static_cast<ULONG>(static_cast<UCHAR>(Text[3])) << 24;
}

// Everything that does not come from a lookaside list.
inline constexpr ULONG kVrkFsPoolTag = VrkFsPoolTag("Ifs ");

// Memory of the given pool, not cleared, or null. PagedPool only at PASSIVE_LEVEL.
[[nodiscard]] inline PVOID VrkFsAllocatePool(POOL_TYPE Pool, SIZE_T Bytes) {
    return ExAllocatePoolWithTag(Pool, Bytes, kVrkFsPoolTag);
}

// Gives back what VrkFsAllocatePool gave; null is ignored.
inline VOID VrkFsFreePool(PVOID Memory) {
    if (Memory != nullptr) {
        ExFreePoolWithTag(Memory, kVrkFsPoolTag);
    }
}
