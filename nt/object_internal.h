#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "nt/kernel.h"
#include "nt/object.h"
#include "nt/ps.h"

// What the families inside nt/ share: making objects and handles, the namespace, and joining boot and shutdown. Not
// for drivers nor hosts.

// A type of objects. Statics of their family; the name appears in leak lists ("section", "key").
struct _OBJECT_TYPE {
    const char* name;
    // The last handle to the object, in whatever process, has gone; a reference is still held. May be null.
    void (*lastHandleClosed)(PVOID object) = nullptr;
    // The last reference has gone; the memory follows when this returns. May be null.
    void (*deleteObject)(PVOID object) = nullptr;
};

namespace nt {

// ---- objects ----

// A zeroed object with one reference, owned by the caller; null when memory is short. `size` counts the body. The
// driver the thread is in becomes its owner for leak lists. FaultPoint is the caller's to ask.
PVOID ObAllocate(POBJECT_TYPE type, size_t size);

POBJECT_TYPE ObTypeOf(PVOID object);

// ---- handles ----

// A handle of the current process to the object (which gains a reference); with OBJ_KERNEL_HANDLE in `attributes`, of
// the system process. STATUS_INSUFFICIENT_RESOURCES.
NTSTATUS ObCreateHandle(PVOID object, ACCESS_MASK granted, ULONG attributes, PHANDLE handle);

inline uint32_t HandleValue(HANDLE handle) {
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(handle));
}
inline HANDLE HandleFromValue(uint32_t value) {
    return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(value));
}

// ---- the namespace ----
// Absolute paths, compared without regard to case; "\DosDevices" and "\??" are one directory. A name holds no
// reference: it is taken away when the object goes or by ObRemoveName, whichever comes first, and look-ups that race
// with the object's end find nothing.

// STATUS_OBJECT_NAME_COLLISION; STATUS_OBJECT_NAME_INVALID for a path that does not begin with a backslash or ends
// with one.
NTSTATUS ObInsertName(std::u16string_view path, PVOID object);
void ObRemoveName(PVOID object);

// The object of that very name, with a reference for the caller. STATUS_OBJECT_NAME_NOT_FOUND,
// STATUS_OBJECT_TYPE_MISMATCH.
NTSTATUS ObReferenceByName(std::u16string_view path, POBJECT_TYPE type, PVOID* object);

// The object's name, empty if it has none.
std::u16string ObNameOf(PVOID object);

// The full path of an object-attributes record without a root directory. STATUS_OBJECT_PATH_SYNTAX_BAD.
NTSTATUS ObPathOf(const OBJECT_ATTRIBUTES& attributes, std::u16string_view* path);

// ---- boot and shutdown ----

// A family with state of its own. Registered once, usually by a static of the family's .cpp file; parts registered
// later are booted later and shut down earlier.
struct KernelPart {
    const char* name;
    void (*boot)();
    // Drops all state; what the family finds left over is added to the list.
    void (*shutdown)(LeakList& leaks);
};
bool AddKernelPart(const KernelPart& part);

// ---- context ----

PEPROCESS SystemProcess();
PEPROCESS CurrentProcess();

// The calling thread acts for `process` while one is alive.
class AttachProcess {
  public:
    explicit AttachProcess(PEPROCESS process);
    ~AttachProcess();
    AttachProcess(const AttachProcess&) = delete;
    AttachProcess& operator=(const AttachProcess&) = delete;

  private:
    PEPROCESS before_;
};

// ---- the verifier, for the families ----

// Whether the address lies in a paged-pool block: such memory may not hold dispatcher objects, list heads and the
// like. False for stacks, statics and non-paged pool. If `describe` is given it receives "Ifs (48 of 120 bytes)".
bool IsInPagedPool(const void* address, std::string* describe = nullptr);

// Whether the calling thread holds the cancel spin lock, or any spin lock (IRQL at DISPATCH_LEVEL): no pool, no paged
// data, no wait then. The operation is named in the violation.
void RefuseAtDispatch(const char* operation);

}  // namespace nt
