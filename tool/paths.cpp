#include "tool/paths.h"

#include <algorithm>

#include "tool/text.h"

namespace tool {
namespace {

// An escape can stand for these, but they would turn one name into two, or end it early.
constexpr std::u16string_view kNeverInNames(u"\\\0", 2);

char Capital(char letter) {
    return letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter;
}

bool IsLetter(char character) {
    return Capital(character) >= 'A' && Capital(character) <= 'Z';
}

}  // namespace

std::optional<TypedPath> ParsePath(std::string_view typed, std::string& error) {
    TypedPath path;
    if (typed.empty()) {
        error = "a path on the drive is empty";
        return std::nullopt;
    }
    if (typed.size() >= 2 && typed[1] == ':' && IsLetter(typed[0])) {
        path.drive = Capital(typed[0]);
        typed.remove_prefix(2);
    }
    while (!typed.empty()) {
        const std::size_t end = std::min(typed.find_first_of("/\\"), typed.size());
        if (end > 0) {
            auto name = ParseName(typed.substr(0, end));
            if (!name) {
                error = "a path on the drive has to be UTF-8";
                return std::nullopt;
            }
            if (name->find_first_of(kNeverInNames) != name->npos) {
                error = "no name can contain what '" + std::string(typed.substr(0, end)) + "' stands for";
                return std::nullopt;
            }
            path.names.push_back(std::move(*name));
        }
        typed.remove_prefix(std::min(end + 1, typed.size()));
    }
    return path;
}

std::u16string DrivePath::Open() const {
    std::u16string path = {static_cast<char16_t>(drive), u':'};
    if (names.empty()) {
        path += u'\\';
    }
    for (const std::u16string& name : names) {
        path += u'\\' + name;
    }
    return path;
}

std::string DrivePath::Display() const {
    std::string path = {drive, ':'};
    if (names.empty()) {
        path += '/';
    }
    for (const std::u16string& name : names) {
        path += '/' + DisplayName(name);
    }
    return path;
}

DrivePath DrivePath::Child(std::u16string name) const {
    DrivePath child = *this;
    child.names.push_back(std::move(name));
    return child;
}

DrivePath DrivePath::Sibling(std::u16string name) const {
    DrivePath sibling = *this;
    sibling.names.back() = std::move(name);
    return sibling;
}

bool DrivePath::IsReserved() const {
    if (names.empty()) {
        return false;
    }
    std::u16string name = names.back();
    for (char16_t& unit : name) {
        unit = unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit - u'A' + u'a') : unit;
    }
    return name == u"." || name == u".." || (Depth() == kFileLevel && name == u"___port0___");
}

}  // namespace tool
