#pragma once

#include <map>
#include <string>
#include <string_view>
#include <variant>

#include "nt/base.h"

// The registry's contents and their form in a file that a person can read and edit:
//
//     {
//         "format": 1,
//         "keys": {
//             "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\VrkFs\\Parameters": {
//                 "BaseFrameNumber": { "type": "REG_DWORD", "value": 0 },
//                 "DriveLetter0": { "type": "REG_SZ", "value": "P" },
//                 "Odd": { "type": "REG_SZ", "bytes": "5000" }
//             }
//         }
//     }
//
// REG_DWORD and REG_QWORD values are numbers, REG_SZ and REG_EXPAND_SZ strings (the terminator is added), REG_MULTI_SZ
// lists of strings. Data that does not have that form, and every other type (by its name or its number), is given as
// hexadecimal bytes. Keys above a named key exist without being named. Names differing only in case are one name.
namespace nt {
struct RegistryValue {
    std::u16string name;
    ULONG type = 0;
    std::string data;  // The bytes as the kernel hands them out.
};

struct RegistryKey {
    std::u16string path;                             // As first spelled.
    std::map<std::u16string, RegistryValue> values;  // By upcased name; the empty name is the key's default value.
};

// By upcased path. The ancestors of every key are keys too.
using RegistryTree = std::map<std::u16string, RegistryKey>;

inline constexpr SIZE_T kRegistryNameLimit = 255;         // Characters of one component of a path.
inline constexpr SIZE_T kRegistryDepthLimit = 32;         // Components of a path.
inline constexpr SIZE_T kRegistryValueNameLimit = 16383;  // Characters.
inline constexpr SIZE_T kRegistryDataLimit = 1 << 20;     // Bytes of one value.
inline constexpr SIZE_T kRegistryFileLimit = 16 << 20;    // Bytes of the file.
inline constexpr SIZE_T kRegistryKeyLimit = 4096;

// STATUS_OBJECT_NAME_INVALID, or success, for an absolute path of keys ("\Registry\...", no empty component, no
// trailing backslash). Anything not below \Registry is STATUS_OBJECT_PATH_NOT_FOUND.
NTSTATUS CheckRegistryPath(std::u16string_view path);

// Makes the key and its ancestors where they do not exist. The path has been checked.
RegistryKey& AddRegistryKey(RegistryTree* tree, std::u16string_view path);

// The tree, or a sentence that says what is wrong and where. No text can do more harm than that.
std::variant<RegistryTree, std::string> ParseRegistry(std::string_view text);

std::string FormatRegistry(const RegistryTree& tree);
}  // namespace nt
