#pragma once

#include <string>

#include "nt/internal.h"
#include "nt/text.h"

// What stands before every object, for the object manager's own files.

namespace nt {

struct alignas(16) ObjectHeader {
    std::atomic<int64_t> references;
    std::atomic<uint32_t> handles;  // in all processes
    uint32_t magic;
    POBJECT_TYPE type;
    PDRIVER_OBJECT owner;
    LIST_ENTRY live;  // live-list lock
    bool listed;
    std::u16string* name;  // as it was given, or null; names lock
};
static_assert(sizeof(ObjectHeader) % 16 == 0);

inline ObjectHeader* HeaderOf(PVOID object) {
    return static_cast<ObjectHeader*>(object) - 1;
}

bool ObIsObject(PVOID object);
// A reference, unless the last one has gone already.
bool ObTryReference(PVOID object);
void ObSetOwner(PVOID object, PDRIVER_OBJECT owner);
void ForgetObjectOwner(PDRIVER_OBJECT driver);
void ForgetHandleOwner(PDRIVER_OBJECT driver);
std::string DescribeFile(PFILE_OBJECT file);

// A symbolic link's body.
struct LinkBody {
    std::u16string* target;
};
void DeleteLinkObject(PVOID object);
// Takes down the links that the driver left.
void ReclaimLinks(PDRIVER_OBJECT driver);

}  // namespace nt
