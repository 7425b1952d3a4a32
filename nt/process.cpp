#include <cstdio>
#include <new>

#include "nt/internal.h"

// Processes: the system's, and those that nt/system.h makes.

namespace nt {

namespace {

PEPROCESS g_system = nullptr;

}  // namespace

PEPROCESS NewProcess(const char* name, KPROCESSOR_MODE mode, bool isSystem) {
    PVOID const memory = isSystem ? ObAllocateUnlisted(&g_processType, sizeof(_EPROCESS))
                                  : ObAllocate(&g_processType, sizeof(_EPROCESS));
    auto* const process = new (memory) _EPROCESS{};
    InitializeHeader(&process->header, kProcessObject, 0);
    process->mode = mode;
    process->isSystem = isSystem;
    process->handles = NewHandleTable();
    InitializeListHead(&process->requests);
    std::snprintf(process->name, sizeof(process->name), "%s", name);
    return process;
}

void DeleteProcessObject(PVOID object) {
    auto* const process = static_cast<PEPROCESS>(object);
    DeleteHandleTable(process->handles);
    process->~_EPROCESS();
}

void ProcessesBoot() {
    g_system = NewProcess("System", KernelMode, true);
}

void ProcessesShutdown() {
    ObfDereferenceObject(g_system);
    g_system = nullptr;
}

PEPROCESS SystemProcess() {
    return g_system;
}

PEPROCESS CurrentProcess() {
    PEPROCESS const process = Self()->process;
    return process != nullptr ? process : g_system;
}

AttachProcess::AttachProcess(PEPROCESS process) : before_(Self()->process) {
    Self()->process = process == g_system ? nullptr : process;
}

AttachProcess::~AttachProcess() {
    Self()->process = before_;
}

}  // namespace nt

NTKERNELAPI PEPROCESS NTAPI IoGetCurrentProcess(VOID) {
    return nt::CurrentProcess();
}
