#include "nt/section.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <mutex>
#include <string>

#include "nt/descriptor.h"
#include "nt/mm.h"
#include "nt/object_internal.h"
#include "nt/station.h"
#include "nt/system_call.h"
#include "nt/text.h"

namespace {

constexpr std::u16string_view kDirectory = u"\\BaseNamedObjects\\";
constexpr LONGLONG kSizeLimit = LONGLONG{1} << 31;  // What a 32-bit kernel could map.
constexpr LONGLONG kOffsetGranularity = 0x10000;

struct SectionBody {
    int memory;  // An anonymous file, sealed against resizing; `size` bytes long.
    SIZE_T size;
    bool writable;
};

struct View {
    PEPROCESS process;
    SectionBody* section;  // Referenced.
    SIZE_T size;           // Whole pages.
};

// Every view there is, by address.
std::mutex g_viewsMutex;
std::map<void*, View> g_views;

void CloseSection(PVOID object) {
    close(static_cast<SectionBody*>(object)->memory);
}

OBJECT_TYPE g_sectionType = {.name = "section", .lastHandleClosed = nullptr, .deleteObject = CloseSection};

SIZE_T WholePages(SIZE_T size) {
    return (size + PAGE_SIZE - 1) & ~SIZE_T{PAGE_SIZE - 1};
}

ACCESS_MASK MapGenericAccess(ACCESS_MASK access) {
    ACCESS_MASK mapped = access & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL | MAXIMUM_ALLOWED);
    if ((access & GENERIC_READ) != 0) {
        mapped |= STANDARD_RIGHTS_READ | SECTION_QUERY | SECTION_MAP_READ;
    }
    if ((access & GENERIC_WRITE) != 0) {
        mapped |= STANDARD_RIGHTS_WRITE | SECTION_MAP_WRITE;
    }
    if ((access & (GENERIC_ALL | MAXIMUM_ALLOWED)) != 0) {
        mapped |= SECTION_ALL_ACCESS;
    }
    return mapped;
}

// The whole path of a section's name, empty for a section without one.
NTSTATUS SectionPath(const OBJECT_ATTRIBUTES* attributes, std::u16string_view* path) {
    *path = {};
    if (attributes == nullptr || attributes->ObjectName == nullptr) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = nt::ObPathOf(*attributes, path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (path->size() < kDirectory.size() || !nt::EqualIgnoringCase(path->substr(0, kDirectory.size()), kDirectory)) {
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    const std::u16string_view name = path->substr(kDirectory.size());
    if (name.find(u'\\') != std::u16string_view::npos) {
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    return name.empty() ? STATUS_OBJECT_NAME_INVALID : STATUS_SUCCESS;
}

// Memory of the size, all of it there: nobody who touches it later can find that there is none left.
NTSTATUS MakeMemory(SIZE_T size, nt::Descriptor* memory) {
    nt::Descriptor file(memfd_create("section", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!file) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (fallocate(file.Get(), 0, 0, static_cast<off_t>(size)) != 0) {
        return STATUS_COMMITMENT_LIMIT;
    }
    if (fcntl(file.Get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *memory = std::move(file);
    return STATUS_SUCCESS;
}

// A new section with one reference, in the namespace if it has a name.
NTSTATUS MakeSection(std::u16string_view path, SIZE_T size, bool writable, SectionBody** section) {
    nt::Descriptor memory;
    NTSTATUS status = MakeMemory(size, &memory);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    auto* const body = static_cast<SectionBody*>(nt::ObAllocate(&g_sectionType, sizeof(SectionBody)));
    if (body == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *body = {memory.Release(), size, writable};
    if (!path.empty()) {
        status = nt::ObInsertName(path, body);
        if (!NT_SUCCESS(status)) {
            ObDereferenceObject(body);
            return status;
        }
    }
    *section = body;
    return STATUS_SUCCESS;
}

NTSTATUS ReferenceSection(std::u16string_view path, SectionBody** section) {
    PVOID object = nullptr;
    const NTSTATUS status = nt::ObReferenceByName(path, &g_sectionType, &object);
    *section = static_cast<SectionBody*>(object);
    return status;
}

// Makes the section or, if that is wanted, opens the one of that name. STATUS_OBJECT_NAME_EXISTS says the latter.
NTSTATUS MakeOrOpenSection(std::u16string_view path, bool openExisting, SIZE_T size, bool writable,
                           SectionBody** section) {
    while (true) {
        if (openExisting && !path.empty()) {
            const NTSTATUS status = ReferenceSection(path, section);
            if (status != STATUS_OBJECT_NAME_NOT_FOUND) {
                return NT_SUCCESS(status) ? STATUS_OBJECT_NAME_EXISTS : status;
            }
        }
        const NTSTATUS status = MakeSection(path, size, writable, section);
        if (status != STATUS_OBJECT_NAME_COLLISION || !openExisting) {
            return status;
        }
        // Somebody else made it in the meantime.
    }
}

NTSTATUS CheckCreate(const LARGE_INTEGER* size, ULONG protection, ULONG attributes, HANDLE file) {
    if (file != nullptr || attributes != SEC_COMMIT || (protection != PAGE_READWRITE && protection != PAGE_READONLY)) {
        return STATUS_NOT_IMPLEMENTED;
    }
    if (size == nullptr || size->QuadPart <= 0) {
        return STATUS_INVALID_PARAMETER_4;
    }
    return size->QuadPart > kSizeLimit ? STATUS_SECTION_TOO_BIG : STATUS_SUCCESS;
}

// The protection of a view as mmap wants it; STATUS_ACCESS_DENIED when handle or section do not allow it.
NTSTATUS ViewProtection(ULONG protect, ACCESS_MASK granted, const SectionBody& section, int* protection) {
    switch (protect) {
        case PAGE_READONLY:
            *protection = PROT_READ;
            return (granted & SECTION_MAP_READ) != 0 ? STATUS_SUCCESS : STATUS_ACCESS_DENIED;
        case PAGE_READWRITE:
            *protection = PROT_READ | PROT_WRITE;
            if (!section.writable) {
                return STATUS_SECTION_PROTECTION;
            }
            return (granted & SECTION_MAP_WRITE) != 0 ? STATUS_SUCCESS : STATUS_ACCESS_DENIED;
        default:
            return STATUS_INVALID_PAGE_PROTECTION;
    }
}

NTSTATUS CheckView(const SectionBody& section, PVOID baseAddress, const LARGE_INTEGER* offset, SIZE_T* size) {
    const LONGLONG start = offset == nullptr ? 0 : offset->QuadPart;
    if (baseAddress != nullptr || start < 0 || start % kOffsetGranularity != 0) {
        return STATUS_INVALID_PARAMETER;
    }
    const auto total = static_cast<LONGLONG>(WholePages(section.size));
    if (start >= total) {
        return STATUS_INVALID_VIEW_SIZE;
    }
    const auto rest = static_cast<SIZE_T>(total - start);
    if (*size > rest) {
        return STATUS_INVALID_VIEW_SIZE;
    }
    *size = *size == 0 ? rest : WholePages(*size);
    return STATUS_SUCCESS;
}

void RemoveView(std::map<void*, View>::iterator view) {
    munmap(view->first, view->second.size);
    g_views.erase(view);
}

// Views left over are unmapped; the sections they hold are the object manager's to list and to give back.
void ShutdownViews(nt::LeakList& leaks) {
    const std::lock_guard lock(g_viewsMutex);
    while (!g_views.empty()) {
        leaks.push_back({"view of a section", "", 1, g_views.begin()->second.size});
        RemoveView(g_views.begin());
    }
}

[[maybe_unused]] const bool kAdded = nt::AddKernelPart({.name = "sections", .boot = [] {}, .shutdown = ShutdownViews});

}  // namespace

NTSTATUS ZwCreateSection(PHANDLE sectionHandle, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES objectAttributes,
                         PLARGE_INTEGER maximumSize, ULONG sectionPageProtection, ULONG allocationAttributes,
                         HANDLE fileHandle) {
    *sectionHandle = nullptr;
    if (nt::FaultPoint(nt::FaultKind::kSection)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    std::u16string_view path;
    NTSTATUS status = CheckCreate(maximumSize, sectionPageProtection, allocationAttributes, fileHandle);
    if (NT_SUCCESS(status)) {
        status = SectionPath(objectAttributes, &path);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const ULONG attributes = objectAttributes == nullptr ? 0 : objectAttributes->Attributes;
    SectionBody* section = nullptr;
    status = MakeOrOpenSection(path, (attributes & OBJ_OPENIF) != 0, static_cast<SIZE_T>(maximumSize->QuadPart),
                               sectionPageProtection == PAGE_READWRITE, &section);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const NTSTATUS handleStatus =
        nt::ObCreateHandle(section, MapGenericAccess(desiredAccess), attributes, sectionHandle);
    ObDereferenceObject(section);
    return NT_SUCCESS(handleStatus) ? status : handleStatus;
}

NTSTATUS ZwOpenSection(PHANDLE sectionHandle, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES objectAttributes) {
    *sectionHandle = nullptr;
    if (nt::FaultPoint(nt::FaultKind::kSection)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    std::u16string_view path;
    NTSTATUS status = SectionPath(objectAttributes, &path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    SectionBody* section = nullptr;
    status = path.empty() ? STATUS_OBJECT_NAME_INVALID : ReferenceSection(path, &section);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = nt::ObCreateHandle(section, MapGenericAccess(desiredAccess), objectAttributes->Attributes, sectionHandle);
    ObDereferenceObject(section);
    return status;
}

NTSTATUS ZwMapViewOfSection(HANDLE sectionHandle, HANDLE processHandle, PVOID* baseAddress, ULONG_PTR /*zeroBits*/,
                            SIZE_T /*commitSize*/, PLARGE_INTEGER sectionOffset, PSIZE_T viewSize,
                            SECTION_INHERIT inheritDisposition, ULONG allocationType, ULONG protect) {
    if (nt::FaultPoint(nt::FaultKind::kSection)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (processHandle != NtCurrentProcess() || allocationType != 0 ||
        (inheritDisposition != ViewShare && inheritDisposition != ViewUnmap)) {
        return STATUS_INVALID_PARAMETER;
    }
    PVOID object = nullptr;
    OBJECT_HANDLE_INFORMATION information = {};
    NTSTATUS status = ObReferenceObjectByHandle(sectionHandle, 0, &g_sectionType, KernelMode, &object, &information);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    auto* const section = static_cast<SectionBody*>(object);
    SIZE_T size = *viewSize;
    int protection = 0;
    status = CheckView(*section, *baseAddress, sectionOffset, &size);
    if (NT_SUCCESS(status)) {
        status = ViewProtection(protect, information.GrantedAccess, *section, &protection);
    }
    void* address = MAP_FAILED;
    if (NT_SUCCESS(status)) {
        address = mmap(nullptr, size, protection, MAP_SHARED, section->memory,
                       sectionOffset == nullptr ? 0 : sectionOffset->QuadPart);
        status = address == MAP_FAILED ? STATUS_NO_MEMORY : STATUS_SUCCESS;
    }
    if (!NT_SUCCESS(status)) {
        ObDereferenceObject(section);
        return status;
    }
    const std::lock_guard lock(g_viewsMutex);
    g_views[address] = {nt::CurrentProcess(), section, size};
    *baseAddress = address;
    *viewSize = size;
    return STATUS_SUCCESS;
}

NTSTATUS ZwUnmapViewOfSection(HANDLE processHandle, PVOID baseAddress) {
    if (processHandle != NtCurrentProcess()) {
        return STATUS_INVALID_PARAMETER;
    }
    SectionBody* section = nullptr;
    {
        const std::lock_guard lock(g_viewsMutex);
        // Any address inside the view names it.
        auto view = g_views.upper_bound(baseAddress);
        if (view == g_views.begin()) {
            return STATUS_NOT_MAPPED_VIEW;
        }
        --view;
        const SIZE_T distance = reinterpret_cast<ULONG_PTR>(baseAddress) - reinterpret_cast<ULONG_PTR>(view->first);
        if (distance >= view->second.size || view->second.process != nt::CurrentProcess()) {
            return STATUS_NOT_MAPPED_VIEW;
        }
        section = view->second.section;
        RemoveView(view);
    }
    ObDereferenceObject(section);
    return STATUS_SUCCESS;
}

namespace nt {

NTSTATUS OpenSectionFor(PEPROCESS process, std::u16string_view name, ACCESS_MASK access, uint32_t* handle,
                        SectionDescriptor* section) {
    const std::u16string path = std::u16string(kDirectory).append(name);
    if (path.size() > UNICODE_STRING_MAX_CHARS) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    UNICODE_STRING pathString = CountedString(path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &pathString, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    const SystemCall call(process);  // one that has ended would never close the handle
    if (!call.Entered()) {
        return STATUS_PROCESS_IS_TERMINATING;
    }
    HANDLE opened = nullptr;
    NTSTATUS status = ZwOpenSection(&opened, access, &attributes);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = DuplicateSection(opened, section);
    if (!NT_SUCCESS(status)) {
        ZwClose(opened);
        return status;
    }
    *handle = HandleValue(opened);
    return STATUS_SUCCESS;
}

NTSTATUS DuplicateSection(HANDLE handle, SectionDescriptor* section) {
    PVOID object = nullptr;
    const NTSTATUS status = ObReferenceObjectByHandle(handle, 0, &g_sectionType, KernelMode, &object, nullptr);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const auto* const body = static_cast<SectionBody*>(object);
    *section = {fcntl(body->memory, F_DUPFD_CLOEXEC, 0), body->size};
    ObDereferenceObject(object);
    return section->descriptor < 0 ? STATUS_INSUFFICIENT_RESOURCES : STATUS_SUCCESS;
}

void UnmapViewsOfProcess(PEPROCESS process) {
    const std::lock_guard lock(g_viewsMutex);
    for (auto view = g_views.begin(); view != g_views.end();) {
        const auto next = std::next(view);
        if (view->second.process == process) {
            SectionBody* const section = view->second.section;
            RemoveView(view);
            ObDereferenceObject(section);
        }
        view = next;
    }
}

}  // namespace nt
