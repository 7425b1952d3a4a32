#include <algorithm>
#include <array>
#include <map>
#include <mutex>
#include <vector>

#include "nt/object_header.h"

// The namespace: a map from upcased absolute paths to objects, without references (see nt/object_internal.h). Folders
// are not objects; a few are known so that a name in a folder that does not exist gets the right answer.

namespace nt {

namespace {

constexpr int kMaximumReparses = 32;
constexpr size_t kMaximumPath = 32'766;
constexpr std::u16string_view kLinksFolder = u"\\??";
constexpr std::u16string_view kLinksFolderAlias = u"\\DOSDEVICES";
constexpr std::array<std::u16string_view, 8> kFolders = {
    u"", u"\\??", u"\\DEVICE", u"\\DRIVER", u"\\FILESYSTEM", u"\\BASENAMEDOBJECTS", u"\\REGISTRY", u"\\SYSTEMROOT"};

std::mutex g_lock;  // guards the names

std::map<std::u16string, PVOID, std::less<>>& Names() {
    static auto& names = *new std::map<std::u16string, PVOID, std::less<>>;
    return names;
}

// The form that is compared: upcased, with one name for the folder of links.
std::u16string KeyOf(std::u16string_view path) {
    std::u16string key = Upcased(path);
    if (key.starts_with(kLinksFolderAlias) &&
        (key.size() == kLinksFolderAlias.size() || key[kLinksFolderAlias.size()] == u'\\')) {
        key.replace(0, kLinksFolderAlias.size(), kLinksFolder);
    }
    return key;
}

bool IsNamePath(std::u16string_view path) {
    return path.size() > 1 && path.size() <= kMaximumPath && path.front() == u'\\' && path.back() != u'\\';
}

bool IsKnownFolder(std::u16string_view key) {
    return std::find(kFolders.begin(), kFolders.end(), key) != kFolders.end();
}

// What a look-up that finds nothing says: the name is missing, or already the way to it.
NTSTATUS NotFound(std::u16string_view key) {
    const size_t slash = key.rfind(u'\\');
    return slash != std::u16string_view::npos && IsKnownFolder(key.substr(0, slash)) ? STATUS_OBJECT_NAME_NOT_FOUND
                                                                                     : STATUS_OBJECT_PATH_NOT_FOUND;
}

PVOID FindLocked(std::u16string_view key) {
    const auto found = Names().find(key);
    return found != Names().end() && ObTryReference(found->second) ? found->second : nullptr;
}

// The longest prefix of the key, ending at a backslash or the end, that names an object; its length.
PVOID FindLongestPrefix(std::u16string_view key, size_t* length) {
    std::lock_guard guard(g_lock);
    for (size_t end = key.size(); end > 1; end = key.rfind(u'\\', end - 1)) {
        if (end == std::u16string_view::npos) {
            break;
        }
        if (PVOID const object = FindLocked(key.substr(0, end)); object != nullptr) {
            *length = end;
            return object;
        }
    }
    return nullptr;
}

}  // namespace

void DeleteLinkObject(PVOID object) {
    delete static_cast<LinkBody*>(object)->target;
}

NTSTATUS ObInsertName(std::u16string_view path, PVOID object) {
    if (!IsNamePath(path)) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    std::lock_guard guard(g_lock);
    if (!Names().emplace(KeyOf(path), object).second) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    HeaderOf(object)->name = new std::u16string(path);
    return STATUS_SUCCESS;
}

void ObRemoveName(PVOID object) {
    std::lock_guard guard(g_lock);
    ObjectHeader* const header = HeaderOf(object);
    if (header->name != nullptr) {
        Names().erase(KeyOf(*header->name));
        delete header->name;
        header->name = nullptr;
    }
}

NTSTATUS ObReferenceByName(std::u16string_view path, POBJECT_TYPE type, PVOID* object) {
    const std::u16string key = KeyOf(path);
    PVOID found = nullptr;
    {
        std::lock_guard guard(g_lock);
        found = FindLocked(key);
    }
    if (found == nullptr) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (type != nullptr && ObTypeOf(found) != type) {
        ObfDereferenceObject(found);
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    *object = found;
    return STATUS_SUCCESS;
}

std::u16string ObNameOf(PVOID object) {
    std::lock_guard guard(g_lock);
    const ObjectHeader* const header = HeaderOf(object);
    return header->name != nullptr ? *header->name : std::u16string();
}

NTSTATUS ObPathOf(const OBJECT_ATTRIBUTES& attributes, std::u16string_view* path) {
    if (attributes.RootDirectory != nullptr || attributes.ObjectName == nullptr ||
        attributes.ObjectName->Length % sizeof(WCHAR) != 0) {
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    *path = View(attributes.ObjectName);
    return path->empty() || path->front() != u'\\' ? STATUS_OBJECT_PATH_SYNTAX_BAD : STATUS_SUCCESS;
}

NTSTATUS ObParsePath(std::u16string_view path, PDEVICE_OBJECT* device, std::u16string* rest) {
    std::u16string current(path);
    if (current.empty() || current.front() != u'\\') {
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    for (int reparses = 0; reparses < kMaximumReparses; reparses++) {
        if (current.size() > kMaximumPath) {
            return STATUS_NAME_TOO_LONG;
        }
        std::u16string key = KeyOf(current);
        if (key.size() != current.size()) {
            current.replace(0, kLinksFolderAlias.size(), kLinksFolder);
        }
        size_t length = 0;
        PVOID const object = FindLongestPrefix(key, &length);
        if (object == nullptr) {
            return NotFound(key);
        }
        if (ObTypeOf(object) == &g_deviceType) {
            *device = static_cast<PDEVICE_OBJECT>(object);
            *rest = current.substr(length);
            return STATUS_SUCCESS;
        }
        const bool isLink = ObTypeOf(object) == &g_linkType;
        if (isLink) {
            current.replace(0, length, *static_cast<LinkBody*>(object)->target);
        }
        ObfDereferenceObject(object);
        if (!isLink) {
            return length == key.size() ? STATUS_OBJECT_TYPE_MISMATCH : STATUS_OBJECT_PATH_NOT_FOUND;
        }
    }
    return STATUS_OBJECT_NAME_INVALID;
}

void NamesShutdown() {
    std::lock_guard guard(g_lock);
    for (const auto& [path, object] : Names()) {
        delete HeaderOf(object)->name;
        HeaderOf(object)->name = nullptr;
    }
    Names().clear();
}

}  // namespace nt
