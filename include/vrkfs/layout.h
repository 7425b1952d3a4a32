/*
 * What every header of this folder shares: layout checks and the 16-bit character of wire records. C11 and C++20.
 */
#ifndef VRKFS_LAYOUT_H
#define VRKFS_LAYOUT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define VRKFS_STATIC_ASSERT(Condition, Text) static_assert(Condition, Text)
#else
#define VRKFS_STATIC_ASSERT(Condition, Text) _Static_assert(Condition, Text)
#endif

#define VRKFS_ASSERT_SIZE(Record, Size) VRKFS_STATIC_ASSERT(sizeof(Record) == (Size), #Record " changed its size")
#define VRKFS_ASSERT_OFFSET(Record, Field, Offset) \
    VRKFS_STATIC_ASSERT(offsetof(Record, Field) == (Offset), #Record "." #Field " moved")

/* One UTF-16 code unit. It is the same type as the driver's WCHAR, so that names need no casts there. */
#if defined(_WIN32)
typedef wchar_t VrkFsChar;
#elif defined(__cplusplus)
typedef char16_t VrkFsChar;
#else
typedef uint16_t VrkFsChar;
#endif

VRKFS_ASSERT_SIZE(VrkFsChar, 2);

#endif /* VRKFS_LAYOUT_H */
