#include "nt/registry.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>

#include "nt/durable_file.h"
#include "nt/object_internal.h"
#include "nt/registry_store.h"
#include "nt/station.h"
#include "nt/station_internal.h"
#include "nt/text.h"

namespace {

// The whole registry of the running kernel, guarded by its mutex. Keys are never removed, so a handle's key exists for
// as long as the kernel runs.
struct Registry {
    std::mutex mutex;
    nt::RegistryTree tree;
    std::string file;  // Empty: in memory only.
    bool readOnly = false;
};
Registry g_registry;

struct KeyObject {
    std::u16string* path;  // Absolute.
};

void DeleteKeyObject(PVOID object) {
    delete static_cast<KeyObject*>(object)->path;
}

OBJECT_TYPE g_keyType = {.name = "key", .lastHandleClosed = nullptr, .deleteObject = DeleteKeyObject};

// A key that a handle stands for, referenced for as long as this lives.
class KeyReference {
  public:
    NTSTATUS Open(HANDLE handle, ACCESS_MASK wanted) {
        OBJECT_HANDLE_INFORMATION information = {};
        PVOID object = nullptr;
        const NTSTATUS status = ObReferenceObjectByHandle(handle, 0, &g_keyType, KernelMode, &object, &information);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        object_ = static_cast<KeyObject*>(object);
        return (information.GrantedAccess & wanted) == wanted ? STATUS_SUCCESS : STATUS_ACCESS_DENIED;
    }
    KeyReference() = default;
    KeyReference(const KeyReference&) = delete;
    KeyReference& operator=(const KeyReference&) = delete;
    ~KeyReference() {
        if (object_ != nullptr) {
            ObDereferenceObject(object_);
        }
    }
    const std::u16string& Path() const { return *object_->path; }

  private:
    KeyObject* object_ = nullptr;
};

nt::RegistryKey* FindKey(std::u16string_view path) {
    const auto found = g_registry.tree.find(nt::Upcased(path));
    return found == g_registry.tree.end() ? nullptr : &found->second;
}

NTSTATUS Save() {
    if (g_registry.file.empty()) {
        return STATUS_SUCCESS;
    }
    return nt::ReplaceFile(g_registry.file, nt::FormatRegistry(g_registry.tree)).empty() ? STATUS_SUCCESS
                                                                                         : STATUS_REGISTRY_IO_FAILED;
}

// The absolute path that the attributes name.
NTSTATUS ResolvePath(const OBJECT_ATTRIBUTES& attributes, std::u16string* path) {
    if (attributes.RootDirectory == nullptr) {
        std::u16string_view absolute;
        const NTSTATUS status = nt::ObPathOf(attributes, &absolute);
        *path = absolute;
        return NT_SUCCESS(status) ? nt::CheckRegistryPath(*path) : status;
    }
    KeyReference root;
    const NTSTATUS status = root.Open(attributes.RootDirectory, 0);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    *path = root.Path();
    if (attributes.ObjectName != nullptr && attributes.ObjectName->Length != 0) {
        const std::u16string_view relative = nt::View(attributes.ObjectName);
        if (relative.front() == u'\\') {
            return STATUS_OBJECT_PATH_SYNTAX_BAD;
        }
        path->append(u"\\").append(relative);
    }
    return nt::CheckRegistryPath(*path);
}

NTSTATUS CreateKeyHandle(std::u16string_view path, ACCESS_MASK access, ULONG attributes, PHANDLE handle) {
    auto* const object = static_cast<KeyObject*>(nt::ObAllocate(&g_keyType, sizeof(KeyObject)));
    if (object == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    object->path = new std::u16string(path);
    const NTSTATUS status = nt::ObCreateHandle(object, access, attributes, handle);
    ObDereferenceObject(object);
    return status;
}

void CopyCut(void* target, ULONG length, ULONG offset, const void* source, SIZE_T size) {
    if (offset < length && size != 0) {
        std::memcpy(static_cast<UCHAR*>(target) + offset, source, std::min<SIZE_T>(size, length - offset));
    }
}

// Both forms store as much as fits; the caller has checked that the fixed part does.
ULONG FullInformationSize(const nt::RegistryValue& value, ULONG* dataOffset) {
    const auto nameEnd =
        static_cast<ULONG>(offsetof(KEY_VALUE_FULL_INFORMATION, Name) + value.name.size() * sizeof(WCHAR));
    *dataOffset = (nameEnd + 3) & ~3U;
    return *dataOffset + static_cast<ULONG>(value.data.size());
}

void StoreFullInformation(const nt::RegistryValue& value, ULONG dataOffset, PVOID buffer, ULONG length) {
    constexpr ULONG kNameOffset = offsetof(KEY_VALUE_FULL_INFORMATION, Name);
    KEY_VALUE_FULL_INFORMATION fixed = {};
    fixed.Type = value.type;
    fixed.DataOffset = dataOffset;
    fixed.DataLength = static_cast<ULONG>(value.data.size());
    fixed.NameLength = static_cast<ULONG>(value.name.size() * sizeof(WCHAR));
    std::memcpy(buffer, &fixed, kNameOffset);
    CopyCut(buffer, length, kNameOffset, value.name.data(), fixed.NameLength);
    CopyCut(buffer, length, dataOffset, value.data.data(), fixed.DataLength);
}

void StorePartialInformation(const nt::RegistryValue& value, PVOID buffer, ULONG length) {
    constexpr ULONG kDataOffset = offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data);
    KEY_VALUE_PARTIAL_INFORMATION fixed = {};
    fixed.Type = value.type;
    fixed.DataLength = static_cast<ULONG>(value.data.size());
    std::memcpy(buffer, &fixed, kDataOffset);
    CopyCut(buffer, length, kDataOffset, value.data.data(), fixed.DataLength);
}

NTSTATUS StoreInformation(const nt::RegistryValue& value, KEY_VALUE_INFORMATION_CLASS informationClass, PVOID buffer,
                          ULONG length, PULONG resultLength) {
    const bool full = informationClass == KeyValueFullInformation;
    ULONG dataOffset = offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data);
    *resultLength = full ? FullInformationSize(value, &dataOffset) : dataOffset + static_cast<ULONG>(value.data.size());
    if (length < (full ? offsetof(KEY_VALUE_FULL_INFORMATION, Name) : dataOffset)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (full) {
        StoreFullInformation(value, dataOffset, buffer, length);
    } else {
        StorePartialInformation(value, buffer, length);
    }
    return length < *resultLength ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

// Sets the value in memory and on the disk, or in neither. The mutex is held.
NTSTATUS StoreValue(nt::RegistryKey* key, nt::RegistryValue value) {
    const std::u16string upcased = nt::Upcased(value.name);
    const auto found = key->values.find(upcased);
    if (found == key->values.end()) {
        key->values.emplace(upcased, std::move(value));
        const NTSTATUS status = Save();
        if (!NT_SUCCESS(status)) {
            key->values.erase(upcased);
        }
        return status;
    }
    nt::RegistryValue& stored = found->second;
    if (stored.type == value.type && stored.data == value.data) {
        return STATUS_SUCCESS;
    }
    value.name = stored.name;
    std::swap(stored, value);
    const NTSTATUS status = Save();
    if (!NT_SUCCESS(status)) {
        std::swap(stored, value);
    }
    return status;
}

void ClearRegistry() {
    const std::lock_guard lock(g_registry.mutex);
    g_registry.tree.clear();
    g_registry.file.clear();
    g_registry.readOnly = false;
    nt::AddRegistryKey(&g_registry.tree, u"\\Registry\\Machine");
}

[[maybe_unused]] const bool kAdded = nt::AddKernelPart(
    {.name = "registry", .boot = ClearRegistry, .shutdown = [](nt::LeakList& /*leaks*/) { ClearRegistry(); }});

}  // namespace

NTSTATUS ZwOpenKey(PHANDLE keyHandle, ACCESS_MASK desiredAccess, POBJECT_ATTRIBUTES objectAttributes) {
    *keyHandle = nullptr;
    if (nt::FaultPoint(nt::FaultKind::kRegistry)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    std::u16string path;
    const NTSTATUS status = ResolvePath(*objectAttributes, &path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    {
        const std::lock_guard lock(g_registry.mutex);
        const nt::RegistryKey* const key = FindKey(path);
        if (key == nullptr) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        path = key->path;
    }
    return CreateKeyHandle(path, desiredAccess, objectAttributes->Attributes, keyHandle);
}

NTSTATUS ZwQueryValueKey(HANDLE keyHandle, PUNICODE_STRING valueName, KEY_VALUE_INFORMATION_CLASS informationClass,
                         PVOID information, ULONG length, PULONG resultLength) {
    *resultLength = 0;
    if (nt::FaultPoint(nt::FaultKind::kRegistry)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    KeyReference reference;
    const NTSTATUS status = reference.Open(keyHandle, KEY_QUERY_VALUE);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (informationClass != KeyValueFullInformation && informationClass != KeyValuePartialInformation) {
        return STATUS_INVALID_PARAMETER;
    }
    const std::lock_guard lock(g_registry.mutex);
    const nt::RegistryKey* const key = FindKey(reference.Path());
    const auto found = key->values.find(nt::Upcased(nt::View(valueName)));
    if (found == key->values.end()) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    return StoreInformation(found->second, informationClass, information, length, resultLength);
}

NTSTATUS ZwSetValueKey(HANDLE keyHandle, PUNICODE_STRING valueName, ULONG /*titleIndex*/, ULONG type, PVOID data,
                       ULONG dataSize) {
    if (nt::FaultPoint(nt::FaultKind::kRegistry)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    KeyReference reference;
    const NTSTATUS status = reference.Open(keyHandle, KEY_SET_VALUE);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    nt::RegistryValue value{std::u16string(nt::View(valueName)), type, {}};
    if (value.name.size() > nt::kRegistryValueNameLimit || !nt::Utf8FromWideExactly(value.name)) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    if (dataSize > nt::kRegistryDataLimit) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (dataSize != 0) {
        value.data.assign(static_cast<const char*>(data), dataSize);
    }
    const std::lock_guard lock(g_registry.mutex);
    if (g_registry.readOnly) {
        return STATUS_MEDIA_WRITE_PROTECTED;
    }
    return StoreValue(FindKey(reference.Path()), std::move(value));
}

namespace nt {

std::string AttachRegistry(const std::string& file, bool readOnly) {
    std::string text;
    bool exists = false;
    if (!file.empty()) {
        if (std::string error = ReadSmallFile(file, kRegistryFileLimit, &text, &exists); !error.empty()) {
            return error;
        }
    }
    RegistryTree tree;
    if (exists) {
        auto parsed = ParseRegistry(text);
        if (const auto* const error = std::get_if<std::string>(&parsed)) {
            return file + ": " + *error;
        }
        tree = std::get<RegistryTree>(std::move(parsed));
    }
    const std::lock_guard lock(g_registry.mutex);
    g_registry.tree = std::move(tree);
    g_registry.file = file;
    g_registry.readOnly = readOnly;
    AddRegistryKey(&g_registry.tree, u"\\Registry\\Machine");
    return {};
}

NTSTATUS CreateRegistryKey(std::u16string_view path) {
    const NTSTATUS status = CheckRegistryPath(path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const std::lock_guard lock(g_registry.mutex);
    if (FindKey(path) != nullptr) {
        return STATUS_SUCCESS;
    }
    if (g_registry.readOnly) {
        return STATUS_MEDIA_WRITE_PROTECTED;
    }
    RegistryTree before = g_registry.tree;
    AddRegistryKey(&g_registry.tree, path);
    const NTSTATUS saved = Save();
    if (!NT_SUCCESS(saved)) {
        g_registry.tree = std::move(before);
    }
    return saved;
}

}  // namespace nt
