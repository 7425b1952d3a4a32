#include <algorithm>
#include <deque>
#include <new>
#include <vector>

#include "nt/object_header.h"

// Handle tables. A handle is the entry's index + 1, times 4; handles of the system process that are good everywhere
// carry the top bit. A freed entry is used again only after a number of others, so that a stale handle is found out
// rather than taken for a new one.

namespace nt {

namespace {

constexpr uint32_t kKernelHandleBit = 0x80000000;
// The pseudo handles -1 and -2, as 32-bit values: anybody may pass them.
constexpr uint32_t kCurrentProcessHandle = 0xFFFFFFFF;
constexpr uint32_t kCurrentThreadHandle = 0xFFFFFFFE;
constexpr size_t kMaximumHandles = 1 << 20;
constexpr size_t kRestingEntries = 32;

struct Entry {
    PVOID object = nullptr;
    ACCESS_MASK granted = 0;
    ULONG attributes = 0;
    PDRIVER_OBJECT owner = nullptr;
};

WordLock g_tablesLock;  // guards the list of all tables
LIST_ENTRY g_tables = {&g_tables, &g_tables};

}  // namespace

struct HandleTable {
    LIST_ENTRY all;
    WordLock lock;  // guards what follows
    std::vector<Entry> entries;
    std::deque<uint32_t> free;
    size_t used = 0;
};

namespace {

HANDLE HandleOfIndex(uint32_t index, bool kernel) {
    return HandleFromValue((index + 1) * 4 | (kernel ? kKernelHandleBit : 0));
}

// The entry that the handle designates, under the table's lock; null if none.
Entry* FindLocked(HandleTable& table, HANDLE handle) {
    const uint32_t value = HandleValue(handle) & ~kKernelHandleBit;
    if (reinterpret_cast<uintptr_t>(handle) > UINT32_MAX || value % 4 != 0 || value == 0 ||
        value / 4 > table.entries.size()) {
        return nullptr;
    }
    Entry& entry = table.entries[value / 4 - 1];
    return entry.object != nullptr ? &entry : nullptr;
}

PEPROCESS TableOwner(PEPROCESS process, HANDLE handle) {
    return (HandleValue(handle) & kKernelHandleBit) != 0 ? SystemProcess() : process;
}

// Handles of the system process are not for user-mode callers.
bool IsOutOfReach(HANDLE handle, KPROCESSOR_MODE mode) {
    return mode != KernelMode && (HandleValue(handle) & kKernelHandleBit) != 0;
}

// Puts a referenced object into the table.
NTSTATUS Insert(HandleTable& table, const Entry& entry, uint32_t* index) {
    WordGuard guard(table.lock);
    if (table.free.size() > kRestingEntries) {
        *index = table.free.front();
        table.free.pop_front();
        table.entries[*index] = entry;
    } else {
        if (table.entries.size() >= kMaximumHandles) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        *index = static_cast<uint32_t>(table.entries.size());
        table.entries.push_back(entry);
    }
    table.used++;
    return STATUS_SUCCESS;
}

NTSTATUS CreateHandleIn(PEPROCESS process, PVOID object, ACCESS_MASK granted, ULONG attributes, PHANDLE handle) {
    ObfReferenceObject(object);
    HeaderOf(object)->handles.fetch_add(1);
    uint32_t index = 0;
    const NTSTATUS status = Insert(*process->handles, {object, granted, attributes, CurrentDriver()}, &index);
    if (!NT_SUCCESS(status)) {
        HeaderOf(object)->handles.fetch_sub(1);
        ObfDereferenceObject(object);
        return status;
    }
    *handle = HandleOfIndex(index, (attributes & OBJ_KERNEL_HANDLE) != 0);
    return STATUS_SUCCESS;
}

void ReleaseHandleOf(PVOID object) {
    ObjectHeader* const header = HeaderOf(object);
    if (header->handles.fetch_sub(1) == 1 && header->type->lastHandleClosed != nullptr) {
        header->type->lastHandleClosed(object);
    }
    ObfDereferenceObject(object);
}

// The lowest handle in use.
HANDLE FirstHandle(HandleTable& table) {
    WordGuard guard(table.lock);
    for (uint32_t index = 0; index < table.entries.size(); index++) {
        if (table.entries[index].object != nullptr) {
            return HandleOfIndex(index, false);
        }
    }
    return nullptr;
}

}  // namespace

HandleTable* NewHandleTable() {
    auto* const table = new HandleTable;
    WordGuard guard(g_tablesLock);
    InsertTailList(&g_tables, &table->all);
    return table;
}

void DeleteHandleTable(HandleTable* table) {
    {
        WordGuard guard(g_tablesLock);
        RemoveEntryList(&table->all);
    }
    delete table;
}

NTSTATUS ObCreateHandle(PVOID object, ACCESS_MASK granted, ULONG attributes, PHANDLE handle) {
    PEPROCESS const process = (attributes & OBJ_KERNEL_HANDLE) != 0 ? SystemProcess() : CurrentProcess();
    return CreateHandleIn(process, object, granted, attributes, handle);
}

NTSTATUS ReferenceHandle(PEPROCESS process, HANDLE handle, ACCESS_MASK access, POBJECT_TYPE type, KPROCESSOR_MODE mode,
                         PVOID* object, ACCESS_MASK* granted) {
    if (IsOutOfReach(handle, mode)) {
        return STATUS_INVALID_HANDLE;
    }
    HandleTable& table = *TableOwner(process, handle)->handles;
    WordGuard guard(table.lock);
    const Entry* const entry = FindLocked(table, handle);
    if (entry == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    if (type != nullptr && ObTypeOf(entry->object) != type) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    if (mode != KernelMode && (access & ~entry->granted) != 0) {
        return STATUS_ACCESS_DENIED;
    }
    ObfReferenceObject(entry->object);
    *object = entry->object;
    if (granted != nullptr) {
        *granted = entry->granted;
    }
    return STATUS_SUCCESS;
}

NTSTATUS CloseHandle(PEPROCESS process, HANDLE handle, KPROCESSOR_MODE mode) {
    if (IsOutOfReach(handle, mode)) {
        return STATUS_INVALID_HANDLE;
    }
    HandleTable& table = *TableOwner(process, handle)->handles;
    PVOID object = nullptr;
    {
        WordGuard guard(table.lock);
        Entry* const entry = FindLocked(table, handle);
        if (entry == nullptr) {
            return STATUS_INVALID_HANDLE;
        }
        object = entry->object;
        *entry = {};
        table.free.push_back((HandleValue(handle) & ~kKernelHandleBit) / 4 - 1);
        table.used--;
    }
    ReleaseHandleOf(object);
    return STATUS_SUCCESS;
}

NTSTATUS DuplicateHandle(PEPROCESS from, HANDLE handle, PEPROCESS to, ACCESS_MASK access, PHANDLE copy) {
    PVOID object = nullptr;
    ACCESS_MASK granted = 0;
    NTSTATUS status = ReferenceHandle(from, handle, access, nullptr, from->mode, &object, &granted);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreateHandleIn(to, object, access != 0 ? access : granted, 0, copy);
    ObfDereferenceObject(object);
    return status;
}

void CloseAllHandles(PEPROCESS process) {
    for (HANDLE handle = FirstHandle(*process->handles); handle != nullptr; handle = FirstHandle(*process->handles)) {
        CloseHandle(process, handle, KernelMode);
    }
}

size_t CountHandles(PEPROCESS process) {
    WordGuard guard(process->handles->lock);
    return process->handles->used;
}

void AddHandleLeaks(PDRIVER_OBJECT driver, LeakList& leaks) {
    WordGuard tables(g_tablesLock);
    for (PLIST_ENTRY listEntry = g_tables.Flink; listEntry != &g_tables; listEntry = listEntry->Flink) {
        HandleTable& table = *CONTAINING_RECORD(listEntry, HandleTable, all);
        WordGuard guard(table.lock);
        for (const Entry& entry : table.entries) {
            if (entry.object != nullptr && (driver == nullptr || entry.owner == driver)) {
                leaks.push_back({"handle", "of " + ObDescribe(entry.object), 1, 0});
            }
        }
    }
}

void ForgetHandleOwner(PDRIVER_OBJECT driver) {
    WordGuard tables(g_tablesLock);
    for (PLIST_ENTRY listEntry = g_tables.Flink; listEntry != &g_tables; listEntry = listEntry->Flink) {
        HandleTable& table = *CONTAINING_RECORD(listEntry, HandleTable, all);
        WordGuard guard(table.lock);
        for (Entry& entry : table.entries) {
            if (entry.owner == driver) {
                entry.owner = nullptr;
            }
        }
    }
}

}  // namespace nt

NTKERNELAPI NTSTATUS NTAPI ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                                     KPROCESSOR_MODE AccessMode, PVOID* Object,
                                                     POBJECT_HANDLE_INFORMATION HandleInformation) {
    *Object = nullptr;
    const uint32_t value = nt::HandleValue(Handle);
    if (value == nt::kCurrentProcessHandle || value == nt::kCurrentThreadHandle) {
        PVOID const self = value == nt::kCurrentProcessHandle ? static_cast<PVOID>(nt::CurrentProcess())
                                                              : static_cast<PVOID>(nt::Self());
        const NTSTATUS status = ObReferenceObjectByPointer(self, DesiredAccess, ObjectType, AccessMode);
        *Object = NT_SUCCESS(status) ? self : nullptr;
        return status;
    }
    ACCESS_MASK granted = 0;
    const NTSTATUS status =
        nt::ReferenceHandle(nt::CurrentProcess(), Handle, DesiredAccess, ObjectType, AccessMode, Object, &granted);
    if (NT_SUCCESS(status) && HandleInformation != nullptr) {
        *HandleInformation = {0, granted};
    }
    return status;
}

NTKERNELAPI NTSTATUS NTAPI ZwClose(HANDLE Handle) {
    nt::RefuseAtDispatch("closing a handle");
    const NTSTATUS status = nt::CloseHandle(nt::CurrentProcess(), Handle, KernelMode);
    if (status == STATUS_INVALID_HANDLE && nt::CurrentDriver() != nullptr) {
        nt::Violation("close of the invalid handle 0x%x", nt::HandleValue(Handle));
    }
    return status;
}
