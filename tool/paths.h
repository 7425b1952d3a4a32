// Paths on a card's drive: "P:/RZV/VOLUME/FOLDER/CLIP", with either slash. The letter may be left out when the station
// has one card.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

// What the components of a path stand for, by their number.
enum Level : std::size_t { kRootLevel = 0, kTypeLevel = 1, kVolumeLevel = 2, kFolderLevel = 3, kFileLevel = 4 };

// A path as typed: slashes at its ends and doubled ones do not count.
struct TypedPath {
    std::optional<char> drive;  // capital letter
    std::vector<std::u16string> names;
};

// `error` says what is wrong with it when it is no path.
[[nodiscard]] std::optional<TypedPath> ParsePath(std::string_view typed, std::string& error);

// A path on a drive that is there.
struct DrivePath {
    char drive = 0;
    std::uint32_t card = 0;
    std::vector<std::u16string> names;

    [[nodiscard]] std::size_t Depth() const { return names.size(); }
    [[nodiscard]] std::u16string Open() const;  // as a create takes it: P:\RZV\VOLUME
    [[nodiscard]] std::string Display() const;  // as a person reads it: P:/RZV/VOLUME
    [[nodiscard]] DrivePath Child(std::u16string name) const;
    [[nodiscard]] DrivePath Sibling(std::u16string name) const;  // another name in the same place; not for the root
    // Nothing is to get the last name: every folder has the driver's command port under its name, in any case, and "."
    // and ".." mean other places to whoever types them. The driver itself takes dots for a name.
    [[nodiscard]] bool IsReserved() const;
};

}  // namespace tool
