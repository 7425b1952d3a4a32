// What the command port asks for: new clips, and how much room there is.
#pragma once

#include <chrono>
#include <string>

#include "service/card.h"

namespace service {

// A clip of black frames. What has been made of it is deleted again when it cannot be finished, or not within the time
// that is left. False with `problem` filled.
bool CreateClip(Card& card, const std::u16string& path, const VrkFsPortCreationParameters& wanted,
                std::chrono::steady_clock::time_point deadline, std::string& problem);

bool MeasureSpace(Card& card, const std::u16string& path, const VrkFsPortSpaceParameters& wanted,
                  VrkFsPortSpaceInfo& space, std::string& problem);

}  // namespace service
