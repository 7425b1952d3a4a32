#pragma once

#include <cstring>

#include "nt/base.h"

// The run-time library: memory, counted strings, upcase, splay links, security descriptors, times. None of it takes
// a lock or consults a locale.

// Memory. The ranges of RtlCopyMemory must not overlap; those of RtlMoveMemory may.
inline void RtlCopyMemory(void* destination, const void* source, SIZE_T length) {
    std::memcpy(destination, source, length);
}
inline void RtlMoveMemory(void* destination, const void* source, SIZE_T length) {
    std::memmove(destination, source, length);
}
inline void RtlZeroMemory(void* destination, SIZE_T length) {
    std::memset(destination, 0, length);
}
inline BOOLEAN RtlEqualMemory(const void* left, const void* right, SIZE_T length) {
    return std::memcmp(left, right, length) == 0 ? TRUE : FALSE;
}

// Counted strings. A copy or an append terminates the destination when there is room for a NUL behind it.

// Points the string at a terminated literal or buffer, at most 65532 bytes of it; a null source gives a null string.
void RtlInitUnicodeString(PUNICODE_STRING destination, PCWSTR source);

// Copies as much as the destination holds; a null source gives an empty string.
void RtlCopyUnicodeString(PUNICODE_STRING destination, PCUNICODE_STRING source);

// STATUS_BUFFER_TOO_SMALL, and nothing changed, when the sum does not fit.
NTSTATUS RtlAppendUnicodeStringToString(PUNICODE_STRING destination, PCUNICODE_STRING source);
NTSTATUS RtlAppendUnicodeToString(PUNICODE_STRING destination, PCWSTR source);

// Order by code unit, upcased one by one if asked, then by length: negative, zero or positive.
LONG RtlCompareUnicodeString(PCUNICODE_STRING left, PCUNICODE_STRING right, BOOLEAN caseInsensitive);
BOOLEAN RtlEqualUnicodeString(PCUNICODE_STRING left, PCUNICODE_STRING right, BOOLEAN caseInsensitive);

WCHAR RtlUpcaseUnicodeChar(WCHAR character);

// Upcases into the destination's own buffer (STATUS_BUFFER_OVERFLOW when it is too small) or, if asked, into a new
// one of paged pool that RtlFreeUnicodeString frees (STATUS_NO_MEMORY when there is none). The new one has no
// terminator.
NTSTATUS RtlUpcaseUnicodeString(PUNICODE_STRING destination, PCUNICODE_STRING source, BOOLEAN allocateDestination);
void RtlFreeUnicodeString(PUNICODE_STRING string);

// Splay trees. A root is its own parent; whoever holds the tree keeps the pointer to its root.
typedef struct _RTL_SPLAY_LINKS {
    struct _RTL_SPLAY_LINKS* Parent;
    struct _RTL_SPLAY_LINKS* LeftChild;
    struct _RTL_SPLAY_LINKS* RightChild;
} RTL_SPLAY_LINKS, *PRTL_SPLAY_LINKS;

inline void RtlInitializeSplayLinks(PRTL_SPLAY_LINKS links) {
    links->Parent = links;
    links->LeftChild = nullptr;
    links->RightChild = nullptr;
}
inline PRTL_SPLAY_LINKS RtlParent(const RTL_SPLAY_LINKS* links) {
    return links->Parent;
}
inline PRTL_SPLAY_LINKS RtlLeftChild(const RTL_SPLAY_LINKS* links) {
    return links->LeftChild;
}
inline PRTL_SPLAY_LINKS RtlRightChild(const RTL_SPLAY_LINKS* links) {
    return links->RightChild;
}
inline bool RtlIsRoot(const RTL_SPLAY_LINKS* links) {
    return links->Parent == links;
}
inline bool RtlIsLeftChild(const RTL_SPLAY_LINKS* links) {
    return links->Parent->LeftChild == links;
}
inline bool RtlIsRightChild(const RTL_SPLAY_LINKS* links) {
    return links->Parent->RightChild == links;
}
inline void RtlInsertAsLeftChild(PRTL_SPLAY_LINKS parent, PRTL_SPLAY_LINKS child) {
    parent->LeftChild = child;
    child->Parent = parent;
}
inline void RtlInsertAsRightChild(PRTL_SPLAY_LINKS parent, PRTL_SPLAY_LINKS child) {
    parent->RightChild = child;
    child->Parent = parent;
}

// Moves the node to the root of its tree and returns it.
PRTL_SPLAY_LINKS RtlSplay(PRTL_SPLAY_LINKS links);

// Takes the node out of its tree and returns the new root, null when the tree is empty now.
PRTL_SPLAY_LINKS RtlDelete(PRTL_SPLAY_LINKS links);

// Security descriptors, as far as one that is open to everybody needs them.
typedef struct _ACL {
    UCHAR AclRevision;
    UCHAR Sbz1;
    USHORT AclSize;
    USHORT AceCount;
    USHORT Sbz2;
} ACL, *PACL;
using PSID = PVOID;
using SECURITY_DESCRIPTOR_CONTROL = USHORT;

typedef struct _SECURITY_DESCRIPTOR {
    UCHAR Revision;
    UCHAR Sbz1;
    SECURITY_DESCRIPTOR_CONTROL Control;
    PSID Owner;
    PSID Group;
    PACL Sacl;
    PACL Dacl;
} SECURITY_DESCRIPTOR, *PISECURITY_DESCRIPTOR;

inline constexpr ULONG SECURITY_DESCRIPTOR_REVISION = 1;
inline constexpr USHORT SE_DACL_PRESENT = 0x0004;
inline constexpr USHORT SE_DACL_DEFAULTED = 0x0008;
inline constexpr USHORT SE_SELF_RELATIVE = 0x8000;

// Both: STATUS_UNKNOWN_REVISION for any revision but 1.
NTSTATUS RtlCreateSecurityDescriptor(PSECURITY_DESCRIPTOR securityDescriptor, ULONG revision);
NTSTATUS RtlSetDaclSecurityDescriptor(PSECURITY_DESCRIPTOR securityDescriptor, BOOLEAN daclPresent, PACL dacl,
                                      BOOLEAN daclDefaulted);

// A system time taken apart (UTC). Weekday 0 is Sunday.
typedef struct _TIME_FIELDS {
    CSHORT Year;
    CSHORT Month;
    CSHORT Day;
    CSHORT Hour;
    CSHORT Minute;
    CSHORT Second;
    CSHORT Milliseconds;
    CSHORT Weekday;
} TIME_FIELDS, *PTIME_FIELDS;

void RtlTimeToTimeFields(PLARGE_INTEGER time, PTIME_FIELDS timeFields);
