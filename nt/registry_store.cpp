#include "nt/registry_store.h"

#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <vector>

#include "nt/registry.h"
#include "nt/text.h"

namespace nt {
namespace {
using Json = nlohmann::ordered_json;

constexpr std::u16string_view kRegistryRoot = u"\\Registry";
constexpr unsigned kFormat = 1;
constexpr int kNestingLimit = 8;  // A well-formed file needs five.

struct TypeName {
    const char* name;
    ULONG type;
};
constexpr TypeName kTypeNames[] = {
    {"REG_NONE", REG_NONE},         {"REG_SZ", REG_SZ},       {"REG_EXPAND_SZ", REG_EXPAND_SZ},
    {"REG_BINARY", REG_BINARY},     {"REG_DWORD", REG_DWORD}, {"REG_DWORD_BIG_ENDIAN", REG_DWORD_BIG_ENDIAN},
    {"REG_MULTI_SZ", REG_MULTI_SZ}, {"REG_QWORD", REG_QWORD},
};

// What is wrong with the file, for the person who edited it.
struct Complaint {
    std::string text;
};

[[noreturn]] void Complain(const std::string& where, const std::string& what) {
    throw Complaint{where + ": " + what};
}

std::u16string WideName(const std::string& where, const std::string& text) {
    std::optional<std::u16string> wide = WideFromUtf8(text);
    if (!wide) {
        Complain(where, "the name is not well-formed text");
    }
    return *std::move(wide);
}

// The reader keeps the last of several members with one name and says nothing; a person who wrote a value twice wants
// to know.
Json ParseStrictly(std::string_view text) {
    std::vector<std::set<std::string>> names;
    const auto watch = [&names](int depth, Json::parse_event_t event, Json& parsed) {
        if (depth > kNestingLimit) {
            throw Complaint{"the file is nested too deeply"};
        }
        if (event == Json::parse_event_t::object_start) {
            names.emplace_back();
        } else if (event == Json::parse_event_t::object_end) {
            names.pop_back();
        } else if (event == Json::parse_event_t::key && !names.back().insert(parsed.get<std::string>()).second) {
            throw Complaint{"\"" + parsed.get<std::string>() + "\" stands twice in one place"};
        }
        return true;
    };
    return Json::parse(text.begin(), text.end(), watch);
}

ULONG ReadType(const std::string& where, const Json& type) {
    if (type.is_string()) {
        for (const TypeName& row : kTypeNames) {
            if (type.get_ref<const std::string&>() == row.name) {
                return row.type;
            }
        }
    } else if (type.is_number_unsigned() && type.get<uint64_t>() <= 0xFFFFFFFF) {
        return type.get<ULONG>();
    }
    Complain(where, "\"type\" is neither the name nor the number of a value type");
}

template <class Number>
std::string ReadNumber(const std::string& where, const Json& value) {
    if (!value.is_number_unsigned() || value.get<uint64_t>() > Number(~Number{0})) {
        Complain(where, "the value is not a whole number from 0 to " + std::to_string(Number(~Number{0})));
    }
    const auto number = value.get<Number>();
    return {reinterpret_cast<const char*>(&number), sizeof(number)};
}

std::string ReadString(const std::string& where, const Json& value) {
    std::optional<std::u16string> wide;
    if (value.is_string()) {
        wide = WideFromUtf8(value.get_ref<const std::string&>());
    }
    if (!wide || wide->find(u'\0') != std::u16string::npos) {
        Complain(where, "the value is not a string without NULs");
    }
    const std::u16string& text = *wide;
    return {reinterpret_cast<const char*>(text.c_str()), (text.size() + 1) * sizeof(WCHAR)};
}

std::string ReadStrings(const std::string& where, const Json& value) {
    if (!value.is_array()) {
        Complain(where, "the value is not a list of strings");
    }
    std::string data;
    for (const Json& element : value) {
        data += ReadString(where, element);
    }
    return data.append(sizeof(WCHAR), '\0');
}

std::string ReadData(const std::string& where, ULONG type, const Json& value) {
    switch (type) {
        case REG_DWORD:
            return ReadNumber<ULONG>(where, value);
        case REG_QWORD:
            return ReadNumber<ULONGLONG>(where, value);
        case REG_SZ:
        case REG_EXPAND_SZ:
            return ReadString(where, value);
        case REG_MULTI_SZ:
            return ReadStrings(where, value);
        default:
            Complain(where, "a value of this type is given as \"bytes\"");
    }
}

std::string ReadBytes(const std::string& where, const Json& bytes) {
    std::optional<std::string> data;
    if (bytes.is_string()) {
        data = BytesFromHex(bytes.get_ref<const std::string&>());
    }
    if (!data) {
        Complain(where, "\"bytes\" is not a string of hexadecimal digit pairs");
    }
    return *std::move(data);
}

RegistryValue ReadValue(const std::string& where, const std::string& name, const Json& json) {
    if (!json.is_object() || json.size() != 2 || !json.contains("type") ||
        json.contains("value") == json.contains("bytes")) {
        Complain(where, "wanted: \"type\" and one of \"value\" and \"bytes\", and nothing else");
    }
    RegistryValue value;
    value.name = WideName(where, name);
    if (value.name.size() > kRegistryValueNameLimit) {
        Complain(where, "the name is too long");
    }
    value.type = ReadType(where, json["type"]);
    value.data = json.contains("value") ? ReadData(where, value.type, json["value"]) : ReadBytes(where, json["bytes"]);
    if (value.data.size() > kRegistryDataLimit) {
        Complain(where, "the value is longer than 1 MiB");
    }
    return value;
}

void ReadKey(RegistryTree* tree, const std::string& pathText, const Json& json) {
    const std::string where = "key \"" + pathText + "\"";
    const std::u16string path = WideName(where, pathText);
    if (!NT_SUCCESS(CheckRegistryPath(path))) {
        Complain(where, "the path does not lead from \\Registry through named keys");
    }
    if (!json.is_object()) {
        Complain(where, "wanted: an object of values");
    }
    RegistryKey& key = AddRegistryKey(tree, path);
    if (!key.values.empty()) {
        Complain(where, "the key stands twice");
    }
    if (tree->size() > kRegistryKeyLimit) {
        Complain(where, "there are too many keys");
    }
    for (const auto& [name, member] : json.items()) {
        std::string whereValue = where;
        whereValue.append(", value \"").append(name).append("\"");
        RegistryValue value = ReadValue(whereValue, name, member);
        if (!key.values.emplace(Upcased(value.name), std::move(value)).second) {
            Complain(whereValue, "the value stands twice, in different case");
        }
    }
}

RegistryTree ReadTree(const Json& json) {
    if (!json.is_object() || json.size() != 2 || !json.contains("format") || !json.contains("keys") ||
        !json["keys"].is_object()) {
        Complain("the file", "wanted: an object of \"format\" and \"keys\"");
    }
    if (json["format"] != kFormat) {
        Complain("\"format\"", "this program reads format 1");
    }
    RegistryTree tree;
    for (const auto& [path, key] : json["keys"].items()) {
        ReadKey(&tree, path, key);
    }
    return tree;
}

template <class Number>
std::optional<Json> FormatNumber(const std::string& data) {
    Number number;
    if (data.size() != sizeof(number)) {
        return std::nullopt;
    }
    std::memcpy(&number, data.data(), sizeof(number));
    return Json(number);
}

// Takes one terminated string off the data, if it holds one that UTF-8 can carry.
std::optional<std::string> TakeString(std::string_view* data) {
    std::u16string wide;
    for (SIZE_T at = 0; at + sizeof(WCHAR) <= data->size(); at += sizeof(WCHAR)) {
        WCHAR character;
        std::memcpy(&character, data->data() + at, sizeof(character));
        if (character == UNICODE_NULL) {
            data->remove_prefix(at + sizeof(character));
            return Utf8FromWideExactly(wide);
        }
        wide += character;
    }
    return std::nullopt;
}

std::optional<Json> FormatString(std::string_view data) {
    const std::optional<std::string> text = TakeString(&data);
    return text && data.empty() ? std::optional<Json>(*text) : std::nullopt;
}

std::optional<Json> FormatStrings(std::string_view data) {
    Json list = Json::array();
    while (data.size() > sizeof(WCHAR)) {
        const std::optional<std::string> text = TakeString(&data);
        if (!text) {
            return std::nullopt;
        }
        list.push_back(*text);
    }
    return data == std::string_view("\0", sizeof(WCHAR)) ? std::optional<Json>(list) : std::nullopt;
}

// The readable form of the data, if it has exactly the form that its type promises.
std::optional<Json> FormatData(const RegistryValue& value) {
    switch (value.type) {
        case REG_DWORD:
            return FormatNumber<ULONG>(value.data);
        case REG_QWORD:
            return FormatNumber<ULONGLONG>(value.data);
        case REG_SZ:
        case REG_EXPAND_SZ:
            return FormatString(value.data);
        case REG_MULTI_SZ:
            return FormatStrings(value.data);
        default:
            return std::nullopt;
    }
}

Json FormatType(ULONG type) {
    for (const TypeName& row : kTypeNames) {
        if (row.type == type) {
            return row.name;
        }
    }
    return type;
}

Json FormatValue(const RegistryValue& value) {
    Json json = Json::object();
    json["type"] = FormatType(value.type);
    if (const std::optional<Json> data = FormatData(value)) {
        json["value"] = *data;
    } else {
        json["bytes"] = HexFromBytes(value.data.data(), value.data.size());
    }
    return json;
}
}  // namespace

NTSTATUS CheckRegistryPath(std::u16string_view path) {
    if (path.size() < kRegistryRoot.size() || !EqualIgnoringCase(path.substr(0, kRegistryRoot.size()), kRegistryRoot)) {
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    SIZE_T depth = 0;
    while (!path.empty()) {
        if (path[0] != u'\\' || ++depth > kRegistryDepthLimit) {
            return depth <= kRegistryDepthLimit ? STATUS_OBJECT_PATH_NOT_FOUND : STATUS_OBJECT_NAME_INVALID;
        }
        path.remove_prefix(1);
        const SIZE_T length = std::min(path.find(u'\\'), path.size());
        if (length == 0 || length > kRegistryNameLimit || !Utf8FromWideExactly(path.substr(0, length))) {
            return STATUS_OBJECT_NAME_INVALID;
        }
        if (depth == 1 && length != kRegistryRoot.size() - 1) {
            return STATUS_OBJECT_PATH_NOT_FOUND;
        }
        path.remove_prefix(length);
    }
    return STATUS_SUCCESS;
}

RegistryKey& AddRegistryKey(RegistryTree* tree, std::u16string_view path) {
    for (SIZE_T end = path.find(u'\\', 1); end != std::u16string_view::npos; end = path.find(u'\\', end + 1)) {
        const std::u16string_view ancestor = path.substr(0, end);
        tree->try_emplace(Upcased(ancestor), RegistryKey{std::u16string(ancestor), {}});
    }
    return tree->try_emplace(Upcased(path), RegistryKey{std::u16string(path), {}}).first->second;
}

std::variant<RegistryTree, std::string> ParseRegistry(std::string_view text) {
    if (text.size() > kRegistryFileLimit) {
        return "the file is longer than 16 MiB";
    }
    try {
        return ReadTree(ParseStrictly(text));
    } catch (const Complaint& complaint) {
        return complaint.text;
    } catch (const Json::exception& exception) {
        return std::string(exception.what());
    }
}

std::string FormatRegistry(const RegistryTree& tree) {
    Json keys = Json::object();
    for (const auto& [upcased, key] : tree) {
        const auto below = tree.lower_bound(upcased + u"\\");
        if (key.values.empty() && below != tree.end() && below->first.starts_with(upcased + u"\\")) {
            continue;  // It exists for what is below it.
        }
        Json values = Json::object();
        for (const auto& [upcasedName, value] : key.values) {
            // A value's name may hold what UTF-8 cannot carry; the calls that set values refuse such names.
            values[Utf8FromWide(value.name)] = FormatValue(value);
        }
        keys[Utf8FromWide(key.path)] = std::move(values);
    }
    return Json{{"format", kFormat}, {"keys", std::move(keys)}}.dump(4) + "\n";
}
}  // namespace nt
