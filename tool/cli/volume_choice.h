// The volume that a command works on: the one of its path, or the station's only one when there is no path.
#pragma once

#include <functional>
#include <string>

#include "tool/session.h"

namespace tool {

int RunOnVolume(const CommonOptions& options, const Output& output, const std::string& path,
                const std::function<Result(Session&, const DrivePath&)>& work);

}  // namespace tool
