// The volumes that a command works on.
#pragma once

#include <functional>
#include <string>

#include "tool/session.h"
#include "tool/volume_list.h"

namespace tool {

// Every volume of every card, those included that cannot be opened (VRKFS_VOLUME_HIDDEN). Ends with the first failure.
[[nodiscard]] Result ForEachVolume(Session& session,
                                   const std::function<Result(const DrivePath& path, const Volume& volume)>& work);

// On the volume of the path, or the station's only one when there is no path.
int RunOnVolume(const CommonOptions& options, const Output& output, const std::string& path,
                const std::function<Result(Session&, const DrivePath&)>& work);

}  // namespace tool
